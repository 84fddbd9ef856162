#include <gtest/gtest.h>

#include "platform/platform.h"
#include "support/log_capture.h"

namespace {

using brakwell::platform::monotonic_seconds;
using brakwell::platform::sleep_seconds;

TEST(PlatformLog, TextPlaceholderAndPercentSigns) {
  testing_support::LogCapture capture;
  brakwell::platform::log("VELMORA: SOC_USBPower, UUT:%d, Successfully write %@", 3,
                          "vel_vusb_on\n");
  brakwell::platform::log("100%% %s", "done");
  EXPECT_EQ(capture.syslog(),
            (std::vector<std::string>{
                "VELMORA: SOC_USBPower, UUT:3, Successfully write vel_vusb_on\n", "100% done"}));
}

TEST(PlatformSleep, NeverShortAndNothingForNonPositive) {
  for (double want : {0.001, 0.01, 0.05}) {
    const double start = monotonic_seconds();
    sleep_seconds(want);
    const double took = monotonic_seconds() - start;
    EXPECT_GE(took, want) << want;
    EXPECT_LT(took, want + 0.05) << want;
  }
  const double start = monotonic_seconds();
  sleep_seconds(0);
  sleep_seconds(-1);
  sleep_seconds(__builtin_nan(""));
  EXPECT_LT(monotonic_seconds() - start, 0.005);
}

}  // namespace
