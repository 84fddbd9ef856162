// The Apple-device tracker through a station's day: a forked child that ends, a unit leaving
// during the first scan, tracking armed again and again, the host's own arrival calls, and an
// event thread that cannot be started.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>

#include "platform/platform.h"
#include "support/log_capture.h"
#include "usb.h"
#include "usb/AppleDevices.h"

namespace {

namespace platform_usb = brakwell::platform::usb;
using brakwell::platform::sleep_seconds;
constexpr long kApple = 0x05ac, kUnit = 0x1281;

template <typename Pred>
bool wait_until(Pred pred, double seconds = 3) {
  const double end = brakwell::platform::monotonic_seconds() + seconds;
  while (!pred()) {
    if (brakwell::platform::monotonic_seconds() > end) return false;
    sleep_seconds(0.001);
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

struct TrackerLife : ::testing::Test {
  TrackerLife() {
    platform_usb::shutdown();
    usbDeviceRemoveAll();
  }
  ~TrackerLife() override {
    platform_usb::shutdown();
    usbDeviceRemoveAll();
  }
  sim::UsbDevice& add(int n, const char* name = "") {
    return bus.add({"1-3." + std::to_string(n), kApple, kUnit, name, "", 0, {}});
  }
  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

TEST_F(TrackerLife, ForkedChildThatExitsLeavesTrackingToTheParent) {
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  const pid_t child = fork();
  if (child == 0) std::exit(0);  // static destructors run, as after a failed exec
  int status = -1;
  for (int i = 0; i < 500 && waitpid(child, &status, WNOHANG) == 0; ++i) sleep_seconds(0.01);
  if (status == -1) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  EXPECT_TRUE(WIFEXITED(status)) << "the child hung or crashed at exit";
  add(1);
  EXPECT_TRUE(wait_until([] { return listed() == std::multiset<uint32_t>{0x1310000}; }));
}

// The first of two attached units is recorded; the other leaves before the scan reaches it.
// Its removal must not overtake its arrival and leave a record of a unit that is gone.
TEST_F(TrackerLife, UnitLeavingDuringTheFirstScanLeavesNoRecord) {
  struct Hook {
    TrackerLife* test;
    sim::UsbDevice* units[2];
    uint32_t kept = 0;
  } hook{this, {&add(1, "iPhone"), &add(2, "iPhone")}};
  brakwell::platform::set_line_sink(
      [](bool, const char* text, void* context) {
        auto* h = static_cast<Hook*>(context);
        if (h->kept || std::strncmp(text, "Apple Device added:", 19) != 0) return;
        const bool first = std::strstr(text, "0x1310000") != nullptr;
        h->kept = first ? 0x1310000 : 0x1320000;
        h->test->bus.remove(*h->units[first ? 1 : 0]);
        sleep_seconds(0.3);  // time enough for the event thread to take the removal
      },
      &hook);
  EXPECT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  brakwell::platform::set_line_sink(nullptr, nullptr);
  ASSERT_NE(hook.kept, 0u);
  EXPECT_TRUE(wait_until([&] { return listed() == std::multiset<uint32_t>{hook.kept}; }));
}

// Each arm lists the attached unit again, as the first did; a later arrival is listed once.
TEST_F(TrackerLife, ArmingAgainAndAgainKeepsOneWatchPerPair) {
  add(1);
  for (int round = 0; round < 13; ++round) {
    ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
    EXPECT_EQ(listed().size(), 1u);
    usbDeviceRemoveAll();
  }
  EXPECT_EQ(log.count("Apple Device added: DeviceName= locationID=0x1310000"), 13u);
  add(2);
  ASSERT_TRUE(wait_until([] { return !listed().empty(); }));
  sleep_seconds(0.2);
  EXPECT_EQ(listed(), std::multiset<uint32_t>{0x1320000});
}

// The host's calls record every device they are given, whatever their context pointer, and as
// often as they are made; the unit's removal takes every record.
TEST_F(TrackerLife, HostArrivalCallsIgnoreTheContextPointer) {
  add(1);
  ASSERT_EQ(usbDeviceConnStatus(kApple, kUnit), 0);
  auto devices = brakwell::usb::matching_devices(kApple, kUnit);
  ASSERT_TRUE(devices && devices->size() == 1);
  devices->push_back(nullptr);
  for (intptr_t context : {0, 0, 7, 7}) {
    usbDeviceArrival(reinterpret_cast<void*>(context), devices->data());
  }
  devices->pop_back();
  brakwell::usb::release_devices(*devices);
  EXPECT_EQ(listed().count(0x1310000), 5u);
  EXPECT_EQ(listed().size(), 5u);
  bus.remove(*bus.find("1-3.1"));
  EXPECT_TRUE(wait_until([] { return listed().empty(); }));
}

// Under an address-space limit the event thread cannot start: the call answers 0 and logs one
// line; the host goes on.
TEST(TrackerBoundary, ThreadThatCannotStartFailsTheCallOnly) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer reserves the address space that the limit would cap";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        sim::Testbed bed;
        sim::UsbBus bus(bed);
        testing_support::LogCapture log;
        platform_usb::context();  // libusb and its own thread start before the limit
        long pages = 0;
        FILE* statm = std::fopen("/proc/self/statm", "r");
        if (!statm || std::fscanf(statm, "%ld", &pages) != 1) std::_Exit(2);
        const rlim_t cap = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (2 << 20);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = cap;
        setrlimit(RLIMIT_AS, &limit);
        const int rc = usbDeviceConnStatus(kApple, kUnit);
        const auto lines = log.syslog();
        for (const auto& line : lines) std::fprintf(stderr, "%s\n", line.c_str());
        std::_Exit(rc == 0 && lines.size() == 1 &&
                           lines[0].rfind("usbDeviceConnStatus failed: ", 0) == 0
                       ? 0
                       : 1);
      },
      ::testing::ExitedWithCode(0), "usbDeviceConnStatus failed: ");
}

}  // namespace
