// The library's one libusb context, the location-ID rule, the product-string read and the
// hotplug event thread.
#pragma once

#include <libusb.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace brakwell::platform::usb {

// The process's libusb context, made on first use (safe from any thread); nullptr when libusb
// cannot start, and in a forked child of the process that made it (which must leave libusb's
// state, shared with its parent, alone). It lives until the library is unloaded or the process
// exits; do not touch it from static destructors.
libusb_context* context();

// Bus number in bits 24-31, then one hexadecimal digit per tier from bits 20-23 down, zero
// filled (bus 1, ports 2.3 -> 0x1230000). Nothing when a port is above 15 or the path is deeper
// than six tiers: such a device has no location.
std::optional<uint32_t> location_id(uint8_t bus, const uint8_t* ports, int count);
// The same for a device. `error` (optional) gets the libusb code of the failure:
// libusb_get_port_numbers' own, or LIBUSB_ERROR_OVERFLOW for a path that does not fit.
std::optional<uint32_t> location_id(libusb_device* device, int* error = nullptr);

// The registry name of a device: its iProduct string read with the first supported language;
// the empty text when it has none or it cannot be read. Opens and closes the device.
std::string product_string(libusb_device* device);
// The same through a handle that is already open.
std::string product_string(libusb_device_handle* handle);

// UTF-8 of a UTF-16LE text of `bytes` bytes (a string descriptor's text).
std::string utf16le_to_utf8(const unsigned char* text, size_t bytes);

// Hotplug. `handler` runs on the library's event thread for every arrival or removal of a device
// with these ids, outside libusb's event handling (so it may open the device and make
// synchronous transfers), with a reference to the device held for the call. The thread starts
// with the first watch; a second watch of the same ids and handler is the first one again.
// Returns a watch id (> 0) or a libusb error code (< 0); throws std::system_error when the
// thread cannot be started.
using HotplugHandler = void (*)(int watch, libusb_device* device, bool arrived);
int watch_devices(uint16_t vendor, uint16_t product, HotplugHandler handler);
// Runs `body` on the event thread after the events queued so far and before any later one, and
// waits for it. False (body not run) when the thread is not running or stops first.
bool run_on_event_thread(const std::function<void()>& body);
// True when the caller is the event thread.
bool on_event_thread();

// Stops the event thread, drops every watch and ends the context; the next context() makes a
// new one. In a forked child it does nothing. Runs by itself when the library is unloaded or the
// process exits. Tests use it between umockdev testbeds, since a context only hears the testbed
// that was current when it was made.
void shutdown();

// Registers a function that gives back what its unit still holds on the context (open device
// handles) just before the context ends; registering the same function again does nothing.
using ContextEndHook = void (*)();
void on_context_end(ContextEndHook hook);

}  // namespace brakwell::platform::usb
