// The USB DIO module driver against virtual modules (bad module numbers: station_bad_input_test).
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <optional>

#include "dio.h"
#include "platform/platform.h"
#include "support/log_capture.h"
#include "usb/DIO.h"

namespace {

namespace dio = brakwell::dio;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<Bytes>;
using Lines = std::vector<std::string>;

// libusb learns of arrivals and removals from uevents, a moment after they happen.
bool wait_alive(int m, int want) {
  for (int i = 0; i < 400 && USBDeviceAlive(m) != want; ++i)
    brakwell::platform::sleep_seconds(0.005);
  return USBDeviceAlive(m) == want;
}

Bytes write_frame(int r, uint8_t v) { return {0x04, 0x01, 0x00, static_cast<uint8_t>(r), v}; }
// The writes that put registers to rest, after `first` frames.
Frames rest_frames(Frames first, std::initializer_list<int> registers) {
  for (int r : registers) first.push_back(write_frame(r, r == 11 || r == 13 ? 0xff : 0));
  return first;
}
const std::initializer_list<int> kAllRest = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
const Lines kBroken = {"USB Error|USB Connection to DFU DIO_01 Module is broken!|OK"};

class Dio : public ::testing::Test {
 protected:
  // One testbed for the program: the library's libusb context hears only the one it was made in.
  static void SetUpTestSuite() { bed = new sim::Testbed, bus = new sim::UsbBus(*bed); }
  static void TearDownTestSuite() {
    for (int m = 0; m < 2; ++m) dio::release_module(m);
    brakwell::platform::usb::shutdown();
    delete bus;
    delete bed;
  }
  void SetUp() override {
    ASSERT_TRUE(wait_alive(0, 0) && wait_alive(1, 0));
    std::memset(dio::reg, 0, sizeof dio::reg);
    dio::bDioOpened[0] = dio::bDioOpened[1] = 0;
    dio::sensorState[0] = dio::sensorState[1] = 7;
    brakwell::platform::set_alert_sink(
        [](const char* t, const char* m, const char* b, void* out) {
          static_cast<Lines*>(out)->push_back(std::string(t) + "|" + m + "|" + b);
        },
        &alerts);
  }
  void TearDown() override {
    for (int m = 0; m < 2; ++m) {
      if (modules[m] && !modules[m]->gone()) closeUSB(m);
      unplug(m);
    }
    brakwell::platform::set_alert_sink(nullptr, nullptr);
  }

  sim::DioModule& plug(int m, uint8_t interfaceClass = 0) {
    modules[m].emplace(*bus, m, interfaceClass);
    EXPECT_TRUE(wait_alive(m, 1));
    return *modules[m];
  }
  void unplug(int m) {
    modules[m].reset();
    EXPECT_TRUE(wait_alive(m, 0));
  }
  // Plugged and opened, through the register layer too when asked; the record starts empty.
  sim::DioModule& open(int m, bool registers = false) {
    sim::DioModule& module = plug(m);
    EXPECT_EQ(openUSB(m), 1);
    EXPECT_EQ(registers ? dioOpen(m) : 1, 1);
    module.clear_record();
    log.clear();
    return module;
  }

  static inline sim::Testbed* bed;
  static inline sim::UsbBus* bus;
  std::optional<sim::DioModule> modules[2];
  testing_support::LogCapture log;
  Lines alerts;  // title|message|button
};

// openUSB(1) takes 0xDF02 only; an interface of the wrong class leaves the pipes silent.
TEST_F(Dio, OpenFailuresCloseAndCallbacks) {
  sim::DioModule& vendorClass = plug(0, 0xff);
  EXPECT_EQ(openUSB(1), 0);
  EXPECT_EQ(openUSB(0), 1);
  const unsigned char frame[] = {0x02, 0x03, 0x02};
  EXPECT_EQ(writeToEndpt(0, 1, frame, 3), 0);
  EXPECT_EQ(vendorClass.transfers(), 0u);
  closeUSB(0);
  unplug(0);
  open(1);
  EXPECT_EQ(closeUSB(1), 0);
  const auto& m = dio::modules[1];  // the tables cleared
  EXPECT_TRUE(!m.device && !m.list && !m.service && !dio::masterPort && !m.hasInterface);
  EXPECT_TRUE(alerts.empty() && log.syslog().empty() && log.stdout_lines().empty());

  sim::DioModule& noNode = plug(0);  // still listed, but no handle can be made
  ASSERT_EQ(unlink((bed->root() + noNode.usb().devnode()).c_str()), 0);
  EXPECT_EQ(openUSB(0), 1);
  EXPECT_EQ(dio::modules[0].device, nullptr);
  dealWithDevice(0, nullptr);
  dealWithInterface(0, nullptr);
  libusb_interface_descriptor interface {};
  dealWithInterface(0, &interface);
  EXPECT_EQ(
      log.stdout_lines(),
      (Lines{"dealWithDevice: unable to create a device interface. ret = fffffffc, dev = (nil)\n",
             "dealWithDevice: unable to create plugin. ret = fffffffe, iodev = (nil)\n",
             "dealWithInterface: unable to create plugin. ret = fffffffe, iodev = (nil)\n",
             "dealWithInterface: unable to create a device interface. ret = fffffffc, intf = "
             "(nil)\n"}));
  // The asynchronous-read callbacks only log and flag; with no desktop an alert is printed.
  const int second = 1;
  readTimerHandler(nullptr, &second);
  readTimerHandler(nullptr, nullptr);
  readCompletion(nullptr, 0);
  readCompletion(nullptr, static_cast<int>(0xe00002d6));
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: USBDIO_02 Read Timeout! readTimerHandler invoked!",
                   "VELMORA: USB readCompletion: error from async read (e00002d6)\n"}));
  EXPECT_EQ(dio::modules[1].readError, 1);
  brakwell::platform::set_alert_sink(nullptr, nullptr);
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  ::testing::internal::CaptureStderr();
  brakwell::platform::alert("USB Error", "USB Connection to DFU DIO_01 Module is broken!", "OK");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "USB Error: USB Connection to DFU DIO_01 Module is broken!\n");
}

// Once the module left, neither closeUSB nor an openUSB that finds nothing gives up its handle,
// so its pipes fail aloud (until a fresh open replaces it: the broken-link rows after the first).
TEST_F(Dio, VendorRequestAndAModuleThatLeft) {
  EXPECT_EQ(vendorRequest(0, 1), 0);
  sim::DioModule& module = open(0);
  EXPECT_EQ(vendorRequest(0, 0x12345678), 1);
  const auto requests = module.vendor_requests();
  ASSERT_EQ(requests.size(), 1u);
  const sim::UsbSetup& s = requests[0].setup;
  EXPECT_EQ((std::vector<int>{s.bmRequestType, s.bRequest, s.wValue, s.wIndex, s.wLength}),
            (std::vector<int>{0x40, 0x0C, 0, 0x0471, 4}));
  EXPECT_EQ(requests[0].data, (Bytes{0x78, 0x56, 0x34, 0x12}));
  module.vanish();
  ASSERT_TRUE(wait_alive(0, 0));
  EXPECT_EQ(vendorRequest(0, 1), 0);
  libusb_device_handle* const device = dio::modules[0].device;
  EXPECT_EQ(closeUSB(0), 0);
  EXPECT_EQ(openUSB(0), 0);
  EXPECT_EQ(dio::modules[0].device, device);
  unsigned char buffer[10] = {};
  EXPECT_EQ(readFromEndpt(0, 1, buffer, 10), 0);
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: vendorRequest returned err 0xfffffffc",
                                 "VELMORA: USB Read: unable to do usb read to pipe1. Error Code: "
                                 "fffffffc\n"}));
  EXPECT_EQ(alerts, kBroken);
}

// A link broken in a write, a read or the debounce's third status read (sensors all open): one
// line, one alert, the interface dropped, openUSB refused as busy; later calls, the board id too,
// fail at once and silently without a transfer, also once the module has left.
TEST_F(Dio, BrokenLinkAlertsOnceAndSilencesThePipes) {
  // Which transfer fails, and the value the call leaves.
  for (const auto& [failing, left] : {std::pair<size_t, uint32_t>{1, 0}, {2, 0}, {6, 0xff}}) {
    SCOPED_TRACE(failing);
    sim::DioModule& module = open(0, true);
    alerts.clear();
    dio::reg[0][2] = 0x33;
    module.script_status({0x47});
    module.vanish_at_transfer(failing);
    uint32_t value = 7;
    EXPECT_EQ(failing < 6 ? dioStatus(0, &value) : dioReadSensor(0, &value), 0);
    EXPECT_EQ(value, left);
    EXPECT_EQ(openUSB(0), 1);
    EXPECT_EQ(log.stdout_lines(), Lines{"dealWithDevice: unable to open device. ret = fffffffa\n"});
    EXPECT_FALSE(dio::modules[0].hasInterface);
    const size_t transfers = module.transfers();
    unsigned char buffer[10] = {};
    for (bool gone : {false, true}) {
      if (gone) module.vanish();
      const double start = brakwell::platform::monotonic_seconds();
      EXPECT_EQ(readFromEndpt(0, 1, buffer, 10) + writeToEndpt(0, 1, buffer, 3) +
                    dioWrite(0, 2, "0x44") + SOC_BoardID(0, &value),
                0);
      EXPECT_LT(brakwell::platform::monotonic_seconds() - start, 0.05);
      EXPECT_EQ(value, 255u);
    }
    EXPECT_EQ(dio::reg[0][2], 0x33);
    EXPECT_EQ(module.transfers(), transfers);
    EXPECT_EQ(log.syslog(), Lines{failing == 1 ? "VELMORA: USB Write: unable to do usb write to "
                                                 "pipe2. Error Code: ffffffff\n"
                                               : "VELMORA: USB Read: unable to do usb read to "
                                                 "pipe1. Error Code: ffffffff\n"});
    EXPECT_EQ(alerts, kBroken);
    unplug(0);
  }
}

TEST_F(Dio, RegisterFramesAndWriteTexts) {
  sim::DioModule& module = open(0);
  uint32_t value = 0xdead;
  EXPECT_EQ(dioRead(0, 5, &value), 0);  // not opened yet: nothing sent
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(module.transfers(), 0u);
  ASSERT_EQ(dioOpen(0), 1);
  EXPECT_EQ(module.frames(), rest_frames({{0x02, 0x03, 0x03}, write_frame(0, 0x01)}, kAllRest));
  EXPECT_EQ(module.read_lengths(), std::vector<size_t>{10});  // the reset's reply
  module.clear_record();
  module.set_register(5, 0x5a);
  module.script_status({0x47});
  EXPECT_EQ(dioRead(0, 5, &value), 1);
  EXPECT_EQ(value, 0x5au);
  EXPECT_EQ(dioStatus(0, &value), 1);
  EXPECT_EQ(value, 0x47u);
  unsigned char buffer[64] = {};
  EXPECT_EQ(readFromEndpt(0, 1, buffer, 1), 1);  // ten bytes whatever the size
  // Refused without a transfer: no channel 0, pipe 3, buffer, text, register 16 or overflow.
  EXPECT_EQ(writeToEndpt(0, 0, buffer, 3) + readFromEndpt(0, 2, buffer, 10) +
                readFromEndpt(0, 1, nullptr, 10) + dioWrite(0, 2, nullptr),
            0);
  for (int bad : {16, -1, 100, INT_MIN, INT_MAX})
    EXPECT_EQ(readFromEndpt(0, bad, buffer, 10) + writeToEndpt(0, bad, buffer, 3) +
                  dioWrite(0, bad, "0x01"),
              0)
        << bad;
  EXPECT_EQ(module.read_lengths(), (std::vector<size_t>{10, 10, 10}));
  for (int r : {1, 3, 10}) dio::reg[0][r] = 0x77;
  resetAllRegisters2(0);  // leaves 1, 3 and 10 alone
  for (int r : {1, 3, 10}) EXPECT_EQ(dio::reg[0][r], 0x77);
  dioClose(0);
  EXPECT_EQ(module.frames(), rest_frames(rest_frames({{0x04, 0x01, 0x01, 0x05}, {0x02, 0x03, 0x02}},
                                                     {2, 4, 5, 6, 7, 8, 9, 11, 12, 13}),
                                         kAllRest));
  EXPECT_EQ(dio::bDioOpened[0], 0);
  EXPECT_TRUE(log.syslog().empty());
  // Text, the register before, what is sent (-1: nothing, result 0).
  const std::tuple<const char*, uint8_t, int> cases[] = {
      {"11110000", 0x0f, 0xf0}, {"1x0xxxxx", 0x25, 0x85}, {"xxxxxxxx", 0x5a, 0x5a},
      {"511", 0, 0xff},         {"0x1FF", 0, -1},         {"12345", 0, -1},
      {"1010101", 0, -1},       {"101010101", 0, -1},     {"010", 0, 10},
      {"0xFF", 0, 0xff},        {"0x01", 0, 0x01}};
  for (const auto& [text, shadow, sent] : cases) {
    module.clear_record();
    dio::reg[0][2] = shadow;
    EXPECT_EQ(dioWrite(0, 2, text), sent >= 0) << text;
    EXPECT_EQ(module.frames(), sent >= 0 ? Frames{write_frame(2, sent)} : Frames{}) << text;
    EXPECT_EQ(dio::reg[0][2], sent >= 0 ? sent : shadow) << text;
  }
  // No second prefix, a blank and a sign after the prefix, no binary prefix.
  const std::pair<const char*, long> numbers[] = {
      {"0x1F", 31},  {"0X1f", 31},    {"0x", 0},  {"010", 10}, {"12ab", 12},
      {"-5", -5},    {"0xZZ", 0},     {"x10", 0}, {"", 0},     {nullptr, 0},
      {"0x0x1F", 0}, {"0x -1F", -31}, {"0b11", 0}};
  for (const auto& [text, want] : numbers) EXPECT_EQ(strToInt(text), want) << (text ? text : "");
}

TEST_F(Dio, SensorDebounceAndBoardId) {
  // Module, status bytes, result, sensors, status reads, the change line if any.
  const std::string left = "VELMORA: Left Well Sensor state changed, rdData: 0x",
                    right = "VELMORA: Right Well Sensor state changed, rdData: 0x";
  // clang-format off
  const std::tuple<int, Bytes, int, uint32_t, size_t, std::string> cases[] = {
      {0, {0x47}, 1, 0x07, 5, ""},              // steady
      {0, {0x07, 0x03, 0x07}, 1, 0x07, 6, ""},  // one glitch
      {0, {5, 6, 5, 5, 5, 6, 5, 5, 5, 6, 5, 5, 5, 6}, 0, 0xff, 13, left + "5"},  // bouncing
      {1, {0x01, 0x02}, 0, 0xff, 13, right + "1"},
      {1, {0x02}, 1, 0x02, 5, right + "2"}};  // the next call
  // clang-format on
  open(0, true);
  open(1, true);
  int row = 0;
  for (const auto& [m, status, result, want, reads, change] : cases) {
    SCOPED_TRACE(row++);
    modules[m]->script_status(status);
    log.clear();
    uint32_t sensors = 0;
    EXPECT_EQ(dioReadSensor(m, &sensors), result);
    EXPECT_EQ(sensors, want);
    const auto times = modules[m]->status_times();
    ASSERT_EQ(times.size(), reads);
    EXPECT_GE(times.back() - times.front(), 0.001 * static_cast<double>(reads - 1));
    EXPECT_LT(times.back() - times.front(), 1.0);
    EXPECT_EQ(log.syslog(), change.empty() ? Lines{} : Lines{change});
  }
  // The board id of module 0: status bytes, opened, result, id, status reads.
  // clang-format off
  const std::tuple<Bytes, bool, bool, uint32_t, size_t> ids[] = {
      {{0xa3, 0xa3}, true, true, 10, 2}, {{0xf0}, true, false, 15, 1}, {{0x03}, true, false, 0, 1},
      {{0xa3, 0xb3}, true, false, 10, 2}, {{0xa3}, false, false, 255, 0}};
  // clang-format on
  for (const auto& [status, opened, result, want, reads] : ids) {
    SCOPED_TRACE(status[0] + 256 * opened);
    modules[0]->script_status(status);
    dio::bDioOpened[0] = opened;
    uint32_t id = 0;
    EXPECT_EQ(SOC_BoardID(0, &id), result);
    EXPECT_EQ(id, want);
    EXPECT_EQ(modules[0]->status_reads(), reads);
  }
  EXPECT_FALSE(SOC_BoardID(0, nullptr));
}

}  // namespace
