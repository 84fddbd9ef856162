#include "usb/USBRW.h"

#include <cstdio>

#include "common/numbers.h"
#include "platform/alert.h"
#include "platform/log.h"
#include "platform/usb_context.h"

namespace brakwell::dio {

const int32_t idVendor = 0x0471;
const int32_t idProduct[kModules] = {0xDF01, 0xDF02};
const char nameProduct[kModules][1024] = {"DFU DIO_01 Module", "DFU DIO_02 Module"};
libusb_device_handle* g_dev[kModules] = {};
Interface* g_intf[kModules] = {};
libusb_device** g_iterator[kModules] = {};
libusb_device* g_usbDeviceRef[kModules] = {};
uint8_t g_numPipes[kModules] = {};
uint8_t g_bReadError[kModules] = {};
libusb_context* masterPort = nullptr;

namespace {

using platform::print;
using platform::print_line;

Interface interfaces[kModules];

unsigned code(int libusbError) { return static_cast<unsigned>(libusbError); }

// The first device of the list with module m's vendor and product, or null.
libusb_device* find_module(libusb_device** list, int m) {
  for (libusb_device** it = list; *it; ++it) {
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(*it, &desc) == 0 && desc.idVendor == idVendor &&
        desc.idProduct == idProduct[m]) {
      return *it;
    }
  }
  return nullptr;
}

// The master-port and matching-dictionary texts stand for getting the library's context and
// its device list. The vendor and product numbers cannot fail to be made here, so the two
// "could not create CFNumberRef" texts have no counterpart.
libusb_device** device_list(const char* prefix) {
  libusb_context* context = platform::usb::context();
  if (!context) {
    print("%scould not create master port, err = %08x\n", prefix, code(LIBUSB_ERROR_OTHER));
    return nullptr;
  }
  libusb_device** list = nullptr;
  if (libusb_get_device_list(context, &list) < 0) {
    print("%scould not create matching dictionary\n", prefix);
    return nullptr;
  }
  return list;
}

// Closes module m's handle, and with it the interface opened through it. Unlike a stale pointer,
// the nulls keep later calls on the module safe.
void close_device(int m) {
  libusb_close(g_dev[m]);
  g_dev[m] = nullptr;
  g_intf[m] = nullptr;
  g_numPipes[m] = 0;
}

}  // namespace

// The context is ending: a module that left the bus without closeUSB still holds its handle.
void release_all_modules() {
  for (int m = 0; m < kModules; ++m) release_module(m);
}

// Closing the handle also gives back any interface still claimed on it.
void release_module(int m) {
  if (g_dev[m]) close_device(m);
  if (g_usbDeviceRef[m]) libusb_unref_device(g_usbDeviceRef[m]);
  g_usbDeviceRef[m] = nullptr;
  if (g_iterator[m]) libusb_free_device_list(g_iterator[m], 1);
  g_iterator[m] = nullptr;
}

namespace {

// One bulk transfer on pipe `pipe` of module m's interface. A failure drops the interface and
// tells the operator; the module stays unusable until it is closed and opened again.
int pipe_transfer(int m, long channel, bool in, unsigned char* buffer, int length) {
  if (!valid_module(m) || !g_intf[m] || channel < 1 || !buffer || length < 0) return 0;
  const long pipe = in ? 2 * channel - 1 : 2 * channel;
  if (pipe > g_numPipes[m]) return 0;
  int done = 0;
  const int rc = libusb_bulk_transfer(g_intf[m]->device, g_intf[m]->endpoints[pipe - 1], buffer,
                                      length, &done, kTransferTimeoutMs);
  if (rc == 0) return 1;
  if (in) {
    platform::log("VELMORA: USB Read: unable to do usb read to pipe%d. Error Code: %08x\n",
                  static_cast<int>(pipe), code(rc));
  } else {
    platform::log("VELMORA: USB Write: unable to do usb write to pipe%d. Error Code: %08x\n",
                  static_cast<int>(pipe), code(rc));
  }
  g_intf[m] = nullptr;
  char message[1100];
  std::snprintf(message, sizeof message, "USB Connection to %s is broken!", nameProduct[m]);
  platform::alert("USB Error", message, "OK");
  return 0;
}

}  // namespace
}  // namespace brakwell::dio

using namespace brakwell::dio;
using brakwell::platform::print;
using brakwell::platform::print_line;

extern "C" {

int openUSB(int m) {
  if (!valid_module(m)) return 0;
  release_module(m);
  g_bReadError[m] = 0;
  masterPort = brakwell::platform::usb::context();
  g_iterator[m] = device_list("USBSimpleExample: ");
  if (!g_iterator[m]) {
    masterPort = nullptr;
    return 0;
  }
  libusb_device* device = find_module(g_iterator[m], m);
  if (!device) {
    libusb_free_device_list(g_iterator[m], 1);
    g_iterator[m] = nullptr;
    masterPort = nullptr;
    return 0;
  }
  g_usbDeviceRef[m] = libusb_ref_device(device);
  dealWithDevice(m, device);
  return 1;
}

void dealWithDevice(int m, libusb_device* service) {
  if (!valid_module(m)) return;
  // Creating the plug-in cannot fail for a device that exists: the text stands for a null one.
  if (!service) {
    print("dealWithDevice: unable to create plugin. ret = %08x, iodev = %p\n",
          code(LIBUSB_ERROR_INVALID_PARAM), static_cast<void*>(service));
    return;
  }
  if (g_dev[m]) close_device(m);
  // libusb_open both makes the handle and opens the node: a refused access is the failed open,
  // any other failure means no handle could be made.
  int rc = libusb_open(service, &g_dev[m]);
  if (rc != 0) {
    g_dev[m] = nullptr;
    if (rc == LIBUSB_ERROR_ACCESS) {
      print("dealWithDevice: unable to open device. ret = %08x\n", code(rc));
    } else {
      print("dealWithDevice: unable to create a device interface. ret = %08x, dev = %p\n", code(rc),
            static_cast<void*>(g_dev[m]));
    }
    return;
  }
  // libusb_get_device_descriptor: bNumConfigurations.
  libusb_device_descriptor desc{};
  rc = libusb_get_device_descriptor(service, &desc);
  if (rc != 0 || desc.bNumConfigurations == 0) {
    print("dealWithDevice: unable to obtain the number of configurations. ret = %08x\n", code(rc));
    close_device(m);
    return;
  }
  // libusb_get_config_descriptor.
  libusb_config_descriptor* config = nullptr;
  if (libusb_get_config_descriptor(service, 0, &config) != 0) {
    print_line("dealWithDevice:unable to get config descriptor for index 0");
    close_device(m);
    return;
  }
  // libusb_set_configuration.
  if (libusb_set_configuration(g_dev[m], config->bConfigurationValue) != 0) {
    print_line("dealWithDevice: unable to set the configuration");
    libusb_free_config_descriptor(config);
    close_device(m);
    return;
  }
  // The interfaces are walked in the descriptor just read, which cannot fail, so "unable to
  // create interface iterator" has no counterpart. The class is matched as 0 on purpose, not as
  // a wildcard; subclass, protocol and alternate setting are wildcards, and each interface is
  // taken in its current (first) setting. The last match wins.
  for (int i = 0; i < config->bNumInterfaces; ++i) {
    const libusb_interface& interface = config->interface[i];
    if (interface.num_altsetting > 0 && interface.altsetting[0].bInterfaceClass == 0) {
      dealWithInterface(m, &interface.altsetting[0]);
    }
  }
  libusb_free_config_descriptor(config);
}

void dealWithInterface(int m, const libusb_interface_descriptor* interface) {
  if (!valid_module(m)) return;
  // The plug-in and interface steps stand for the two things needed to reach an interface: its
  // descriptor and the device handle it is opened through.
  if (!interface) {
    print("dealWithInterface: unable to create plugin. ret = %08x, iodev = %p\n",
          code(LIBUSB_ERROR_INVALID_PARAM), static_cast<const void*>(interface));
    return;
  }
  if (!g_dev[m]) {
    print("dealWithInterface: unable to create a device interface. ret = %08x, intf = %p\n",
          code(LIBUSB_ERROR_NO_DEVICE), static_cast<void*>(g_intf[m]));
    return;
  }
  Interface& opened = interfaces[m];
  opened = Interface{};
  opened.device = g_dev[m];
  opened.number = interface->bInterfaceNumber;
  g_intf[m] = &opened;
  // libusb_claim_interface.
  const int rc = libusb_claim_interface(g_dev[m], opened.number);
  if (rc != 0) {
    print("dealWithInterface: unable to open interface. ret = %08x\n", code(rc));
    return;
  }
  opened.claimed = true;
  // The endpoint count is a descriptor field, so "unable to get number of endpoints" has no
  // counterpart.
  g_numPipes[m] = interface->bNumEndpoints;
  for (int k = 0; k < interface->bNumEndpoints; ++k) {
    opened.endpoints[k] = interface->endpoint[k].bEndpointAddress;
  }
  // Both ends of pipes 1 and 2: libusb_clear_halt resets the host side and the device's stall.
  for (int k = 0; k < 2 && k < interface->bNumEndpoints; ++k) {
    libusb_clear_halt(g_dev[m], opened.endpoints[k]);
  }
}

int USBDeviceAlive(int m) {
  if (!valid_module(m)) return 0;
  libusb_device** list = device_list("");
  if (!list) return 0;
  const int alive = find_module(list, m) ? 1 : 0;
  libusb_free_device_list(list, 1);
  return alive;
}

int closeUSB(int m) {
  if (USBDeviceAlive(m) != 1) return 0;
  int status = 0;
  if (g_intf[m]) {
    if (g_intf[m]->claimed) {
      // libusb_release_interface. Nothing is left to release after it, so "unable to release
      // interface" has no counterpart.
      status = libusb_release_interface(g_intf[m]->device, g_intf[m]->number);
      if (status != 0) {
        print("dealWithInterface: unable to close interface. ret = %08x\n", code(status));
        return status;
      }
      g_intf[m]->claimed = false;
    }
    g_intf[m] = nullptr;
  }
  // libusb_close cannot fail: "error closing device" and "error releasing device" have no
  // counterpart.
  release_module(m);
  // The context is the library's; the module only stops holding it.
  masterPort = nullptr;
  return status;
}

int readFromEndpt(int m, int channel, unsigned char* buffer, int /*size*/) {
  return pipe_transfer(m, channel, true, buffer, kReadLength);
}

int writeToEndpt(int m, int channel, const unsigned char* buffer, int size) {
  // An OUT transfer only reads the buffer.
  return pipe_transfer(m, channel, false, const_cast<unsigned char*>(buffer), size);
}

int vendorRequest(int m, uint32_t value) {
  if (!valid_module(m) || !g_dev[m]) return 0;
  unsigned char data[4] = {
      static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
      static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
  // 0x40: host to device, vendor, device recipient.
  const int rc = libusb_control_transfer(g_dev[m], 0x40, 0x0C, 0, static_cast<uint16_t>(idVendor),
                                         data, sizeof data, kTransferTimeoutMs);
  if (rc < 0) {
    brakwell::platform::log("VELMORA: vendorRequest returned err 0x%x", code(rc));
    return 0;
  }
  return 1;
}

// The asynchronous read these two serve runs on the host's own event loop; the library has no
// loop of its own to stop, so they only log and flag.
void readCompletion(void* /*context*/, int result) {
  if (result != 0) {
    brakwell::platform::log("VELMORA: USB readCompletion: error from async read (%08x)\n",
                            code(result));
  }
}

void readTimerHandler(void* /*timer*/, const int* moduleIndex) {
  if (!moduleIndex) return;
  const int i = *moduleIndex;
  brakwell::platform::log("VELMORA: USBDIO_0%d Read Timeout! readTimerHandler invoked!",
                          brakwell::one_based(i));
  if (valid_module(i)) g_bReadError[i] = 1;
}

}  // extern "C"
