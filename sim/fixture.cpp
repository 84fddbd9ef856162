#include "fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "topology.h"
#include "vcd.h"

namespace sim {

Fixture::Fixture(FixtureOptions options)
    : options_(std::move(options)), origin_(now()), bed_(std::make_unique<Testbed>()) {
  const int last = options_.wells >= 2 ? 8 : 4;
  for (int n = 1; n <= last; ++n) {
    if (!options_.missing.count(n)) sites_.insert(n);
  }
  usb_ = std::make_unique<UsbBus>(*bed_);
  boards_ = std::make_unique<Boards>(*bed_);
  // The board's USB device first: its port's tty hangs below it in sysfs.
  for (int n : sites_) {
    usb_->add_uart(n);
    boardDevices_[n] = usb_->add_board(n).id();
    boards_->add_site(n);
  }
  units_ = std::make_unique<Units>(*bed_, *usb_, sites_);
  WellOptions well;
  well.pressTravel = options_.pressTravel;
  well.trayTravel = options_.trayTravel;
  if (options_.operatorScript != "auto") {
    well.script =
        parse_operator_script(options_.operatorScript).value_or(std::vector<ButtonEvent>{});
  }
  for (int w = 1; w <= (options_.wells >= 2 ? 2 : 1); ++w) {
    well.garbled = options_.garbledWells.count(w) != 0;
    wells_[w - 1] = std::make_unique<Well>(*bed_, *boards_, w, well);
  }
  keyboard_ = std::make_unique<Keyboard>(*bed_);
  for (int m : options_.dioModules) {
    if (m < 0 || m > 1) continue;
    dio_[m] = std::make_unique<DioModule>(*usb_, m);
    const auto script = options_.dioStatus.find(m);
    dio_[m]->script_status(script != options_.dioStatus.end()
                               ? script->second
                               : std::vector<uint8_t>{static_cast<uint8_t>(0x17 + 0x10 * m)});
  }
}

Fixture::~Fixture() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (faults_.joinable()) faults_.join();
  if (operator_.joinable()) operator_.join();
  // The pieces go before the bus and the testbed that they live on.
  units_.reset();
  for (auto& well : wells_) well.reset();
  keyboard_.reset();
  for (auto& module : dio_) module.reset();
  boards_.reset();
  usb_.reset();
  bed_.reset();
}

Well* Fixture::well(int well) { return well == 1 || well == 2 ? wells_[well - 1].get() : nullptr; }

DioModule* Fixture::dio(int module) {
  return module == 0 || module == 1 ? dio_[module].get() : nullptr;
}

void Fixture::start() {
  const double t0 = now();
  for (auto& well : wells_) {
    if (well) well->start();
  }
  std::vector<TimedFault> faults;
  for (const auto& fault : options_.faults) {
    // Faults at time 0 are in place before start() returns, so before the program runs.
    if (fault.at <= 0) {
      strike(fault);
    } else {
      faults.push_back(fault);
    }
  }
  std::sort(faults.begin(), faults.end(),
            [](const TimedFault& a, const TimedFault& b) { return a.at < b.at; });
  if (options_.operatorScript == "auto") operator_ = std::thread([this] { run_operator(); });
  faults_ = std::thread([this, t0, faults] {
    for (const auto& fault : faults) {
      std::unique_lock lock(mutex_);
      const auto due = std::chrono::duration<double>(std::max(0.0, t0 + fault.at - now()));
      if (wake_.wait_for(lock, due, [this] { return stopping_; })) return;
      lock.unlock();
      strike(fault);
    }
  });
}

// The operator who completes every press cycle: both hands on the buttons while the plate is
// up, off again once the plate is down with the tray in and the station has lit the run LED
// (which it does when it has seen both buttons held in that position).
void Fixture::run_operator() {
  bool holding[2] = {false, false};
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, std::chrono::milliseconds(10), [this] { return stopping_; })) {
    for (int w = 0; w < 2; ++w) {
      Well* well = wells_[w].get();
      if (!well) continue;
      if (!holding[w] && well->plate() <= 0) {
        well->press(BothButtons);
        holding[w] = true;
      } else if (holding[w] && well->plate() >= 1 && well->tray() >= 1 && well->run_led()) {
        well->release(BothButtons);
        holding[w] = false;
      }
    }
  }
}

void Fixture::strike(const TimedFault& fault) {
  switch (fault.kind) {
    case TimedFault::BoardUnplugged: {
      if (!boards_->has_site(fault.target)) return;
      boards_->site(fault.target).unplug();
      usb_->remove(boardDevices_.at(fault.target));
      break;
    }
    case TimedFault::BoardStopsReading:
      if (!boards_->has_site(fault.target)) return;
      boards_->site(fault.target).stop_reading();
      bed_->trace("site" + std::to_string(fault.target), "reading=0");
      break;
    case TimedFault::DioGone:
      if (DioModule* module = dio(fault.target)) module->vanish();
      break;
  }
}

namespace {

// Every line of a site as the well model names it, then the counters and values it traces.
const char* const kSiteLines[] = {"vusb",  "vbatt",    "batt_supercap", "forcedfu", "uart",
                                  "hi5",   "accid",    "accdet",        "ntc",      "gpio1",
                                  "gpio2", "dfu_host", "pass_led",      "fail_led"};
// The keys of the Run chords, by the code the keyboard traces ("key29=1").
const std::map<std::string, std::string> kKeys = {
    {"key29", "ctrl"}, {"key56", "alt"}, {"key44", "z"}, {"key21", "y"}};

// Where a USB port path sits: the site and the role of its port, or a DIO module.
bool usb_place(const std::string& path, std::string* scope, std::string* name) {
  static const char* const kRoles[] = {nullptr, "uart_usb", "board_usb", "unit_usb"};
  for (int n = 1; n <= 8; ++n) {
    for (int port = kUartPort; port <= kUnitPort; ++port) {
      if (path == site_port_path(n, port)) {
        *scope = "site" + std::to_string(n);
        *name = kRoles[port];
        return true;
      }
    }
  }
  for (int m = 0; m < 2; ++m) {
    if (path == dio_port_path(m)) {
      *scope = "dio" + std::to_string(m);
      *name = "usb";
      return true;
    }
  }
  return false;
}

// A register write frame "04 01 00 rr vv" as the DIO trace writes it.
bool register_write(const std::string& frame, int* reg, int* value) {
  unsigned a = 0, b = 0, c = 0, r = 0, v = 0;
  char tail = 0;
  if (std::sscanf(frame.c_str(), "%x %x %x %x %x%c", &a, &b, &c, &r, &v, &tail) != 5) return false;
  if (a != 0x04 || b != 0x01 || c != 0x00) return false;
  *reg = static_cast<int>(r);
  *value = static_cast<int>(v);
  return true;
}

}  // namespace

bool Fixture::write_vcd(const std::string& path) const {
  // Fixed codes, so that a code means the same state on every site and in every file.
  const Vcd::Format kUnit{false, {"none", "normal", "recovery", "dfu"}};
  const Vcd::Format kHi5{false, {"none", "recovery", "diag"}};
  const Vcd::Format kNumber{true, {}};
  Vcd vcd;
  for (int n : sites_) {
    const std::string scope = "site" + std::to_string(n);
    for (const char* name : {"board_usb", "uart_usb", "unit_usb"}) vcd.declare(scope, name, "0");
    vcd.declare(scope, "unit", "none", kUnit);
    vcd.declare(scope, "unplugged", "0");
    vcd.declare(scope, "reading", "1");
    for (const char* line : kSiteLines) vcd.declare(scope, line, "0");
    vcd.declare(scope, "vbatt_mv", "0", kNumber);
    vcd.declare(scope, "resets", "0", kNumber);
    vcd.declare(scope, "hi5_mode", "none", kHi5);
  }
  for (int w = 1; w <= 2; ++w) {
    if (!wells_[w - 1]) continue;
    const std::string scope = "well" + std::to_string(w);
    for (const char* name : {"button_a", "button_b", "run_led"}) vcd.declare(scope, name, "0");
    vcd.declare(scope, "plate", "up", {false, {"up", "moving", "down"}});
    vcd.declare(scope, "tray", "out", {false, {"out", "moving", "in"}});
  }
  for (const auto& [code, name] : kKeys) vcd.declare("keyboard", name, "0");
  for (int m = 0; m < 2; ++m) {
    if (!dio_[m]) continue;
    const std::string scope = "dio" + std::to_string(m);
    vcd.declare(scope, "usb", "0");
    for (int r = 0; r <= 13; ++r) vcd.declare(scope, "reg" + std::to_string(r), "0", kNumber);
  }

  for (const TraceEvent& e : bed_->trace_events()) {
    if (!e.what.empty() && e.what.back() == '\n') continue;  // a line received, not a state
    const size_t eq = e.what.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = e.what.substr(0, eq), value = e.what.substr(eq + 1);
    std::string scope, name;
    int reg = 0, regValue = 0;
    if (e.source == "usb") {
      if (usb_place(key, &scope, &name))
        vcd.change(e.time, scope, name, value == "add" ? "1" : "0");
    } else if (e.source.rfind("dio", 0) == 0) {
      if (key == "out" && register_write(value, &reg, &regValue)) {
        vcd.change(e.time, e.source, "reg" + std::to_string(reg), std::to_string(regValue));
      } else if (key == "vanish") {
        vcd.change(e.time, e.source, "usb", "0");
      }
    } else if (e.source == "keyboard") {
      const auto named = kKeys.find(key);
      vcd.change(e.time, e.source, named == kKeys.end() ? key : named->second, value, true);
    } else {
      vcd.change(e.time, e.source, key, value, true);
    }
  }
  return vcd.write(path, origin_, "fixturesim, the Brakwell virtual fixture");
}

}  // namespace sim
