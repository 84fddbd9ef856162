// The controller against a virtual station: the handle calls and the sequences. Pauses are timed
// from the outcome line the calling thread logs right after each write.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/station_fixture.h"

namespace {

using testing_support::closed;
using testing_support::Lines;
using testing_support::StationFixture;

constexpr double S = brakwell::station::kLinePause;
constexpr double kSlack = 0.4;  // late wake-ups on a loaded machine; never early ones

struct Write {
  int uut;  // 1-based, as logged
  std::string command;
  double pause = 0;   // expected: the least time before the next write
  bool ok = true;     // "!name": a failed write
  bool link = false;  // "~name": sent by the board link, which logs no outcome line
  double time = 0;    // seen: when its outcome line was logged
  bool operator==(const Write& o) const {
    return uut == o.uut && command == o.command && ok == o.ok;
  }
};
using Writes = std::vector<Write>;
std::ostream& operator<<(std::ostream& out, const Write& w) {
  return out << w.uut << ":" << (w.ok ? "" : "!") << w.command.substr(0, w.command.find('\n'));
}

// One UUT's lines and the pause after each: "vusb_off S, vbatt_off L" (pauses 0, S, 2S, L = 1 s).
Writes seq(int uut, const std::string& steps) {
  Writes out;
  std::istringstream in(steps);
  std::string name, pause;
  while (in >> name >> pause) {
    if (pause.back() == ',') pause.pop_back();
    const bool ok = name[0] != '!', link = name[0] == '~';
    const double seconds = pause == "L" ? 1.0 : pause == "2S" ? 2 * S : pause == "S" ? S : 0;
    out.push_back({uut, "vel_" + name.substr(ok && !link ? 0 : 1) + "\n", seconds, ok, link});
  }
  return out;
}
Writes operator+(Writes a, const Writes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// The same steps on the four UUTs from `first`, one UUT after the other.
Writes four(int first, const std::string& steps, Writes (*each)(int, const std::string&) = seq) {
  Writes w;
  for (int uut = first; uut < first + 4; ++uut) w = w + each(uut, steps);
  return w;
}

// A boot mode: the power-off, then its steps for ON or OFF.
const std::string kPowerOff = "vusb_off S, batt_supercap_disconn S, vbatt_off L";
// clang-format off
const std::map<std::string, std::string> kBootSteps = {
    {"dfu ON", "uart_on S, forcedfu_on S, hi5_enable S, hi5_enable S, hi5_enter_diag S, accid_on S,"
               " dfu_host_conn S, set_vbatt_4100 S, vbatt_on S, batt_supercap_conn S, vusb_on S"},
    {"dfu OFF", "uart_off S, forcedfu_off S, hi5_disable S, hi5_enable S, hi5_enter_diag S,"
                " accid_off S, dfu_host_conn 2S, vbatt_off S, batt_supercap_disconn S, vusb_off S"},
    {"diags ON", "uart_on S, forcedfu_off S, hi5_enable 0, hi5_enable S, hi5_enter_diag S,"
                 " accid_on S, set_vbatt_4100 S, vbatt_on S, batt_supercap_conn S, vusb_on S"},
    {"diags OFF", "uart_off S, forcedfu_on S, hi5_disable 0, hi5_enable S, hi5_enter_diag S,"
                  " accid_off 2S, vbatt_off S, batt_supercap_disconn S, vusb_off S"},
    {"iboot ON", "uart_on S, forcedfu_off S, hi5_enable S, hi5_enable 0, hi5_enter_recovery S,"
                 " accid_on S, dfu_host_conn S, set_vbatt_4100 S, vbatt_on S, batt_supercap_conn S,"
                 " vusb_on 0"},
    {"iboot OFF", "uart_off S, forcedfu_on S, hi5_disable S, hi5_enable 0, hi5_enter_recovery S,"
                  " accid_off S, dfu_host_conn 2S, vbatt_off S, batt_supercap_disconn S,"
                  " vusb_off 0"},
};
// clang-format on
Writes boot(const std::string& mode, int u, bool on) {
  return seq(u, kPowerOff + ", " + kBootSteps.at(mode + (on ? " ON" : " OFF")));
}
const std::string kPowerOn =
    "hi5_enable 0, hi5_enable 0, hi5_enter_recovery S, accid_on S, set_vbatt_4100 S, vbatt_on";
// set_dut_power_all: each UUT's supercap line goes to the UUT before it (u - 1); on the first
// well that is index -1, a failed write that ends the call. `steps`: "ON", "OFF" or the failure.
Writes power_all(int u, const std::string& steps) {
  if (steps == "ON")
    return seq(u, kPowerOn + " S") + power_all(u, "batt_supercap_conn") + seq(u, "vusb_on 0");
  if (steps == "OFF")
    return seq(u, "vusb_off S") + power_all(u, "batt_supercap_disconn") + seq(u, "vbatt_off 0");
  return seq(u - 1, steps + (u == 1 ? " 0" : " S"));
}

// The station's outcome lines, one per command written, each with the time it was logged.
Writes writes(const testing_support::LogCapture& log) {
  static const std::regex outcome(
      R"(VELMORA: SOC_\w+, UUT:(-?\d+), (Successfully wr(?:ite|ote)|Failed to write) ([\s\S]*))");
  Writes out;
  std::smatch m;
  for (const auto& [time, text] : log.timed()) {
    if (std::regex_match(text, m, outcome)) {
      out.push_back({std::stoi(m[1]), m[3], 0, m[2] != "Failed to write", false, time});
    }
  }
  return out;
}

// Own log lines without "VELMORA: "; least time by default the sum of all pauses.
struct Row {
  std::string name;
  std::function<int()> call;
  Lines logs;
  Writes writes;
  int result = 0;
  double least = -1;
};

void PrintTo(const Row& r, std::ostream* out) { *out << r.name; }

template <typename Call, typename... Args>
std::function<int()> on(int well, Call call, Args... args) {
  return [=] { return int(call(StationFixture::wells[well], args...)); };
}
// Status 43: buttons released, plate down, fixture closed.
std::function<int()> at_43(bool (*query)(FixtureController*)) {
  return [query] {
    StationFixture::board(5).script_status({testing_support::status_reply(43)});
    return int(query(StationFixture::wells[1]));
  };
}

struct Calls : StationFixture, ::testing::WithParamInterface<Row> {};
TEST_P(Calls, Row) {
  const Row& r = GetParam();
  double least = 0;
  Writes outcomes;
  std::map<int, std::string> wire;
  for (const auto& w : r.writes) {
    least += w.pause;
    if (!w.link) outcomes.push_back(w);
    if (w.ok) wire[w.uut] += w.command;
  }
  if (r.least >= 0) least = r.least;
  EXPECT_EQ(testing_support::takes(least, least + kSlack, r.call), r.result);
  const std::string word = r.logs.front().substr(0, r.logs.front().find_first_of(" ,"));
  Lines own;
  for (const auto& [time, text] : log.timed("VELMORA: " + word)) own.push_back(text.substr(9));
  EXPECT_EQ(own, r.logs);
  const Writes seen = writes(log);
  EXPECT_EQ(seen, outcomes);
  for (size_t i = 0; i + 1 < std::min(seen.size(), outcomes.size()); ++i) {
    EXPECT_GE(seen[i + 1].time - seen[i].time, outcomes[i].pause) << "after write " << i;
  }
  expect_wire(wire, 0);
}

const std::string kLed = "set_led_state for UUT:", kAll = "set_led_state_all for WELL:",
                  kPower = "set_dut_power with POWER_STATE:",
                  kPowerAll = "set_dut_power_all with POWER_STATE:";
const Writes kStatus = seq(5, "~fixture_status 0");
// clang-format off
const Row kRows[] = {
    {"dfu_off", on(0, set_force_dfu, 1, 1), {"set_force_dfu OFF for UUT:1"}, boot("dfu", 1, 0)},
    {"dfu_on", on(1, set_force_dfu, 0, 3), {"set_force_dfu ON for UUT:7"}, boot("dfu", 7, 1)},
    {"diags_off", on(1, set_force_diags, 1, 1), {"set_force_diags OFF for UUT:5"},
     boot("diags", 5, 0)},
    {"diags_on_any", on(1, set_force_diags, -1, 4), {"set_force_diags ON for UUT:8"},
     boot("diags", 8, 1)},
    {"iboot_off", on(0, set_force_iboot, 1, 3), {"set_force_iboot OFF for UUT:3"},
     boot("iboot", 3, 0)},
    {"iboot_on", on(1, set_force_iboot, 0, 2), {"set_force_iboot ON for UUT:6"},
     boot("iboot", 6, 1)},
    {"power_off", on(1, set_dut_power, 1, 2), {kPower + "1 for UUT:6"}, seq(6, kPowerOff)},
    {"power_on_any", on(1, set_dut_power, 2, 3), {kPower + "2 for UUT:7"},
     seq(7, kPowerOn + " 0, batt_supercap_conn S, vusb_on 0")},
    {"usb_power_off", on(0, set_usb_power, 1, 2), {"set_usb_power, UUT2"}, seq(2, "vusb_off 0")},
    {"usb_power_on", on(1, set_usb_power, 2, 1), {"set_usb_power, UUT5"}, seq(5, "vusb_on 0")},
    {"battery_off", on(1, set_battery_power, 1, 4), {"set_battery_power, UUT:8"},
     seq(8, "vbatt_off 0")},
    {"battery_on", on(0, set_battery_power, -1, 3), {"set_battery_power, UUT:3"},
     seq(3, "vbatt_on 0")},
    {"all_off", on(1, set_dut_power_all, 1), {kPowerAll + "1 for WELL:2"},
     four(5, "OFF", power_all)},
    {"all_on", on(1, set_dut_power_all, 0), {kPowerAll + "0 for WELL:2"}, four(5, "ON", power_all)},
    {"all_off_well1", on(0, set_dut_power_all, 1), {kPowerAll + "1 for WELL:1"},
     seq(1, "vusb_off S") + power_all(1, "!batt_supercap_disconn"), -1},
    {"all_on_well1", on(0, set_dut_power_all, 2), {kPowerAll + "2 for WELL:1"},
     seq(1, kPowerOn + " S") + power_all(1, "!batt_supercap_conn"), -1},
    // OFF and INPROGRESS act on the well's run LED, through the well's first port.
    {"led_off", on(1, set_led_state, 0, 3), {kLed + "7", kLed + "7, OFF"},
     seq(5, "~run_led_off 0")},
    {"led_pass", on(1, set_led_state, 1, 4), {kLed + "8", kLed + "8, PASS"},
     seq(8, "fail_led_off 0, pass_led_on 0")},
    {"led_fail", on(0, set_led_state, 2, 4), {kLed + "4", kLed + "4, FAIL"},
     seq(4, "pass_led_off 0, fail_led_on 0")},
    {"led_inprogress", on(0, set_led_state, 3, 1), {kLed + "1", kLed + "1, INPROGRESS"},
     seq(1, "~run_led_on 0")},
    {"led_other_state", on(1, set_led_state, -1, 3), {kLed + "7"}, {}},
    {"led_all_pass", on(1, set_led_state_all, 1), {kAll + "2"}, four(5, "pass_led_on S")},
    // Every state but OFF, PASS and INPROGRESS lights the fail LEDs.
    {"led_all_other", on(0, set_led_state_all, 5), {kAll + "1"}, four(1, "fail_led_on S")},
    {"led_all_off", on(0, set_led_state_all, 0), {kAll + "1", kAll + "1, OFF"},
     seq(1, "~run_led_off 0")},
    {"led_all_inprogress", on(1, set_led_state_all, 3), {kAll + "2", kAll + "2, INPROGRESS"},
     seq(5, "~run_led_on 0")},
    {"reset", on(1, reset), {"resetting controller INDEX:1"}, four(5, "dfu_reset S")},
    {"engage", on(0, fixture_engage), {"fixture_engage, WELL:1"}, four(1, "~pne_down S")},
    {"disengage", on(1, fixture_disengage), {"fixture_disengage, WELL:2"}, four(5, "~pne_up S")},
    {"close", on(0, fixture_close), {"fixture_close, WELL:1"}, four(1, "~pne_in S")},
    // The well's UUTs reset, 1.0 s, then the tray out on each of its ports.
    {"open", on(1, fixture_open), {"fixture_open, WELL:2"},
     four(5, "dfu_reset S") + four(5, "~pne_out S"), 0, 1.0 + 8 * S},
    {"is_engaged", at_43(is_fixture_engaged), {"is_fixture_engage for WELL:2"}, kStatus, 1, 0.31},
    {"is_disengaged", at_43(is_fixture_disengaged), {"is_fixture_disengage for WELL:2"},
     kStatus, 0, 0.31},
    {"is_closed", at_43(is_fixture_closed), {"is_fixture_closed for WELL:2"}, kStatus, 1, 0.31},
    {"is_open", at_43(is_fixture_open), {"is_fixture_opened for WELL:2"}, kStatus, 0, 0.31},
    // Site 2's port closed: a sequence stops at its first failed write, the LEDs of the well at
    // theirs; press moves never report a failed site.
    {"dfu_closed_site", [] { return closed({1}, on(0, set_force_dfu, 0, 2)); },
     {"set_force_dfu ON for UUT:2"}, seq(2, "!vusb_off 0"), -1},
    {"led_all_closed_site", [] { return closed({1}, on(0, set_led_state_all, 1)); },
     {kAll + "1"}, seq(1, "pass_led_on S") + seq(2, "!pass_led_on 0"), -1, 2 * S},
    {"engage_closed_site", [] { return closed({1}, on(0, fixture_engage)); },
     {"fixture_engage, WELL:1"},
     seq(1, "~pne_down S") + seq(3, "~pne_down S") + seq(4, "~pne_down S"), 0, 4 * S},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Sequences, Calls, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return info.param.name; });

// Init with the second UUT's port closed: it stops at that UUT's LEDs after its full pauses.
TEST_F(StationFixture, AFailedSiteStopsInitAtItsLeds) {
  EXPECT_EQ(testing_support::takes(5.0, 5.0 + kSlack,
                                   [] { return closed({1}, [] { return init(wells[0]); }); }),
            -1);
  const auto logged = log.syslog();
  EXPECT_EQ(logged.front(), "VELMORA: initialising controller INDEX:0");
  EXPECT_EQ(logged.back(), "VELMORA: SOC_PassLed, UUT:2, Failed to write vel_pass_led_off\n");
  // The first UUT's LEDs go off, the second's pass LED fails, the later UUTs' stay untouched.
  const std::string press = "vel_dfu_reset\nvel_pne_up\nvel_pne_out\n";
  expect_wire({{1, press + "vel_pass_led_off\nvel_fail_led_off\n"}, {3, press}, {4, press}});
  // 3.0 s after the reset the press goes up, 2.0 s later the tray out (0.01 s before each line).
  const auto reset = log.timed("VELMORA: SOC_Reset, UUT:");
  const auto up = log.timed("VELMORA: Successfully sent vel_pne_up");
  const auto out = log.timed("VELMORA: Successfully sent vel_pne_out");
  ASSERT_FALSE(reset.empty() || up.empty() || out.empty());
  EXPECT_GE(up.front().first - reset.back().first, 3.0 + S);
  EXPECT_GE(out.front().first - up.back().first, 2.0 + S);
}

// The handle calls below touch no board and no signal flag.
struct Handle : StationFixture {
  void TearDown() override {
    EXPECT_EQ(action_usb_signal | action_usb_power | action_uart_signal | action_battery_power |
                  action_force_dfu | action_apple_id | action_conn_det_grounded |
                  action_hi5_bs_grounded | action_conn_acc_apple_id,
              0);
    expect_wire({}, 0);
  }
};

TEST_F(Handle, CreateIdentityAndRelease) {
  dioOn1 = dioOn2 = true;  // the station start clears both before they are read
  FixtureController* h = create_fixture_controller(7);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(log.syslog().front(), "VELMORA: create_fixture_controller, index is 7");
  EXPECT_EQ(
      (std::vector<int>{h->index, h->siteCount, h->wellCount, h->boardCode, int(g_WellNumber)}),
      (std::vector<int>{7, 8, 2, 4, 2}));
  log.clear();
  EXPECT_EQ(get_actuator_count(h), 2);
  EXPECT_EQ(get_site_count(h), 8);
  EXPECT_STREQ(get_vendor(), "Velmora Technologies");
  EXPECT_STREQ(get_version(h), "0.9");
  for (auto [status, text] :
       {std::pair{0, "SUCCESS"}, {-1, "FAILURE"}, {1, "UNKNOWN"}, {-2, "UNKNOWN"}}) {
    EXPECT_STREQ(get_error_message(status), text) << status;
  }
  release_fixture_controller(h);
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: get_actuator_count for controller INDEX:7",
                                 "VELMORA: get_site_count for controller INDEX:7",
                                 "VELMORA: get_vendor, returning Velmora Technologies",
                                 "VELMORA: get_version, returning 0.9",
                                 "VELMORA: release_fixture_controller INDEX:7"}));
}

TEST_F(Handle, SerialNumberFileBesideTheExecutable) {
  const std::filesystem::path dir = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string file = (dir / "FixtureSerialNumber.txt").string(), large(5000, '7');
  const auto text = [&file](const std::string& content) {
    return [&file, content] { std::ofstream(file, std::ios::binary) << content; };
  };
  FixtureController h{1, 8, 2, 4};
  // How the file is made (none: no file), then the answer. Blanks only are an empty serial
  // number; a FIFO must not hang the call, /dev/zero not exhaust memory; a large file is not read.
  const std::pair<std::function<void()>, const char*> files[] = {
      {text("  \tVEL-FX-0042 \r\n"), "VEL-FX-0042"},
      {text("SN 12\n\n"), "SN 12"},
      {text(" \n\t "), ""},
      {text(""), "UNKNOWN"},
      {text("VEL\xC3\xA9"), "UNKNOWN"},
      {nullptr, "UNKNOWN"},
      {[&] { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); }, "UNKNOWN"},
      {[&] { ASSERT_EQ(symlink("/dev/zero", file.c_str()), 0); }, "UNKNOWN"},
      {text(large), "UNKNOWN"}};
  int row = 0;
  for (const auto& [make, expected] : files) {
    SCOPED_TRACE(row++);
    std::remove(file.c_str());
    if (make) make();
    log.clear();
    EXPECT_STREQ(get_serial_number(&h), expected);
    Lines want = {"VELMORA: get_serial_number INDEX:1",
                  "get_serial_number, serialNumberFileName is " + file};
    if (std::string(expected) == "UNKNOWN") want.push_back("Invalid Fixture Serial Number File");
    EXPECT_EQ(log.syslog(), want);
  }
  std::remove(file.c_str());
}

#define NAMED(call) std::pair<const char*, decltype(&call)>(#call, &call)
// A null handle: every call answers as the header says; only get_version and init log. The
// signal calls log the UUT and succeed with a handle, for site 0 too: nothing is reached.
TEST_F(Handle, NullHandleAndSignalCalls) {
  release_fixture_controller(nullptr);
  EXPECT_EQ((Lines{get_serial_number(nullptr), get_version(nullptr), get_usb_location(nullptr, 1),
                   get_uart_path(nullptr, 1)}),
            (Lines{"UNKNOWN", "UNKNOWN", "error", "error"}));
  // Eighteen calls answer -1, then the four press queries false.
  std::vector<int> answers(18, -1);
  answers.resize(22, 0);
  // clang-format off
  EXPECT_EQ((std::vector<int>{
      get_site_count(nullptr), get_actuator_count(nullptr), init(nullptr), reset(nullptr),
      fixture_engage(nullptr), fixture_disengage(nullptr), fixture_close(nullptr),
      fixture_open(nullptr), actuator_for_site(nullptr, 1), set_led_state_all(nullptr, 1),
      set_dut_power_all(nullptr, 1), set_led_state(nullptr, 1, 1), set_usb_power(nullptr, 1, 1),
      set_battery_power(nullptr, 1, 1), set_force_dfu(nullptr, 1, 1),
      set_force_diags(nullptr, 1, 1), set_force_iboot(nullptr, 1, 1), set_dut_power(nullptr, 1, 1),
      is_fixture_engaged(nullptr), is_fixture_disengaged(nullptr), is_fixture_closed(nullptr),
      is_fixture_open(nullptr)}), answers);
  // clang-format on
  Lines want = {"VELMORA: get_version, returning UNKNOWN", "VELMORA: init..., invalid controller."};
  const auto check = [&](const std::string& name, auto call) {
    EXPECT_EQ(call(nullptr, 2), -1) << name;
    EXPECT_EQ(call(wells[1], 2), 0) << name;
    EXPECT_EQ(call(wells[0], 0), 0) << name;
    want.insert(want.end(), {"VELMORA: " + name + " for UUT:6", "VELMORA: " + name + " for UUT:0"});
  };
  for (auto [name, call] :
       {NAMED(set_conn_acc_apple_id), NAMED(set_usb_signal), NAMED(set_uart_signal),
        NAMED(set_apple_id), NAMED(set_conn_det_grounded), NAMED(set_hi5_bs_grounded)}) {
    check(name, [call](FixtureController* h, int site) { return call(h, 1, site); });
  }
  for (auto [name, call] : {NAMED(usb_power), NAMED(battery_power), NAMED(force_dfu),
                            NAMED(usb_signal), NAMED(uart_signal), NAMED(apple_id),
                            NAMED(conn_det_grounded), NAMED(hi5_bs_grounded), NAMED(dut_power)}) {
    check(name, call);
  }
  check("is_board_detected",
        [](FixtureController* h, int site) { return is_board_detected(h, site) ? 0 : -1; });
  EXPECT_EQ(log.syslog(), want);
}
#undef NAMED

TEST_F(StationFixture, PneumaticValveCallsPassTheWellOn) {
  // 011000: both buttons held, plate down, fixture open: the press cycle finishes at once.
  board(1).script_status({"vel_fixture_status=011000 l_sw\n"});
  EXPECT_TRUE(PneumaticValveOn(0, 1.0f));
  EXPECT_TRUE(PneumaticValveAutoOn(1, 2.5f));
  EXPECT_TRUE(log.has("VELMORA: PneumaticValveOn, WELL:1"));
  EXPECT_TRUE(log.has("VELMORA: PneumaticValveAutoOn, WELL:2"));
  // Let the press lines arrive before the next test.
  board(1).wait_lines(2, 1.0);
  board(5).wait_lines(3, 1.0);
}

}  // namespace
