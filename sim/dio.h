// Virtual USB DIO modules 0471:df01 (module 0) and 0471:df02 (module 1) on the virtual USB bus.
//
// A module has one interface of class 0 with bulk IN 0x81 then bulk OUT 0x02 (pipe 1 and pipe
// 2), a register file of 16 bytes and a status byte. It understands the four command frames
// written to 0x02:
//   02 03 03        reset: the registers go to 0, a one-byte reply 00 is queued
//   02 03 02        status: the next scripted status byte is queued
//   04 01 00 r v    write register r
//   04 01 01 r      read register r: its value is queued
// A read on 0x81 takes the oldest queued reply (an empty packet when none is queued). Vendor
// control requests are recorded with their data.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "usb.h"

namespace sim {

inline constexpr uint16_t kDioVendor = 0x0471;
inline constexpr uint16_t dio_product(int module) { return module == 0 ? 0xDF01 : 0xDF02; }
// Module m sits on port 3 + m of the root hub (topology.h).
inline std::string dio_port_path(int module) { return "1-" + std::to_string(3 + module); }

struct DioVendorRequest {
  UsbSetup setup;
  std::vector<uint8_t> data;
};

class DioModule {
 public:
  // interfaceClass: what the module's interface reports; the driver looks for class 0.
  DioModule(UsbBus& bus, int module, uint8_t interfaceClass = 0);
  ~DioModule();  // leaves the bus if still on it
  DioModule(const DioModule&) = delete;
  DioModule& operator=(const DioModule&) = delete;

  UsbDevice& usb() { return *usb_; }

  // The status byte answers the status frames in this order; the last one repeats. Also forgets
  // the count of status frames so far.
  void script_status(std::vector<uint8_t> sequence);
  size_t status_reads() const;
  std::vector<double> status_times() const;  // now() of each status frame since the script

  std::vector<std::vector<uint8_t>> frames() const;  // every OUT transfer, in order
  std::vector<size_t> read_lengths() const;          // the length asked by every IN transfer
  size_t transfers() const;                          // IN and OUT together
  void clear_record();                               // forgets frames, reads and requests
  uint8_t register_value(int r) const;
  void set_register(int r, uint8_t value);
  std::vector<DioVendorRequest> vendor_requests() const;

  // The module is pulled while answering the n-th bulk transfer from now (1 = the next): that
  // transfer fails and so does every later one. umockdev stops answering a node once its
  // device is removed, and a removal racing the library's collection of the failed transfer
  // would hang it, so the module leaves the virtual bus (sysfs, "remove" uevent) only at
  // vanish(), which the test calls once the library call has returned.
  void vanish_at_transfer(size_t n);
  void vanish();  // leaves the bus now
  bool gone() const;

 private:
  bool on_bulk(uint8_t endpoint, size_t length, std::vector<uint8_t>& data);
  bool on_control(const UsbSetup& setup, std::vector<uint8_t>& data);
  void take_frame(const std::vector<uint8_t>& frame);

  UsbBus& bus_;
  UsbDevice* usb_;  // while it is on the bus; once gone the bus may free it
  uint64_t id_;
  std::string source_;  // "dio0", "dio1" in the trace
  mutable std::mutex mutex_;
  uint8_t registers_[16] = {};
  std::vector<uint8_t> status_ = {0};
  size_t statusNext_ = 0;
  std::vector<double> statusTimes_;
  std::vector<std::vector<uint8_t>> replies_;
  std::vector<std::vector<uint8_t>> frames_;
  std::vector<size_t> readLengths_;
  std::vector<DioVendorRequest> vendorRequests_;
  size_t transfers_ = 0;
  size_t vanishAt_ = 0;  // 0: never
  bool leaving_ = false;
};

}  // namespace sim
