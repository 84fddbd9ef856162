// Enumeration by vendor and product, device naming and the cable kind.
#include "usb/AppleDevices.h"

#include <Brakwell.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/result_text.h"
#include "platform/platform.h"

using brakwell::platform::debug;
using brakwell::platform::device_text;
using brakwell::platform::log;
namespace platform_usb = brakwell::platform::usb;

extern "C" {
char* mutableUSBDeviceName = nullptr;
}

namespace brakwell::usb {

namespace {

constexpr uint16_t kEnglish = 0x0409;

// "bus/address" of a device, for the debug trace.
std::string where(libusb_device* device) {
  return std::to_string(libusb_get_bus_number(device)) + "/" +
         std::to_string(libusb_get_device_address(device));
}

enum CableKind { kNoCable = 0, kUsbUart = 1, kSerialCable = 2 };

void replace_device_name_text(const std::string& text) {
  char* old = mutableUSBDeviceName;
  mutableUSBDeviceName = strdup(text.c_str());
  std::free(old);
}

// The text goes with the library when it is unloaded.
struct ReleaseAtUnload {
  ~ReleaseAtUnload() {
    std::free(mutableUSBDeviceName);
    mutableUSBDeviceName = nullptr;
  }
} releaseAtUnload;

// The last classified device decides: "USB-UART" first; otherwise the serial-cable text, then
// "USB UART", which wins over it within one name.
int classify(const std::string& name, int kind) {
  if (name.find("USB-UART") != std::string::npos) return kUsbUart;
  if (contains_ignoring_case(name, "USB <-> Serial Cable")) kind = kSerialCable;
  if (name.find("USB UART") != std::string::npos) kind = kUsbUart;
  return kind;
}

// Opens the device, reads its name and its serial number with the one request the fixture's
// boards answer; false (logged) when the device is to be skipped.
bool read_name_and_serial(libusb_device* device, std::string& name, std::string& serial) {
  libusb_device_handle* handle = nullptr;
  const int opened = libusb_open(device, &handle);
  if (opened != LIBUSB_SUCCESS) {
    debug("device %s skipped: libusb_open failed: %s", where(device).c_str(),
          libusb_error_name(opened));
    log("usbDeviceArrival error - IOCreatePlugInInterfaceForService returned 0x%08x.\n", opened);
    return false;
  }
  name = platform_usb::product_string(handle);
  libusb_device_descriptor descriptor{};
  const int described = libusb_get_device_descriptor(device, &descriptor);
  if (described != LIBUSB_SUCCESS) {
    debug("device %s skipped: libusb_get_device_descriptor failed: %s", where(device).c_str(),
          libusb_error_name(described));
    log("usbDeviceArrival error - GetLocationID returned 0x%08x.\n", described);
    libusb_close(handle);
    return false;
  }
  unsigned char buffer[256] = {};
  const int got = libusb_get_string_descriptor(handle, descriptor.iSerialNumber, kEnglish, buffer,
                                               sizeof buffer);
  libusb_close(handle);
  if (got < 0) {
    debug("device %s skipped: serial number string %d: %s", where(device).c_str(),
          descriptor.iSerialNumber, libusb_error_name(got));
    log("Could not get serial number string using index\n");
    return false;
  }
  const int bytes = buffer[0] - 2;
  serial = platform_usb::utf16le_to_utf8(buffer + 2, bytes > 0 ? static_cast<size_t>(bytes) : 0);
  return true;
}

}  // namespace

std::optional<std::vector<libusb_device*>> matching_devices(long vendorId, long productId) {
  libusb_context* ctx = platform_usb::context();
  libusb_device** list = nullptr;
  const ssize_t n = ctx ? libusb_get_device_list(ctx, &list) : -1;
  if (n < 0) return std::nullopt;
  const auto vendor = static_cast<uint32_t>(vendorId), product = static_cast<uint32_t>(productId);
  std::vector<libusb_device*> out;
  for (ssize_t i = 0; i < n; ++i) {
    libusb_device_descriptor d{};
    if (libusb_get_device_descriptor(list[i], &d) == LIBUSB_SUCCESS && d.idVendor == vendor &&
        d.idProduct == product) {
      out.push_back(libusb_ref_device(list[i]));
    }
  }
  libusb_free_device_list(list, 1);
  return out;
}

void release_devices(std::vector<libusb_device*>& devices) {
  for (auto* device : devices) libusb_unref_device(device);
  devices.clear();
}

std::optional<uint32_t> logged_location(libusb_device* device) {
  uint8_t ports[8];
  const int n = libusb_get_port_numbers(device, ports, sizeof ports);
  if (n < 0) {
    debug("device %s skipped: libusb_get_port_numbers failed: %s", where(device).c_str(),
          libusb_error_name(n));
    log("usbDeviceArrival error - IOCreatePlugInInterfaceForService returned 0x%08x.\n", n);
    return std::nullopt;
  }
  auto id = platform_usb::location_id(libusb_get_bus_number(device), ports, n);
  if (!id) {
    debug("device %s skipped: its port path has no location ID", where(device).c_str());
    log("usbDeviceArrival error - GetLocationID returned 0x%08x.\n", LIBUSB_ERROR_OVERFLOW);
  }
  return id;
}

std::string location_text(uint32_t locationID) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", locationID);
  return text;
}

bool contains_ignoring_case(std::string_view text, std::string_view part) {
  if (part.size() > text.size()) return false;
  for (size_t i = 0; i + part.size() <= text.size(); ++i) {
    if (equals_ignoring_case(text.substr(i, part.size()), part)) return true;
  }
  return false;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace brakwell::usb

using namespace brakwell::usb;

extern "C" {

int enumUsbForLocationID(long vendorId, long productId) try {
  auto devices = matching_devices(vendorId, productId);
  if (!devices) {
    log("enumUsbForLocationID - IOServiceMatching returned NULL.\n");
    return 0;
  }
  replace_device_name_text("");
  std::string names;
  int kind = kNoCable;
  for (libusb_device* device : *devices) {
    std::string name, serial;
    if (!read_name_and_serial(device, name, serial)) continue;
    std::fprintf(stderr, "%s\n", device_text(serial).c_str());
    log("UART Device added: DeviceName=%s Serial Number=%@", device_text(name).c_str(),
        device_text(serial).c_str());
    if (contains_ignoring_case(name, "CDC")) {
      names += name + ",";
      replace_device_name_text(names);
    }
    kind = classify(name, kind);
  }
  release_devices(*devices);
  return kind;
} catch (...) {
  return brakwell::platform::failed("enumUsbForLocationID", 0);
}

const char* getUSBDeviceName(void) {
  // Room for 32 names of the 128 bytes a device name may have.
  thread_local char text[32 * 128];
  return brakwell::result_text(text, mutableUSBDeviceName ? mutableUSBDeviceName : "(null)");
}

uint32_t removeHexTrailingZeros(uint32_t value) {
  if (value == 0) return 0;
  while ((value & 0xf) == 0) value >>= 4;
  return value;
}

}  // extern "C"
