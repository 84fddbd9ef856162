#include "fixture.h"

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
    boardDevices_[n] = &usb_->add_board(n);
    boards_->add_site(n);
  }
  units_ = std::make_unique<Units>(*bed_, *usb_, sites_);
  for (int m : options_.dioModules) {
    if (m < 0 || m > 1) continue;
    dio_[m] = std::make_unique<DioModule>(*usb_, m);
    const auto script = options_.dioStatus.find(m);
    if (script != options_.dioStatus.end()) dio_[m]->script_status(script->second);
  }
}

Fixture::~Fixture() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (faults_.joinable()) faults_.join();
  // The pieces go before the bus and the testbed that they live on.
  units_.reset();
  for (auto& module : dio_) module.reset();
  boards_.reset();
  usb_.reset();
  bed_.reset();
}

DioModule* Fixture::dio(int module) {
  return module == 0 || module == 1 ? dio_[module].get() : nullptr;
}

void Fixture::start() {
  const double t0 = now();
  std::vector<TimedFault> faults = options_.faults;
  std::sort(faults.begin(), faults.end(),
            [](const TimedFault& a, const TimedFault& b) { return a.at < b.at; });
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

void Fixture::strike(const TimedFault& fault) {
  switch (fault.kind) {
    case TimedFault::BoardUnplugged:
      if (!boards_->has_site(fault.target)) return;
      boards_->site(fault.target).unplug();
      usb_->remove(*boardDevices_.at(fault.target));
      break;
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
  Vcd vcd;
  for (int n : sites_) {
    const std::string scope = "site" + std::to_string(n);
    for (const char* name : {"board_usb", "uart_usb", "unit_usb"}) vcd.declare(scope, name, "0");
    vcd.declare(scope, "unit", "none");
    vcd.declare(scope, "unplugged", "0");
    vcd.declare(scope, "reading", "1");
  }
  for (int m = 0; m < 2; ++m) {
    if (!dio_[m]) continue;
    const std::string scope = "dio" + std::to_string(m);
    vcd.declare(scope, "usb", "0");
    for (int r = 0; r <= 13; ++r) vcd.declare(scope, "reg" + std::to_string(r), "0");
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
    } else {
      vcd.change(e.time, e.source, key, value, true);
    }
  }
  return vcd.write(path, origin_, "fixturesim, the Brakwell virtual fixture");
}

}  // namespace sim
