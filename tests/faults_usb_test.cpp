// USB faults: a storm of Apple-device arrivals and removals while the station stops, and a DIO
// module that leaves the bus in the middle of a transfer sequence. No record may be lost or
// freed twice, and what the library reports afterwards must match what is on the bus.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Brakwell.h"
#include "boards.h"
#include "dio.h"
#include "platform/alert.h"
#include "platform/sleep.h"
#include "platform/usb_context.h"
#include "support/log_capture.h"
#include "usb.h"

namespace {

using brakwell::platform::monotonic_seconds;
using brakwell::platform::sleep_seconds;
using testing_support::LogCapture;

constexpr long kApple = 0x05ac, kUnit = 0x1281;

template <typename Pred>
bool wait_until(Pred pred, double seconds) {
  const double end = monotonic_seconds() + seconds;
  while (!pred()) {
    if (monotonic_seconds() > end) return false;
    sleep_seconds(0.001);
  }
  return true;
}

size_t listed() {
  size_t n = 0;
  for (auto* record : g_pListAppleDev) n += record != nullptr;
  return n;
}

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
  LogCapture log;
};

TEST_F(UsbFaults, AppleDeviceStormWhileTheStationStops) {
  sim::Boards boards(bed);
  for (int site = 1; site <= 8; ++site) bus.add_board(site);
  boards.add_sites(1, 8);
  ASSERT_TRUE(SOC_Start());
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);

  // Units come and go on all eight sites for the whole of SOC_Done and a little after.
  std::atomic<bool> stop{false};
  std::set<uint32_t> locations;
  std::thread storm([&] {
    std::vector<sim::UsbDevice*> present(8, nullptr);
    unsigned seed = 11;
    while (!stop) {
      seed = seed * 1103515245 + 12345;
      const size_t n = (seed >> 16) % present.size();
      if (present[n]) {
        bus.remove(*present[n]);
        present[n] = nullptr;
      } else {
        present[n] = &bus.add_unit(static_cast<int>(n) + 1, "iPhone");
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
  ASSERT_TRUE(wait_until([] { return listed() == 0; }, 20));
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
  SOC_Done();
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
    for (int bad : {0, -1, 2, 100, INT_MIN, INT_MAX}) {
      EXPECT_EQ(readFromEndpt(0, bad, buffer, 10), 0) << bad;
      EXPECT_EQ(writeToEndpt(0, bad, buffer, 3), 0) << bad;
    }
    for (int bad : {-1, 16, 100, INT_MIN, INT_MAX}) {
      EXPECT_EQ(dioWrite(0, bad, "11110000"), 0) << bad;
      EXPECT_EQ(dioWrite(0, bad, "0x01"), 0) << bad;
    }
    EXPECT_EQ(module.transfers(), transfers);

    // The module leaves on the sixth transfer: the third status read of the debounce.
    module.script_status({0x47});
    module.vanish_at_transfer(6);
    EXPECT_EQ(dioReadSensor(0, &value), 0);
    EXPECT_EQ(value, 0xFFu);
    EXPECT_EQ(alerts.shown, std::vector<std::string>{
                                "USB Error: USB Connection to DFU DIO_01 Module is broken!"});
    // From then on every call fails at once, silently, and no second alert comes.
    log.clear();
    const double start = monotonic_seconds();
    EXPECT_FALSE(SOC_BoardID(0, &value));
    EXPECT_EQ(value, 255u);
    EXPECT_EQ(dioStatus(0, &value), 0);
    EXPECT_EQ(dioWrite(0, 2, "0x10"), 0);
    dioClose(0);
    EXPECT_EQ(closeUSB(0), 0);  // gone from the bus: its tables are kept
    EXPECT_LT(monotonic_seconds() - start, 0.5);
    EXPECT_TRUE(log.syslog().empty());
    EXPECT_EQ(alerts.shown.size(), 1u);
  }
  // A module plugged in again is opened afresh and answers.
  sim::DioModule again(bus, 0);
  again.script_status({0xA3});
  EXPECT_EQ(closeUSB(0), 0);
  ASSERT_EQ(openUSB(0), 1);
  ASSERT_EQ(dioOpen(0), 1);
  EXPECT_TRUE(SOC_BoardID(0, &value));
  EXPECT_EQ(value, 10u);
  dioClose(0);
  EXPECT_EQ(closeUSB(0), 0);
}

}  // namespace
