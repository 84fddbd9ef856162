// Walking the serial ports that createSerialIterator found (libudev underneath).
#pragma once

struct udev_enumerate;
struct udev_device;
struct udev_list_entry;

namespace brakwell::platform {

// The next serial port of the scan that sits on real hardware (its sys path is not under
// /devices/virtual/), in libudev's order; nullptr at the end. `cursor` starts at nullptr.
// Release each port with release_serial_port.
udev_device* next_serial_port(udev_enumerate* iterator, udev_list_entry** cursor);
void release_serial_port(udev_device* port);
void release_serial_iterator(udev_enumerate* iterator);

}  // namespace brakwell::platform
