// The controller's sequences against the virtual fixture: power and boot-mode sequences, LEDs,
// press moves, init. Checked: the lines each board receives, their order and UUT, the pause
// after every write (timed from the station's outcome log lines, which the calling thread writes
// right after each write), totals, and where a failure stops a sequence.
#include <regex>
#include <sstream>
#include <thread>

#include "support/station_fixture.h"

namespace {

using brakwell::platform::monotonic_seconds;
using testing_support::Lines;

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

// The station's outcome lines, one per command written, with the time each was logged (the
// calling thread logs right after each write).
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

struct Sequences : testing_support::StationFixture {
  void TearDown() override {
    for (uint16_t word :
         {action_usb_signal, action_usb_power, action_uart_signal, action_battery_power,
          action_force_dfu, action_apple_id, action_conn_det_grounded, action_hi5_bs_grounded,
          action_conn_acc_apple_id}) {
      EXPECT_EQ(word, 0);
    }
  }
  Lines lines(const std::string& prefix = "") const {
    Lines out;
    for (const auto& [time, text] : log.timed(prefix)) out.push_back(text);
    return out;
  }
  // The outcome lines show these writes in order, with at least the given pause after each.
  void expect_writes(const Writes& expected) const {
    const Writes seen = writes(log);
    EXPECT_EQ(seen, expected);
    for (size_t i = 0; i + 1 < std::min(seen.size(), expected.size()); ++i) {
      EXPECT_GE(seen[i + 1].time - seen[i].time, expected[i].pause) << "after write " << i;
    }
  }
  // Each board received exactly the lines of its UUT that went through.
  static void expect_boards(const Writes& expected) {
    for (int site = 1; site <= 8; ++site) {
      Lines want, got;
      for (const auto& w : expected) {
        if (w.uut == site && w.ok) want.push_back(w.command);
      }
      sim::Board& b = board(site);
      if (!b.unplugged()) b.wait_lines(want.size(), 1.0);
      for (const auto& line : b.lines()) got.push_back(line.text);
      EXPECT_EQ(got, want) << "site " << site;
    }
  }
};

// Expected traffic, written out from the sequences as the boards must see them.
Writes force_dfu(int u, bool on) {
  return seq(u, on ? "vusb_off S, batt_supercap_disconn S, vbatt_off L, uart_on S, forcedfu_on S,"
                     " hi5_enable S, hi5_enable S, hi5_enter_diag S, accid_on S, dfu_host_conn S,"
                     " set_vbatt_4100 S, vbatt_on S, batt_supercap_conn S, vusb_on S"
                   : "vusb_off S, batt_supercap_disconn S, vbatt_off L, uart_off S, forcedfu_off S,"
                     " hi5_disable S, hi5_enable S, hi5_enter_diag S, accid_off S,"
                     " dfu_host_conn 2S, vbatt_off S, batt_supercap_disconn S, vusb_off S");
}
Writes force_diags(int u, bool on) {
  return seq(u, on ? "vusb_off S, batt_supercap_disconn S, vbatt_off L, uart_on S, forcedfu_off S,"
                     " hi5_enable 0, hi5_enable S, hi5_enter_diag S, accid_on S,"
                     " set_vbatt_4100 S, vbatt_on S, batt_supercap_conn S, vusb_on S"
                   : "vusb_off S, batt_supercap_disconn S, vbatt_off L, uart_off S, forcedfu_on S,"
                     " hi5_disable 0, hi5_enable S, hi5_enter_diag S, accid_off 2S,"
                     " vbatt_off S, batt_supercap_disconn S, vusb_off S");
}
Writes force_iboot(int u, bool on) {
  return seq(u, on ? "vusb_off S, batt_supercap_disconn S, vbatt_off L, uart_on S, forcedfu_off S,"
                     " hi5_enable S, hi5_enable 0, hi5_enter_recovery S, accid_on S,"
                     " dfu_host_conn S, set_vbatt_4100 S, vbatt_on S, batt_supercap_conn S,"
                     " vusb_on 0"
                   : "vusb_off S, batt_supercap_disconn S, vbatt_off L, uart_off S, forcedfu_on S,"
                     " hi5_disable S, hi5_enable 0, hi5_enter_recovery S, accid_off S,"
                     " dfu_host_conn 2S, vbatt_off S, batt_supercap_disconn S, vusb_off 0");
}
Writes dut_power(int u, bool on) {
  return seq(u, on ? "hi5_enable 0, hi5_enable 0, hi5_enter_recovery S, accid_on S,"
                     " set_vbatt_4100 S, vbatt_on 0, batt_supercap_conn S, vusb_on 0"
                   : "vusb_off S, batt_supercap_disconn S, vbatt_off L");
}
// One UUT of set_dut_power_all: its supercap line goes to the UUT before (u - 1).
Writes dut_power_all(int u, bool on) {
  return on ? seq(u,
                  "hi5_enable 0, hi5_enable 0, hi5_enter_recovery S, accid_on S,"
                  " set_vbatt_4100 S, vbatt_on S") +
                  seq(u - 1, "batt_supercap_conn S") + seq(u, "vusb_on 0")
            : seq(u, "vusb_off S") + seq(u - 1, "batt_supercap_disconn S") + seq(u, "vbatt_off 0");
}
Writes dut_power_all_well2(bool on) {
  return dut_power_all(5, on) + dut_power_all(6, on) + dut_power_all(7, on) + dut_power_all(8, on);
}

int all(FixtureController* h, int state, int) { return set_dut_power_all(h, state); }

TEST_F(Sequences, PowerAndBootModeSequences) {
  struct {
    int (*call)(FixtureController*, int state, int site);
    int state, well, site;
    const char* logLine;
    double pauses;  // the sequence's own pauses
    Writes writes;
    int result = 0;
  } const rows[] = {
      {set_force_dfu, 1, 0, 1, "set_force_dfu OFF for UUT:1", 1.12, force_dfu(1, false)},
      {set_force_dfu, 0, 1, 3, "set_force_dfu ON for UUT:7", 1.12, force_dfu(7, true)},
      {set_force_dfu, 2, 0, 4, "set_force_dfu ON for UUT:4", 1.12, force_dfu(4, true)},
      {set_force_diags, 1, 1, 1, "set_force_diags OFF for UUT:5", 1.10, force_diags(5, false)},
      {set_force_diags, 0, 0, 2, "set_force_diags ON for UUT:2", 1.10, force_diags(2, true)},
      {set_force_diags, -1, 1, 4, "set_force_diags ON for UUT:8", 1.10, force_diags(8, true)},
      {set_force_iboot, 1, 0, 3, "set_force_iboot OFF for UUT:3", 1.11, force_iboot(3, false)},
      {set_force_iboot, 0, 1, 2, "set_force_iboot ON for UUT:6", 1.11, force_iboot(6, true)},
      {set_force_iboot, -1, 0, 1, "set_force_iboot ON for UUT:1", 1.11, force_iboot(1, true)},
      {set_dut_power, 1, 1, 2, "set_dut_power with POWER_STATE:1 for UUT:6", 1.02,
       dut_power(6, false)},
      {set_dut_power, 0, 0, 2, "set_dut_power with POWER_STATE:0 for UUT:2", 0.04,
       dut_power(2, true)},
      {set_dut_power, 2, 1, 3, "set_dut_power with POWER_STATE:2 for UUT:7", 0.04,
       dut_power(7, true)},
      {set_dut_power, -1, 0, 4, "set_dut_power with POWER_STATE:-1 for UUT:4", 0.04,
       dut_power(4, true)},
      {set_usb_power, 1, 0, 2, "set_usb_power, UUT2", 0, seq(2, "vusb_off 0")},
      {set_usb_power, 2, 1, 1, "set_usb_power, UUT5", 0, seq(5, "vusb_on 0")},
      {set_battery_power, 1, 1, 4, "set_battery_power, UUT:8", 0, seq(8, "vbatt_off 0")},
      {set_battery_power, -1, 0, 3, "set_battery_power, UUT:3", 0, seq(3, "vbatt_on 0")},
      {all, 1, 1, 0, "set_dut_power_all with POWER_STATE:1 for WELL:2", 0.08,
       dut_power_all_well2(false)},
      {all, 0, 1, 0, "set_dut_power_all with POWER_STATE:0 for WELL:2", 0.20,
       dut_power_all_well2(true)},
      // On the first well the first UUT's supercap line goes to index -1: a failed write that
      // ends the call before the second UUT.
      {all, 1, 0, 0, "set_dut_power_all with POWER_STATE:1 for WELL:1", 0.01,
       seq(1, "vusb_off S") + seq(0, "!batt_supercap_disconn 0"), -1},
      {all, 2, 0, 0, "set_dut_power_all with POWER_STATE:2 for WELL:1", 0.04,
       seq(1,
           "hi5_enable 0, hi5_enable 0, hi5_enter_recovery S, accid_on S, set_vbatt_4100 S,"
           " vbatt_on S") +
           seq(0, "!batt_supercap_conn 0"),
       -1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.logLine);
    SetUp();
    const double start = monotonic_seconds();
    EXPECT_EQ(row.call(wells[row.well], row.state, row.site), row.result);
    const double took = monotonic_seconds() - start;
    EXPECT_GE(took, row.pauses);
    EXPECT_LT(took, row.pauses + kSlack);
    ASSERT_FALSE(lines().empty());
    EXPECT_EQ(lines().front(), std::string("VELMORA: ") + row.logLine);
    expect_writes(row.writes);
    expect_boards(row.writes);
  }
  // Site 0 is refused: nothing is logged or sent.
  SetUp();
  for (auto call : {set_usb_power, set_battery_power, set_force_dfu, set_force_diags,
                    set_force_iboot, set_dut_power, set_led_state}) {
    EXPECT_EQ(call(wells[0], 0, 0), -1);
  }
  EXPECT_TRUE(lines().empty());
  expect_boards({});
}

TEST_F(Sequences, LedStates) {
  struct {
    int well, state, site;
    const char* name;  // the state line's word; none for a state out of range
    Writes lines;
  } const rows[] = {
      // OFF and INPROGRESS act on the well's run LED, through the well's first port.
      {0, 0, 3, "OFF", seq(1, "run_led_off 0")},
      {1, 0, 3, "OFF", seq(5, "run_led_off 0")},
      {0, 1, 2, "PASS", seq(2, "fail_led_off 0, pass_led_on 0")},
      {1, 1, 4, "PASS", seq(8, "fail_led_off 0, pass_led_on 0")},
      {0, 2, 4, "FAIL", seq(4, "pass_led_off 0, fail_led_on 0")},
      {1, 2, 1, "FAIL", seq(5, "pass_led_off 0, fail_led_on 0")},
      {0, 3, 1, "INPROGRESS", seq(1, "run_led_on 0")},
      {1, 3, 2, "INPROGRESS", seq(5, "run_led_on 0")},
      {0, 7, 1, nullptr, {}},
      {1, 4, 2, nullptr, {}},
      {1, -1, 3, nullptr, {}},
  };
  for (const auto& row : rows) {
    const std::string line =
        "VELMORA: set_led_state for UUT:" + std::to_string(row.site + 4 * row.well);
    SCOPED_TRACE(line + " state " + std::to_string(row.state));
    SetUp();
    EXPECT_EQ(set_led_state(wells[row.well], row.state, row.site), 0);
    std::vector<std::string> want = {line};
    if (row.name) want.push_back(line + ", " + row.name);
    EXPECT_EQ(lines("VELMORA: set_led_state"), want);
    expect_boards(row.lines);
  }
}

TEST_F(Sequences, WellWideLeds) {
  const auto four = [](int first, const char* line) {
    Writes w;
    for (int uut = first; uut < first + 4; ++uut) w = w + seq(uut, line);
    return w;
  };
  const std::string well1 = "VELMORA: set_led_state_all for WELL:1";
  const std::string well2 = "VELMORA: set_led_state_all for WELL:2";
  struct {
    int well, state;
    std::vector<std::string> logLines;
    Writes lines;
    bool perUut;  // station writes with a pause before each, else the well's run LED
  } const rows[] = {
      {1, 1, {well2}, four(5, "pass_led_on S"), true},
      // Every state but OFF, PASS and INPROGRESS lights the fail LEDs.
      {0, 5, {well1}, four(1, "fail_led_on S"), true},
      {1, -1, {well2}, four(5, "fail_led_on S"), true},
      {0, 0, {well1, well1 + ", OFF"}, seq(1, "run_led_off 0"), false},
      {1, 3, {well2, well2 + ", INPROGRESS"}, seq(5, "run_led_on 0"), false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.logLines.back());
    SetUp();
    const double start = monotonic_seconds();
    EXPECT_EQ(set_led_state_all(wells[row.well], row.state), 0);
    if (row.perUut) {
      EXPECT_GE(monotonic_seconds() - start, 4 * S);
    }
    EXPECT_EQ(lines("VELMORA: set_led_state"), row.logLines);
    expect_writes(row.perUut ? row.lines : Writes{});
    expect_boards(row.lines);
  }
}

TEST_F(Sequences, PressMovesAndOpen) {
  struct {
    int (*call)(FixtureController*);
    int well;
    const char* logLine;
    const char* line;
  } const moves[] = {
      {fixture_engage, 0, "VELMORA: fixture_engage, WELL:1", "pne_down 0"},
      {fixture_disengage, 1, "VELMORA: fixture_disengage, WELL:2", "pne_up 0"},
      {fixture_close, 0, "VELMORA: fixture_close, WELL:1", "pne_in 0"},
  };
  for (const auto& m : moves) {
    SCOPED_TRACE(m.logLine);
    SetUp();
    EXPECT_EQ(m.call(wells[m.well]), 0);
    EXPECT_EQ(lines().front(), m.logLine);
    Writes everyPort;
    for (int uut = 1; uut <= 4; ++uut) everyPort = everyPort + seq(uut + 4 * m.well, m.line);
    expect_boards(everyPort);
  }

  // fixture_open: the well's UUTs reset, 1.0 s, then the tray out on each of its ports.
  SetUp();
  EXPECT_EQ(fixture_open(wells[1]), 0);
  const auto logged = lines();
  ASSERT_GE(logged.size(), 2u);
  EXPECT_EQ(logged[0], "VELMORA: fixture_open, WELL:2");
  EXPECT_EQ(logged[1], "VELMORA: resetting controller INDEX:1");
  expect_writes(seq(5, "dfu_reset S") + seq(6, "dfu_reset S") + seq(7, "dfu_reset S") +
                seq(8, "dfu_reset 0"));
  Writes resetThenOut;
  for (int uut = 5; uut <= 8; ++uut)
    resetThenOut = resetThenOut + seq(uut, "dfu_reset 0, pne_out 0");
  expect_boards(resetThenOut);
  // The board link waits 0.01 s before each tray line.
  const auto trayOut = log.timed("VELMORA: Successfully sent vel_pne_out");
  ASSERT_EQ(trayOut.size(), 4u);
  EXPECT_GE(trayOut[0].first - writes(log).back().time, 1.0 + S);
}

TEST_F(Sequences, PressStateFromTheStatusReply) {
  struct {
    bool (*query)(FixtureController*);
    const char* logLine;
    bool expected;
  } const queries[] = {
      {is_fixture_engaged, "VELMORA: is_fixture_engage for WELL:2", true},
      {is_fixture_disengaged, "VELMORA: is_fixture_disengage for WELL:2", false},
      {is_fixture_closed, "VELMORA: is_fixture_closed for WELL:2", true},
      {is_fixture_open, "VELMORA: is_fixture_opened for WELL:2", false},
  };
  for (const auto& q : queries) {
    SetUp();
    // Buttons released, plate down (engaged), fixture closed.
    board(5).script_status({testing_support::status_reply(43)});
    EXPECT_EQ(q.query(wells[1]), q.expected) << q.logLine;
    EXPECT_EQ(lines().front(), q.logLine);
  }
}

// The failure cases unplug boards for good, so they run last.
TEST_F(Sequences, UnplugInTheMiddleStopsAtTheFirstFailure) {
  std::thread unplug([&] {
    board(8).wait_lines(3, 5.0);  // battery off: the 1.0 s pause has begun
    board(8).unplug();
  });
  const double start = monotonic_seconds();
  EXPECT_EQ(set_force_dfu(wells[1], 0, 4), -1);
  const double took = monotonic_seconds() - start;
  unplug.join();
  EXPECT_GE(took, 1.02);
  EXPECT_LT(took, 1.02 + kSlack);
  const Writes expected = seq(8, "vusb_off S, batt_supercap_disconn S, vbatt_off L, !uart_on 0");
  expect_writes(expected);
  expect_boards(expected);
  EXPECT_EQ(lines().back(), "VELMORA: SOC_UART, UUT:8, Failed to write vel_uart_on\n");
}

TEST_F(Sequences, InitStopsAtTheSecondUutsLed) {
  board(2).unplug();
  const double start = monotonic_seconds();
  EXPECT_EQ(init(wells[0]), -1);
  EXPECT_GE(monotonic_seconds() - start, 5.0);
  const auto logged = lines();
  EXPECT_EQ(logged.front(), "VELMORA: initialising controller INDEX:0");
  EXPECT_EQ(logged.back(), "VELMORA: SOC_PassLed, UUT:2, Failed to write vel_pass_led_off\n");
  // The first UUT's LEDs go off, the second's pass LED fails, the later UUTs' stay untouched.
  const char* press = "dfu_reset 0, pne_up 0, pne_out 0";
  expect_boards(seq(1, press) + seq(1, "pass_led_off 0, fail_led_off 0") + seq(3, press) +
                seq(4, press));
  // 3.0 s after the reset the press goes up, 2.0 s later the tray out (0.01 s before each line).
  const auto reset = log.timed("VELMORA: SOC_Reset, UUT:");
  const auto up = log.timed("VELMORA: Successfully sent vel_pne_up");
  const auto out = log.timed("VELMORA: Successfully sent vel_pne_out");
  ASSERT_FALSE(reset.empty() || up.empty() || out.empty());
  EXPECT_GE(up.front().first - reset.back().first, 3.0 + S);
  EXPECT_GE(out.front().first - up.back().first, 2.0 + S);

  // With site 2 gone, a sequence on it stops at its first step and well-wide calls go on.
  SetUp();
  EXPECT_EQ(set_force_dfu(wells[0], 0, 2), -1);
  EXPECT_EQ(set_led_state_all(wells[0], 1), -1);  // the first failure ends it
  EXPECT_TRUE(SOC_Reset(0));
  EXPECT_EQ(fixture_engage(wells[0]), 0);  // press moves never report a failed site
  EXPECT_FALSE(SOC_Hi5EnterDiag(1));       // both writes tried, both fail
  for (const char* line :
       {"VELMORA: SOC_USBPower, UUT:2, Failed to write vel_vusb_off\n",
        "VELMORA: SOC_Reset, UUT:2, Failed to write vel_dfu_reset\n",
        "VELMORA: fixtureDown, Failed to send vel_pne_down\n for WELL:1, UUT:2",
        "VELMORA: SOC_Hi5EnterDiag, UUT:2, Failed to write vel_hi5_enable\n",
        "VELMORA: SOC_Hi5EnterDiag, UUT:2, Failed to write vel_hi5_enter_diag\n"})
    EXPECT_TRUE(log.has(line)) << line;
  EXPECT_FALSE(log.has("VELMORA: SOC_Batt_Supercap UUT:2 OnOff:0"));
  expect_wire({{1, "vel_pass_led_on\nvel_dfu_reset\nvel_pne_down\n"},
               {3, "vel_dfu_reset\nvel_pne_down\n"},
               {4, "vel_dfu_reset\nvel_pne_down\n"}});
  expect_working({1, 3, 4, 5});
}

}  // namespace
