// Digits parsed without base prefixes, the branch index in 16-bit units, host USBLocation slots
// kept, openUSB keeping what a module holds, the USB report and the programs the library runs.
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

#include "dio.h"
#include "platform/platform.h"
#include "station/board_link.h"
#include "support/log_capture.h"
#include "usb/USBRW.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct Parse {
  const char* name;
  long (*call)(const char*, const char*);
  const char* a;
  const char* b;
  long expected;
};
const std::string kLongStatus = "x=" + std::string(70, '1') + " l_sw";
void PrintTo(const Parse& row, std::ostream* out) { *out << row.name; }
long status(const char* reply, const char*) { return brakwell::link::parse_status_reply(reply); }
long to_int(const char* text, const char*) { return strToInt(text); }
long branch(const char* a, const char* b) { return getDifferentLocationIndex(a, b); }

class Parsing : public ::testing::TestWithParam<Parse> {};
TEST_P(Parsing, Row) {
  EXPECT_EQ(GetParam().call(GetParam().a, GetParam().b), GetParam().expected);
}
INSTANTIATE_TEST_SUITE_P(
    Rows, Parsing,
    ::testing::Values(Parse{"StatusBinaryPrefix", status, "x=0b11 l_sw", "", 0},
                      Parse{"StatusBlankAndSign", status, "x= -1 l_sw", "", 63},
                      Parse{"StatusOverflowSaturates", status, kLongStatus.c_str(), "", 63},
                      Parse{"HexSecondPrefix", to_int, "0x0x1F", "", 0},
                      Parse{"HexBlankAndSign", to_int, "0x -1F", "", -31},
                      Parse{"DecimalBinaryPrefix", to_int, "0b11", "", 0},
                      Parse{"BranchCountsUnitsNotBytes", branch, "\u00e9", "a", 0},
                      Parse{"BranchAfterSurrogatePair", branch, "\U0001F600a", "\U0001F600b", 2}),
    [](const auto& info) { return std::string(info.param.name); });

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

class Exact : public ::testing::Test {
 protected:
  void SetUp() override {
    brakwell::platform::set_alert_sink(
        [](const char*, const char* message, const char*, void* self) {
          static_cast<Exact*>(self)->alerts.push_back(message);
        },
        this);
  }
  void TearDown() override { brakwell::platform::set_alert_sink(nullptr, nullptr); }
  static bool alive(int want) {
    for (int i = 0; i < 400 && USBDeviceAlive(0) != want; ++i)
      brakwell::platform::sleep_seconds(0.005);
    return USBDeviceAlive(0) == want;
  }
  testing_support::LogCapture log;
  Lines alerts;
};

TEST_F(Exact, UsbLocationKeepsTheHostsSlots) {
  for (int site = 1; site <= 2; ++site) bus->add_uart(site);
  const char* mine = "host";
  USBLocation[1] = mine;
  ASSERT_STRNE(getUSBLocationForUART(0x0403, 0x6001), "error");
  EXPECT_EQ(USBLocation[1], mine);
  EXPECT_NE(USBLocation[0], nullptr);
  USBLocation[1] = nullptr;
}

// A module whose link broke stays broken through openUSB; one that left stays held, so its
// pipes still fail aloud after closeUSB and openUSB found nothing.
TEST_F(Exact, OpenUsbKeepsWhatTheModuleHolds) {
  unsigned char frame[10] = {0x02, 0x03, 0x02};
  auto broken = std::make_unique<sim::DioModule>(*bus, 0);
  ASSERT_TRUE(alive(1));
  ASSERT_EQ(openUSB(0), 1);
  broken->vanish_at_transfer(1);
  EXPECT_EQ(writeToEndpt(0, 1, frame, 3), 0);
  log.clear(), alerts.clear();
  EXPECT_EQ(openUSB(0), 1);
  EXPECT_EQ(log.stdout_lines(), Lines{"dealWithDevice: unable to open device. ret = fffffffa\n"});
  EXPECT_EQ(writeToEndpt(0, 1, frame, 3), 0);
  EXPECT_TRUE(log.syslog().empty() && alerts.empty());
  EXPECT_EQ(closeUSB(0), 0);
  broken.reset();
  ASSERT_TRUE(alive(0));

  auto left = std::make_unique<sim::DioModule>(*bus, 0);
  ASSERT_TRUE(alive(1));
  ASSERT_EQ(openUSB(0), 1);
  left->vanish();
  ASSERT_TRUE(alive(0));
  EXPECT_EQ(closeUSB(0), 0);
  EXPECT_EQ(openUSB(0), 0);
  log.clear();
  EXPECT_EQ(readFromEndpt(0, 1, frame, 10), 0);
  EXPECT_EQ(log.syslog().size(), 1u);
  EXPECT_EQ(alerts, Lines{"USB Connection to DFU DIO_01 Module is broken!"});
  brakwell::dio::release_module(0);
}

// lsusb from the system directories, never the PATH's; a report that exists already is left
// alone, with a debug trace and no log line.
TEST_F(Exact, UsbReportIsPrivateAndQuiet) {
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
