// USB topology tracker: enumeration by vendor and product with device names, the Apple-device
// arrival and removal lists, and the UART-to-UUT location mapping. The exported calls are
// declared in Brakwell.h; this header holds what the unit's files share.
//
// The failure texts keep the names of the macOS calls they were written for. On libusb:
//   "... IOServiceMatching returned NULL."            no libusb context, or the device list
//                                                      cannot be had
//   "... IOCreatePlugInInterfaceForService ..."        enumeration: libusb_open fails (no handle
//                                                      to talk through); arrival and location
//                                                      lookups: libusb_get_port_numbers fails
//   "... GetLocationID returned 0x%08x."               enumeration: the serial-number index
//                                                      cannot be read (the device descriptor);
//                                                      elsewhere: the port path has no location
//                                                      ID (a port above 15, or too deep)
//   "Could not get serial number string using index"   the GET_DESCRIPTOR control transfer fails
// The texts with no libusb counterpart are listed once, in usb/USBRW.h.
#pragma once

#include <libusb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brakwell::usb {

// The attached devices whose ids are these (low 32 bits of each), referenced, in libusb's
// order; nothing when libusb cannot list devices. Give them back with release_devices.
std::optional<std::vector<libusb_device*>> matching_devices(long vendorId, long productId);
void release_devices(std::vector<libusb_device*>& devices);

// The location ID of a device for the arrival and location lookups; a failure is logged with
// the texts above and gives nothing.
std::optional<uint32_t> logged_location(libusb_device* device);

// A copy of the Apple-device location history, taken under the tracker's lock.
std::vector<uint32_t> location_history();

// "0x%x".
std::string location_text(uint32_t locationID);
bool contains_ignoring_case(std::string_view text, std::string_view part);
bool equals_ignoring_case(std::string_view a, std::string_view b);

}  // namespace brakwell::usb
