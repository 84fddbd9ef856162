// The controller handle: its start, identity and geometry, the calls that only log, and what
// every call answers for a null handle.
#include <Brakwell.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <type_traits>

#include "fixture.h"
#include "fixture/controller.h"
#include "support/log_capture.h"

namespace {

using Lines = std::vector<std::string>;

class Controller : public ::testing::Test {
 protected:
  // Both wells with their boards and USB devices, so that the station start counts two wells.
  // Every suite of the program shares it.
  static void SetUpTestSuite() {
    if (fixture) return;
    sim::FixtureOptions options;
    options.dioModules.clear();
    fixture = new sim::Fixture(options);
  }
  void SetUp() override {
    for (sim::Board* board : fixture->boards().all()) board->clear();
  }
  // Nothing here touches a board or a signal flag.
  void TearDown() override {
    for (uint16_t word :
         {action_usb_signal, action_usb_power, action_uart_signal, action_battery_power,
          action_force_dfu, action_apple_id, action_conn_det_grounded, action_hi5_bs_grounded,
          action_conn_acc_apple_id}) {
      EXPECT_EQ(word, 0);
    }
    for (sim::Board* board : fixture->boards().all()) {
      EXPECT_EQ(board->received(), "") << board->site();
    }
  }

  static inline sim::Fixture* fixture;
  testing_support::LogCapture log;
};

TEST_F(Controller, CreateRecordsTheStationAndRelease) {
  dioOn1 = dioOn2 = true;  // the station start clears both before they are read
  FixtureController* h = create_fixture_controller(7);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(log.syslog().front(), "VELMORA: create_fixture_controller, index is 7");
  EXPECT_EQ(g_WellNumber, 2u);
  EXPECT_EQ(h->index, 7);
  EXPECT_EQ(h->siteCount, 8);
  EXPECT_EQ(h->wellCount, 2);
  EXPECT_EQ(h->boardCode, 4);
  log.clear();
  EXPECT_EQ(get_actuator_count(h), 2);
  EXPECT_EQ(get_site_count(h), 8);
  release_fixture_controller(h);
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: get_actuator_count for controller INDEX:7",
                                 "VELMORA: get_site_count for controller INDEX:7",
                                 "VELMORA: release_fixture_controller INDEX:7"}));
}

TEST_F(Controller, IdentityTexts) {
  FixtureController h{0, 8, 2, 4};
  EXPECT_STREQ(get_vendor(), "Velmora Technologies");
  EXPECT_STREQ(get_version(&h), "0.9");
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: get_vendor, returning Velmora Technologies",
                                 "VELMORA: get_version, returning 0.9"}));
  log.clear();
  for (auto [status, text] :
       {std::pair{0, "SUCCESS"}, {-1, "FAILURE"}, {1, "UNKNOWN"}, {-2, "UNKNOWN"}}) {
    EXPECT_STREQ(get_error_message(status), text) << status;
  }
  EXPECT_TRUE(log.syslog().empty());
}

TEST_F(Controller, SerialNumberFileBesideTheExecutable) {
  const std::filesystem::path dir = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string file = (dir / "FixtureSerialNumber.txt").string();
  FixtureController h{1, 8, 2, 4};
  // File content (nullptr: no file), then the answer. Blanks only are an empty serial number.
  for (auto [content, expected] : {std::pair{"  \tVEL-FX-0042 \r\n", "VEL-FX-0042"},
                                   {"SN 12\n\n", "SN 12"},
                                   {" \n\t ", ""},
                                   {"", "UNKNOWN"},
                                   {"VEL\xC3\xA9", "UNKNOWN"},
                                   {nullptr, "UNKNOWN"}}) {
    std::remove(file.c_str());
    if (content) std::ofstream(file, std::ios::binary) << content;
    log.clear();
    EXPECT_STREQ(get_serial_number(&h), expected) << expected;
    Lines want = {"VELMORA: get_serial_number INDEX:1",
                  "get_serial_number, serialNumberFileName is " + file};
    if (std::string(expected) == "UNKNOWN") want.push_back("Invalid Fixture Serial Number File");
    EXPECT_EQ(log.syslog(), want);
  }
  std::remove(file.c_str());
}

TEST_F(Controller, SitesOfEachWell) {
  struct {
    int index, site, uut, actuator;
  } const rows[] = {{0, 1, 1, 0}, {1, 1, 5, 1}, {7, 1, 1, 0}, {0, 4, 4, 0},
                    {0, 5, 5, 1}, {7, 8, 8, 1}, {1, 5, 9, -1}};
  for (const auto& r : rows) {
    const std::string uut = "UUT:" + std::to_string(r.uut);
    SCOPED_TRACE(uut);
    FixtureController h{r.index, 8, 2, 4};
    log.clear();
    EXPECT_EQ(get_uart_path(&h, r.site), "/dev/cu.usbserial-RT00000" + std::to_string(r.uut));
    EXPECT_EQ(actuator_for_site(&h, r.site), r.actuator);
    EXPECT_EQ(log.syslog(), (Lines{"VELMORA: actuator_for_site for " + uut,
                                   "VELMORA: actuator_for_site for " + uut + ", returning " +
                                       std::to_string(r.actuator)}));
  }
  FixtureController second{1, 8, 2, 4};
  USBLocation[5] = "0x1220000";
  log.clear();
  EXPECT_STREQ(get_usb_location(&second, 2), "0x1220000");
  EXPECT_EQ(get_usb_location(&second, 3), nullptr);     // an unfilled slot
  EXPECT_STREQ(get_usb_location(&second, 5), "error");  // beyond the table, not read past it
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: get_usb_location for UUT:5 is 0x1220000",
                                 "VELMORA: get_usb_location for UUT:6 is (null)"}));
  USBLocation[5] = nullptr;
}

// A handle call, given `site` for each of its number arguments, with its answer as text.
using Call = std::function<std::string(FixtureController*, int site)>;
template <typename R, typename... Numbers>
Call text_of(R (*call)(FixtureController*, Numbers...)) {
  return [call](FixtureController* h, int site) -> std::string {
    if constexpr (std::is_void_v<R>) {
      call(h, Numbers(site)...);
      return "nothing";
    } else {
      const R answer = call(h, Numbers(site)...);
      if constexpr (std::is_same_v<R, bool>) return answer ? "true" : "false";
      if constexpr (std::is_pointer_v<R>) return answer ? answer : "NULL";
      if constexpr (std::is_same_v<R, int>) return std::to_string(answer);
    }
  };
}

struct Row {
  std::string name;
  Call call;
  std::string null;  // the answer to a null handle
  Lines log = {};    // what that logs
};
void PrintTo(const Row& r, std::ostream* out) { *out << r.name; }

// Every handle call in the header's order and grouping, with the answer the header gives it for
// a null handle.
#define ROW(call, ...) \
  Row { #call, text_of(call), __VA_ARGS__ }
// clang-format off
const Row kCalls[] = {
    ROW(release_fixture_controller, "nothing"), ROW(get_serial_number, "UNKNOWN"),
    ROW(get_version, "UNKNOWN", {"VELMORA: get_version, returning UNKNOWN"}),
    ROW(get_site_count, "-1"), ROW(get_actuator_count, "-1"), ROW(get_usb_location, "error"),
    ROW(get_uart_path, "error"), ROW(actuator_for_site, "-1"),
    ROW(init, "-1", {"VELMORA: init..., invalid controller."}), ROW(reset, "-1"),
    ROW(fixture_engage, "-1"), ROW(fixture_disengage, "-1"), ROW(fixture_close, "-1"),
    ROW(fixture_open, "-1"), ROW(is_fixture_engaged, "false"), ROW(is_fixture_disengaged, "false"),
    ROW(is_fixture_closed, "false"), ROW(is_fixture_open, "false"), ROW(set_led_state, "-1"),
    ROW(set_led_state_all, "-1"), ROW(set_usb_power, "-1"), ROW(set_battery_power, "-1"),
    ROW(set_force_dfu, "-1"), ROW(set_force_diags, "-1"), ROW(set_force_iboot, "-1"),
    ROW(set_dut_power, "-1"), ROW(set_dut_power_all, "-1"),
    // The signal calls: with a handle they log the UUT and succeed.
    ROW(set_conn_acc_apple_id, "-1"), ROW(set_usb_signal, "-1"), ROW(set_uart_signal, "-1"),
    ROW(set_apple_id, "-1"), ROW(set_conn_det_grounded, "-1"), ROW(set_hi5_bs_grounded, "-1"),
    ROW(usb_power, "-1"), ROW(battery_power, "-1"), ROW(force_dfu, "-1"), ROW(usb_signal, "-1"),
    ROW(uart_signal, "-1"), ROW(apple_id, "-1"), ROW(conn_det_grounded, "-1"),
    ROW(hi5_bs_grounded, "-1"), ROW(dut_power, "-1"), ROW(is_board_detected, "false"),
};
// clang-format on
#undef ROW

struct NullHandle : Controller, ::testing::WithParamInterface<Row> {};
TEST_P(NullHandle, Answers) {
  EXPECT_EQ(GetParam().call(nullptr, 1), GetParam().null);
  EXPECT_EQ(log.syslog(), GetParam().log);
}
INSTANTIATE_TEST_SUITE_P(Calls, NullHandle, ::testing::ValuesIn(kCalls),
                         [](const auto& info) { return info.param.name; });

TEST_F(Controller, SignalCallsLogAndSucceed) {
  FixtureController first{0, 8, 2, 4}, second{1, 8, 2, 4};
  Lines want;
  for (auto r = std::find_if(std::begin(kCalls), std::end(kCalls),
                             [](const Row& r) { return r.name == "set_conn_acc_apple_id"; });
       r != std::end(kCalls); ++r) {
    const std::string ok = r->name == "is_board_detected" ? "true" : "0";
    EXPECT_EQ(r->call(&second, 2), ok) << r->name;
    EXPECT_EQ(r->call(&first, 0), ok) << r->name;  // site 0 too: nothing is reached
    want.push_back("VELMORA: " + r->name + " for UUT:6");
    want.push_back("VELMORA: " + r->name + " for UUT:0");
  }
  EXPECT_EQ(log.syslog(), want);
}

TEST_F(Controller, PneumaticValveCallsPassTheWellOn) {
  // 011000: both buttons held, plate down, fixture open: the press cycle finishes at once.
  fixture->boards().site(1).script_status({"vel_fixture_status=011000 l_sw\n"});
  EXPECT_TRUE(PneumaticValveOn(0, 1.0f));
  EXPECT_TRUE(PneumaticValveAutoOn(1, 2.5f));
  for (const char* line :
       {"VELMORA: PneumaticValveOn, WELL:1", "VELMORA: SOC_PneumaticValveOn WELL:1",
        "VELMORA: PneumaticValveAutoOn, WELL:2", "VELMORA: SOC_PneumaticValveAutoOn WELL:2"}) {
    EXPECT_TRUE(log.has(line)) << line;
  }
  fixture->boards().site(1).set_responder(nullptr);
  // The press lines belong to the station layer; let them all arrive, then forget them.
  fixture->boards().site(1).wait_lines(2, 1.0);
  fixture->boards().site(5).wait_lines(3, 1.0);
  for (sim::Board* board : fixture->boards().all()) board->clear();
}

}  // namespace
