// USB faults: a storm of Apple-device arrivals and removals while the station stops, and a DIO
// module that leaves the bus in the middle of the debounce. No record may be lost or freed
// twice, and what the library reports afterwards must match what is on the bus. (A module that
// leaves in a single transfer, and a storm without a stop, are the area suites' cases.)
#include <Brakwell.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "boards.h"
#include "dio.h"
#include "platform/platform.h"
#include "support/log_capture.h"
#include "usb.h"

namespace {

using brakwell::platform::monotonic_seconds;
using brakwell::platform::sleep_seconds;

size_t count_prefix(const std::vector<std::string>& lines, const std::string& prefix) {
  size_t n = 0;
  for (const auto& line : lines) n += line.rfind(prefix, 0) == 0;
  return n;
}

struct UsbFaults : ::testing::Test {
  // A libusb context hears only the testbed it was made in: each test starts a fresh one, and
  // the tracker's devices leave while the event thread still hears them.
  UsbFaults() { brakwell::platform::usb::shutdown(); }
  ~UsbFaults() override {
    brakwell::platform::usb::shutdown();
    usbDeviceRemoveAll();
  }
  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

TEST_F(UsbFaults, AppleDeviceStormWhileTheStationStops) {
  sim::Boards boards(bed);
  for (int site = 1; site <= 8; ++site) bus.add_board(site);
  boards.add_sites(1, 8);
  ASSERT_TRUE(SOC_Start());
  ASSERT_EQ(usbDeviceConnStatus(0x05ac, 0x1281), 0);

  // Units come and go on all eight sites for the whole of SOC_Done and a little after. They
  // have no name string: the library never opens them (see sim/usb.h).
  std::atomic<bool> stop{false};
  std::set<uint32_t> locations;
  std::thread storm([&] {
    std::vector<sim::UsbDevice*> present(8, nullptr);
    for (size_t i = 0; !stop; ++i) {
      const size_t n = i * 5 % 8;  // the sites in a scattered order, each in turn
      if (present[n]) {
        bus.remove(*present[n]);
        present[n] = nullptr;
      } else {
        present[n] = &bus.add_unit(static_cast<int>(n) + 1, "");
        locations.insert(present[n]->location_id());
      }
      sleep_seconds(0.002);
    }
    for (auto* unit : present) {
      if (unit) bus.remove(*unit);
    }
  });
  SOC_Done();
  sleep_seconds(0.2);
  stop = true;
  storm.join();
  const double end = monotonic_seconds() + 20;
  auto listed = [] {
    size_t n = 0;
    for (auto* record : g_pListAppleDev) n += record != nullptr;
    return n;
  };
  while (listed() != 0 && monotonic_seconds() < end) sleep_seconds(0.001);
  ASSERT_EQ(listed(), 0u);
  sleep_seconds(0.1);  // late removals of records that the stop already freed

  // Every port took its disable command and is closed.
  for (int site = 1; site <= 8; ++site) {
    EXPECT_EQ(boards.site(site).received(), "vel_hi5_disable\n") << site;
    EXPECT_EQ(DIO_fileDescriptor[site - 1], -1) << site;
    EXPECT_TRUE(
        log.has("VELMORA: Successfully sent vel_hi5_disable\n for UUT" + std::to_string(site)));
  }
  // Each record was added once and removed once, by the stop or by its device leaving.
  const auto lines = log.syslog();
  EXPECT_GT(count_prefix(lines, "Apple Device added:"), 8u);
  EXPECT_EQ(count_prefix(lines, "Apple Device added:"),
            count_prefix(lines, "Apple Device removed."));
  // The history holds the units' locations and nothing else.
  for (uint32_t id : g_ListUutLocationID) {
    EXPECT_TRUE(id == 0 || locations.count(id)) << std::hex << id;
  }
  // And the station starts again.
  ASSERT_TRUE(SOC_Start());
  EXPECT_TRUE(SOC_NTC_ON(7, true));
  EXPECT_TRUE(boards.site(8).wait_lines(2, 2));
  for (int uut = 0; uut < 8; ++uut) CloseDIOSerialPort(uut);
}

struct Alerts {
  static void sink(const char* title, const char* message, const char*, void* self) {
    static_cast<Alerts*>(self)->shown.push_back(std::string(title) + ": " + message);
  }
  Alerts() { brakwell::platform::set_alert_sink(&sink, this); }
  ~Alerts() { brakwell::platform::set_alert_sink(nullptr, nullptr); }
  std::vector<std::string> shown;
};

TEST_F(UsbFaults, DioModuleGoneInTheMiddleOfTheDebounce) {
  Alerts alerts;
  uint32_t value = 0;
  {
    sim::DioModule module(bus, 0);
    ASSERT_EQ(openUSB(0), 1);
    ASSERT_EQ(dioOpen(0), 1);
    // Channels whose pipe numbers overflow, registers outside the shadow: refused, nothing sent.
    const size_t transfers = module.transfers();
    unsigned char buffer[16] = {};
    for (int bad : {-1, 100, INT_MIN, INT_MAX}) {
      EXPECT_EQ(readFromEndpt(0, bad, buffer, 10), 0) << bad;
      EXPECT_EQ(writeToEndpt(0, bad, buffer, 3), 0) << bad;
      EXPECT_EQ(dioWrite(0, bad, "0x01"), 0) << bad;
    }
    EXPECT_EQ(module.transfers(), transfers);

    // The module leaves on the sixth transfer: the third status read of the debounce. The
    // sensor reads as all open, and from then on the board ID fails at once, silently, with no
    // second alert.
    module.script_status({0x47});
    module.vanish_at_transfer(6);
    EXPECT_EQ(dioReadSensor(0, &value), 0);
    EXPECT_EQ(value, 0xFFu);
    log.clear();
    const double start = monotonic_seconds();
    EXPECT_FALSE(SOC_BoardID(0, &value));
    EXPECT_EQ(value, 255u);
    EXPECT_LT(monotonic_seconds() - start, 0.5);
    EXPECT_TRUE(log.syslog().empty());
    EXPECT_EQ(alerts.shown, std::vector<std::string>{
                                "USB Error: USB Connection to DFU DIO_01 Module is broken!"});
  }
  // A module plugged in again is opened afresh and answers. (Until then the library holds the
  // gone module's handle: left so at exit, LeakSanitizer finds 24 bytes of libusb's.)
  sim::DioModule again(bus, 0);
  again.script_status({0xA3});
  ASSERT_EQ(openUSB(0), 1);
  ASSERT_EQ(dioOpen(0), 1);
  EXPECT_TRUE(SOC_BoardID(0, &value));
  EXPECT_EQ(value, 10u);
  dioClose(0);
  EXPECT_EQ(closeUSB(0), 0);
}

}  // namespace
