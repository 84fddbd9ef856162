// A well of the virtual fixture behind its four boards: the line states each site's board was
// told to set, the well's run LED, the press (plate up/down) and the tray (in/out) moving with
// their travel times, the two operator buttons, and the answer to "vel_fixture_status\n" built
// from all that, e.g. "vel_fixture_status=101011 l_sw\n".
//
// The well answers through the responders of its sites' boards (sites 1-4 for well 1, 5-8 for
// well 2), so a board given script_status() afterwards leaves the model. Positions and buttons
// are worked out when a line arrives or a getter is called; nothing runs in the background.
//
// Operator scripts (FixtureOptions::operatorScript, other than "auto", which Fixture plays): a
// list of "<buttons><+|->@<seconds>" separated by blanks or commas, seconds counted from
// start(): "AB+@0.2 A-@1.5 A+@2.5 AB-@6".
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "boards.h"
#include "common/station.h"
#include "testbed.h"

namespace sim {

enum Button {
  ButtonA = brakwell::station::kButtonA,
  ButtonB = brakwell::station::kButtonB,
  BothButtons = brakwell::station::kButtons
};

struct ButtonEvent {
  double at;    // seconds after start()
  int buttons;  // Button bits
  bool held;
};

// Parses an operator script; nothing and a message when it is not one. "auto" is not a list.
std::optional<std::vector<ButtonEvent>> parse_operator_script(const std::string& text,
                                                              std::string* error = nullptr);

struct WellOptions {
  double pressTravel = 0.3;  // seconds between the plate's end positions
  double trayTravel = 0.3;
  std::vector<ButtonEvent> script;
  bool garbled = false;  // status replies lack their marker, so they read as no answer
};

class Well {
 public:
  // well: 1 (sites 1-4) or 2 (sites 5-8); takes over the responders of those sites' boards.
  Well(Testbed& bed, Boards& boards, int well, WellOptions options = {});
  ~Well();  // hands the boards back without responders
  Well(const Well&) = delete;
  Well& operator=(const Well&) = delete;

  // Time 0 of the script and of press()/release() times; construction counts as a start.
  void start();
  // Operator hands: at `at` seconds after start(), or now when omitted.
  void press(int buttons, std::optional<double> at = std::nullopt);
  void release(int buttons, std::optional<double> at = std::nullopt);

  int status() const;  // the 6-bit word now (bits active low)
  std::string status_reply() const;
  bool run_led() const;
  double plate() const;  // 0 up ... 1 down
  double tray() const;   // 0 out (open) ... 1 in (closed)
  // What the site's board was last told for a line: "vusb" -> "1", "vbatt_mv" -> "4100",
  // "hi5_mode" -> "diag"; "" if never. Counters: "resets" (vel_dfu_reset lines).
  std::string line(int site, const std::string& name) const;
  std::map<std::string, std::string> lines(int site) const;

  // Polls `done` every 5 ms until it holds; false after `timeout` seconds.
  bool wait_for(const std::function<bool()>& done, double timeout) const;

 private:
  struct Axis {
    double from = 0, target = 0, since = 0, travel = 0.3;
    double at(double t) const;
    void move_to(double target, double t);
  };

  std::optional<std::string> on_line(int site, const ReceivedLine& line);
  void apply_site_line(int site, const std::string& command);
  int status_locked(double t) const;
  bool held_locked(int button, double t) const;
  void trace_changes_locked(double t) const;

  Testbed& bed_;
  Boards& boards_;
  int well_;
  WellOptions options_;
  std::vector<int> sites_;
  mutable std::mutex mutex_;
  double origin_;
  Axis plate_, tray_;
  bool runLed_ = false;
  std::vector<ButtonEvent> buttons_;  // in the order given; the last one at or before t decides
  std::map<int, std::map<std::string, std::string>> lines_;
  mutable std::map<std::string, std::string> traced_;
};

}  // namespace sim
