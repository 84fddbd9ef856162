// Digits parsed without base prefixes, the branch index in 16-bit units, host USBLocation slots
// kept, the USB report and the programs the library runs.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "station/board_link.h"
#include "support/log_capture.h"
#include "usb.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Status digits take no base prefix and saturate; the branch index counts 16-bit units.
TEST(Parsing, StatusDigitsAndBranchUnits) {
  using brakwell::link::parse_status_reply;
  EXPECT_EQ(parse_status_reply("x=0b11 l_sw"), 0);
  EXPECT_EQ(parse_status_reply("x= -1 l_sw"), 63);
  EXPECT_EQ(parse_status_reply(("x=" + std::string(70, '1') + " l_sw").c_str()), 63);
  EXPECT_EQ(getDifferentLocationIndex("\u00e9", "a"), 0);
  EXPECT_EQ(getDifferentLocationIndex("\U0001F600a", "\U0001F600b"), 2);
}

sim::Testbed* bed = nullptr;
sim::UsbBus* bus = nullptr;
class Environment : public ::testing::Environment {
  void SetUp() override { bed = new sim::Testbed, bus = new sim::UsbBus(*bed); }
  void TearDown() override {
    brakwell::platform::usb::shutdown();
    delete bus;
    delete bed;
  }
};
const auto* const environment = ::testing::AddGlobalTestEnvironment(new Environment);

TEST(Usb, LocationKeepsTheHostsSlots) {
  for (int site = 1; site <= 2; ++site) bus->add_uart(site);
  const char* mine = "host";
  USBLocation[1] = mine;
  ASSERT_STRNE(getUSBLocationForUART(0x0403, 0x6001), "error");
  EXPECT_EQ(USBLocation[1], mine);
  EXPECT_NE(USBLocation[0], nullptr);
  USBLocation[1] = nullptr;
}

// lsusb from the system directories, never the PATH's; a report that exists already is left
// alone, with a debug trace and no log line.
TEST(Usb, ReportIsPrivateAndQuiet) {
  testing_support::LogCapture log;
  const fs::path bin = fs::temp_directory_path() / ("brakwell-exact-" + std::to_string(getpid()));
  fs::create_directories(bin);
  std::ofstream(bin / "lsusb") << "#!/bin/sh\necho impostor\n";
  fs::permissions(bin / "lsusb", fs::perms::owner_all);
  setenv("PATH", (bin.string() + ":" + getenv("PATH")).c_str(), 1);
  setenv("BRAKWELL_DEBUG", "1", 1);
  g_ListUartLocationID[0] = 0x1111000;
  const std::time_t start = std::time(nullptr);
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(usbUartSiblingLocationID(0), 0u);
  const std::string trace = ::testing::internal::GetCapturedStderr();
  unsetenv("BRAKWELL_DEBUG");
  fs::remove_all(bin);
  std::vector<fs::path> reports;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    struct stat st {};
    if (entry.path().filename().string().rfind("VEL_USB_UUT1_", 0) == 0 &&
        stat(entry.path().c_str(), &st) == 0 && st.st_mtime >= start) {
      reports.push_back(entry.path());
      EXPECT_EQ(st.st_mode & 0777, 0600u);
      std::ifstream in(entry.path());
      EXPECT_NE(std::string(std::istreambuf_iterator<char>(in), {}), "impostor\n");
    }
  }
  for (const auto& p : reports) fs::remove(p);
  g_ListUartLocationID[0] = 0;
  EXPECT_FALSE(reports.empty());
  EXPECT_EQ(log.syslog().size(), 2u) << "no line of its own for a collision";
  // Both reports within one second: the second is refused, in the trace only.
  EXPECT_TRUE(reports.size() == 2 || trace.find("USB report /tmp/VEL_USB_UUT1_") != trace.npos);
}

// Programs get only what a dialog needs, and their standard error never joins the output file.
TEST(Spawn, MinimalEnvironmentAndStdoutOnly) {
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
    using namespace brakwell::platform;
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
