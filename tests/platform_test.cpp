// The platform layer's log text, sleeps and child programs.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/log_capture.h"

namespace {

using namespace brakwell::platform;

TEST(Platform, LogTextPlaceholderAndPercentSigns) {
  testing_support::LogCapture capture;
  log("VELMORA: SOC_USBPower, UUT:%d, Successfully write %@", 3, "vel_vusb_on\n");
  log("100%% %s", "done");
  EXPECT_EQ(capture.syslog(),
            (std::vector<std::string>{
                "VELMORA: SOC_USBPower, UUT:3, Successfully write vel_vusb_on\n", "100% done"}));
}

TEST(Platform, SleepNeverShortAndNothingForNonPositive) {
  for (double want : {0.001, 0.01, 0.05}) {
    const double start = monotonic_seconds();
    sleep_seconds(want);
    const double took = monotonic_seconds() - start;
    EXPECT_GE(took, want) << want;
    EXPECT_LT(took, want + 0.05) << want;
  }
  const double start = monotonic_seconds();
  for (double none : {0.0, -1.0, __builtin_nan("")}) sleep_seconds(none);
  EXPECT_LT(monotonic_seconds() - start, 0.005);
}

// Programs get only what a dialog needs, and their standard error never joins the output file.
TEST(Platform, ProgramsGetAMinimalEnvironmentAndWriteStdoutOnly) {
  setenv("DISPLAY", ":7", 1);
  setenv("BRAKWELL_SECRET", "1", 1);
  std::string expected;
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR",
                           "DBUS_SESSION_BUS_ADDRESS", "HOME"}) {
    if (const char* v = getenv(name)) expected += std::string(name) + "=" + v + "\n";
  }
  FILE* out = std::tmpfile();
  const char* const env[] = {"env", nullptr};
  const char* const sh[] = {"sh", "-c", "echo out; echo err >&2", nullptr};
  ::testing::internal::CaptureStderr();
  for (const char* const* argv : {env, sh}) {
    EXPECT_EQ(run_program(system_program(argv[0]), argv, fileno(out)), 0);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "err\n");
  char text[4096] = {};
  std::rewind(out);
  EXPECT_GT(std::fread(text, 1, sizeof text - 1, out), 0u);
  std::fclose(out);
  EXPECT_EQ(text, expected + "out\n");
}

}  // namespace
