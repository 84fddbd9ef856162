#include "unit.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "topology.h"

namespace sim {

const UnitIdentity& unit_identity(BootMode mode) {
  static const UnitIdentity kIdentities[] = {
      {"iPhone", 0x05ac, 0x12a8, "normal"},
      {"Apple Mobile Device (Recovery Mode)", 0x05ac, 0x1281, "recovery"},
      {"Apple Mobile Device (DFU Mode)", 0x05ac, 0x1227, "dfu"},
  };
  return kIdentities[static_cast<int>(mode)];
}

namespace {

struct Site {
  bool usb = false, battery = false, forceDfu = false;
  bool recoveryRequested = false;
  std::optional<BootMode> mode;  // set while the unit is on the bus
  uint64_t device = 0;  // its id on the bus: a test may have pulled it, and the bus freed it
  int console = -1;     // the unit's end of its UART port (the testbed's), -1 without one
  int hold = -1;        // the station's end, held open so that the port never reads as hung up
};

// What each line the units care about does to a site.
enum class Effect { UsbOn, UsbOff, BatteryOn, BatteryOff, DfuOn, DfuOff, Recovery, Diag, Reset };
const std::map<std::string, Effect>& effects() {
  static const std::map<std::string, Effect> kEffects = {
      {"vel_vusb_on\n", Effect::UsbOn},
      {"vel_vusb_off\n", Effect::UsbOff},
      {"vel_vbatt_on\n", Effect::BatteryOn},
      {"vel_vbatt_off\n", Effect::BatteryOff},
      {"vel_forcedfu_on\n", Effect::DfuOn},
      {"vel_forcedfu_off\n", Effect::DfuOff},
      {"vel_hi5_enter_recovery\n", Effect::Recovery},
      {"vel_hi5_enter_diag\n", Effect::Diag},
      {"vel_dfu_reset\n", Effect::Reset},
  };
  return kEffects;
}

}  // namespace

struct Units::Impl {
  Testbed& bed;
  UsbBus& bus;
  mutable std::mutex mutex;
  std::map<int, Site> sites;
  bool closed = false;
  int wakePipe[2] = {-1, -1};
  std::thread consoles;

  Impl(Testbed& b, UsbBus& u) : bed(b), bus(u) {}

  // The unit's console on its UART bridge's port, when the bus made one for the site.
  void attach_console(int n, Site& site) {
    const std::string devnode = "/dev/" + uart_tty(n);
    site.console = umockdev_testbed_get_dev_fd(bed.raw(), devnode.c_str());
    if (site.console < 0) return;
    fcntl(site.console, F_SETFL, fcntl(site.console, F_GETFL) | O_NONBLOCK);
    fcntl(site.console, F_SETFD, fcntl(site.console, F_GETFD) | FD_CLOEXEC);
    // Raw, or the port would echo the console's own output back to it.
    site.hold = open(devnode.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios raw{};
    if (site.hold >= 0 && tcgetattr(site.hold, &raw) == 0) {
      cfmakeraw(&raw);
      tcsetattr(site.hold, TCSANOW, &raw);
    }
  }

  // A booted unit echoes what it is sent; an unpowered one drops it.
  void serve_consoles() {
    for (;;) {
      std::vector<pollfd> fds{{wakePipe[0], POLLIN, 0}};
      std::vector<int> owners{0};
      {
        std::lock_guard lock(mutex);
        if (closed) return;
        for (auto& [n, site] : sites) {
          if (site.console >= 0) {
            fds.push_back({site.console, POLLIN, 0});
            owners.push_back(n);
          }
        }
      }
      if (poll(fds.data(), fds.size(), -1) <= 0) continue;
      if (fds[0].revents) return;
      for (size_t i = 1; i < fds.size(); ++i) {
        char buf[256];
        const ssize_t got = (fds[i].revents & POLLIN) ? read(fds[i].fd, buf, sizeof buf) : 0;
        std::lock_guard lock(mutex);
        if (got > 0 && sites[owners[i]].mode) (void)!write(fds[i].fd, buf, got);
      }
    }
  }

  void on_line(int n, Effect effect) {
    std::lock_guard lock(mutex);
    if (closed) return;
    auto it = sites.find(n);
    if (it == sites.end()) return;
    Site& site = it->second;
    switch (effect) {
      case Effect::UsbOn:
        site.usb = true;
        break;
      case Effect::UsbOff:
        site.usb = false;
        break;
      case Effect::BatteryOn:
        site.battery = true;
        break;
      case Effect::BatteryOff:
        site.battery = false;
        break;
      case Effect::DfuOn:
        site.forceDfu = true;
        break;
      case Effect::DfuOff:
        site.forceDfu = false;
        break;
      case Effect::Recovery:
        site.recoveryRequested = true;
        break;
      case Effect::Diag:
        site.recoveryRequested = false;
        break;
      case Effect::Reset:
        site.usb = site.battery = false;
        break;
    }
    settle(n, site);
  }

  // The unit follows its supplies: it boots when the first one comes on, and goes when the last
  // one goes off.
  void settle(int n, Site& site) {
    const bool powered = site.usb || site.battery;
    if (powered && !site.mode) {
      const BootMode mode = site.forceDfu            ? BootMode::Dfu
                            : site.recoveryRequested ? BootMode::Recovery
                                                     : BootMode::Normal;
      const UnitIdentity& id = unit_identity(mode);
      site.mode = mode;
      bed.trace("site" + std::to_string(n), std::string("unit=") + id.state);
      if (site.console >= 0) {
        const std::string line =
            "unit " + std::to_string(n) + " booted in " + id.state + " mode\r\n";
        (void)!write(site.console, line.data(), line.size());
      }
      site.device = bus.add_unit(n, id.name, id.vendor, id.product).id();
    } else if (!powered && site.mode) {
      site.mode.reset();
      site.recoveryRequested = false;
      bed.trace("site" + std::to_string(n), "unit=none");
      bus.remove(site.device);
      site.device = 0;
    }
  }
};

Units::Units(Testbed& bed, UsbBus& bus, const std::set<int>& sites)
    : impl_(std::make_shared<Impl>(bed, bus)) {
  for (int n : sites) impl_->attach_console(n, impl_->sites[n]);
  if (pipe2(impl_->wakePipe, O_CLOEXEC) != 0) std::abort();
  impl_->consoles = std::thread([impl = impl_.get()] { impl->serve_consoles(); });
  std::weak_ptr<Impl> weak = impl_;
  bed.on_trace([weak](const TraceEvent& event) {
    // Only the lines boards received matter; everything else (our own changes included) is
    // passed over before any lock is taken.
    if (event.source.rfind("site", 0) != 0 || event.what.empty() || event.what.back() != '\n') {
      return;
    }
    const auto effect = effects().find(event.what);
    if (effect == effects().end()) return;
    if (auto impl = weak.lock()) impl->on_line(std::stoi(event.source.substr(4)), effect->second);
  });
}

Units::~Units() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->closed = true;
  }
  (void)!write(impl_->wakePipe[1], "x", 1);
  impl_->consoles.join();
  for (auto& [n, site] : impl_->sites) {
    if (site.hold >= 0) close(site.hold);
  }
  close(impl_->wakePipe[0]);
  close(impl_->wakePipe[1]);
}

std::optional<BootMode> Units::present(int site) const {
  std::lock_guard lock(impl_->mutex);
  const auto it = impl_->sites.find(site);
  return it == impl_->sites.end() ? std::nullopt : it->second.mode;
}

}  // namespace sim
