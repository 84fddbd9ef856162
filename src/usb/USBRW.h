// Pipe access for the USB DIO modules (unit USBRW): one record per module behind openUSB,
// closeUSB, readFromEndpt, writeToEndpt and vendorRequest. Internal: only the functions are
// exported (Brakwell.h).
//
// Failure texts that name macOS steps with no libusb counterpart, which the library therefore
// never prints:
//   "USBSimpleExample: could not create CFNumberRef for vendor" / "... for product", and the same
//   without prefix in USBDeviceAlive          the ids are plain numbers in a device descriptor
//   "dealWithDevice: unable to create interface iterator"
//                                             the interfaces are walked in a descriptor already
//                                             read
//   "dealWithInterface: unable to get number of endpoints. ret = %08x\n"
//                                             the count is a field of that descriptor
//   "dealWithInterface: unable to release interface. ret = %08x\n"
//                                             nothing is left to release after closing it
//   "dealWithDevice: error closing device - %08x\n" / "... error releasing device - %08x\n"
//                                             libusb_close cannot fail
//   "usbDeviceArrival error - QueryInterface returned %d.\n"
//                                             an open libusb handle already is the device interface
//   "... IOServiceAddInterestNotification ..."  a removal watch is an entry in the tracker's table
#pragma once

#include <Brakwell.h>
#include <libusb.h>

#include <cstdint>

namespace brakwell::dio {

inline constexpr int kModules = 2;
// Every bulk and control transfer to a module gives up after this long; a time-out is a
// failed transfer.
inline constexpr unsigned kTransferTimeoutMs = 1000;
// The fixed length of every pipe read, whatever size the caller passes.
inline constexpr int kReadLength = 10;

// What openUSB found and opened for one module.
struct Module {
  libusb_device_handle* device = nullptr;  // null when closed
  libusb_device** list = nullptr;          // the device list kept from openUSB
  libusb_device* service = nullptr;        // the matched device, referenced
  // The interface: set by dealWithInterface, dropped by a pipe error or a close. Its pipes work
  // only when it was also claimed. Pipe k is endpoints[k - 1], in descriptor order.
  bool hasInterface = false;
  bool claimed = false;
  uint8_t interface = 0;
  uint8_t numPipes = 0;
  uint8_t endpoints[255] = {};
  uint8_t readError = 0;  // cleared by openUSB, set by readTimerHandler
};

extern const int32_t idVendor;
extern const int32_t idProduct[kModules];
extern const char nameProduct[kModules][1024];
extern Module modules[kModules];
extern libusb_context* masterPort;  // the library's context while a module is being opened

inline bool valid_module(int m) { return m >= 0 && m < kModules; }

// Drops whatever module m holds (handle, interface, device list), with no check and no message.
// Runs for every module when the USB context ends.
void release_module(int m);

}  // namespace brakwell::dio
