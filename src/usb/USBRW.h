// Pipe access for the USB DIO modules (unit USBRW): the per-module tables behind openUSB,
// closeUSB, readFromEndpt, writeToEndpt and vendorRequest. Internal: only the functions are
// exported (Brakwell.h).
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

// The interface opened on a module. Pipe k is endpoints[k - 1], in descriptor order.
struct Interface {
  libusb_device_handle* device = nullptr;
  uint8_t number = 0;
  bool claimed = false;
  uint8_t endpoints[255] = {};
};

extern const int32_t idVendor;
extern const int32_t idProduct[kModules];
extern const char nameProduct[kModules][1024];
extern libusb_device_handle* g_dev[kModules];  // null when closed
extern Interface* g_intf[kModules];            // null when closed or after a pipe error
extern libusb_device** g_iterator[kModules];   // the device list kept from openUSB
extern libusb_device* g_usbDeviceRef[kModules];
extern uint8_t g_numPipes[kModules];
extern uint8_t g_bReadError[kModules];
extern libusb_context* masterPort;  // the library's context while a module is being opened

inline bool valid_module(int m) { return m >= 0 && m < kModules; }

// Drops whatever module m holds (handle, interface, device list), with no check and no message:
// what an earlier open left behind (no closeUSB, or a module that had left the bus at closeUSB).
void release_module(int m);

}  // namespace brakwell::dio
