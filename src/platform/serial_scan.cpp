// The serial scan on Linux: a libudev enumeration of the tty subsystem stands in for the
// registry iterator of serial clients, and a udev device for a registry entry.
#include <Brakwell.h>
#include <libudev.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "platform/platform.h"

namespace {
char resultStr[256];  // the last property string read, as getRegistryString hands it out
}

extern "C" int createSerialIterator(udev_enumerate** iterator) {
  // udev_new failing stands for the unavailable master port.
  udev* context = udev_new();
  if (!context) {
    brakwell::platform::print("IOMasterPort returned %d\n", -1);
    return -1;
  }
  udev_enumerate* scan = udev_enumerate_new(context);
  udev_unref(context);  // the enumeration keeps its own reference
  if (!scan) {
    // No matching set could be made: behave as if no port existed.
    brakwell::platform::print_line("IOServiceMatching returned NULL");
    return 0;
  }
  int result = udev_enumerate_add_match_subsystem(scan, "tty");
  if (result >= 0) result = udev_enumerate_scan_devices(scan);
  if (result < 0) {
    brakwell::platform::print("IOServiceGetMatchingServices returned %d\n", result);
    udev_enumerate_unref(scan);
    return result;
  }
  if (iterator)
    *iterator = scan;
  else
    udev_enumerate_unref(scan);
  return 0;
}

namespace {

// The dial-in path: the first link whose file name begins "tty.", else the device node. The
// links come from the DEVLINKS property, which is what a udev database and umockdev both give.
const char* dialin_path(udev_device* entry) {
  static thread_local char found[256];
  if (const char* links = udev_device_get_property_value(entry, "DEVLINKS")) {
    const char* p = links;
    while (*p) {
      while (*p == ' ') ++p;
      const char* end = std::strchr(p, ' ');
      const size_t n = end ? static_cast<size_t>(end - p) : std::strlen(p);
      const std::string_view link(p, n);
      const size_t slash = link.rfind('/');
      const std::string_view base = slash == std::string_view::npos ? link : link.substr(slash + 1);
      if (base.starts_with("tty.") && n < sizeof found) {
        std::memcpy(found, p, n);
        found[n] = '\0';
        return found;
      }
      p += n;
    }
  }
  return udev_device_get_devnode(entry);
}

}  // namespace

extern "C" char* getRegistryString(udev_device* entry, const char* key) {
  resultStr[0] = '\0';
  if (!entry || !key) return resultStr;
  const char* value = nullptr;
  if (std::strcmp(key, "IOTTYDevice") == 0)
    value = udev_device_get_sysname(entry);
  else if (std::strcmp(key, "IODialinDevice") == 0)
    value = dialin_path(entry);
  else
    value = udev_device_get_property_value(entry, key);
  if (value) {
    std::strncpy(resultStr, value, sizeof resultStr - 1);
    resultStr[sizeof resultStr - 1] = '\0';
  }
  return resultStr;
}

namespace brakwell::platform {

// The udev objects are held so that a failed allocation in the middle leaks none of them.
bool list_serial_ports(std::vector<SerialPort>* ports) {
  udev_enumerate* made = nullptr;
  if (createSerialIterator(&made) != 0) return false;
  const std::unique_ptr<udev_enumerate, decltype(&udev_enumerate_unref)> scan(made,
                                                                              udev_enumerate_unref);
  udev* context = udev_enumerate_get_udev(scan.get());
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(scan.get())) {
    const char* sysPath = udev_list_entry_get_name(entry);
    if (!sysPath || std::strstr(sysPath, "/devices/virtual/")) continue;
    const std::unique_ptr<udev_device, decltype(&udev_device_unref)> port(
        udev_device_new_from_syspath(context, sysPath), udev_device_unref);
    if (!port) continue;
    // getRegistryString hands out one shared area: copy each answer before the next read.
    SerialPort record;
    record.baseName = getRegistryString(port.get(), "IOTTYDevice");
    record.dialIn = getRegistryString(port.get(), "IODialinDevice");
    ports->push_back(std::move(record));
  }
  return true;
}

}  // namespace brakwell::platform
