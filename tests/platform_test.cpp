// The platform layer's sleeps and child programs. (Its log text is every suite's.)
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "support/station_fixture.h"

namespace {

using namespace brakwell::platform;

// Never short: every pause the suites time checks that.
TEST(Platform, SleepNothingForNonPositive) {
  testing_support::takes(0, 0.005, [] {
    for (double none : {0.0, -1.0, __builtin_nan("")}) sleep_seconds(none);
    return 0;
  });
}

// Programs get only what a dialog needs, and their standard error never joins the output file.
TEST(Platform, ProgramsGetAMinimalEnvironmentAndWriteStdoutOnly) {
  setenv("DISPLAY", ":7", 1);
  setenv("BRAKWELL_SECRET", "1", 1);
  std::string expected;
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR",
                           "DBUS_SESSION_BUS_ADDRESS", "HOME"})
    if (const char* v = getenv(name)) expected += std::string(name) + "=" + v + "\n";
  FILE* out = std::tmpfile();
  const char* const env[] = {"env", nullptr};
  const char* const sh[] = {"sh", "-c", "echo out; echo err >&2", nullptr};
  ::testing::internal::CaptureStderr();
  for (const char* const* argv : {env, sh})
    EXPECT_EQ(run_program(system_program(argv[0]), argv, fileno(out)), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "err\n");
  std::ifstream written("/proc/self/fd/" + std::to_string(fileno(out)));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), expected + "out\n");
  std::fclose(out);
}

}  // namespace
