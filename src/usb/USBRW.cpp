#include "usb/USBRW.h"

#include <cstdio>

#include "common/numbers.h"
#include "platform/platform.h"

namespace brakwell::dio {

const int32_t idVendor = 0x0471;
const int32_t idProduct[kModules] = {0xDF01, 0xDF02};
const char nameProduct[kModules][1024] = {"DFU DIO_01 Module", "DFU DIO_02 Module"};
Module modules[kModules];
libusb_context* masterPort = nullptr;

namespace {

using platform::debug;
using platform::print;
using platform::print_line;

unsigned code(int libusbError) { return static_cast<unsigned>(libusbError); }

// The fixed messages show libusb's codes as numbers; the debug trace names them.
void trace(int m, const char* call, int libusbError) {
  debug("DIO module %d: %s failed: %s", m, call, libusb_error_name(libusbError));
}

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
// its device list.
libusb_device** device_list(const char* prefix) {
  libusb_context* context = platform::usb::context();
  if (!context) {
    print("%scould not create master port, err = %08x\n", prefix, code(LIBUSB_ERROR_OTHER));
    return nullptr;
  }
  libusb_device** list = nullptr;
  const ssize_t n = libusb_get_device_list(context, &list);
  if (n < 0) {
    debug("libusb_get_device_list failed: %s", libusb_error_name(static_cast<int>(n)));
    print("%scould not create matching dictionary\n", prefix);
    return nullptr;
  }
  return list;
}

// Closes module m's handle, and with it the interface opened through it. Unlike a stale pointer,
// the cleared record keeps later calls on the module safe.
void close_device(Module& module) {
  libusb_close(module.device);
  module.device = nullptr;
  module.hasInterface = module.claimed = false;
  module.numPipes = 0;
}

// The context is ending: a module that left the bus without closeUSB still holds its handle.
void release_all_modules() {
  for (int m = 0; m < kModules; ++m) release_module(m);
}

// One bulk transfer on pipe `pipe` of module m's interface. A failure drops the interface and
// tells the operator; the module stays unusable until it is closed and opened again.
int pipe_transfer(int m, long channel, bool in, unsigned char* buffer, int length) {
  if (!valid_module(m) || channel < 1 || !buffer || length < 0) return 0;
  Module& module = modules[m];
  const long pipe = in ? 2 * channel - 1 : 2 * channel;
  if (!module.hasInterface || pipe > module.numPipes) return 0;
  int done = 0;
  const int rc = libusb_bulk_transfer(module.device, module.endpoints[pipe - 1], buffer, length,
                                      &done, kTransferTimeoutMs);
  if (rc == 0) return 1;
  trace(m, "libusb_bulk_transfer", rc);
  platform::log(in ? "VELMORA: USB Read: unable to do usb read to pipe%d. Error Code: %08x\n"
                   : "VELMORA: USB Write: unable to do usb write to pipe%d. Error Code: %08x\n",
                static_cast<int>(pipe), code(rc));
  module.hasInterface = false;
  char message[1100];
  std::snprintf(message, sizeof message, "USB Connection to %s is broken!", nameProduct[m]);
  platform::alert("USB Error", message, "OK");
  return 0;
}

}  // namespace

// Closing the handle also gives back any interface still claimed on it.
void release_module(int m) {
  Module& module = modules[m];
  if (module.device) close_device(module);
  if (module.service) libusb_unref_device(module.service);
  module.service = nullptr;
  if (module.list) libusb_free_device_list(module.list, 1);
  module.list = nullptr;
}

}  // namespace brakwell::dio

using namespace brakwell::dio;
using brakwell::platform::debug;
using brakwell::platform::print;
using brakwell::platform::print_line;

extern "C" {

// Whatever the module already holds stays: only closeUSB gives it up. The previous device list
// and device reference are replaced (and given back).
int openUSB(int m) try {
  if (!valid_module(m)) return 0;
  brakwell::platform::usb::on_context_end(release_all_modules);
  Module& module = modules[m];
  module.readError = 0;
  masterPort = brakwell::platform::usb::context();
  libusb_device** list = device_list("USBSimpleExample: ");
  if (!list) {
    masterPort = nullptr;
    return 0;
  }
  if (module.list) libusb_free_device_list(module.list, 1);
  if (module.service) libusb_unref_device(module.service);
  module.service = nullptr;
  module.list = list;
  libusb_device* device = find_module(list, m);
  if (!device) {
    debug("DIO module %d: 0471:%04x is not on the bus", m, static_cast<unsigned>(idProduct[m]));
    libusb_free_device_list(module.list, 1);
    module.list = nullptr;
    masterPort = nullptr;
    return 0;
  }
  module.service = libusb_ref_device(device);
  dealWithDevice(m, device);
  return 1;
} catch (...) {
  return brakwell::platform::failed("openUSB", 0);
}

void dealWithDevice(int m, libusb_device* service) {
  if (!valid_module(m)) return;
  Module& module = modules[m];
  // Creating the plug-in cannot fail for a device that exists: the text stands for a null one.
  if (!service) {
    print("dealWithDevice: unable to create plugin. ret = %08x, iodev = %p\n",
          code(LIBUSB_ERROR_INVALID_PARAM), static_cast<void*>(service));
    return;
  }
  if (module.device) {
    // A device is opened once: while the module's handle is open, opening it again is refused
    // as busy and the module keeps what it has. A handle to a device that has since left the
    // bus is closed first.
    if (libusb_get_device(module.device) == service) {
      trace(m, "open (already open)", LIBUSB_ERROR_BUSY);
      print("dealWithDevice: unable to open device. ret = %08x\n", code(LIBUSB_ERROR_BUSY));
      return;
    }
    close_device(module);
  }
  // libusb_open both makes the handle and opens the node: a refused access is the failed open,
  // any other failure means no handle could be made.
  int rc = libusb_open(service, &module.device);
  if (rc != 0) {
    trace(m, "libusb_open", rc);
    module.device = nullptr;
    if (rc == LIBUSB_ERROR_ACCESS) {
      print("dealWithDevice: unable to open device. ret = %08x\n", code(rc));
    } else {
      print("dealWithDevice: unable to create a device interface. ret = %08x, dev = %p\n", code(rc),
            static_cast<void*>(module.device));
    }
    return;
  }
  libusb_device_descriptor desc{};
  rc = libusb_get_device_descriptor(service, &desc);
  if (rc != 0 || desc.bNumConfigurations == 0) {
    print("dealWithDevice: unable to obtain the number of configurations. ret = %08x\n", code(rc));
    close_device(module);
    return;
  }
  libusb_config_descriptor* config = nullptr;
  rc = libusb_get_config_descriptor(service, 0, &config);
  if (rc != 0) {
    trace(m, "libusb_get_config_descriptor", rc);
    print_line("dealWithDevice:unable to get config descriptor for index 0");
    close_device(module);
    return;
  }
  rc = libusb_set_configuration(module.device, config->bConfigurationValue);
  if (rc != 0) {
    trace(m, "libusb_set_configuration", rc);
    print_line("dealWithDevice: unable to set the configuration");
    libusb_free_config_descriptor(config);
    close_device(module);
    return;
  }
  // The class is matched as 0 on purpose, not as a wildcard; subclass, protocol and alternate
  // setting are wildcards, and each interface is taken in its current (first) setting. The last
  // match wins.
  for (int i = 0; i < config->bNumInterfaces; ++i) {
    const libusb_interface& interface = config->interface[i];
    if (interface.num_altsetting > 0 && interface.altsetting[0].bInterfaceClass == 0) {
      dealWithInterface(m, &interface.altsetting[0]);
    } else {
      debug("DIO module %d: interface %d skipped: class is not 0", m, i);
    }
  }
  libusb_free_config_descriptor(config);
}

void dealWithInterface(int m, const libusb_interface_descriptor* interface) {
  if (!valid_module(m)) return;
  Module& module = modules[m];
  // The plug-in and interface steps stand for the two things needed to reach an interface: its
  // descriptor and the device handle it is opened through.
  if (!interface) {
    print("dealWithInterface: unable to create plugin. ret = %08x, iodev = %p\n",
          code(LIBUSB_ERROR_INVALID_PARAM), static_cast<const void*>(interface));
    return;
  }
  if (!module.device) {
    // No handle means no interface either: the interface pointer shows as null.
    print("dealWithInterface: unable to create a device interface. ret = %08x, intf = %p\n",
          code(LIBUSB_ERROR_NO_DEVICE), static_cast<void*>(nullptr));
    return;
  }
  module.hasInterface = true;
  module.claimed = false;
  module.interface = interface->bInterfaceNumber;
  module.numPipes = 0;
  const int rc = libusb_claim_interface(module.device, module.interface);
  if (rc != 0) {
    trace(m, "libusb_claim_interface", rc);
    print("dealWithInterface: unable to open interface. ret = %08x\n", code(rc));
    return;
  }
  module.claimed = true;
  module.numPipes = interface->bNumEndpoints;
  for (int k = 0; k < interface->bNumEndpoints; ++k) {
    module.endpoints[k] = interface->endpoint[k].bEndpointAddress;
  }
  // Both ends of pipes 1 and 2: libusb_clear_halt resets the host side and the device's stall.
  for (int k = 0; k < 2 && k < interface->bNumEndpoints; ++k) {
    libusb_clear_halt(module.device, module.endpoints[k]);
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
  Module& module = modules[m];
  int status = 0;
  if (module.hasInterface) {
    if (module.claimed) {
      status = libusb_release_interface(module.device, module.interface);
      if (status != 0) {
        trace(m, "libusb_release_interface", status);
        print("dealWithInterface: unable to close interface. ret = %08x\n", code(status));
        return status;
      }
      module.claimed = false;
    }
    module.hasInterface = false;
  }
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
  if (!valid_module(m) || !modules[m].device) return 0;
  unsigned char data[4] = {
      static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
      static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
  constexpr uint8_t kRequestType = unsigned{LIBUSB_ENDPOINT_OUT} |
                                   unsigned{LIBUSB_REQUEST_TYPE_VENDOR} |
                                   unsigned{LIBUSB_RECIPIENT_DEVICE};
  const int rc = libusb_control_transfer(modules[m].device, kRequestType, 0x0C, 0,
                                         static_cast<uint16_t>(idVendor), data, sizeof data,
                                         kTransferTimeoutMs);
  if (rc < 0) {
    trace(m, "libusb_control_transfer", rc);
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
  if (valid_module(i)) modules[i].readError = 1;
}

}  // extern "C"
