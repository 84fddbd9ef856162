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

#include "platform/log.h"
#include "platform/usb_context.h"
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

// A record's removal watch: the device it was made for, by the hotplug watch that reported it.
// The record's `notification` is the key; dropping the entry disarms the watch, so a record
// freed by usbDeviceRemoveAll is never reached by a later removal of its device.
struct Watch {
  intptr_t source;  // hotplug watch id; 0 for devices handed in by the host
  uint8_t bus, address;
  AppleDevRecord* record;
};

std::recursive_mutex trackerMutex;
std::map<uint32_t, Watch> watches;
uint32_t nextNotification = 1;

// At unload or exit every record still watched is freed. The event thread has ended by then: its
// state is made at first use, after this object, and so is destroyed before it.
struct ReleaseAtUnload {
  ~ReleaseAtUnload() {
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

void arrival(intptr_t source, libusb_device* device) {
  {
    // An arrival can be reported by the hotplug watch and by the first scan alike.
    std::lock_guard lock(trackerMutex);
    if (watched(source, device)) return;
  }
  const auto location = logged_location(device);
  if (!location) return;
  const std::string name = platform_usb::product_string(device);

  std::lock_guard lock(trackerMutex);
  if (watched(source, device)) return;
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
  if (arrived) {
    arrival(watch, device);
  } else {
    removal(device);
  }
}

}  // namespace

}  // namespace brakwell::usb

using namespace brakwell::usb;

extern "C" {

int usbDeviceConnStatus(long vendorId, long productId) {
  const auto vendor = static_cast<uint32_t>(vendorId), product = static_cast<uint32_t>(productId);
  int watch = 0;
  if (vendor <= 0xffff && product <= 0xffff) {
    watch = platform_usb::watch_devices(static_cast<uint16_t>(vendor),
                                        static_cast<uint16_t>(product), on_hotplug);
  }
  auto devices = watch < 0 ? std::nullopt : matching_devices(vendorId, productId);
  if (!devices) {
    log("usbDeviceConnStatus - IOServiceMatching returned NULL.\n");
    return 0;
  }
  // The devices already attached are handled here, on the caller's thread.
  devices->push_back(nullptr);
  usbDeviceArrival(reinterpret_cast<void*>(static_cast<intptr_t>(watch)), devices->data());
  devices->pop_back();
  release_devices(*devices);
  return 0;
}

// refCon carries the hotplug watch that reported the devices (0 from the host).
void usbDeviceArrival(void* refCon, struct libusb_device** iterator) {
  if (!iterator) return;
  for (; *iterator; ++iterator) arrival(reinterpret_cast<intptr_t>(refCon), *iterator);
}

int addSelfToAppleDevList(AppleDevRecord* record) {
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
}

void usbDeviceRemoval(void* refCon, struct libusb_device* service, uint32_t messageType,
                      void* messageArgument) {
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
}

void removeSelfFromAppleDevList(uint32_t locationID) {
  std::lock_guard lock(trackerMutex);
  for (AppleDevRecord*& entry : g_pListAppleDev) {
    if (entry && entry->locationID == locationID) entry = nullptr;
  }
}

void usbDeviceRemoveAll(void) {
  std::lock_guard lock(trackerMutex);
  for (AppleDevRecord*& entry : g_pListAppleDev) {
    if (entry) {
      usbDeviceRemoval(entry, nullptr, kServiceIsTerminated, nullptr);
      entry = nullptr;
    }
  }
}

}  // extern "C"

namespace brakwell::usb {

std::vector<uint32_t> location_history() {
  std::lock_guard lock(trackerMutex);
  return std::vector<uint32_t>(std::begin(g_ListUutLocationID), std::end(g_ListUutLocationID));
}

}  // namespace brakwell::usb
