// No exception leaves an exported call: each call is run with its k-th allocation failing, for
// every k until the call makes no more; the answer comes back and the host goes on.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <functional>
#include <new>

#include "fixture/controller.h"
#include "support/log_capture.h"

namespace {
thread_local long allocationsLeft = -1;  // -1: none fails
}  // namespace

// The calls' pauses are skipped (SOC_Start's would take a minute over all its allocations): the
// library's sleeps end in clock_nanosleep, which this program's own definition takes over.
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) { return 0; }

// Replaces the program's allocator, the static library's included: one allocation fails, once.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"  // they pair malloc and free
void* operator new(std::size_t size) {
  if (allocationsLeft == 0) {
    allocationsLeft = -1;
    throw std::bad_alloc();
  }
  if (allocationsLeft > 0) --allocationsLeft;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

TEST(Boundary, EveryAllocationOfACallMayFail) {
  testing_support::LogCapture log;
  FixtureController handle{0, 8, 2, 4};
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"SOC_Start", [] { SOC_Start(); }},
      {"SOC_USBPower", [] { SOC_USBPower(2, true); }},
      {"SOC_Reset", [] { SOC_Reset(0); }},
      {"SOC_Hi5EnterDiag", [] { SOC_Hi5EnterDiag(1); }},
      {"SOC_SendCtrlAltZ", [] { SOC_SendCtrlAltZ(); }},
      {"queryFixtureStatusForWell1", [] { queryFixtureStatusForWell1(0); }},
      {"get_serial_number", [&] { get_serial_number(&handle); }},
      {"getUSBLocationForUART", [] { getUSBLocationForUART(0x0403, 0x6001); }},
      {"getDifferentLocationIndex", [] { getDifferentLocationIndex("0x14130000", "0x14140000"); }},
      {"openUSB", [] { openUSB(0); }},
      {"usbDeviceConnStatus", [] { usbDeviceConnStatus(0x05ac, 0x1227); }},
  };
  for (const auto& [name, call] : calls) {
    for (long k = 0; k < 10000; ++k) {
      allocationsLeft = k;
      EXPECT_NO_THROW(call()) << name << ", allocation " << k << " failing";
      const bool failedOne = allocationsLeft == -1;
      allocationsLeft = -1;
      if (!failedOne) break;
    }
  }
  usbDeviceRemoveAll();
  // A failure outside a log line ends the call with one line that says so.
  EXPECT_TRUE(log.has("SOC_Start failed: std::bad_alloc"));
  EXPECT_TRUE(log.has("SOC_USBPower failed: std::bad_alloc"));
}

}  // namespace
