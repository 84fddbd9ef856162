// The pneumatic press against scripted statuses, the truth rules of every status test, and the Run
// key chord's events on the virtual keyboard.
#include <linux/input-event-codes.h>

#include <cmath>
#include <future>
#include <thread>

#include "keyboard.h"
#include "support/station_fixture.h"

namespace {

using testing_support::kReaderJitter;
using testing_support::Lines;
using testing_support::Transcript;
constexpr const char* kQuery = brakwell::station::kStatusQuery;

std::vector<std::string> replies(const std::vector<int>& statuses) {
  std::vector<std::string> out;
  // -1: no "=" and no marker, so no answer.
  for (int s : statuses) out.push_back(s < 0 ? "garbled\n" : brakwell::station::status_reply(s));
  return out;
}

// The keyboard lives as long as the program: the library keeps its keyboard open.
struct Press : testing_support::StationFixture {
  static void SetUpTestSuite() {
    StationFixture::SetUpTestSuite();
    if (!keyboard) keyboard = new sim::Keyboard(*bed);
  }
  void SetUp() override {
    StationFixture::SetUp();
    keyboard->clear();
  }
  // The lines a site received, waiting a moment for the last ones.
  static Lines wire(int n, size_t atLeast = 0) {
    board(n).wait_lines(atLeast, 2.0);
    Lines out;
    for (const auto& line : board(n).lines()) out.push_back(line.text);
    return out;
  }
  static size_t queries(int n) {
    const Lines all = wire(n);
    return static_cast<size_t>(std::count(all.begin(), all.end(), kQuery));
  }
  static inline sim::Keyboard* keyboard;
};

// The log of one poll that read `status` on well 1 (port 0), up to the state's waiting line.
Lines poll_log(int status, const char* waiting) {
  Lines out{"VELMORA: queryFixtureStatusForWell1, query fixture 1 with vel_fixture_status\n"};
  if (status >= 0)
    out.push_back("VELMORA: queryFixtureStatusForWell1 UUT:1, result:" + std::to_string(status));
  char rd[80];
  std::snprintf(rd, sizeof rd, "VELMORA: SOC_PneumaticValveOn WELL:1, rd is 0x%x", status);
  out.push_back(rd);
  if (status >= 0) out.push_back(std::string("VELMORA: SOC_PneumaticValveOn WELL:1, ") + waiting);
  return out;
}

// The operator lets go of A while the plate comes down: up, 0.2 s, out, and the cycle starts
// over until the UUT is in position and both buttons are released.
TEST_F(Press, CycleThroughEveryStateWithScriptedStatuses) {
  board(1).script_status(replies({20, 36, -1, 36, 37, 20, 36, 40, 40, 43}));
  // Ten polls of a query's 0.3 s and the 0.1 s pause, the last one without its pause.
  EXPECT_TRUE(
      testing_support::takes(10 * 0.3 + 9 * 0.1, 6, [] { return SOC_PneumaticValveOn(0, 0); }));
  EXPECT_EQ(wire(1, 18),
            (Lines{kQuery, "vel_pne_in\n", kQuery, "vel_pne_down\n", kQuery, kQuery, kQuery,
                   "vel_pne_up\n", "vel_pne_out\n", kQuery, "vel_pne_in\n", kQuery,
                   "vel_pne_down\n", kQuery, "vel_run_led_on\n", kQuery, kQuery}));
  const auto lines = board(1).lines();
  EXPECT_GE(lines[8].time - lines[7].time, 0.2 - kReaderJitter);
  const char* down = "Waiting for both button down";
  const char* lowering = "Waiting for UUT in position or any button released";
  const char* released = "Waiting for both buttons released";
  Lines want{"VELMORA: SOC_PneumaticValveOn WELL:1"};
  const std::pair<int, const char*> polls[] = {{20, down},     {36, down},     {-1, ""},
                                               {36, lowering}, {37, lowering}, {20, down},
                                               {36, down},     {40, lowering}};
  for (const auto& [status, waiting] : polls) {
    for (auto& line : poll_log(status, waiting)) want.push_back(line);
  }
  want.insert(want.end(), {"VELMORA: SOC_PneumaticValveOn WELL:1, UUT in position",
                           "Left Well  Upper plate pressed down to the bottom!",
                           "VELMORA: Successfully turned ON Run Led for UUT:1"});
  for (int status : {40, 43}) {
    for (auto& line : poll_log(status, released)) want.push_back(line);
  }
  want.push_back("Left Well  Both button released!");
  EXPECT_EQ(log.syslog(), want);
}

// With its port closed each poll of a cycle is only the 0.1 s pause.
TEST_F(Press, TimeLimitWithAClosedPort) {
  EXPECT_FALSE(testing_support::takes(1.0, 2.5, [] {
    return testing_support::closed({0}, [] { return SOC_PneumaticValveOn(0, 1.0f); });
  }));
  const size_t polls = log.count("VELMORA: SOC_PneumaticValveOn WELL:1, rd is 0xffffffff");
  EXPECT_GE(polls, 5u);
  EXPECT_LE(polls, 11u);
  expect_wire({});
}

struct PressRows : Press, ::testing::WithParamInterface<Transcript> {};
TEST_P(PressRows, Transcript) { run(GetParam()); }

Lines valve_off_log(int well, bool written) {
  const std::string w = "WELL:" + std::to_string(well + 1),
                    at = "VELMORA: SOC_PneumaticValveOff, " + w +
                         (written ? ", Successfully write" : ", Failed to write");
  return {"VELMORA: SOC_PneumaticValveOff " + w, at + " vel_pne_up\n", at + " vel_pne_out\n"};
}

// Release raises, 0.01 s, opens, and its result is the second write's.
// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, PressRows, ::testing::Values(
  // Time limits: about 0.4 s a poll, false after the last; a negative limit or NaN: one poll.
  Transcript{"On_limit_1s", [] { Press::board(1).script_status(replies({23}));
      return int(SOC_PneumaticValveOn(0, 1.0f)); }, 0, {{1, kQuery}, {1, kQuery}, {1, kQuery}},
    std::nullopt, 1.2, 2.5},
  Transcript{"On_limit_negative", [] { Press::board(1).script_status(replies({23}));
      return int(SOC_PneumaticValveOn(0, -1.0f)); }, 0, {{1, kQuery}}, std::nullopt, 0.4, 1.5},
  Transcript{"On_limit_NaN", [] { Press::board(1).script_status(replies({23}));
      return int(SOC_PneumaticValveOn(0, NAN)); }, 0, {{1, kQuery}}, std::nullopt, 0.4, 1.5},
  Transcript{"ValveOff", [] { return int(SOC_PneumaticValveOff(2)); }, 1,
    {{1, "vel_pne_up\n"}, {1, "vel_pne_out\n", 0.01}}, valve_off_log(2, true)},
  Transcript{"ValveOff_closed", [] {
      return testing_support::closed({0}, [] { return int(SOC_PneumaticValveOff(0)); }); }, 0,
    {}, valve_off_log(0, false), 0.01}),
  testing_support::row_name);
// clang-format on

// The press without buttons reads and logs the status, closes, 0.2 s, lowers, 0.05 s.
TEST_F(Press, AutoOn) {
  board(1).script_status(replies({23}));
  EXPECT_TRUE(testing_support::takes(0.65, 3, [] { return SOC_PneumaticValveAutoOn(0, NAN); }));
  EXPECT_EQ(wire(1, 3), (Lines{kQuery, "vel_pne_in\n", "vel_pne_down\n"}));
  const auto lines = board(1).lines();
  EXPECT_GE(lines[2].time - lines[1].time, 0.2 - kReaderJitter);
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: SOC_PneumaticValveAutoOn WELL:1",
                   "VELMORA: queryFixtureStatusForWell1, query fixture 1 with vel_fixture_status\n",
                   "VELMORA: queryFixtureStatusForWell1 UUT:1, result:23",
                   "VELMORA: SOC_PneumaticValveAutoOn: WELL 1, rdData = 23"}));
}

TEST_F(Press, StatusTestTruthTables) {
  // A status test, the name in its "<name>, rdData = <status>" line ("" for none), the pause
  // before its query, and the statuses (-1: no answer) it answers true and false.
  const struct {
    bool (*call)(int);
    const char* logName;
    double pause;
    std::vector<int> yes, no;
  } cases[] = {
      {SOC_IsValveOn, "SOC_IsValveOn", 0.2, {43}, {42, -1}},
      {SOC_IsAbort_Pressed, "", 0, {4, 20, 22, 42, -1}, {40, 43}},
      {SOC_IsBoth_Pressed, "", 0, {40, 20}, {22, 41, -1}},
      {SOC_IsFixtureEngaged, "SOC_FixtureEngaged", 0.01, {40, 43}, {36, -1}},
      {SOC_IsFixtureDisengaged, "SOC_FixtureDisengaged", 0.01, {36}, {40, -1}},
      {SOC_IsFixtureClosed, "SOC_FixtureClosed", 0.01, {36, 40, 43}, {20, -1}},
      {SOC_IsFixtureOpened, "SOC_FixtureOpened", 0.01, {20, 22}, {36, -1}},
  };
  // Well 0 (port 0) answers the true ones while well 2 (port 4) answers the false ones, at once.
  for (const auto& c : cases) {
    SetUp();
    const auto work = [&](int well, const std::vector<int>& statuses) {
      board(well ? 5 : 1).script_status(replies(statuses));
      for (int status : statuses) {
        EXPECT_EQ(testing_support::takes(c.pause + 0.3, 3, [&] { return c.call(well); }), !well)
            << c.logName << status;
        const std::string line = "VELMORA: " + std::string(c.logName) + ", rdData = ";
        EXPECT_EQ(log.count(line + std::to_string(status)), *c.logName ? 1u : 0u) << line << status;
      }
      EXPECT_EQ(queries(well ? 5 : 1), statuses.size());
    };
    auto second = std::async(std::launch::async, work, 2, c.no);
    work(0, c.yes);
    second.get();
  }
}

// The chords posted since the last clear, each event followed by a report; a chord reads
// "CvAvZvZ^C^A^": Control, Alt and the letter down, the letter, Control and Alt up.
std::string chords() {
  const std::map<int, char> name = {
      {KEY_LEFTCTRL, 'C'}, {KEY_LEFTALT, 'A'}, {KEY_Z, 'Z'}, {KEY_Y, 'Y'}};
  const auto events = Press::keyboard->events();
  std::string out;
  for (size_t i = 0; i < events.size(); i += 2) {
    EXPECT_EQ(events.at(i + 1), (sim::KeyEvent{0, EV_SYN, SYN_REPORT, 0})) << i;
    out += {name.at(events[i].code), events[i].value ? 'v' : '^'};
  }
  return out;
}

TEST_F(Press, RunPostsItsWellsChordOncePerCall) {
  board(1).script_status(replies({22, 22, 23}));
  EXPECT_TRUE(SOC_IsRun_Pressed(0));
  EXPECT_EQ(chords(), "CvAvZvZ^C^A^");  // the very first chord is not lost
  EXPECT_TRUE(SOC_IsRun_Pressed(0));    // held through two calls: two chords
  EXPECT_FALSE(SOC_IsRun_Pressed(0));
  board(5).script_status(replies({22}));
  EXPECT_TRUE(SOC_IsRun_Pressed(1));
  EXPECT_FALSE(testing_support::takes(0, 0.25, [] { return SOC_IsRun_Pressed(2); }));  // no query
  EXPECT_EQ(chords(), "CvAvZvZ^C^A^CvAvZvZ^C^A^CvAvYvY^C^A^");
  EXPECT_EQ(queries(1), 3u);
  EXPECT_EQ(queries(5), 1u);

  // Both wells' chords at once: each whole.
  keyboard->clear();
  std::thread left([] {
    for (int i = 0; i < 20; ++i) SOC_SendCtrlAltZ();
  });
  for (int i = 0; i < 20; ++i) SOC_SendCtrlAltY();
  left.join();
  const std::string all = chords();
  ASSERT_EQ(all.size(), 40u * 12);
  for (size_t i = 0; i < all.size(); i += 12) {
    EXPECT_TRUE(all.substr(i, 12) == "CvAvZvZ^C^A^" || all.substr(i, 12) == "CvAvYvY^C^A^") << i;
  }
  // One keyboard for the library's life, made for these keys only.
  EXPECT_EQ(keyboard->created(), 1);
  EXPECT_EQ(keyboard->name(), "Brakwell key chords");
  auto keys = keyboard->enabled_keys();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<int>{KEY_Y, KEY_LEFTCTRL, KEY_Z, KEY_LEFTALT}));
}

// Both buttons held with the tray out: the cycle closes the tray, and the board is gone; the
// cycle polls on without an answer until its time is up. The board stays gone: this runs last.
TEST_F(Press, ZBoardUnpluggedInTheMiddleOfACycle) {
  board(5).set_responder([](const sim::ReceivedLine& line) -> std::optional<std::string> {
    if (line.text == "vel_pne_in\n") board(5).unplug();
    if (line.text == kQuery) return brakwell::station::status_reply(20);
    return std::nullopt;
  });
  EXPECT_FALSE(testing_support::takes(1.0, 2.0, [] { return SOC_PneumaticValveOn(1, 1.0f); }));
  expect_wire({{5, "vel_fixture_status\nvel_pne_in\n"}});
  EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveOn WELL:2, rd is 0xffffffff"));
  expect_working({6, 7, 1});
}

}  // namespace
