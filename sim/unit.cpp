#include "unit.h"

#include <map>
#include <string>

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
  UsbDevice* device = nullptr;
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

  Impl(Testbed& b, UsbBus& u) : bed(b), bus(u) {}

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
      site.device = &bus.add_unit(n, id.name, id.vendor, id.product);
    } else if (!powered && site.mode) {
      site.mode.reset();
      site.recoveryRequested = false;
      bed.trace("site" + std::to_string(n), "unit=none");
      if (site.device) bus.remove(*site.device);
      site.device = nullptr;
    }
  }
};

Units::Units(Testbed& bed, UsbBus& bus, const std::set<int>& sites)
    : impl_(std::make_shared<Impl>(bed, bus)) {
  for (int n : sites) impl_->sites[n];
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
  std::lock_guard lock(impl_->mutex);
  impl_->closed = true;
}

std::optional<BootMode> Units::present(int site) const {
  std::lock_guard lock(impl_->mutex);
  const auto it = impl_->sites.find(site);
  return it == impl_->sites.end() ? std::nullopt : it->second.mode;
}

}  // namespace sim
