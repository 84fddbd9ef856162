// Where things sit on the virtual fixture's USB bus. Everything in sim/ and the tests uses these
// paths, so that the serial ports, the USB devices and the location IDs agree.
//
// Bus 1. Port w of the root hub (w = 1 first well, 2 second) leads to the well's hub; port s of
// that hub (s = 1..4, the site within the well) leads to the site's own hub, where the UART
// bridge sits on port 1, the fixture board (CDC ACM) on port 2 and the unit under test on
// port 3. Site 6 is thus hub 1-2.2, its UART 1-2.2.1, its board 1-2.2.2, its unit 1-2.2.3,
// and the unit's location ID is 0x1223000. DIO module m sits on root port 3 + m.
#pragma once

#include <string>

namespace sim {

inline constexpr const char* kPciRoot = "/devices/pci0000:00/0000:00:14.0";
inline constexpr int kUartPort = 1;
inline constexpr int kBoardPort = 2;
inline constexpr int kUnitPort = 3;

inline int well_of_site(int site) { return site <= 4 ? 1 : 2; }
inline int slot_of_site(int site) { return (site - 1) % 4 + 1; }

// "1-2.2" for site 6: the USB port path of the site's hub.
inline std::string site_hub_port_path(int site) {
  return "1-" + std::to_string(well_of_site(site)) + "." + std::to_string(slot_of_site(site));
}
// "1-2.2.3" for site 6, port 3.
inline std::string site_port_path(int site, int port) {
  return site_hub_port_path(site) + "." + std::to_string(port);
}
// Sys path of the USB device at a port path such as "1-2.2.3".
inline std::string usb_sys_path(const std::string& portPath) {
  std::string path = std::string(kPciRoot) + "/usb1";
  // Every tier is its own directory: 1-2, 1-2.2, 1-2.2.3.
  for (size_t i = 1; i <= portPath.size(); ++i) {
    if (i == portPath.size() || portPath[i] == '.') path += "/" + portPath.substr(0, i);
  }
  return path;
}
// Location ID of a port path on bus 1: 0x1223000 for "1-2.2.3".
inline unsigned location_id(const std::string& portPath) {
  unsigned id = 1u << 24;
  int shift = 20;
  for (size_t i = 2; i < portPath.size() && shift >= 0; ++i) {
    if (portPath[i] == '.') continue;
    id |= static_cast<unsigned>(portPath[i] - '0') << shift;
    shift -= 4;
  }
  return id;
}

// The fixture board of a site: serial number VEL_0<n>_A, CDC ACM interface 1.
inline std::string board_serial(int site) { return "VEL_0" + std::to_string(site) + "_A"; }
inline std::string board_link(int site) { return "/dev/tty.usbmodem" + board_serial(site) + "1"; }
inline std::string board_name(int site) { return "Velmora_DFU_CDC" + std::to_string(site); }
inline std::string board_devnode(int site) { return "/dev/ttyACM" + std::to_string(site - 1); }
inline std::string board_tty_sys_path(int site) {
  const std::string port = site_port_path(site, kBoardPort);
  return usb_sys_path(port) + "/" + port + ":1.0/tty/ttyACM" + std::to_string(site - 1);
}

// The UART bridge beside a site's unit: serial number RT00000<n>, its port ttyUSB<n-1> linked as
// /dev/cu.usbserial-<serial> (the path get_uart_path answers), the unit's console at its end.
inline std::string uart_serial(int site) { return "RT00000" + std::to_string(site); }
inline std::string uart_tty(int site) { return "ttyUSB" + std::to_string(site - 1); }
inline std::string uart_link(int site) { return "/dev/cu.usbserial-" + uart_serial(site); }

}  // namespace sim
