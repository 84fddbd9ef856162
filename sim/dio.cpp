#include "dio.h"

#include <algorithm>
#include <cstdio>

namespace sim {
namespace {

std::string hex_bytes(const std::vector<uint8_t>& bytes) {
  std::string out;
  char byte[4];
  for (uint8_t b : bytes) {
    std::snprintf(byte, sizeof byte, out.empty() ? "%02x" : " %02x", b);
    out += byte;
  }
  return out;
}

}  // namespace

DioModule::DioModule(UsbBus& bus, int module, uint8_t interfaceClass)
    : bus_(bus), source_("dio" + std::to_string(module)) {
  UsbDeviceSpec desc{dio_port_path(module),
                     kDioVendor,
                     dio_product(module),
                     module == 0 ? "DFU DIO_01 Module" : "DFU DIO_02 Module",
                     "",
                     0xff,
                     {}};
  desc.interfaces = {UsbInterfaceSpec{interfaceClass, 0, 0, {{0x81, 2}, {0x02, 2}}}};
  usb_ = &bus.add(desc);
  id_ = usb_->id();
  usb_->on_bulk = [this](uint8_t endpoint, size_t length, std::vector<uint8_t>& data) {
    return on_bulk(endpoint, length, data);
  };
  usb_->on_control = [this](const UsbSetup& setup, std::vector<uint8_t>& data) {
    return on_control(setup, data);
  };
}

DioModule::~DioModule() { bus_.remove(id_); }

bool DioModule::on_bulk(uint8_t endpoint, size_t length, std::vector<uint8_t>& data) {
  {
    std::lock_guard lock(mutex_);
    if (leaving_) return false;
    ++transfers_;
    if (vanishAt_ == 0 || transfers_ != vanishAt_) {
      if (endpoint & 0x80) {
        readLengths_.push_back(length);
        if (!replies_.empty()) {
          data = replies_.front();
          replies_.erase(replies_.begin());
        }
      } else {
        frames_.push_back(data);
        take_frame(data);
      }
      return true;
    }
    leaving_ = true;
  }
  bus_.testbed().trace(source_, "pulled=1");
  return false;
}

// Called with mutex_ held.
void DioModule::take_frame(const std::vector<uint8_t>& frame) {
  bus_.testbed().trace(source_, "out=" + hex_bytes(frame));
  if (frame == std::vector<uint8_t>{0x02, 0x03, 0x03}) {
    std::fill(std::begin(registers_), std::end(registers_), 0);
    replies_.push_back({0x00});
  } else if (frame == std::vector<uint8_t>{0x02, 0x03, 0x02}) {
    statusTimes_.push_back(now());
    replies_.push_back({status_[std::min(statusNext_++, status_.size() - 1)]});
  } else if (frame.size() == 5 && frame[0] == 0x04 && frame[1] == 0x01 && frame[2] == 0x00) {
    registers_[frame[3] & 0x0f] = frame[4];
  } else if (frame.size() == 4 && frame[0] == 0x04 && frame[1] == 0x01 && frame[2] == 0x01) {
    replies_.push_back({registers_[frame[3] & 0x0f]});
  }
}

bool DioModule::on_control(const UsbSetup& setup, std::vector<uint8_t>& data) {
  if ((setup.bmRequestType & 0x60) != 0x40) return false;
  std::lock_guard lock(mutex_);
  vendorRequests_.push_back({setup, data});
  return true;
}

void DioModule::script_status(std::vector<uint8_t> sequence) {
  std::lock_guard lock(mutex_);
  status_ = sequence.empty() ? std::vector<uint8_t>{0} : std::move(sequence);
  statusNext_ = 0;
  statusTimes_.clear();
}

size_t DioModule::status_reads() const {
  std::lock_guard lock(mutex_);
  return statusTimes_.size();
}

std::vector<double> DioModule::status_times() const {
  std::lock_guard lock(mutex_);
  return statusTimes_;
}

std::vector<std::vector<uint8_t>> DioModule::frames() const {
  std::lock_guard lock(mutex_);
  return frames_;
}

std::vector<size_t> DioModule::read_lengths() const {
  std::lock_guard lock(mutex_);
  return readLengths_;
}

size_t DioModule::transfers() const {
  std::lock_guard lock(mutex_);
  return transfers_;
}

void DioModule::clear_record() {
  std::lock_guard lock(mutex_);
  frames_.clear();
  readLengths_.clear();
  vendorRequests_.clear();
  transfers_ = 0;
  vanishAt_ = 0;
}

uint8_t DioModule::register_value(int r) const {
  std::lock_guard lock(mutex_);
  return registers_[r & 0x0f];
}

void DioModule::set_register(int r, uint8_t value) {
  std::lock_guard lock(mutex_);
  registers_[r & 0x0f] = value;
}

std::vector<DioVendorRequest> DioModule::vendor_requests() const {
  std::lock_guard lock(mutex_);
  return vendorRequests_;
}

void DioModule::vanish_at_transfer(size_t n) {
  std::lock_guard lock(mutex_);
  vanishAt_ = transfers_ + n;
}

void DioModule::vanish() {
  {
    std::lock_guard lock(mutex_);
    leaving_ = true;
  }
  bus_.remove(id_);
}

bool DioModule::gone() const { return !bus_.present(id_); }

}  // namespace sim
