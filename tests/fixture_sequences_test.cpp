// The controller's sequences against the virtual fixture: power and boot modes, LEDs, press moves
// and sensors, init. Checked: each board's lines, the order and UUT of every write and the pause
// after it (timed from the outcome line the calling thread logs right after each write), the
// call's own log lines, totals, and where a failure stops a sequence.
#include <regex>
#include <sstream>
#include <thread>

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
  double pause = 0;  // expected: the least time before the next write
  bool ok = true;
  double time = 0;  // seen: when its outcome line was logged
  bool operator==(const Write& o) const {
    return uut == o.uut && command == o.command && ok == o.ok;
  }
};
using Writes = std::vector<Write>;
std::ostream& operator<<(std::ostream& out, const Write& w) {
  return out << w.uut << ":" << (w.ok ? "" : "!") << w.command.substr(0, w.command.find('\n'));
}

// The lines of one UUT, each a name and the pause after it: "vusb_off S, vbatt_off L" is
// "vel_vusb_off\n", 0.01 s, "vel_vbatt_off\n", 1.0 s. Pauses: 0, S, 2S, L; "!name" failed.
Writes seq(int uut, const std::string& steps) {
  Writes out;
  std::istringstream in(steps);
  std::string name, pause;
  while (in >> name >> pause) {
    if (pause.back() == ',') pause.pop_back();
    const bool ok = name[0] != '!';
    const double seconds = pause == "L" ? 1.0 : pause == "2S" ? 2 * S : pause == "S" ? S : 0;
    out.push_back({uut, "vel_" + name.substr(ok ? 0 : 1) + "\n", seconds, ok});
  }
  return out;
}
Writes operator+(Writes a, const Writes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Writes four(int first, const std::string& steps) {
  Writes w;
  for (int uut = first; uut < first + 4; ++uut) w = w + seq(uut, steps);
  return w;
}

// Expected traffic, written out from the sequences as the boards must see them: the power-off,
// then the boot mode's steps for ON or OFF.
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
const char kPowerOn[] =
    "hi5_enable 0, hi5_enable 0, hi5_enter_recovery S, accid_on S, set_vbatt_4100 S, vbatt_on";
Writes dut_power(int u, bool on) {
  return seq(u, on ? std::string(kPowerOn) + " 0, batt_supercap_conn S, vusb_on 0" : kPowerOff);
}
// set_dut_power_all: each UUT's supercap line goes to the UUT before it (u - 1); on the first
// well that is index -1, a failed write that ends the call.
Writes dut_power_all(int u, bool on) {
  return on ? seq(u, std::string(kPowerOn) + " S") + seq(u - 1, "batt_supercap_conn S") +
                  seq(u, "vusb_on 0")
            : seq(u, "vusb_off S") + seq(u - 1, "batt_supercap_disconn S") + seq(u, "vbatt_off 0");
}

Writes all_of_well2(bool on) {
  return dut_power_all(5, on) + dut_power_all(6, on) + dut_power_all(7, on) + dut_power_all(8, on);
}

// The station's outcome lines, one per command written, each with the time it was logged.
Writes writes(const testing_support::LogCapture& log) {
  static const std::regex outcome(
      R"(VELMORA: SOC_\w+, UUT:(-?\d+), (Successfully wr(?:ite|ote)|Failed to write) ([\s\S]*))");
  Writes out;
  std::smatch m;
  for (const auto& [time, text] : log.timed()) {
    if (std::regex_match(text, m, outcome)) {
      out.push_back({std::stoi(m[1]), m[3], 0, m[2] != "Failed to write", time});
    }
  }
  return out;
}

// A row: the call, its result and least time, its own log lines (without "VELMORA: "), the
// station writes it makes, and the lines the board link sends after them without outcome lines.
struct Row {
  std::string name;
  std::function<int()> call;
  int result;
  double least;
  Lines logs;
  Writes writes;
  Writes linkLines = {};
};
void PrintTo(const Row& r, std::ostream* out) { *out << r.name; }

template <typename Call, typename... Args>
std::function<int()> on(int well, Call call, Args... args) {
  return [=] { return int(call(StationFixture::wells[well], args...)); };
}
std::function<int()> with_closed(int uut, std::function<int()> call) {
  return [=] { return closed({uut}, call); };
}
// Unplugs site 8 once its battery is off: the 1.0 s pause has begun.
int unplug_in_the_middle() {
  std::thread unplug([] {
    StationFixture::board(8).wait_lines(3, 5.0);
    StationFixture::board(8).unplug();
  });
  const int result = set_force_dfu(StationFixture::wells[1], 0, 4);
  unplug.join();
  return result;
}
std::function<int()> status_then(bool (*query)(FixtureController*)) {
  return [query] {
    StationFixture::board(5).script_status({testing_support::status_reply(43)});
    return int(query(StationFixture::wells[1]));
  };
}

// Checked: the result and time, the call's own lines, the writes' order and the least pause
// after each, and that each board received exactly the lines of its UUT that went through.
struct Calls : StationFixture, ::testing::WithParamInterface<Row> {};
TEST_P(Calls, Row) {
  const Row& r = GetParam();
  EXPECT_EQ(testing_support::takes(r.least, r.least + kSlack, r.call), r.result);
  const std::string word = r.logs.front().substr(0, r.logs.front().find_first_of(" ,"));
  Lines own;
  for (const auto& [time, text] : log.timed("VELMORA: " + word)) own.push_back(text.substr(9));
  EXPECT_EQ(own, r.logs);
  const Writes seen = writes(log);
  EXPECT_EQ(seen, r.writes);
  for (size_t i = 0; i + 1 < std::min(seen.size(), r.writes.size()); ++i) {
    EXPECT_GE(seen[i + 1].time - seen[i].time, r.writes[i].pause) << "after write " << i;
  }
  std::map<int, std::string> wire;
  for (const auto& w : r.writes + r.linkLines) {
    if (w.ok) wire[w.uut] += w.command;
  }
  expect_wire(wire, 0);
}

const std::string kLed = "set_led_state for UUT:", kAll = "set_led_state_all for WELL:";
const Writes kStatus = seq(5, "fixture_status 0");
// clang-format off
const Row kRows[] = {
    {"force_dfu_off", on(0, set_force_dfu, 1, 1), 0, 1.12, {"set_force_dfu OFF for UUT:1"},
     boot("dfu", 1, false)},
    {"force_dfu_on", on(1, set_force_dfu, 0, 3), 0, 1.12, {"set_force_dfu ON for UUT:7"},
     boot("dfu", 7, true)},
    {"force_diags_off", on(1, set_force_diags, 1, 1), 0, 1.10, {"set_force_diags OFF for UUT:5"},
     boot("diags", 5, false)},
    {"force_diags_on_any_state", on(1, set_force_diags, -1, 4), 0, 1.10,
     {"set_force_diags ON for UUT:8"}, boot("diags", 8, true)},
    {"force_iboot_off", on(0, set_force_iboot, 1, 3), 0, 1.11, {"set_force_iboot OFF for UUT:3"},
     boot("iboot", 3, false)},
    {"force_iboot_on", on(1, set_force_iboot, 0, 2), 0, 1.11, {"set_force_iboot ON for UUT:6"},
     boot("iboot", 6, true)},
    {"dut_power_off", on(1, set_dut_power, 1, 2), 0, 1.02,
     {"set_dut_power with POWER_STATE:1 for UUT:6"}, dut_power(6, false)},
    {"dut_power_on_any_state", on(1, set_dut_power, 2, 3), 0, 0.04,
     {"set_dut_power with POWER_STATE:2 for UUT:7"}, dut_power(7, true)},
    {"usb_power_off", on(0, set_usb_power, 1, 2), 0, 0, {"set_usb_power, UUT2"},
     seq(2, "vusb_off 0")},
    {"usb_power_on", on(1, set_usb_power, 2, 1), 0, 0, {"set_usb_power, UUT5"},
     seq(5, "vusb_on 0")},
    {"battery_off", on(1, set_battery_power, 1, 4), 0, 0, {"set_battery_power, UUT:8"},
     seq(8, "vbatt_off 0")},
    {"battery_on", on(0, set_battery_power, -1, 3), 0, 0, {"set_battery_power, UUT:3"},
     seq(3, "vbatt_on 0")},
    {"dut_power_all_off", on(1, set_dut_power_all, 1), 0, 0.08,
     {"set_dut_power_all with POWER_STATE:1 for WELL:2"}, all_of_well2(false)},
    {"dut_power_all_on", on(1, set_dut_power_all, 0), 0, 0.20,
     {"set_dut_power_all with POWER_STATE:0 for WELL:2"}, all_of_well2(true)},
    {"dut_power_all_off_well1", on(0, set_dut_power_all, 1), -1, 0.01,
     {"set_dut_power_all with POWER_STATE:1 for WELL:1"},
     seq(1, "vusb_off S") + seq(0, "!batt_supercap_disconn 0")},
    {"dut_power_all_on_well1", on(0, set_dut_power_all, 2), -1, 0.04,
     {"set_dut_power_all with POWER_STATE:2 for WELL:1"},
     seq(1, std::string(kPowerOn) + " S") + seq(0, "!batt_supercap_conn 0")},
    // OFF and INPROGRESS act on the well's run LED, through the well's first port.
    {"led_off", on(1, set_led_state, 0, 3), 0, 0, {kLed + "7", kLed + "7, OFF"}, {},
     seq(5, "run_led_off 0")},
    {"led_pass", on(1, set_led_state, 1, 4), 0, 0, {kLed + "8", kLed + "8, PASS"},
     seq(8, "fail_led_off 0, pass_led_on 0")},
    {"led_fail", on(0, set_led_state, 2, 4), 0, 0, {kLed + "4", kLed + "4, FAIL"},
     seq(4, "pass_led_off 0, fail_led_on 0")},
    {"led_inprogress", on(0, set_led_state, 3, 1), 0, 0, {kLed + "1", kLed + "1, INPROGRESS"}, {},
     seq(1, "run_led_on 0")},
    {"led_other_state", on(1, set_led_state, -1, 3), 0, 0, {kLed + "7"}, {}},
    {"led_all_pass", on(1, set_led_state_all, 1), 0, 4 * S, {kAll + "2"}, four(5, "pass_led_on S")},
    // Every state but OFF, PASS and INPROGRESS lights the fail LEDs.
    {"led_all_other_state", on(0, set_led_state_all, 5), 0, 4 * S, {kAll + "1"},
     four(1, "fail_led_on S")},
    {"led_all_off", on(0, set_led_state_all, 0), 0, 0, {kAll + "1", kAll + "1, OFF"}, {},
     seq(1, "run_led_off 0")},
    {"led_all_inprogress", on(1, set_led_state_all, 3), 0, 0, {kAll + "2", kAll + "2, INPROGRESS"},
     {}, seq(5, "run_led_on 0")},
    {"reset", on(1, reset), 0, 4 * S, {"resetting controller INDEX:1"}, four(5, "dfu_reset S")},
    {"engage", on(0, fixture_engage), 0, 4 * S, {"fixture_engage, WELL:1"}, {},
     four(1, "pne_down 0")},
    {"disengage", on(1, fixture_disengage), 0, 4 * S, {"fixture_disengage, WELL:2"}, {},
     four(5, "pne_up 0")},
    {"close", on(0, fixture_close), 0, 4 * S, {"fixture_close, WELL:1"}, {}, four(1, "pne_in 0")},
    // The well's UUTs reset, 1.0 s, then the tray out on each of its ports.
    {"open", on(1, fixture_open), 0, 1.0 + 8 * S, {"fixture_open, WELL:2"}, four(5, "dfu_reset S"),
     four(5, "pne_out 0")},
    // Status 43: buttons released, plate down, fixture closed.
    {"is_engaged", status_then(is_fixture_engaged), 1, 0.31, {"is_fixture_engage for WELL:2"}, {},
     kStatus},
    {"is_disengaged", status_then(is_fixture_disengaged), 0, 0.31,
     {"is_fixture_disengage for WELL:2"}, {}, kStatus},
    {"is_closed", status_then(is_fixture_closed), 1, 0.31, {"is_fixture_closed for WELL:2"}, {},
     kStatus},
    {"is_open", status_then(is_fixture_open), 0, 0.31, {"is_fixture_opened for WELL:2"}, {},
     kStatus},
    // Site 2's port closed: a sequence stops at its first failed write, the LEDs of the well at
    // theirs; press moves never report a failed site.
    {"force_dfu_closed_site", with_closed(1, on(0, set_force_dfu, 0, 2)), -1, 0,
     {"set_force_dfu ON for UUT:2"}, seq(2, "!vusb_off 0")},
    {"led_all_closed_site", with_closed(1, on(0, set_led_state_all, 1)), -1, 2 * S, {kAll + "1"},
     seq(1, "pass_led_on S") + seq(2, "!pass_led_on 0")},
    {"engage_closed_site", with_closed(1, on(0, fixture_engage)), 0, 4 * S,
     {"fixture_engage, WELL:1"}, {},
     seq(1, "pne_down 0") + seq(3, "pne_down 0") + seq(4, "pne_down 0")},
    // A board gone in the middle: the sequence stops at its first failed write. The board stays
    // unplugged, so this row runs last.
    {"unplugged_in_the_middle", unplug_in_the_middle, -1, 1.02, {"set_force_dfu ON for UUT:8"},
     seq(8, kPowerOff + ", !uart_on 0")},
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
  const char* press = "vel_dfu_reset\nvel_pne_up\nvel_pne_out\n";
  expect_wire(
      {{1, std::string(press) + "vel_pass_led_off\nvel_fail_led_off\n"}, {3, press}, {4, press}});
  // 3.0 s after the reset the press goes up, 2.0 s later the tray out (0.01 s before each line).
  const auto reset = log.timed("VELMORA: SOC_Reset, UUT:");
  const auto up = log.timed("VELMORA: Successfully sent vel_pne_up");
  const auto out = log.timed("VELMORA: Successfully sent vel_pne_out");
  ASSERT_FALSE(reset.empty() || up.empty() || out.empty());
  EXPECT_GE(up.front().first - reset.back().first, 3.0 + S);
  EXPECT_GE(out.front().first - up.back().first, 2.0 + S);
}

}  // namespace
