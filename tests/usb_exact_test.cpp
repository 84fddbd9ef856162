// Exact readings of host-facing texts and tables: digits parsed without any base prefix, the
// branch index in 16-bit units, the host's USBLocation slots kept, openUSB keeping what a module
// holds, and the USB report (system lsusb, minimal environment, mode 0600, quiet collision).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Brakwell.h"
#include "dio.h"
#include "platform/alert.h"
#include "platform/sleep.h"
#include "platform/spawn.h"
#include "platform/usb_context.h"
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
    ::testing::Values(Parse{"StatusBits", status, "x=101011 l_sw", "", 43},
                      Parse{"StatusBinaryPrefix", status, "x=0b11 l_sw", "", 0},
                      Parse{"StatusUpperBinaryPrefix", status, "x=0B101 l_sw", "", 0},
                      Parse{"StatusBlankAndSign", status, "x= -1 l_sw", "", 63},
                      Parse{"StatusOverflowSaturates", status, kLongStatus.c_str(), "", 63},
                      Parse{"HexSecondPrefix", to_int, "0x0x1F", "", 0},
                      Parse{"HexUpperSecondPrefix", to_int, "0X0X1", "", 0},
                      Parse{"HexBlankAndSign", to_int, "0x -1F", "", -31},
                      Parse{"DecimalBinaryPrefix", to_int, "0b11", "", 0},
                      Parse{"DecimalLeadingZero", to_int, " 010", "", 10},
                      Parse{"BranchCountsUnitsNotBytes", branch, "\xc3\xa9", "a", 0},
                      Parse{"BranchAfterSurrogatePair", branch,
                            "\xf0\x9f\x98\x80"
                            "a",
                            "\xf0\x9f\x98\x80"
                            "b",
                            2},
                      Parse{"BranchUnitLengthsDiffer", branch, "\xf0\x9f\x98\x80", "a", -1}),
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
  ASSERT_NE(USBLocation[0], nullptr);
  const std::string first = USBLocation[0];
  getUSBLocationForUART(0x0403, 0x6001);  // its own slot it writes again
  EXPECT_EQ(USBLocation[0], first);
  USBLocation[1] = nullptr;
}

// A module whose link broke stays broken through openUSB; one that left stays held, so its
// pipes still fail aloud after closeUSB and openUSB found nothing.
TEST_F(Exact, OpenUsbKeepsWhatTheModuleHolds) {
  const unsigned char frame[3] = {0x02, 0x03, 0x02};
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
  unsigned char buffer[10];
  log.clear();
  EXPECT_EQ(readFromEndpt(0, 1, buffer, 10), 0);
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
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}).find("impostor"),
                std::string::npos);
    }
  }
  for (const auto& p : reports) fs::remove(p);
  ASSERT_GE(reports.size(), 1u);
  EXPECT_EQ(log.syslog().size(), 2u) << "no line of its own for a collision";
  if (reports.size() == 1) {
    EXPECT_NE(trace.find("USB report /tmp/VEL_USB_UUT1_"), std::string::npos);
  }
  g_ListUartLocationID[0] = 0;
}

// Programs get only what a dialog needs, and their standard error never joins the output file.
TEST(Spawn, MinimalEnvironmentAndStdoutOnly) {
  setenv("DISPLAY", ":7", 1);
  setenv("BRAKWELL_SECRET", "1", 1);
  FILE* out = std::tmpfile();
  const char* const env[] = {"env", nullptr};
  EXPECT_EQ(
      brakwell::platform::run_program(brakwell::platform::system_program("env"), env, fileno(out)),
      0);
  const char* const sh[] = {"sh", "-c", "echo out; echo err >&2", nullptr};
  ::testing::internal::CaptureStderr();
  brakwell::platform::run_program(brakwell::platform::system_program("sh"), sh, fileno(out));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "err\n");
  std::rewind(out);
  std::string text;
  for (int c; (c = std::fgetc(out)) != EOF;) text += static_cast<char>(c);
  std::fclose(out);
  std::string expected;
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR",
                           "DBUS_SESSION_BUS_ADDRESS", "HOME"}) {
    if (const char* v = getenv(name)) expected += std::string(name) + "=" + v + "\n";
  }
  EXPECT_EQ(text, expected + "out\n");
  unsetenv("BRAKWELL_SECRET");
}

}  // namespace
