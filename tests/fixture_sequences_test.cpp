// The controller's sequences against the virtual fixture: power and boot-mode sequences, LEDs,
// press moves, init. Checked: the lines each board receives, their order and UUT, the pause
// after every write (timed from the station's outcome log lines, which the calling thread writes
// right after each write), totals, and where a failure stops a sequence.
#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <thread>

#include "Brakwell.h"
#include "boards.h"
#include "fixture/Brakwell.h"
#include "platform/log.h"
#include "platform/sleep.h"

namespace {

using brakwell::platform::monotonic_seconds;

constexpr double S = 0.01;
constexpr double kSlack = 0.4;  // late wake-ups on a loaded machine; never early ones

// One command as the station layer reports it in its outcome line.
struct Write {
  int uut;  // 1-based, as logged
  std::string command;
  bool ok;
  double time;
};

// Every log line with the time it was written.
class TimedLog {
 public:
  TimedLog() { brakwell::platform::set_line_sink(&sink, this); }
  ~TimedLog() { brakwell::platform::set_line_sink(nullptr, nullptr); }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }
  std::vector<std::string> lines(const std::string& prefix = "") const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& [time, text] : lines_) {
      if (text.rfind(prefix, 0) == 0) out.push_back(text);
    }
    return out;
  }
  // Time of the first (or last) line that begins with the prefix; 0 when there is none.
  double time_of(const std::string& prefix, bool last = false) const {
    std::lock_guard lock(mutex_);
    double found = 0;
    for (const auto& [time, text] : lines_) {
      if (text.rfind(prefix, 0) != 0) continue;
      found = time;
      if (!last) break;
    }
    return found;
  }
  std::vector<Write> writes() const {
    static const std::regex outcome(
        R"(VELMORA: SOC_\w+, UUT:(-?\d+), (Successfully write|Successfully wrote|Failed to write) ([\s\S]*))");
    std::lock_guard lock(mutex_);
    std::vector<Write> out;
    std::smatch m;
    for (const auto& [time, text] : lines_) {
      if (std::regex_match(text, m, outcome)) {
        out.push_back({std::stoi(m[1]), m[3], m[2] != "Failed to write", time});
      }
    }
    return out;
  }

 private:
  static void sink(bool toSyslog, const char* text, void* self) {
    auto* log = static_cast<TimedLog*>(self);
    std::lock_guard lock(log->mutex_);
    if (toSyslog) log->lines_.emplace_back(monotonic_seconds(), text);
  }
  mutable std::mutex mutex_;
  std::vector<std::pair<double, std::string>> lines_;
};

struct Expect {
  int uut;
  std::string command;
  double pauseAfter = 0;
  bool ok = true;
};
using Writes = std::vector<Expect>;

// The lines of one UUT: {"vusb_off", S} becomes "vel_vusb_off\n" followed by 0.01 s.
Writes on(int uut, std::initializer_list<std::pair<const char*, double>> lines) {
  Writes out;
  for (const auto& [name, pause] : lines)
    out.push_back({uut, "vel_" + std::string(name) + "\n", pause});
  return out;
}
Writes operator+(Writes a, const Writes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Expected wire traffic, written from the sequences as the station must see them.
Writes force_dfu_off(int u) {
  return on(u, {{"vusb_off", S},
                {"batt_supercap_disconn", S},
                {"vbatt_off", 1.0},
                {"uart_off", S},
                {"forcedfu_off", S},
                {"hi5_disable", S},
                {"hi5_enable", S},
                {"hi5_enter_diag", S},
                {"accid_off", S},
                {"dfu_host_conn", 2 * S},
                {"vbatt_off", S},
                {"batt_supercap_disconn", S},
                {"vusb_off", S}});
}
Writes force_dfu_on(int u) {
  return on(u, {{"vusb_off", S},
                {"batt_supercap_disconn", S},
                {"vbatt_off", 1.0},
                {"uart_on", S},
                {"forcedfu_on", S},
                {"hi5_enable", S},
                {"hi5_enable", S},
                {"hi5_enter_diag", S},
                {"accid_on", S},
                {"dfu_host_conn", S},
                {"set_vbatt_4100", S},
                {"vbatt_on", S},
                {"batt_supercap_conn", S},
                {"vusb_on", S}});
}
Writes force_diags_off(int u) {
  return on(u, {{"vusb_off", S},
                {"batt_supercap_disconn", S},
                {"vbatt_off", 1.0},
                {"uart_off", S},
                {"forcedfu_on", S},
                {"hi5_disable", 0},
                {"hi5_enable", S},
                {"hi5_enter_diag", S},
                {"accid_off", 2 * S},
                {"vbatt_off", S},
                {"batt_supercap_disconn", S},
                {"vusb_off", S}});
}
Writes force_diags_on(int u) {
  return on(u, {{"vusb_off", S},
                {"batt_supercap_disconn", S},
                {"vbatt_off", 1.0},
                {"uart_on", S},
                {"forcedfu_off", S},
                {"hi5_enable", 0},
                {"hi5_enable", S},
                {"hi5_enter_diag", S},
                {"accid_on", S},
                {"set_vbatt_4100", S},
                {"vbatt_on", S},
                {"batt_supercap_conn", S},
                {"vusb_on", S}});
}
Writes force_iboot_off(int u) {
  return on(u, {{"vusb_off", S},
                {"batt_supercap_disconn", S},
                {"vbatt_off", 1.0},
                {"uart_off", S},
                {"forcedfu_on", S},
                {"hi5_disable", S},
                {"hi5_enable", 0},
                {"hi5_enter_recovery", S},
                {"accid_off", S},
                {"dfu_host_conn", 2 * S},
                {"vbatt_off", S},
                {"batt_supercap_disconn", S},
                {"vusb_off", 0}});
}
Writes force_iboot_on(int u) {
  return on(u, {{"vusb_off", S},
                {"batt_supercap_disconn", S},
                {"vbatt_off", 1.0},
                {"uart_on", S},
                {"forcedfu_off", S},
                {"hi5_enable", S},
                {"hi5_enable", 0},
                {"hi5_enter_recovery", S},
                {"accid_on", S},
                {"dfu_host_conn", S},
                {"set_vbatt_4100", S},
                {"vbatt_on", S},
                {"batt_supercap_conn", S},
                {"vusb_on", 0}});
}
Writes dut_power_off(int u) {
  return on(u, {{"vusb_off", S}, {"batt_supercap_disconn", S}, {"vbatt_off", 1.0}});
}
Writes dut_power_on(int u) {
  return on(u, {{"hi5_enable", 0},
                {"hi5_enable", 0},
                {"hi5_enter_recovery", S},
                {"accid_on", S},
                {"set_vbatt_4100", S},
                {"vbatt_on", 0},
                {"batt_supercap_conn", S},
                {"vusb_on", 0}});
}
// Per UUT of set_dut_power_all; the supercap goes to the UUT before (logged 1-based as u - 1).
Writes all_off(int u) {
  return on(u, {{"vusb_off", S}}) + on(u - 1, {{"batt_supercap_disconn", S}}) +
         on(u, {{"vbatt_off", 0}});
}
Writes all_on(int u) {
  return on(u, {{"hi5_enable", 0},
                {"hi5_enable", 0},
                {"hi5_enter_recovery", S},
                {"accid_on", S},
                {"set_vbatt_4100", S},
                {"vbatt_on", S}}) +
         on(u - 1, {{"batt_supercap_conn", S}}) + on(u, {{"vusb_on", 0}});
}
Writes failed(Writes w) {
  for (auto& e : w) e.ok = false;
  return w;
}

void expect_action_words_zero() {
  for (uint16_t word :
       {action_usb_signal, action_usb_power, action_uart_signal, action_battery_power,
        action_force_dfu, action_apple_id, action_conn_det_grounded, action_hi5_bs_grounded,
        action_conn_acc_apple_id}) {
    EXPECT_EQ(word, 0);
  }
}

class Sequences : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bed = new sim::Testbed;
    boards = new sim::Boards(*bed);
    boards->add_sites(1, 8);
    wells[0] = create_fixture_controller(0);
    // The second well's handle differs only in its index; one station start serves both.
    wells[1] = static_cast<FixtureController*>(std::malloc(sizeof(FixtureController)));
    *wells[1] = *wells[0];
    wells[1]->index = 1;
  }
  static void TearDownTestSuite() {
    release_fixture_controller(wells[0]);
    release_fixture_controller(wells[1]);
    delete boards;
    delete bed;
  }
  void SetUp() override { clear(); }
  void TearDown() override { expect_action_words_zero(); }

  static void clear() {
    for (sim::Board* board : boards->all()) board->clear();
    log.clear();
  }

  // The outcome log lines show the writes in order, with at least the given pause after each.
  static void expect_writes(const Writes& expected) {
    const std::vector<Write> writes = log.writes();
    ASSERT_EQ(writes.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(writes[i].uut, expected[i].uut);
      EXPECT_EQ(writes[i].command, expected[i].command);
      EXPECT_EQ(writes[i].ok, expected[i].ok);
      if (i + 1 < expected.size()) {
        EXPECT_GE(writes[i + 1].time - writes[i].time, expected[i].pauseAfter);
      }
    }
  }

  // Each board received exactly the lines of its UUT, and only those that went through.
  static void expect_boards(const Writes& expected) {
    for (int site = 1; site <= 8; ++site) {
      std::vector<std::string> want;
      for (const auto& e : expected) {
        if (e.uut == site && e.ok) want.push_back(e.command);
      }
      sim::Board& board = boards->site(site);
      if (!board.unplugged()) board.wait_lines(want.size(), 1.0);
      std::vector<std::string> got;
      for (const auto& line : board.lines()) got.push_back(line.text);
      EXPECT_EQ(got, want) << "site " << site;
    }
  }

  static void expect_traffic(const Writes& expected) {
    expect_writes(expected);
    expect_boards(expected);
  }

  static inline sim::Testbed* bed;
  static inline sim::Boards* boards;
  static inline FixtureController* wells[2];
  static inline TimedLog log;
};

using Call = int (*)(FixtureController*, int state, int site);

struct Row {
  Call call;
  int state;
  int well;  // the handle's index
  int site;
  const char* logLine;
  double pauses;  // the sequence's own pauses
  Writes writes;
  int result = 0;
};

int dut_power_all(FixtureController* h, int state, int) { return set_dut_power_all(h, state); }

TEST_F(Sequences, PowerAndBootModeSequences) {
  const Row rows[] = {
      {set_force_dfu, 1, 0, 1, "VELMORA: set_force_dfu OFF for UUT:1", 1.12, force_dfu_off(1)},
      {set_force_dfu, 0, 1, 3, "VELMORA: set_force_dfu ON for UUT:7", 1.12, force_dfu_on(7)},
      {set_force_dfu, 2, 0, 4, "VELMORA: set_force_dfu ON for UUT:4", 1.12, force_dfu_on(4)},
      {set_force_diags, 1, 1, 1, "VELMORA: set_force_diags OFF for UUT:5", 1.10,
       force_diags_off(5)},
      {set_force_diags, 0, 0, 2, "VELMORA: set_force_diags ON for UUT:2", 1.10, force_diags_on(2)},
      {set_force_diags, -1, 1, 4, "VELMORA: set_force_diags ON for UUT:8", 1.10, force_diags_on(8)},
      {set_force_iboot, 1, 0, 3, "VELMORA: set_force_iboot OFF for UUT:3", 1.11,
       force_iboot_off(3)},
      {set_force_iboot, 0, 1, 2, "VELMORA: set_force_iboot ON for UUT:6", 1.11, force_iboot_on(6)},
      {set_force_iboot, -1, 0, 1, "VELMORA: set_force_iboot ON for UUT:1", 1.11, force_iboot_on(1)},
      {set_dut_power, 1, 1, 2, "VELMORA: set_dut_power with POWER_STATE:1 for UUT:6", 1.02,
       dut_power_off(6)},
      {set_dut_power, 0, 0, 2, "VELMORA: set_dut_power with POWER_STATE:0 for UUT:2", 0.04,
       dut_power_on(2)},
      {set_dut_power, 2, 1, 3, "VELMORA: set_dut_power with POWER_STATE:2 for UUT:7", 0.04,
       dut_power_on(7)},
      {set_dut_power, -1, 0, 4, "VELMORA: set_dut_power with POWER_STATE:-1 for UUT:4", 0.04,
       dut_power_on(4)},
      {set_usb_power, 1, 0, 2, "VELMORA: set_usb_power, UUT2", 0, on(2, {{"vusb_off", 0}})},
      {set_usb_power, 2, 1, 1, "VELMORA: set_usb_power, UUT5", 0, on(5, {{"vusb_on", 0}})},
      {set_battery_power, 1, 1, 4, "VELMORA: set_battery_power, UUT:8", 0,
       on(8, {{"vbatt_off", 0}})},
      {set_battery_power, -1, 0, 3, "VELMORA: set_battery_power, UUT:3", 0,
       on(3, {{"vbatt_on", 0}})},
      {dut_power_all, 1, 1, 0, "VELMORA: set_dut_power_all with POWER_STATE:1 for WELL:2", 0.08,
       all_off(5) + all_off(6) + all_off(7) + all_off(8)},
      {dut_power_all, 0, 1, 0, "VELMORA: set_dut_power_all with POWER_STATE:0 for WELL:2", 0.20,
       all_on(5) + all_on(6) + all_on(7) + all_on(8)},
      // On the first well the first UUT's supercap step addresses index -1: a failed write that
      // ends the call.
      {dut_power_all, 1, 0, 0, "VELMORA: set_dut_power_all with POWER_STATE:1 for WELL:1", 0.01,
       on(1, {{"vusb_off", S}}) + failed(on(0, {{"batt_supercap_disconn", 0}})), -1},
      {dut_power_all, 2, 0, 0, "VELMORA: set_dut_power_all with POWER_STATE:2 for WELL:1", 0.04,
       on(1, {{"hi5_enable", 0},
              {"hi5_enable", 0},
              {"hi5_enter_recovery", S},
              {"accid_on", S},
              {"set_vbatt_4100", S},
              {"vbatt_on", S}}) +
           failed(on(0, {{"batt_supercap_conn", 0}})),
       -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.logLine);
    clear();
    const double start = monotonic_seconds();
    EXPECT_EQ(row.call(wells[row.well], row.state, row.site), row.result);
    const double took = monotonic_seconds() - start;
    EXPECT_GE(took, row.pauses);
    EXPECT_LT(took, row.pauses + kSlack);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().front(), row.logLine);
    expect_traffic(row.writes);
  }
}

TEST_F(Sequences, RefusedArgumentsSendAndLogNothing) {
  for (Call call : {set_usb_power, set_battery_power, set_force_dfu, set_force_diags,
                    set_force_iboot, set_dut_power}) {
    EXPECT_EQ(call(wells[0], 0, 0), -1);
    EXPECT_EQ(call(wells[1], 1, -3), -1);
    EXPECT_EQ(call(nullptr, 0, 1), -1);
  }
  EXPECT_EQ(set_dut_power_all(nullptr, 0), -1);
  EXPECT_TRUE(log.lines().empty());
  expect_traffic({});
}

struct LedRow {
  int well, state, site;
  std::vector<std::string> logLines;  // the controller's own lines
  Writes boardLines;                  // pauses unused: the board order is what counts
};

TEST_F(Sequences, LedStatesOnBothWells) {
  const LedRow rows[] = {
      // OFF and INPROGRESS act on the well's run LED, through the well's first port.
      {0,
       0,
       3,
       {"VELMORA: set_led_state for UUT:3", "VELMORA: set_led_state for UUT:3, OFF"},
       on(1, {{"run_led_off", 0}})},
      {1,
       0,
       3,
       {"VELMORA: set_led_state for UUT:7", "VELMORA: set_led_state for UUT:7, OFF"},
       on(5, {{"run_led_off", 0}})},
      {0,
       1,
       2,
       {"VELMORA: set_led_state for UUT:2", "VELMORA: set_led_state for UUT:2, PASS"},
       on(2, {{"fail_led_off", 0}, {"pass_led_on", 0}})},
      {1,
       1,
       4,
       {"VELMORA: set_led_state for UUT:8", "VELMORA: set_led_state for UUT:8, PASS"},
       on(8, {{"fail_led_off", 0}, {"pass_led_on", 0}})},
      {0,
       2,
       4,
       {"VELMORA: set_led_state for UUT:4", "VELMORA: set_led_state for UUT:4, FAIL"},
       on(4, {{"pass_led_off", 0}, {"fail_led_on", 0}})},
      {1,
       2,
       1,
       {"VELMORA: set_led_state for UUT:5", "VELMORA: set_led_state for UUT:5, FAIL"},
       on(5, {{"pass_led_off", 0}, {"fail_led_on", 0}})},
      {0,
       3,
       1,
       {"VELMORA: set_led_state for UUT:1", "VELMORA: set_led_state for UUT:1, INPROGRESS"},
       on(1, {{"run_led_on", 0}})},
      {1,
       3,
       2,
       {"VELMORA: set_led_state for UUT:6", "VELMORA: set_led_state for UUT:6, INPROGRESS"},
       on(5, {{"run_led_on", 0}})},
      {0, 7, 1, {"VELMORA: set_led_state for UUT:1"}, {}},
      {1, 4, 2, {"VELMORA: set_led_state for UUT:6"}, {}},
      {1, -1, 3, {"VELMORA: set_led_state for UUT:7"}, {}},
  };
  for (const LedRow& row : rows) {
    SCOPED_TRACE(row.logLines.front());
    clear();
    EXPECT_EQ(set_led_state(wells[row.well], row.state, row.site), 0);
    EXPECT_EQ(log.lines("VELMORA: set_led_state"), row.logLines);
    expect_boards(row.boardLines);
  }
  EXPECT_EQ(set_led_state(wells[0], 1, 0), -1);
  EXPECT_EQ(set_led_state(nullptr, 1, 1), -1);
  EXPECT_EQ(set_led_state_all(nullptr, 1), -1);
}

TEST_F(Sequences, WellWideLeds) {
  const auto four = [](int first, const char* line) {
    Writes w;
    for (int uut = first; uut < first + 4; ++uut) w = w + on(uut, {{line, S}});
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
      {1, 1, {well2}, four(5, "pass_led_on"), true},
      // Every state but OFF, PASS and INPROGRESS lights the fail LEDs.
      {0, 5, {well1}, four(1, "fail_led_on"), true},
      {1, -1, {well2}, four(5, "fail_led_on"), true},
      {0, 0, {well1, well1 + ", OFF"}, on(1, {{"run_led_off", 0}}), false},
      {1, 3, {well2, well2 + ", INPROGRESS"}, on(5, {{"run_led_on", 0}}), false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.logLines.back());
    clear();
    const double start = monotonic_seconds();
    EXPECT_EQ(set_led_state_all(wells[row.well], row.state), 0);
    if (row.perUut) {
      EXPECT_GE(monotonic_seconds() - start, 4 * S);
    }
    EXPECT_EQ(log.lines("VELMORA: set_led_state"), row.logLines);
    expect_writes(row.perUut ? row.lines : Writes{});
    expect_boards(row.lines);
  }
}

TEST_F(Sequences, PressMovesAndOpen) {
  struct {
    int (*call)(FixtureController*);
    int well;
    const char* logLine;
    const char* command;
  } const moves[] = {
      {fixture_engage, 0, "VELMORA: fixture_engage, WELL:1", "pne_down"},
      {fixture_disengage, 1, "VELMORA: fixture_disengage, WELL:2", "pne_up"},
      {fixture_close, 0, "VELMORA: fixture_close, WELL:1", "pne_in"},
  };
  for (const auto& m : moves) {
    SCOPED_TRACE(m.logLine);
    clear();
    EXPECT_EQ(m.call(wells[m.well]), 0);
    EXPECT_EQ(log.lines().front(), m.logLine);
    Writes everyPort;
    for (int uut = 1; uut <= 4; ++uut)
      everyPort = everyPort + on(uut + 4 * m.well, {{m.command, 0}});
    expect_boards(everyPort);
    EXPECT_EQ(m.call(nullptr), -1);
  }

  // fixture_open: reset of the well's UUTs, 1.0 s, then the tray out on each of its ports.
  clear();
  EXPECT_EQ(fixture_open(wells[1]), 0);
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "VELMORA: fixture_open, WELL:2");
  EXPECT_EQ(lines[1], "VELMORA: resetting controller INDEX:1");
  expect_writes(on(5, {{"dfu_reset", S}}) + on(6, {{"dfu_reset", S}}) + on(7, {{"dfu_reset", S}}) +
                on(8, {{"dfu_reset", 0}}));
  Writes resetThenOut;
  for (int uut = 5; uut <= 8; ++uut)
    resetThenOut = resetThenOut + on(uut, {{"dfu_reset", 0}, {"pne_out", 0}});
  expect_boards(resetThenOut);
  // The tray moves no earlier than 1.0 s after the last reset, and 0.01 s before its first line.
  EXPECT_GE(log.time_of("VELMORA: Successfully sent vel_pne_out") - log.writes().back().time,
            1.0 + S);
  EXPECT_EQ(fixture_open(nullptr), -1);
}

TEST_F(Sequences, PressStateFromTheStatusReply) {
  // 101011: buttons released, plate down (engaged), fixture closed.
  boards->site(5).script_status({"vel_fixture_status=101011 l_sw\n"});
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
    clear();
    EXPECT_EQ(q.query(wells[1]), q.expected) << q.logLine;
    EXPECT_EQ(log.lines().front(), q.logLine);
    EXPECT_FALSE(q.query(nullptr));
  }
  boards->site(5).set_responder(nullptr);
}

// The failure cases unplug boards for good, so they run last.
TEST_F(Sequences, UnplugInTheMiddleStopsAtTheFirstFailure) {
  sim::Board& board = boards->site(8);
  std::thread unplug([&] {
    // The first three lines are written before the 1.0 s pause after battery off.
    board.wait_lines(3, 5.0);
    board.unplug();
  });
  const double start = monotonic_seconds();
  EXPECT_EQ(set_force_dfu(wells[1], 0, 4), -1);
  const double took = monotonic_seconds() - start;
  unplug.join();
  EXPECT_GE(took, 1.02);
  EXPECT_LT(took, 1.02 + kSlack);
  expect_traffic(on(8, {{"vusb_off", S}, {"batt_supercap_disconn", S}, {"vbatt_off", 1.0}}) +
                 failed(on(8, {{"uart_on", 0}})));
  EXPECT_EQ(log.lines().back(), "VELMORA: SOC_UART, UUT:8, Failed to write vel_uart_on\n");
}

TEST_F(Sequences, InitStopsAtTheSecondUutsLed) {
  boards->site(2).unplug();
  const double start = monotonic_seconds();
  EXPECT_EQ(init(wells[0]), -1);
  EXPECT_GE(monotonic_seconds() - start, 5.0);
  const auto lines = log.lines();
  EXPECT_EQ(lines.front(), "VELMORA: initialising controller INDEX:0");
  EXPECT_EQ(lines.back(), "VELMORA: SOC_PassLed, UUT:2, Failed to write vel_pass_led_off\n");
  const auto press = [](int uut) {
    return on(uut, {{"dfu_reset", 0}, {"pne_up", 0}, {"pne_out", 0}});
  };
  // The first UUT's LEDs go off; the second's pass LED fails; the later UUTs' stay untouched.
  expect_boards(press(1) + on(1, {{"pass_led_off", 0}, {"fail_led_off", 0}}) + press(3) + press(4));
  // 3.0 s after the reset the press goes up, 2.0 s later the tray out (0.01 s before each line).
  const double pressUp = log.time_of("VELMORA: Successfully sent vel_pne_up");
  EXPECT_GE(pressUp - log.time_of("VELMORA: SOC_Reset, UUT:4", true), 3.0 + S);
  EXPECT_GE(log.time_of("VELMORA: Successfully sent vel_pne_out") -
                log.time_of("VELMORA: Successfully sent vel_pne_up", true),
            2.0 + S);
  clear();
  EXPECT_EQ(init(nullptr), -1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"VELMORA: init..., invalid controller."});
}

}  // namespace
