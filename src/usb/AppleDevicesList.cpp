// The Apple-device live list and location history, fed by arrivals and removals from the
// library's USB event thread and by the host's calls. One mutex guards both lists and the
// removal watches; USB I/O (the name read) is done before taking it.
#include <Brakwell.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "platform/platform.h"
#include "usb/AppleDevices.h"

using brakwell::platform::device_text;
using brakwell::platform::log;
namespace platform_usb = brakwell::platform::usb;

extern "C" {
AppleDevRecord* g_pListAppleDev[BRAKWELL_APPLE_DEV_MAX] = {};
uint32_t g_ListUutLocationID[BRAKWELL_APPLE_DEV_MAX] = {};
}

namespace brakwell::usb {

namespace {

constexpr uint32_t kServiceIsTerminated = 0xE0000010;

// A record's removal watch: the device it was made for, and who reported it: the arm of the
// tracker (the usbDeviceConnStatus call, from 1) whose scan or hotplug watch saw it, or 0 for
// the host's own usbDeviceArrival calls. The record's `notification` is the key; dropping the
// entry disarms the watch, so a record freed by usbDeviceRemoveAll is never reached by a later
// removal of its device.
struct Watch {
  intptr_t source;
  uint8_t bus, address;
  AppleDevRecord* record;
};

std::recursive_mutex trackerMutex;
std::map<uint32_t, Watch> watches;
uint32_t nextNotification = 1;
// The arms so far, and the latest arm of each hotplug watch (one per vendor and product).
intptr_t arms = 0;
std::map<int, intptr_t> latestArm;

// At unload or exit every record still watched is freed. The event thread has ended by then: its
// state is made at first use, after this object, and so is destroyed before it.
struct ReleaseAtUnload {
  ~ReleaseAtUnload() {
    if (brakwell::platform::forked_child()) return;
    std::lock_guard lock(trackerMutex);
    for (auto& [id, w] : watches) {
      for (AppleDevRecord*& entry : g_pListAppleDev) {
        if (entry == w.record) entry = nullptr;
      }
      std::free(w.record->deviceName);
      std::free(w.record);
    }
    watches.clear();
  }
} releaseAtUnload;

bool watched(intptr_t source, libusb_device* device) {
  const uint8_t bus = libusb_get_bus_number(device), address = libusb_get_device_address(device);
  for (const auto& [id, w] : watches) {
    if (w.source == source && w.bus == bus && w.address == address) return true;
  }
  return false;
}

// An arrival from the tracker itself is recorded once per arm: its scan and its hotplug watch
// can both report a device that arrived as it was armed. The host's calls record every time.
void arrival(intptr_t source, libusb_device* device) {
  {
    std::lock_guard lock(trackerMutex);
    if (source && watched(source, device)) return;
  }
  const auto location = logged_location(device);
  if (!location) return;
  const std::string name = platform_usb::product_string(device);

  std::lock_guard lock(trackerMutex);
  if (source && watched(source, device)) return;
  auto* record = static_cast<AppleDevRecord*>(std::calloc(1, sizeof(AppleDevRecord)));
  if (!record) return;
  record->deviceName = strdup(name.c_str());
  record->locationID = *location;
  addSelfToAppleDevList(record);  // listed or not, the device is remembered and watched
  log("Apple Device added: DeviceName=%s locationID=0x%x", device_text(name).c_str(),
      record->locationID);
  record->notification = nextNotification++;
  watches[record->notification] =
      Watch{source, libusb_get_bus_number(device), libusb_get_device_address(device), record};
}

// Every record made for the device goes, whoever reported its arrival.
void removal(libusb_device* device) {
  const uint8_t bus = libusb_get_bus_number(device), address = libusb_get_device_address(device);
  std::lock_guard lock(trackerMutex);
  std::vector<AppleDevRecord*> records;
  for (const auto& [id, w] : watches) {
    if (w.bus == bus && w.address == address) records.push_back(w.record);
  }
  for (auto* record : records) usbDeviceRemoval(record, device, kServiceIsTerminated, nullptr);
}

void on_hotplug(int watch, libusb_device* device, bool arrived) {
  if (!arrived) return removal(device);
  intptr_t arm = 0;
  {
    std::lock_guard lock(trackerMutex);
    arm = latestArm[watch];
  }
  arrival(arm, device);
}

// The devices already attached, recorded for this arm; false when they cannot be listed.
bool scan(long vendorId, long productId, intptr_t arm) {
  auto devices = matching_devices(vendorId, productId);
  if (!devices) return false;
  for (libusb_device* device : *devices) arrival(arm, device);
  release_devices(*devices);
  return true;
}

}  // namespace

}  // namespace brakwell::usb

using namespace brakwell::usb;

extern "C" {

int usbDeviceConnStatus(long vendorId, long productId) try {
  const auto vendor = static_cast<uint32_t>(vendorId), product = static_cast<uint32_t>(productId);
  intptr_t arm = 0;
  int watch = 0;
  if (vendor > 0xffff || product > 0xffff) {
    const bool scanned = scan(vendorId, productId, 0);  // no device has such ids
    if (!scanned) log("usbDeviceConnStatus - IOServiceMatching returned NULL.\n");
    return 0;
  }
  {
    // Under the lock, so that the watch's first event already finds its arm.
    std::lock_guard lock(trackerMutex);
    watch = platform_usb::watch_devices(static_cast<uint16_t>(vendor),
                                        static_cast<uint16_t>(product), on_hotplug);
    if (watch > 0) latestArm[watch] = arm = ++arms;
  }
  // On the event thread, in order with the hotplug events: a device that leaves during the
  // scan is removed after it is recorded, never before.
  bool scanned = false;
  if (watch > 0) {
    platform_usb::run_on_event_thread([&] { scanned = scan(vendorId, productId, arm); });
  }
  if (!scanned) log("usbDeviceConnStatus - IOServiceMatching returned NULL.\n");
  return 0;
} catch (...) {
  return brakwell::platform::failed("usbDeviceConnStatus", 0);
}

// The context pointer is ignored: every device is recorded.
void usbDeviceArrival(void* refCon, struct libusb_device** iterator) try {
  (void)refCon;
  if (!iterator) return;
  for (; *iterator; ++iterator) arrival(0, *iterator);
} catch (...) {
  brakwell::platform::failed("usbDeviceArrival");
}

int addSelfToAppleDevList(AppleDevRecord* record) try {
  if (!record) return 0;
  std::lock_guard lock(trackerMutex);
  bool known = false;
  for (uint32_t id : g_ListUutLocationID) known |= id == record->locationID;
  if (!known) {
    for (uint32_t& id : g_ListUutLocationID) {
      if (id == 0) {
        id = record->locationID;
        break;
      }
    }
  }
  for (AppleDevRecord*& entry : g_pListAppleDev) {
    if (!entry) {
      entry = record;
      return 1;
    }
  }
  log("Warning: Max %d Apple Devices supported! Added Apple Device (locationID:0x%lx) ignored!",
      BRAKWELL_APPLE_DEV_MAX, static_cast<unsigned long>(record->locationID));
  return 0;
} catch (...) {
  return brakwell::platform::failed("addSelfToAppleDevList", 0);
}

void usbDeviceRemoval(void* refCon, struct libusb_device* service, uint32_t messageType,
                      void* messageArgument) try {
  (void)service;
  (void)messageArgument;
  auto* record = static_cast<AppleDevRecord*>(refCon);
  if (messageType != kServiceIsTerminated || !record) return;
  std::lock_guard lock(trackerMutex);
  log("Apple Device removed. Device Name:%@ locationID: 0x%x",
      device_text(record->deviceName ? record->deviceName : "(null)").c_str(), record->locationID);
  for (AppleDevRecord*& entry : g_pListAppleDev) {
    if (entry && entry->locationID == record->locationID) entry = nullptr;
  }
  std::free(record->deviceName);
  watches.erase(record->notification);
  std::free(record);
} catch (...) {
  brakwell::platform::failed("usbDeviceRemoval");
}

void removeSelfFromAppleDevList(uint32_t locationID) {
  std::lock_guard lock(trackerMutex);
  for (AppleDevRecord*& entry : g_pListAppleDev) {
    if (entry && entry->locationID == locationID) entry = nullptr;
  }
}

void usbDeviceRemoveAll(void) try {
  std::lock_guard lock(trackerMutex);
  for (AppleDevRecord*& entry : g_pListAppleDev) {
    if (entry) {
      usbDeviceRemoval(entry, nullptr, kServiceIsTerminated, nullptr);
      entry = nullptr;
    }
  }
} catch (...) {
  brakwell::platform::failed("usbDeviceRemoveAll");
}

}  // extern "C"

namespace brakwell::usb {

std::vector<uint32_t> location_history() {
  std::lock_guard lock(trackerMutex);
  return std::vector<uint32_t>(std::begin(g_ListUutLocationID), std::end(g_ListUutLocationID));
}

}  // namespace brakwell::usb
