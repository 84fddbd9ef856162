// The serial scan: the ports the operating system knows, as plain records.
#pragma once

#include <string>
#include <vector>

namespace brakwell::platform {

struct SerialPort {
  std::string baseName;  // "IOTTYDevice": the device's base name, e.g. "ttyACM0"
  std::string dialIn;    // "IODialinDevice": the path a host opens
};

// Every serial port of the machine that sits on real hardware (its sys path is not under
// /devices/virtual/), in libudev's order, read through createSerialIterator and
// getRegistryString. False, with nothing listed, when createSerialIterator fails. Any thread.
bool list_serial_ports(std::vector<SerialPort>* ports);

}  // namespace brakwell::platform
