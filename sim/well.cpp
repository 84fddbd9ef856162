#include "well.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

namespace sim {
namespace {

using brakwell::station::kPlateDown;
using brakwell::station::kPlateUp;
using brakwell::station::kStatusQuery;
using brakwell::station::kTrayClosed;
using brakwell::station::kTrayOpen;

// "vel_x_on" and the like: the line x and its new value.
bool switch_line(const std::string& cmd, std::string* name, std::string* value) {
  static const std::pair<const char*, const char*> kSuffixes[] = {
      {"_on", "1"},      {"_off", "0"},    {"_conn", "1"},
      {"_disconn", "0"}, {"_enable", "1"}, {"_disable", "0"}};
  for (const auto& [suffix, v] : kSuffixes) {
    const std::string s = suffix;
    if (cmd.size() > s.size() && cmd.compare(cmd.size() - s.size(), s.size(), s) == 0) {
      *name = cmd.substr(0, cmd.size() - s.size());
      *value = v;
      return true;
    }
  }
  return false;
}

}  // namespace

std::optional<std::vector<ButtonEvent>> parse_operator_script(const std::string& text,
                                                              std::string* error) {
  std::string spaced = text;
  std::replace(spaced.begin(), spaced.end(), ',', ' ');
  std::istringstream in(spaced);
  std::vector<ButtonEvent> events;
  for (std::string token; in >> token;) {
    ButtonEvent e{0, 0, false};
    size_t i = 0;
    for (; i < token.size() && (token[i] == 'A' || token[i] == 'B'); ++i) {
      e.buttons |= token[i] == 'A' ? ButtonA : ButtonB;
    }
    const bool sign = i < token.size() && (token[i] == '+' || token[i] == '-');
    const bool atSign = sign && i + 1 < token.size() && token[i + 1] == '@';
    char* end = nullptr;
    if (atSign) e.at = std::strtod(token.c_str() + i + 2, &end);
    if (!e.buttons || !atSign || end == token.c_str() + i + 2 || *end || e.at < 0) {
      if (error) *error = "operator step '" + token + "' is not like AB+@0.5";
      return std::nullopt;
    }
    e.held = token[i] == '+';
    events.push_back(e);
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const ButtonEvent& a, const ButtonEvent& b) { return a.at < b.at; });
  return events;
}

double Well::Axis::at(double t) const {
  const double step = travel > 0 ? (t - since) / travel : 1.0;
  return from < target ? std::min(target, from + step) : std::max(target, from - step);
}

void Well::Axis::move_to(double newTarget, double t) {
  from = at(t);
  since = t;
  target = newTarget;
}

Well::Well(Testbed& bed, Boards& boards, int well, WellOptions options)
    : bed_(bed), boards_(boards), well_(well), options_(std::move(options)), origin_(now()) {
  plate_.travel = options_.pressTravel;
  tray_.travel = options_.trayTravel;
  buttons_ = options_.script;
  for (int site = well == 2 ? 5 : 1, last = site + 3; site <= last; ++site) {
    if (!boards_.has_site(site)) continue;
    sites_.push_back(site);
    boards_.site(site).set_responder(
        [this, site](const ReceivedLine& line) { return on_line(site, line); });
  }
}

Well::~Well() {
  for (int site : sites_) boards_.site(site).set_responder(nullptr);
}

void Well::start() {
  std::lock_guard lock(mutex_);
  origin_ = now();
}

void Well::press(int buttons, std::optional<double> at) {
  std::lock_guard lock(mutex_);
  buttons_.push_back({at.value_or(now() - origin_), buttons, true});
}

void Well::release(int buttons, std::optional<double> at) {
  std::lock_guard lock(mutex_);
  buttons_.push_back({at.value_or(now() - origin_), buttons, false});
}

bool Well::held_locked(int button, double t) const {
  bool held = false;
  double latest = -1;
  for (const ButtonEvent& e : buttons_) {
    if ((e.buttons & button) && e.at <= t - origin_ && e.at >= latest) {
      held = e.held;
      latest = e.at;
    }
  }
  return held;
}

int Well::status_locked(double t) const {
  int word = brakwell::station::kStatusBits;
  if (held_locked(ButtonA, t)) word &= ~ButtonA;
  if (held_locked(ButtonB, t)) word &= ~ButtonB;
  const double plate = plate_.at(t), tray = tray_.at(t);
  if (plate >= 1) word &= ~kPlateDown;
  if (plate <= 0) word &= ~kPlateUp;
  if (tray >= 1) word &= ~kTrayClosed;
  if (tray <= 0) word &= ~kTrayOpen;
  return word;
}

void Well::trace_changes_locked(double t) const {
  const int word = status_locked(t);
  const auto position = [](double p, const char* low, const char* high) {
    return p <= 0 ? low : p >= 1 ? high : "moving";
  };
  const std::map<std::string, std::string> now = {
      {"button_a", (word & ButtonA) ? "0" : "1"},
      {"button_b", (word & ButtonB) ? "0" : "1"},
      {"plate", position(plate_.at(t), "up", "down")},
      {"tray", position(tray_.at(t), "out", "in")},
      {"run_led", runLed_ ? "1" : "0"},
  };
  for (const auto& [key, value] : now) {
    auto& last = traced_[key];
    if (last == value) continue;
    last = value;
    bed_.trace("well" + std::to_string(well_), key + "=" + value);
  }
}

std::optional<std::string> Well::on_line(int site, const ReceivedLine& line) {
  std::lock_guard lock(mutex_);
  const double t = line.time;
  const std::string& text = line.text;
  if (text == kStatusQuery) {
    trace_changes_locked(t);
    if (options_.garbled) return "vel_fixture_stat=1?1\n";
    return brakwell::station::status_reply(status_locked(t));
  }
  if (text == "vel_pne_down\n")
    plate_.move_to(1, t);
  else if (text == "vel_pne_up\n")
    plate_.move_to(0, t);
  else if (text == "vel_pne_in\n")
    tray_.move_to(1, t);
  else if (text == "vel_pne_out\n")
    tray_.move_to(0, t);
  else if (text == "vel_run_led_on\n")
    runLed_ = true;
  else if (text == "vel_run_led_off\n")
    runLed_ = false;
  else if (text.rfind("vel_", 0) == 0 && text.back() == '\n') {
    apply_site_line(site, text.substr(4, text.size() - 5));
  }
  trace_changes_locked(t);
  return std::nullopt;
}

void Well::apply_site_line(int site, const std::string& command) {
  auto& lines = lines_[site];
  std::string name, value;
  const std::string scope = "site" + std::to_string(site);
  if (command.rfind("set_vbatt_", 0) == 0) {
    name = "vbatt_mv";
    value = command.substr(10);
  } else if (command.rfind("hi5_enter_", 0) == 0) {
    name = "hi5_mode";
    value = command.substr(10);
  } else if (command == "dfu_reset") {
    name = "resets";
    value = std::to_string(std::atoi(lines["resets"].c_str()) + 1);
  } else if (!switch_line(command, &name, &value)) {
    return;
  }
  lines[name] = value;
  bed_.trace(scope, name + "=" + value);
}

int Well::status() const {
  std::lock_guard lock(mutex_);
  return status_locked(now());
}

std::string Well::status_reply() const { return brakwell::station::status_reply(status()); }

bool Well::run_led() const {
  std::lock_guard lock(mutex_);
  return runLed_;
}

double Well::plate() const {
  std::lock_guard lock(mutex_);
  return plate_.at(now());
}

double Well::tray() const {
  std::lock_guard lock(mutex_);
  return tray_.at(now());
}

std::string Well::line(int site, const std::string& name) const {
  std::lock_guard lock(mutex_);
  const auto s = lines_.find(site);
  if (s == lines_.end()) return "";
  const auto l = s->second.find(name);
  return l == s->second.end() ? "" : l->second;
}

std::map<std::string, std::string> Well::lines(int site) const {
  std::lock_guard lock(mutex_);
  const auto s = lines_.find(site);
  return s == lines_.end() ? std::map<std::string, std::string>{} : s->second;
}

bool Well::wait_for(const std::function<bool()>& done, double timeout) const {
  const double until = now() + timeout;
  while (!done()) {
    if (now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace sim
