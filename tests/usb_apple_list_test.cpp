// The Apple-device live list and history: arrivals and removals from the event thread, the host's
// calls, full list, storms, and the thread's end at exit (at unload: faults_unload_test).
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

#include "platform/platform.h"
#include "support/log_capture.h"
#include "topology.h"
#include "usb.h"

namespace {

namespace platform_usb = brakwell::platform::usb;
using brakwell::platform::monotonic_seconds;
using Lines = std::vector<std::string>;

constexpr long kApple = 0x05ac, kUnit = 0x1281;

template <typename Pred>
bool wait_until(Pred pred, double seconds = 10) {
  const double end = monotonic_seconds() + seconds;
  while (!pred()) {
    if (monotonic_seconds() > end) return false;
    brakwell::platform::sleep_seconds(0.0005);
  }
  return true;
}

std::multiset<uint32_t> listed() {
  std::multiset<uint32_t> out;
  for (auto* record : g_pListAppleDev) {
    if (record) out.insert(record->locationID);
  }
  return out;
}
bool wait_listed(size_t n) {
  return wait_until([n] { return listed().size() == n; });
}

std::vector<uint32_t> history() {
  std::vector<uint32_t> out;
  for (uint32_t id : g_ListUutLocationID) {
    if (id) out.push_back(id);
  }
  return out;
}

std::string unit_path(int n) { return "1-3." + std::to_string(n); }  // 15 spare ports

class AppleList : public ::testing::Test {
 protected:
  AppleList() {
    platform_usb::shutdown();
    usbDeviceRemoveAll();
    std::memset(g_ListUutLocationID, 0, sizeof g_ListUutLocationID);
  }
  ~AppleList() override {
    // Devices leave while the event thread still hears them, so that every record is freed.
    for (auto* device : bus.devices()) {
      if (device->desc().vendor == kApple) bus.remove(*device);
    }
    wait_until([] { return listed().empty(); }, 5);
    platform_usb::shutdown();
    usbDeviceRemoveAll();
  }

  sim::UsbDevice& add_unit(int n, const std::string& name = "iPhone") {
    return bus.add({unit_path(n), kApple, kUnit, name, "", 0, {}});
  }

  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

TEST_F(AppleList, AttachedAtOnceThenArrivalsRemovalsAndReturnFromTheEventThread) {
  bus.add_unit(1, "iPhone (DFU Mode)");
  bus.add_unit(6, "iPhone (Recovery Mode)");
  bus.add({"1-3.1", 0x05ac, 0x12a8, "Other Apple", "", 0, {}});  // other ids: never listed
  EXPECT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  // The attached ones are handled before the call returns.
  EXPECT_EQ(listed(), (std::multiset<uint32_t>{0x1113000, 0x1223000}));
  EXPECT_TRUE(log.has("Apple Device added: DeviceName=iPhone (DFU Mode) locationID=0x1113000"));
  EXPECT_TRUE(
      log.has("Apple Device added: DeviceName=iPhone (Recovery Mode) locationID=0x1223000"));

  sim::UsbDevice& third = bus.add_unit(3, "iPad");
  ASSERT_TRUE(wait_listed(3));
  // The line follows the listing on the event thread.
  EXPECT_TRUE(wait_until(
      [&] { return log.has("Apple Device added: DeviceName=iPad locationID=0x1133000"); }));
  bus.remove(third);
  ASSERT_TRUE(wait_listed(2));
  EXPECT_TRUE(log.has("Apple Device removed. Device Name:iPad locationID: 0x1133000"));
  EXPECT_EQ(log.syslog().size(), 4u);
  // Back at the same location: listed again, the history keeps it once.
  bus.add_unit(3, "iPad");
  ASSERT_TRUE(wait_listed(3));
  EXPECT_TRUE(wait_until(
      [&] { return log.count("Apple Device added: DeviceName=iPad locationID=0x1133000") == 2; }));
  const auto kept = history();
  EXPECT_EQ(std::multiset<uint32_t>(kept.begin(), kept.end()),
            (std::multiset<uint32_t>{0x1113000, 0x1223000, 0x1133000}));
}

TEST_F(AppleList, ThirteenArrivals) {
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  for (int n = 1; n <= 13; ++n) add_unit(n);
  const std::string refused =
      "Warning: Max 12 Apple Devices supported! Added Apple Device (locationID:0x13d0000) ignored!";
  ASSERT_TRUE(wait_until([&] { return log.has(refused); }));
  EXPECT_EQ(listed().size(), 12u);
  EXPECT_EQ(history().size(), 12u);  // no free entry was left for the thirteenth
  // The refused one is still watched: its removal frees it and clears nothing.
  bus.remove(*bus.devices().back());
  ASSERT_TRUE(wait_until(
      [&] { return log.has("Apple Device removed. Device Name:iPhone locationID: 0x13d0000"); }));
  EXPECT_EQ(listed().size(), 12u);
}

// Records made by hand: two share a location, so a full list still leaves a history entry free.
TEST_F(AppleList, FullListStillFillsAFreeHistoryEntry) {
  AppleDevRecord records[13] = {};
  for (uint32_t i = 0; i < 13; ++i) {
    records[i].deviceName = strdup("x");
    records[i].locationID = 0x1110000 + (i < 2 ? 0 : i << 12);
    EXPECT_EQ(addSelfToAppleDevList(&records[i]), i < 12 ? 1 : 0);
  }
  EXPECT_EQ(history().size(), 12u);
  EXPECT_EQ(history().back(), 0x111c000u);
  EXPECT_EQ(log.syslog(), Lines{"Warning: Max 12 Apple Devices supported! Added Apple Device "
                                "(locationID:0x111c000) ignored!"});
  EXPECT_EQ(addSelfToAppleDevList(nullptr), 0);
  // removeSelfFromAppleDevList clears both records at the shared location and frees nothing.
  removeSelfFromAppleDevList(0x1110000);
  EXPECT_EQ(listed().count(0x1110000), 0u);
  EXPECT_EQ(listed().size(), 10u);
  std::fill(std::begin(g_pListAppleDev), std::end(g_pListAppleDev), nullptr);  // ours to free
  for (auto& record : records) std::free(record.deviceName);
}

// Messages other than termination are ignored; usbDeviceRemoveAll frees every record, and the
// later removals of the same devices can no longer reach them (ASan would see a use).
TEST_F(AppleList, OnlyTerminationRemovesThenRemoveAllAndLateRemovals) {
  usbDeviceRemoveAll();  // never armed, nothing listed: nothing happens
  std::vector<sim::UsbDevice*> units = {&add_unit(1), &add_unit(2), &add_unit(3)};
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  ASSERT_EQ(listed().size(), 3u);
  log.clear();
  for (uint32_t message : {0u, 0xE0000011u, 0xE0000100u, 0xE0000300u}) {
    usbDeviceRemoval(g_pListAppleDev[0], nullptr, message, nullptr);
  }
  usbDeviceRemoval(nullptr, nullptr, 0xE0000010, nullptr);
  EXPECT_EQ(listed().size(), 3u);
  EXPECT_TRUE(log.syslog().empty());

  usbDeviceRemoveAll();
  EXPECT_TRUE(listed().empty());
  auto lines = log.syslog();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (Lines{"Apple Device removed. Device Name:iPhone locationID: 0x1310000",
                          "Apple Device removed. Device Name:iPhone locationID: 0x1320000",
                          "Apple Device removed. Device Name:iPhone locationID: 0x1330000"}));
  EXPECT_EQ(history().size(), 3u);
  log.clear();
  for (auto* unit : units) bus.remove(*unit);
  // Still armed: a new arrival is listed again, and only then the log moves.
  add_unit(4);
  ASSERT_TRUE(wait_listed(1));
  ASSERT_TRUE(wait_until([&] { return !log.syslog().empty(); }));
  EXPECT_EQ(log.syslog(), Lines{"Apple Device added: DeviceName=iPhone locationID=0x1340000"});
}

// The units have no name string, so the library never opens them: under umockdev, opening a
// device while the testbed removes it can wedge the ioctl worker.
TEST_F(AppleList, StormOfArrivalsAndRemovals) {
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  std::vector<sim::UsbDevice*> present(6, nullptr);
  unsigned seed = 7;
  for (int events = 0; events < 1000; ++events) {
    seed = seed * 1103515245 + 12345;
    const size_t n = (seed >> 16) % present.size();
    if (present[n]) {
      bus.remove(*present[n]);
      present[n] = nullptr;
    } else {
      present[n] = &add_unit(static_cast<int>(n) + 1, "");
    }
  }
  std::multiset<uint32_t> expected;
  for (auto* device : present) {
    if (device) expected.insert(device->location_id());
  }
  wait_until([&] { return listed() == expected; }, 60);
  ASSERT_EQ(listed(), expected);
  platform_usb::shutdown();  // nothing more comes: compare the logs
  size_t added = 0, removed = 0;
  for (const auto& line : log.syslog()) {
    added += line.rfind("Apple Device added:", 0) == 0;
    removed += line.rfind("Apple Device removed.", 0) == 0;
  }
  EXPECT_EQ(added, removed + expected.size());
  EXPECT_LE(history().size(), present.size());
}

double cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// Arrival-to-list latency on the event thread, and the thread's cost while nothing happens.
TEST_F(AppleList, ArrivalLatencyAndIdleCost) {
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  std::vector<double> latencies;
  for (int i = 0; i < 100; ++i) {
    sim::UsbDevice& unit = add_unit(5);
    ASSERT_TRUE(wait_listed(1));
    const double listedAt = monotonic_seconds();
    // From the "add" uevent, which the testbed traces as soon as it is sent.
    const auto events = bed.trace_events();
    const auto sent = std::find_if(events.rbegin(), events.rend(), [](const sim::TraceEvent& e) {
      return e.what == unit_path(5) + "=add";
    });
    ASSERT_NE(sent, events.rend());
    latencies.push_back(listedAt - sent->time);
    bus.remove(unit);
    ASSERT_TRUE(wait_listed(0));
  }
  std::sort(latencies.begin(), latencies.end());
  EXPECT_LT(latencies[50], 0.5);

  const double before = cpu_seconds();
  brakwell::platform::sleep_seconds(1.0);
  EXPECT_LT(cpu_seconds() - before, 0.1);
}

TEST_F(AppleList, EventThreadEndsAtProcessExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        sim::Testbed child;
        sim::UsbBus childBus(child);
        platform_usb::shutdown();
        childBus.add_unit(1, "iPhone");
        usbDeviceConnStatus(kApple, kUnit);
        childBus.add_unit(2, "iPhone");
        std::exit(wait_listed(2) ? 0 : 3);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
