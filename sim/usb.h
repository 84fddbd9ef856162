// A virtual USB bus for libusb, over umockdev: sysfs entries that libusb enumerates, and a usbfs
// ioctl handler per device that answers the library's transfers.
//
// Things worth knowing (umockdev 0.17, libusb 1.0.26):
// - The ioctl handlers, and so on_control and on_bulk, run on umockdev's worker thread (its own
//   GMainContext), not on the test's thread. Do not block there for long.
// - Every transfer is a SUBMITURB answered at once (the URB is queued for the next REAPURB or
//   REAPURBNDELAY), except a bulk IN transfer on a device without on_bulk: it stays pending until
//   answer_bulk_in() answers it or the library cancels it (DISCARDURB), which is how a transfer
//   that times out is made. A failed transfer completes with -EPROTO (libusb: I/O error); a
//   removed device fails every ioctl with ENODEV.
// - SETCONFIGURATION, CLAIMINTERFACE, RELEASEINTERFACE, SETINTERFACE, CLEAR_HALT and RESET
//   succeed; GET_CAPABILITIES reports no packet size limit, so a bulk transfer is one URB.
// - libusb with udev builds its device list from uevents, not from a fresh scan: a device added
//   without announce is seen only by a libusb context made after it. A libusb context also hears
//   only the testbed that was current when it was made: keep one Testbed for the program, or call
//   brakwell::platform::usb::shutdown() before each new Testbed (and before the old one goes).
// - umockdev's uevent sockets queue ten messages and drop the rest, so every uevent waits until
//   the listeners of this process have taken the previous ones: storms are safe, only paced.
// - Opening a device (or sending it a transfer) while the bus removes it can wedge umockdev's
//   ioctl worker. Storm tests use devices without strings, which the library never opens.
// - The root hub of each bus ("usb1", 1d6b:0002) exists from the first add, so that libusb finds
//   /sys/bus/usb/devices. Hubs on a path are added on demand (05e3:0608 "USB2.0 Hub").
// - Each device gets the sysfs shape and attribute formats of the kernel (values end with a
//   newline, interfaces are devices of their own with their driver), so that lsusb, lsusb -t,
//   lsusb -v and pyserial's list_ports see what they would on a real fixture.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "testbed.h"

namespace sim {

struct UsbEndpointSpec {
  uint8_t address;     // 0x81 bulk IN, 0x02 bulk OUT
  uint8_t attributes;  // 2 bulk, 3 interrupt
  uint16_t maxPacket = 64;
};
struct UsbInterfaceSpec {
  uint8_t cls = 0xff, subclass = 0, protocol = 0;
  std::vector<UsbEndpointSpec> endpoints;
};
struct UsbSetup {
  uint8_t bmRequestType, bRequest;
  uint16_t wValue, wIndex, wLength;
};
struct UsbDeviceSpec {
  std::string portPath;  // "1-2.2.3", see topology.h
  uint16_t vendor = 0, product = 0;
  std::string productName;  // iProduct string ("" = none)
  std::string serial;       // iSerialNumber string ("" = none)
  uint8_t deviceClass = 0;  // 9 for hubs
  std::vector<UsbInterfaceSpec> interfaces;
};

class UsbBus;

class UsbDevice {
 public:
  ~UsbDevice();
  UsbDevice(const UsbDevice&) = delete;
  UsbDevice& operator=(const UsbDevice&) = delete;

  const UsbDeviceSpec& desc() const { return spec_; }
  uint32_t location_id() const;
  std::string sys_path() const;  // "/devices/.../1-2.2.3", as topology.h writes it
  std::string devnode() const;   // "/dev/bus/usb/001/005"
  int devnum() const { return devnum_; }
  // Never used again on this bus: holders that may outlive the device keep this, not a pointer.
  uint64_t id() const { return id_; }

  // Called on umockdev's ioctl handler thread for every transfer the library makes.
  // Control: for IN requests fill `data` (at most wLength bytes); for OUT `data` holds the bytes
  // sent. Bulk: for IN fill `data` (at most `length` bytes); for OUT `data` holds the bytes.
  // Return false to fail the transfer (the library sees an I/O error). Set them before the
  // library opens the device.
  std::function<bool(const UsbSetup&, std::vector<uint8_t>& data)> on_control;
  std::function<bool(uint8_t endpoint, size_t length, std::vector<uint8_t>& data)> on_bulk;

  void fail_strings(bool fail);  // string-descriptor requests fail on demand

  // Answers the oldest pending bulk IN transfer on `endpoint` (only when on_bulk is unset);
  // false if none is pending.
  bool answer_bulk_in(uint8_t endpoint, const std::vector<uint8_t>& data);
  size_t pending_bulk_in() const;
  // Standard requests seen so far (string reads included), for tests of exact requests.
  std::vector<UsbSetup> control_log() const;

 private:
  friend class UsbBus;
  struct Impl;
  UsbDevice(UsbBus& bus, UsbDeviceSpec desc, int busnum, int devnum);
  std::vector<std::string> sysfs_records();  // also notes the children to remove with it
  UsbBus& bus_;
  UsbDeviceSpec spec_;
  int busnum_, devnum_;
  uint64_t id_ = 0;
  std::unique_ptr<Impl> impl_;
  std::vector<std::string> children_;  // sys paths below it (interfaces, ports), parents first
};

class UsbBus {
 public:
  explicit UsbBus(Testbed& bed);
  ~UsbBus();  // every device still present is removed, with its "remove" uevent
  UsbBus(const UsbBus&) = delete;
  UsbBus& operator=(const UsbBus&) = delete;

  Testbed& testbed() { return bed_; }

  // Adds missing hubs on the path; announce = "add" uevent (for the hubs too).
  UsbDevice& add(const UsbDeviceSpec& desc, bool announce = true);
  void remove(UsbDevice& device);  // "remove" uevent and gone
  void remove(uint64_t id);        // the same, if that device is still present
  bool present(uint64_t id);

  // The fixture's own devices, at the places topology.h gives:
  UsbDevice& add_board(int site);  // 1fc9:df01 "Velmora_DFU_CDC<n>", serial board_serial(n)
  // 0403:6001 "USB UART<n>" at port 1, serial uart_serial(n), with its port uart_tty(n) linked
  // as uart_link(n): the unit's console (unit.h).
  UsbDevice& add_uart(int site, std::string name = "");
  UsbDevice& add_unit(int site, const std::string& name, uint16_t vendor = 0x05ac,
                      uint16_t product = 0x1281);  // port 3

  std::vector<UsbDevice*> devices();             // present ones (hubs included), in order of adding
  UsbDevice* find(const std::string& portPath);  // the present device there, or nullptr

 private:
  friend class UsbDevice;
  UsbDevice& add_locked(const UsbDeviceSpec& desc, bool announce);
  void ensure_root(int busnum, bool announce);
  void drop(UsbDevice& device);

  Testbed& bed_;
  std::recursive_mutex mutex_;
  // Kept until the bus goes, or until a later device takes the number of a gone one: then it is
  // freed, so a holder that outlives its device keeps the device's id, not a pointer.
  std::vector<std::unique_ptr<UsbDevice>> all_;
  uint64_t nextId_ = 1;
  std::vector<UsbDevice*> present_;
  int nextDevnum_[128] = {};
};

// Where a device at a port path sits: bus number and ports ("1-2.2.3" -> 1, {2, 2, 3}).
int usb_bus_of(const std::string& portPath);
std::vector<int> usb_ports_of(const std::string& portPath);

}  // namespace sim
