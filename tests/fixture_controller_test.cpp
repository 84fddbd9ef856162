// The controller handle, its identity and geometry, the no-operation signal calls and what every
// call answers for a null handle.
#include <Brakwell.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "fixture.h"
#include "fixture/controller.h"
#include "support/log_capture.h"

namespace {

using testing_support::LogCapture;

class Controller : public ::testing::Test {
 protected:
  // Both wells with their boards and USB devices, so that the station start counts two wells.
  static void SetUpTestSuite() {
    sim::FixtureOptions options;
    options.dioModules.clear();
    fixture = new sim::Fixture(options);
    boards = &fixture->boards();
  }
  static void TearDownTestSuite() { delete fixture; }
  void SetUp() override {
    for (sim::Board* board : boards->all()) board->clear();
  }
  void TearDown() override {
    for (uint16_t word :
         {action_usb_signal, action_usb_power, action_uart_signal, action_battery_power,
          action_force_dfu, action_apple_id, action_conn_det_grounded, action_hi5_bs_grounded,
          action_conn_acc_apple_id}) {
      EXPECT_EQ(word, 0);
    }
    // Nothing here touches a board.
    for (sim::Board* board : boards->all()) EXPECT_EQ(board->received(), "") << board->site();
  }

  static inline sim::Fixture* fixture;
  static inline sim::Boards* boards;
  LogCapture log;
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
  EXPECT_EQ(log.syslog(),
            (std::vector<std::string>{"VELMORA: get_actuator_count for controller INDEX:7",
                                      "VELMORA: get_site_count for controller INDEX:7",
                                      "VELMORA: release_fixture_controller INDEX:7"}));
}

TEST_F(Controller, IdentityTexts) {
  FixtureController h{0, 8, 2, 4};
  EXPECT_STREQ(get_vendor(), "Velmora Technologies");
  EXPECT_STREQ(get_version(&h), "0.9");
  EXPECT_STREQ(get_version(nullptr), "UNKNOWN");
  EXPECT_EQ(log.syslog(),
            (std::vector<std::string>{"VELMORA: get_vendor, returning Velmora Technologies",
                                      "VELMORA: get_version, returning 0.9",
                                      "VELMORA: get_version, returning UNKNOWN"}));
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
  struct {
    const char* content;  // nullptr: no file
    const char* expected;
  } const cases[] = {
      {"  \tVEL-FX-0042 \r\n", "VEL-FX-0042"},
      {"SN 12\n\n", "SN 12"},
      {" \n\t ", ""},  // blanks only: an empty serial number, not an invalid file
      {"", "UNKNOWN"},
      {"VEL\xC3\xA9", "UNKNOWN"},  // not ASCII
      {nullptr, "UNKNOWN"},
  };
  for (const auto& c : cases) {
    std::remove(file.c_str());
    if (c.content) std::ofstream(file, std::ios::binary) << c.content;
    log.clear();
    EXPECT_STREQ(get_serial_number(&h), c.expected) << c.expected;
    std::vector<std::string> want = {"VELMORA: get_serial_number INDEX:1",
                                     "get_serial_number, serialNumberFileName is " + file};
    if (std::string(c.expected) == "UNKNOWN") want.push_back("Invalid Fixture Serial Number File");
    EXPECT_EQ(log.syslog(), want);
  }
  std::remove(file.c_str());
}

TEST_F(Controller, SiteArithmetic) {
  struct {
    int index, site;
    const char* uartPath;
    int uut, actuator;
  } const rows[] = {
      {0, 1, "/dev/cu.usbserial-RT000001", 1, 0},  {1, 1, "/dev/cu.usbserial-RT000005", 5, 1},
      {7, 1, "/dev/cu.usbserial-RT000001", 1, 0},  {0, 4, "/dev/cu.usbserial-RT000004", 4, 0},
      {0, 5, "/dev/cu.usbserial-RT000005", 5, 1},  {7, 8, "/dev/cu.usbserial-RT000008", 8, 1},
      {1, 5, "/dev/cu.usbserial-RT000009", 9, -1},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.uartPath);
    FixtureController h{r.index, 8, 2, 4};
    log.clear();
    EXPECT_STREQ(get_uart_path(&h, r.site), r.uartPath);
    EXPECT_EQ(actuator_for_site(&h, r.site), r.actuator);
    const std::string uut = "VELMORA: actuator_for_site for UUT:" + std::to_string(r.uut);
    EXPECT_EQ(log.syslog(),
              (std::vector<std::string>{uut, uut + ", returning " + std::to_string(r.actuator)}));
  }
  FixtureController h{0, 8, 2, 4};
  EXPECT_STREQ(get_uart_path(&h, 0), "error");
  EXPECT_STREQ(get_usb_location(&h, 0), "error");
  EXPECT_EQ(actuator_for_site(&h, 0), -1);
}

TEST_F(Controller, UsbLocationTable) {
  FixtureController second{1, 8, 2, 4};
  USBLocation[5] = "0x1220000";
  log.clear();
  EXPECT_STREQ(get_usb_location(&second, 2), "0x1220000");
  EXPECT_EQ(get_usb_location(&second, 3), nullptr);  // an unfilled slot
  // A site beyond the table is refused rather than read past its end.
  EXPECT_STREQ(get_usb_location(&second, 5), "error");
  EXPECT_EQ(log.syslog(),
            (std::vector<std::string>{"VELMORA: get_usb_location for UUT:5 is 0x1220000",
                                      "VELMORA: get_usb_location for UUT:6 is (null)"}));
  USBLocation[5] = nullptr;
}

// The sixteen calls that only log: they log the 1-based UUT, touch nothing and succeed.
using NoOp = std::function<int(FixtureController*, int site)>;
// clang-format off
#define SETTER(f) {[](FixtureController* h, int site) { return f(h, 1, site); }, #f}
#define GETTER(f) {[](FixtureController* h, int site) { return int(f(h, site)); }, #f}
const std::pair<NoOp, const char*> kNoOps[] = {
    SETTER(set_conn_acc_apple_id), SETTER(set_usb_signal), SETTER(set_uart_signal),
    SETTER(set_apple_id), SETTER(set_conn_det_grounded), SETTER(set_hi5_bs_grounded),
    GETTER(usb_power), GETTER(battery_power), GETTER(force_dfu), GETTER(usb_signal),
    GETTER(uart_signal), GETTER(apple_id), GETTER(conn_det_grounded), GETTER(hi5_bs_grounded),
    GETTER(dut_power), GETTER(is_board_detected)};
// clang-format on

TEST_F(Controller, SignalCallsLogAndSucceed) {
  FixtureController first{0, 8, 2, 4}, second{1, 8, 2, 4};
  std::vector<std::string> want;
  for (const auto& [call, name] : kNoOps) {
    const bool detect = std::string(name) == "is_board_detected";  // answers true
    EXPECT_EQ(call(&second, 2), detect ? 1 : 0) << name;
    EXPECT_EQ(call(&first, 0), detect ? 1 : 0) << name;
    want.push_back(std::string("VELMORA: ") + name + " for UUT:6");
    want.push_back(std::string("VELMORA: ") + name + " for UUT:0");
  }
  EXPECT_EQ(log.syslog(), want);
}

// A null handle gets the call's failure answer without being read: nothing is logged but init's
// line (the answers themselves are checked with the other bad input).
TEST_F(Controller, NullHandlesAreNotRead) {
  for (const auto& [call, name] : kNoOps)
    EXPECT_EQ(call(nullptr, 1), std::string(name) == "is_board_detected" ? 0 : -1) << name;
  for (auto sequence : {set_usb_power, set_battery_power, set_force_dfu, set_force_diags,
                        set_force_iboot, set_dut_power, set_led_state}) {
    EXPECT_EQ(sequence(nullptr, 0, 1), -1);
  }
  for (auto call : {reset, fixture_engage, fixture_disengage, fixture_close, fixture_open}) {
    EXPECT_EQ(call(nullptr), -1);
  }
  for (auto query :
       {is_fixture_engaged, is_fixture_disengaged, is_fixture_closed, is_fixture_open}) {
    EXPECT_FALSE(query(nullptr));
  }
  EXPECT_EQ(set_dut_power_all(nullptr, 1), -1);
  EXPECT_EQ(set_led_state_all(nullptr, 1), -1);
  EXPECT_STREQ(get_serial_number(nullptr), "UNKNOWN");
  EXPECT_STREQ(get_usb_location(nullptr, 1), "error");
  EXPECT_STREQ(get_uart_path(nullptr, 1), "error");
  EXPECT_EQ(get_site_count(nullptr) + get_actuator_count(nullptr) + actuator_for_site(nullptr, 1),
            -3);
  release_fixture_controller(nullptr);
  EXPECT_TRUE(log.syslog().empty());
  EXPECT_EQ(init(nullptr), -1);
  EXPECT_EQ(log.syslog(), std::vector<std::string>{"VELMORA: init..., invalid controller."});
}

TEST_F(Controller, PneumaticValveCallsPassTheWellOn) {
  // 011000: both buttons held, plate down, fixture open: the press cycle finishes at once.
  boards->site(1).script_status({"vel_fixture_status=011000 l_sw\n"});
  EXPECT_TRUE(PneumaticValveOn(0, 1.0f));
  EXPECT_TRUE(PneumaticValveAutoOn(1, 2.5f));
  EXPECT_TRUE(log.has("VELMORA: PneumaticValveOn, WELL:1"));
  EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveOn WELL:1"));
  EXPECT_TRUE(log.has("VELMORA: PneumaticValveAutoOn, WELL:2"));
  EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveAutoOn WELL:2"));
  boards->site(1).set_responder(nullptr);
  // The press lines belong to the station layer; let them all arrive, then forget them.
  boards->site(1).wait_lines(2, 1.0);
  boards->site(5).wait_lines(3, 1.0);
  for (sim::Board* board : boards->all()) board->clear();
}

}  // namespace
