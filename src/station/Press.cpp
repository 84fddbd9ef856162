// The pneumatic press of a well: the two-hand press cycle, the press without buttons, release,
// the button and sensor tests on the fixture status, and the Run key chord.
#include <Brakwell.h>

#include <cmath>
#include <initializer_list>

#include "common/numbers.h"
#include "common/station.h"
#include "platform/platform.h"
#include "station/board_link.h"

using brakwell::platform::log;
using brakwell::platform::monotonic_seconds;
using brakwell::platform::sleep_seconds;

namespace {

using brakwell::link::kPressDown;
using brakwell::link::kPressIn;
using brakwell::link::kPressOut;
using brakwell::link::kPressUp;
using brakwell::station::first_uut_any_nonzero;
using brakwell::station::kButtonA;
using brakwell::station::kButtons;
using brakwell::station::kLinePause;
using brakwell::station::kPlateDown;
using brakwell::station::kPlateUp;
using brakwell::station::kTrayClosed;
using brakwell::station::kTrayOpen;
using brakwell::station::status_where;
using brakwell::station::write_line;

constexpr double kPollPause = 0.1;
constexpr double kSendBackPause = 0.2;

// The whole status words the press reacts to, by what holds in them.
constexpr int kBothHeldTrayOpen = status_where(kButtons | kPlateUp | kTrayOpen);
constexpr int kBothHeldTrayClosed = status_where(kButtons | kPlateUp | kTrayClosed);
constexpr int kBothHeldPlateDownTrayOpen = status_where(kButtons | kPlateDown | kTrayOpen);
constexpr int kBothHeldInPosition = status_where(kButtons | kPlateDown | kTrayClosed);
constexpr int kRunPressed = status_where(kButtonA | kPlateUp | kTrayOpen);
constexpr int kAbortPressed = status_where(kButtonA | kPlateDown | kTrayClosed);
constexpr int kValveOn = status_where(kPlateDown | kTrayClosed);

// The press commands and status of a well go through the port of its first site.
int status_of_well(int well) {
  const int first = first_uut_any_nonzero(well);
  return first != 0 ? queryFixtureStatusForWell2(first) : queryFixtureStatusForWell1(first);
}

// ---- The two-hand press cycle ----

enum class PressState { WaitBothDown, Lowering, InPosition };

struct Cycle {
  int well;
  int port;
  const char* label;
};

struct Transition {
  PressState from;
  bool (*when)(int status);
  void (*act)(const Cycle&);
  PressState to;
  bool finishes;  // the call returns true after the action
};

void close_tray(const Cycle& c) { write_line(c.port, kPressIn); }
void lower_plate(const Cycle& c) { write_line(c.port, kPressDown); }
void run_led_on(const Cycle& c) { turnOnRunLed(c.well); }
void send_back(const Cycle& c) {
  write_line(c.port, kPressUp);
  sleep_seconds(kSendBackPause);
  write_line(c.port, kPressOut);
}
void in_position(const Cycle& c) {
  log("VELMORA: SOC_PneumaticValveOn WELL:%d, UUT in position", brakwell::one_based(c.well));
  log("%@ Upper plate pressed down to the bottom!", c.label);
  turnOnRunLed(c.well);
}
void released(const Cycle& c) { log("%@ Both button released!", c.label); }

// clang-format off
constexpr Transition kTransitions[] = {
  {PressState::WaitBothDown, [](int s) { return s == kBothHeldTrayOpen; },
   close_tray, PressState::WaitBothDown, false},
  {PressState::WaitBothDown, [](int s) { return s == kBothHeldTrayClosed; },
   lower_plate, PressState::Lowering, false},
  {PressState::WaitBothDown, [](int s) { return s == kBothHeldPlateDownTrayOpen; },
   run_led_on, PressState::WaitBothDown, true},
  // Letting go of either button while the plate comes down sends the plate back.
  {PressState::Lowering, [](int s) { return (s & kButtons) != 0; },
   send_back, PressState::WaitBothDown, false},
  {PressState::Lowering, [](int s) { return s == kBothHeldInPosition; },
   in_position, PressState::InPosition, false},
  {PressState::InPosition, [](int s) { return (s & kButtons) == kButtons; },
   released, PressState::InPosition, true},
};
// clang-format on

// The line each state logs at every poll that reads a status, in PressState order.
constexpr const char* kWaiting[] = {
    "VELMORA: SOC_PneumaticValveOn WELL:%d, Waiting for both button down",
    "VELMORA: SOC_PneumaticValveOn WELL:%d, Waiting for UUT in position or any button released",
    "VELMORA: SOC_PneumaticValveOn WELL:%d, Waiting for both buttons released",
};

// Whether the cycle goes on after a poll: 0 waits without limit; a limit that is not a number
// ends it at the first check.
bool time_left(float timeout, double start) {
  if (timeout == 0) return true;
  const double elapsed = std::fabs(monotonic_seconds() - start);
  return static_cast<double>(timeout) >= elapsed;
}

// ---- Status tests ----

struct StatusTest {
  double pause;
  const char* message;  // nullptr: no log line
  bool (*holds)(int status);
};

enum TestId { ValveOn, AbortPressed, BothPressed, Engaged, Disengaged, Closed, Opened };

// A sensor holds when its bit reads 0 in a real reading; -1 sets every bit above bit 7.
template <int Bit>
bool sensor(int s) {
  constexpr int others = 0xFF & ~Bit;
  return (s | others) == others;
}

// clang-format off
constexpr StatusTest kStatusTests[] = {
  {0.2, "VELMORA: SOC_IsValveOn, rdData = %d", [](int s) { return s == kValveOn; }},
  // Deliberately broad: any reading with the plate not down counts as Abort, -1 included.
  {0, nullptr, [](int s) { return s == kAbortPressed || (s & kPlateDown) != 0; }},
  {0, nullptr, [](int s) { return (s & kButtons) == 0; }},
  {kLinePause, "VELMORA: SOC_FixtureEngaged, rdData = %d", sensor<kPlateDown>},
  {kLinePause, "VELMORA: SOC_FixtureDisengaged, rdData = %d", sensor<kPlateUp>},
  {kLinePause, "VELMORA: SOC_FixtureClosed, rdData = %d", sensor<kTrayClosed>},
  {kLinePause, "VELMORA: SOC_FixtureOpened, rdData = %d", sensor<kTrayOpen>},
};
// clang-format on

bool status_test(TestId id, int well) {
  const StatusTest& t = kStatusTests[id];
  sleep_seconds(t.pause);
  const int status = status_of_well(well);
  if (t.message) log(t.message, status);
  return t.holds(status);
}

void post_chord(const char* name, brakwell::platform::ChordLetter letter) try {
  if (const char* why = brakwell::platform::post_control_alt_chord(letter)) {
    log("VELMORA: %s, no virtual keyboard: %s", name, why);
  }
} catch (...) {
  brakwell::platform::failed(name);
}

}  // namespace

extern "C" {

bool SOC_PneumaticValveOn(int well, float timeout) {
  log("VELMORA: SOC_PneumaticValveOn WELL:%d", brakwell::one_based(well));
  const char* label = g_WellNumber == 2 ? (well == 0 ? "Left Well " : "Right Well ") : "";
  const double start = monotonic_seconds();
  const Cycle cycle{well, first_uut_any_nonzero(well), label};
  PressState state = PressState::WaitBothDown;
  do {
    const int status = status_of_well(well);
    log("VELMORA: SOC_PneumaticValveOn WELL:%d, rd is 0x%x", brakwell::one_based(well), status);
    if (status != -1) {
      log(kWaiting[static_cast<int>(state)], brakwell::one_based(well));
      for (const Transition& t : kTransitions) {
        if (t.from != state || !t.when(status)) continue;
        t.act(cycle);
        if (t.finishes) return true;
        state = t.to;
        break;
      }
    }
    sleep_seconds(kPollPause);
  } while (time_left(timeout, start));
  return false;
}

// Closes and lowers without waiting for anyone; the status is read and logged only.
bool SOC_PneumaticValveAutoOn(int well, float /*timeout*/) {
  log("VELMORA: SOC_PneumaticValveAutoOn WELL:%d", brakwell::one_based(well));
  sleep_seconds(0.1);
  log("VELMORA: SOC_PneumaticValveAutoOn: WELL %d, rdData = %d", brakwell::one_based(well),
      status_of_well(well));
  const int port = first_uut_any_nonzero(well);
  write_line(port, kPressIn);
  sleep_seconds(0.2);
  write_line(port, kPressDown);
  sleep_seconds(0.05);
  return true;
}

// Only exactly 1 is the second well here, unlike the press cycle and the status tests.
bool SOC_PneumaticValveOff(int well) {
  log("VELMORA: SOC_PneumaticValveOff WELL:%d", brakwell::one_based(well));
  const int port = brakwell::station::first_uut_only_one(well);
  bool written = false;
  for (const char* command : {kPressUp, kPressOut}) {
    if (command == kPressOut) sleep_seconds(kLinePause);
    written = write_line(port, command);
    log(written ? "VELMORA: SOC_PneumaticValveOff, WELL:%d, Successfully write %@"
                : "VELMORA: SOC_PneumaticValveOff, WELL:%d, Failed to write %@",
        brakwell::one_based(well), command);
  }
  return written;
}

bool SOC_IsValveOn(int well) { return status_test(ValveOn, well); }
bool SOC_IsAbort_Pressed(int well) { return status_test(AbortPressed, well); }
bool SOC_IsBoth_Pressed(int well) { return status_test(BothPressed, well); }
bool SOC_IsFixtureEngaged(int well) { return status_test(Engaged, well); }
bool SOC_IsFixtureDisengaged(int well) { return status_test(Disengaged, well); }
bool SOC_IsFixtureClosed(int well) { return status_test(Closed, well); }
bool SOC_IsFixtureOpened(int well) { return status_test(Opened, well); }

// Run is button A alone with the plate up and the tray open; every call that sees it posts the
// well's key chord once.
bool SOC_IsRun_Pressed(int well) {
  if (well == 0 && queryFixtureStatusForWell1(0) == kRunPressed) {
    SOC_SendCtrlAltZ();
    return true;
  }
  if (well == 1 && queryFixtureStatusForWell2(4) == kRunPressed) {
    SOC_SendCtrlAltY();
    return true;
  }
  return false;
}

void SOC_SendCtrlAltZ(void) { post_chord("SOC_SendCtrlAltZ", brakwell::platform::ChordLetter::Z); }
void SOC_SendCtrlAltY(void) { post_chord("SOC_SendCtrlAltY", brakwell::platform::ChordLetter::Y); }

}  // extern "C"
