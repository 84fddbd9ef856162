// The Apple-device live list and its history, kept by the event thread and the host's calls.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <thread>

#include "support/station_fixture.h"
#include "usb/AppleDevices.h"

namespace {

namespace platform_usb = brakwell::platform::usb;
using brakwell::platform::monotonic_seconds;
using brakwell::platform::sleep_seconds;
using testing_support::Lines;
using Ids = std::multiset<uint32_t>;

constexpr long kApple = 0x05ac, kUnit = 0x1281;

template <typename Pred>
bool wait_until(Pred pred, double seconds = 10) {
  for (const double end = monotonic_seconds() + seconds; !pred(); sleep_seconds(0.0005))
    if (monotonic_seconds() > end) return false;
  return true;
}
Ids listed() {
  Ids out;
  for (auto* record : g_pListAppleDev) record ? void(out.insert(record->locationID)) : void();
  return out;
}
Ids history() {
  Ids out(std::begin(g_ListUutLocationID), std::end(g_ListUutLocationID));
  out.erase(0);
  return out;
}
struct AppleList : ::testing::Test {
  // A libusb context hears only the testbed it was made in: each test starts a fresh one.
  AppleList() {
    platform_usb::shutdown();
    usbDeviceRemoveAll();
    std::memset(g_ListUutLocationID, 0, sizeof g_ListUutLocationID);
  }
  ~AppleList() override {
    // Devices leave while the event thread still hears them, so that every record is freed.
    remove_units();
    wait_until([] { return listed().empty(); }, 5);
    platform_usb::shutdown();
    usbDeviceRemoveAll();
  }
  void remove_units() {
    for (auto* d : bus.devices()) d->desc().vendor == kApple ? bus.remove(*d) : void();
  }
  sim::UsbDevice& add_unit(int n, const std::string& name = "iPhone") {  // port 1-3.n
    return bus.add({"1-3." + std::to_string(n), kApple, kUnit, name, "", 0, {}});
  }
  // Units come and go on `sites` ports, scattered, until `more()` is false; nameless, so never
  // opened (under umockdev an open racing the removal can wedge). Returns those still present.
  template <typename More>
  Ids storm(size_t sites, double pause, std::set<uint32_t>& seen, More more) {
    std::vector<sim::UsbDevice*> present(sites, nullptr);
    for (unsigned seed = 7; more(); sleep_seconds(pause)) {
      seed = seed * 1103515245 + 12345;
      auto& unit = present[(seed >> 16) % sites];
      if (unit) {
        bus.remove(*std::exchange(unit, nullptr));
      } else {
        unit = &add_unit(static_cast<int>(&unit - present.data()) + 1, "");
        seen.insert(unit->location_id());
      }
    }
    Ids left;
    for (auto* unit : present) unit ? void(left.insert(unit->location_id())) : void();
    return left;
  }

  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

// Units attached when tracking starts are listed before the call returns; later ones arrive, leave
// and come back on the event thread, which otherwise sleeps. Other ids are never listed.
TEST_F(AppleList, AttachedAtOnceThenArrivalsRemovalsAndReturnFromTheEventThread) {
  bus.add_unit(1, "iPhone (DFU Mode)");
  bus.add_unit(6, "iPhone (Recovery Mode)");
  bus.add({"1-3.1", 0x05ac, 0x12a8, "Other Apple", "", 0, {}});
  EXPECT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  EXPECT_EQ(listed(), (Ids{0x1113000, 0x1223000}));
  for (const char* unit :
       {"iPhone (DFU Mode) locationID=0x1113000", "iPhone (Recovery Mode) locationID=0x1223000"})
    EXPECT_TRUE(log.has(std::string("Apple Device added: DeviceName=") + unit));
  const std::string added = "Apple Device added: DeviceName=iPad locationID=0x1133000";
  sim::UsbDevice& third = bus.add_unit(3, "iPad");
  EXPECT_TRUE(wait_until([&] { return log.has(added); }, 5));  // its figure: scripts/bench
  EXPECT_EQ(listed().size(), 3u);
  bus.remove(third);
  ASSERT_TRUE(wait_until([] { return listed().size() == 2; }));
  EXPECT_TRUE(log.has("Apple Device removed. Device Name:iPad locationID: 0x1133000"));
  EXPECT_EQ(log.syslog().size(), 4u);
  bus.add_unit(3, "iPad");  // back at the same location: the history keeps it once
  EXPECT_TRUE(wait_until([&] { return log.count(added) == 2; }));
  EXPECT_EQ(listed().size(), 3u);
  EXPECT_EQ(history(), (Ids{0x1113000, 0x1223000, 0x1133000}));
  const std::clock_t before = std::clock();
  sleep_seconds(1.0);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
}

// Records made by hand: two share a location, so a full list still leaves a history entry free;
// removeSelfFromAppleDevList clears both records at the shared location and frees nothing.
TEST_F(AppleList, FullListStillFillsAFreeHistoryEntry) {
  AppleDevRecord records[13] = {};
  for (uint32_t i = 0; i < 13; ++i) {
    records[i].deviceName = strdup("x");
    records[i].locationID = 0x1110000 + (i < 2 ? 0 : i << 12);
    EXPECT_EQ(addSelfToAppleDevList(&records[i]), i < 12 ? 1 : 0);
  }
  EXPECT_EQ(history().size(), 12u);
  EXPECT_EQ(history().count(0x111c000), 1u);
  EXPECT_EQ(log.syslog(), Lines{"Warning: Max 12 Apple Devices supported! Added Apple Device "
                                "(locationID:0x111c000) ignored!"});
  EXPECT_EQ(addSelfToAppleDevList(nullptr), 0);
  removeSelfFromAppleDevList(0x1110000);
  EXPECT_EQ(listed().count(0x1110000), 0u);
  EXPECT_EQ(listed().size(), 10u);
  std::fill(std::begin(g_pListAppleDev), std::end(g_pListAppleDev), nullptr);  // ours to free
  for (auto& record : records) std::free(record.deviceName);
}

// Of thirteen arrivals the last is refused, yet watched: its removal clears nothing. Only the
// termination message removes; usbDeviceRemoveAll frees all, out of later removals' reach (ASan).
TEST_F(AppleList, ThirteenArrivalsOnlyTerminationRemovesThenRemoveAll) {
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  std::vector<sim::UsbDevice*> units;
  for (int n = 1; n <= 13; ++n) units.push_back(&add_unit(n));
  ASSERT_TRUE(wait_until([&] { return log.timed("Warning: Max 12").size() == 1; }));
  EXPECT_EQ(listed().size(), 12u);
  EXPECT_EQ(history().size(), 12u);  // no free entry was left for the thirteenth
  bus.remove(*units.back());
  units.pop_back();
  ASSERT_TRUE(wait_until(
      [&] { return log.has("Apple Device removed. Device Name:iPhone locationID: 0x13d0000"); }));
  log.clear();
  for (uint32_t message : {0u, 0xE0000011u, 0xE0000100u, 0xE0000300u})
    usbDeviceRemoval(g_pListAppleDev[0], nullptr, message, nullptr);
  usbDeviceRemoval(nullptr, nullptr, 0xE0000010, nullptr);
  EXPECT_EQ(listed().size(), 12u);
  EXPECT_TRUE(log.syslog().empty());
  usbDeviceRemoveAll();
  EXPECT_TRUE(listed().empty());
  EXPECT_EQ(log.timed("Apple Device removed. Device Name:iPhone locationID: ").size(), 12u);
  EXPECT_EQ(history().size(), 12u);
  log.clear();
  for (auto* unit : units) bus.remove(*unit);
  // Still armed: a new arrival is listed again, and only then the log moves.
  add_unit(15);
  ASSERT_TRUE(wait_until([&] { return listed().size() == 1 && !log.syslog().empty(); }));
  EXPECT_EQ(log.syslog(), Lines{"Apple Device added: DeviceName=iPhone locationID=0x13f0000"});
}

// A storm without pauses drops no event: the list ends as the bus does. Another runs while every
// record is freed at once (as the station's stop does): none is lost or freed twice.
TEST_F(AppleList, StormsAndAStormWhileEveryRecordIsFreed) {
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  std::set<uint32_t> seen;
  const Ids expected = storm(6, 0, seen, [events = 0]() mutable { return events++ < 400; });
  ASSERT_TRUE(wait_until([&] { return listed() == expected; }, 60));
  EXPECT_LE(history().size(), 6u);
  remove_units();
  ASSERT_TRUE(wait_until([] { return listed().empty(); }));
  const size_t added = log.timed("Apple Device added:").size();
  std::atomic<bool> stop{false};
  std::thread thread([&] {
    storm(8, 0.002, seen, [&] { return !stop; });
    remove_units();
  });
  ASSERT_TRUE(wait_until([&] { return log.timed("Apple Device added:").size() > added + 8; }));
  usbDeviceRemoveAll();
  sleep_seconds(0.2);
  stop = true;
  thread.join();
  ASSERT_TRUE(wait_until([] { return listed().empty(); }));
  sleep_seconds(0.1);  // late removals of records that were already freed
  EXPECT_EQ(log.timed("Apple Device added:").size(), log.timed("Apple Device removed.").size());
  for (uint32_t id : history()) EXPECT_TRUE(seen.count(id)) << std::hex << id;
}

// Of two attached units one leaves before the first scan reaches it: no record of it is left.
TEST_F(AppleList, UnitLeavingDuringTheFirstScanLeavesNoRecord) {
  static sim::UsbDevice* units[2];
  static uint32_t kept;
  units[0] = &add_unit(1), units[1] = &add_unit(2), kept = 0;
  brakwell::platform::set_line_sink(
      [](bool, const char* text, void* bus) {
        if (kept || std::strncmp(text, "Apple Device added:", 19) != 0) return;
        const bool first = std::strstr(text, "0x1310000") != nullptr;
        kept = first ? 0x1310000 : 0x1320000;
        static_cast<sim::UsbBus*>(bus)->remove(*units[first ? 1 : 0]);
        sleep_seconds(0.3);  // time enough for the event thread to take the removal
      },
      &bus);
  EXPECT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  brakwell::platform::set_line_sink(nullptr, nullptr);
  ASSERT_NE(kept, 0u);
  EXPECT_TRUE(wait_until([] { return listed() == Ids{kept}; }, 3));
}

// Each arm lists the attached unit again; the host's calls record every device, whatever the
// context, each time; its removal takes every record. A child forked with the tracker's lock held
// exits through the static destructors without waiting for it; later arrivals are listed once.
TEST_F(AppleList, ArmedAgainAndAgainByTheHostAndAcrossAFork) {
  add_unit(1, "");
  for (int round = 0; round < 13; ++round) {
    ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
    EXPECT_EQ(listed().size(), 1u);
    usbDeviceRemoveAll();
  }
  EXPECT_EQ(log.count("Apple Device added: DeviceName= locationID=0x1310000"), 13u);
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  auto devices = brakwell::usb::matching_devices(kApple, kUnit);
  ASSERT_TRUE(devices && devices->size() == 1);
  devices->push_back(nullptr);  // the end of the host's list
  for (intptr_t context : {0, 0, 7, 7})
    usbDeviceArrival(reinterpret_cast<void*>(context), devices->data());
  brakwell::usb::release_devices(*devices);
  EXPECT_EQ(listed(), (Ids{0x1310000, 0x1310000, 0x1310000, 0x1310000, 0x1310000}));
  bus.remove(*bus.find("1-3.1"));
  EXPECT_TRUE(wait_until([] { return listed().empty(); }, 3));

  // Forked on the event thread inside unit 2's arrival line, the tracker's lock held.
  static std::atomic<pid_t> child{0};
  brakwell::platform::set_line_sink(
      [](bool, const char* text, void*) {
        if (child != 0 || std::strncmp(text, "Apple Device added:", 19) != 0) return;
        std::fflush(nullptr);
        const pid_t pid = fork();
    // Under ASan a child's exit after a fork from this busy process now and then never ends, in
    // the sanitizer's own exit work; the plain build checks the exit path.
#if defined(__SANITIZE_ADDRESS__)
        if (pid == 0) _exit(0);
#endif
        if (pid == 0) std::exit(0);
        child = pid;
      },
      nullptr);
  add_unit(2, "");
  ASSERT_TRUE(wait_until([] { return child != 0; }, 3));
  int status = -1;
  for (int i = 0; i < 500 && waitpid(child, &status, WNOHANG) == 0; ++i) sleep_seconds(0.01);
  if (status == -1) kill(child, SIGKILL), waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status)) << "the child hung or crashed at exit";
  add_unit(3, "");
  ASSERT_TRUE(wait_until([] { return listed().size() == 2; }, 3));
  sleep_seconds(0.2);
  EXPECT_EQ(listed(), (Ids{0x1320000, 0x1330000}));
}

// With no room for the event thread the call answers 0 and logs one line; the host goes on.
TEST(AppleThread, FailsOnlyTheCallWhenItCannotStart) {
#if !defined(__SANITIZE_ADDRESS__)  // ASan reserves the address space that the limit would cap
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        sim::Testbed bed;
        sim::UsbBus bus(bed);
        testing_support::LogCapture log;
        platform_usb::shutdown();
        platform_usb::context();  // libusb and its own thread start before the limit
        long pages = 0;
        FILE* statm = std::fopen("/proc/self/statm", "r");
        if (!statm || std::fscanf(statm, "%ld", &pages) != 1) std::_Exit(2);
        const rlim_t bytes = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (2 << 20);
        const auto limit = (rlimit{bytes, bytes});  // in parentheses: a macro argument
        setrlimit(RLIMIT_AS, &limit);
        std::_Exit(usbDeviceConnStatus(kApple, kUnit) != 0 || log.syslog().size() != 1 ||
                   log.syslog()[0].rfind("usbDeviceConnStatus failed: ", 0) != 0);
      },
      ::testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
