// UART-to-UUT locations: the branch rule, the DFU lookup, the UART table, the sibling rule and
// the operator's USB report.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>

#include "platform/platform.h"
#include "support/log_capture.h"
#include "topology.h"
#include "usb.h"

namespace {

namespace fs = std::filesystem;
namespace platform_usb = brakwell::platform::usb;
using Lines = std::vector<std::string>;

std::string hex(uint32_t id) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", id);
  return text;
}

// The report file of UART 1 stamped at t.
std::string report_path(std::time_t t) {
  char stamp[32];
  std::tm local{};
  localtime_r(&t, &local);
  std::strftime(stamp, sizeof stamp, "/tmp/VEL_USB_UUT1_%y%m%d-%H%M%S", &local);
  return stamp;
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class UsbLocation : public ::testing::Test {
 protected:
  UsbLocation() {
    platform_usb::shutdown();
    std::fill(std::begin(USBLocation), std::end(USBLocation), nullptr);
    std::fill(std::begin(g_ListUartLocationID), std::end(g_ListUartLocationID), 0);
    std::fill(std::begin(g_ListUutLocationID), std::end(g_ListUutLocationID), 0);
  }
  ~UsbLocation() override {
    platform_usb::shutdown();
    for (const auto& p : reports()) fs::remove(p);
  }

  sim::UsbDevice& uart(const std::string& portPath, const std::string& name) {
    return bus.add({portPath, 0x0403, 0x6001, name, "", 0, {}});
  }
  // Report files of UART 1 stamped since the test began.
  std::vector<fs::path> reports() const {
    std::vector<fs::path> out;
    for (std::time_t t = start - 1; t <= std::time(nullptr) + 1; ++t) {
      if (fs::exists(fs::symlink_status(report_path(t)))) out.push_back(report_path(t));
    }
    return out;
  }

  const std::time_t start = std::time(nullptr);
  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

TEST_F(UsbLocation, WorkedExample) {
  uart("20-5.2.1.1", "USB UART1");
  uart("20-5.2.2.1", "usb-uart2");  // case ignored, hyphen form
  EXPECT_STREQ(getUSBLocationForUART(0x0403, 0x6001), "0x14521300,0x14522300,,,,,,");
  auto lines = log.syslog();
  ASSERT_EQ(lines.size(), 6u);
  std::sort(lines.begin(), lines.begin() + 2);
  EXPECT_EQ(lines, (Lines{"UART Device added: DeviceName=USB UART1 locationID=0x14521100",
                          "UART Device added: DeviceName=usb-uart2 locationID=0x14522100",
                          "idx1 for 1-4 is 6", "Error strLen1:0, strLen2:0", "idx2 for 5-8 is -1",
                          "usblocation is 0x14521300,0x14522300,,,,,,"}));
  EXPECT_STREQ(USBLocation[0], "0x14521300");
  EXPECT_STREQ(USBLocation[1], "0x14522300");
  for (int i = 2; i < 8; ++i) EXPECT_EQ(USBLocation[i], nullptr) << i;
}

// No UART, then one well, then the whole fixture beside near-miss names: every unit's port.
TEST_F(UsbLocation, NoUartOneWellWholeFixture) {
  EXPECT_STREQ(getUSBLocationForUART(0x0403, 0x6001), "error");
  EXPECT_TRUE(log.has("usblocation is ,,,,,,,"));
  EXPECT_EQ(USBLocation[0], nullptr);
  for (int site = 1; site <= 4; ++site) bus.add_uart(site);
  EXPECT_STREQ(getUSBLocationForUART(0x0403, 0x6001),
               "0x1113000,0x1123000,0x1133000,0x1143000,,,,");
  EXPECT_EQ(USBLocation[4], nullptr);

  for (int site = 5; site <= 8; ++site) bus.add_uart(site);
  uart("1-3.1", "USB UART12");  // no whole-name match
  uart("1-3.2", "My USB UART3");
  uart("1-3.3", "USB UART3 ");
  log.clear();
  std::string expected;
  for (int site = 1; site <= 8; ++site) {
    expected += (site > 1 ? "," : "") + hex(sim::location_id(sim::site_port_path(site, 3)));
  }
  EXPECT_EQ(getUSBLocationForUART(0x0403, 0x6001), expected);
  EXPECT_TRUE(log.has("idx1 for 1-4 is 4"));
  EXPECT_TRUE(log.has("idx2 for 5-8 is 4"));
  EXPECT_EQ(log.count("UART Device added: DeviceName=USB UART12 locationID=0x1310000"), 1u);
  EXPECT_STREQ(USBLocation[3], "0x1143000");
  EXPECT_STREQ(USBLocation[5], "0x1223000");
}

TEST_F(UsbLocation, BranchPastTheEndAndDifferentLengths) {
  uart("1-1.1.1.1.1.1", "USB UART1");  // six tiers: the texts differ in their last digit
  uart("1-1.1.1.1.1.2", "USB UART2");
  uart("16-1.2.1", "USB UART5");  // bus 16 writes one digit more
  uart("1-1.3.1", "USB UART6");
  EXPECT_STREQ(getUSBLocationForUART(0x0403, 0x6001),
               "0x1111111,0x1111112,,,0x10121000,0x1131000,,");
  for (const char* line :
       {"idx1 for 1-4 is 8",
        "UART1 location 0x1111111 has no digit after its branch index 8; left unchanged",
        "UART2 location 0x1111112 has no digit after its branch index 8; left unchanged",
        "Error Length for strLen1:10, strLen2:9", "idx2 for 5-8 is -1"}) {
    EXPECT_TRUE(log.has(line)) << line;
  }
}

TEST_F(UsbLocation, DfuLookupLastOneWins) {
  EXPECT_STREQ(getUSBLocationForMCU(0x05ac, 0x1227), "");
  bus.add_unit(2, "iPhone (dfu mode)", 0x05ac, 0x1227);
  bus.add_unit(7, "iPhone (DFU Mode)", 0x05ac, 0x1227);
  bus.add_unit(4, "iPhone (Recovery Mode)", 0x05ac, 0x1227);
  std::string last;
  libusb_device** list = nullptr;
  const ssize_t n = libusb_get_device_list(platform_usb::context(), &list);
  for (ssize_t i = 0; i < n; ++i) {
    const std::string name = platform_usb::product_string(list[i]);
    if (name.find("(") != std::string::npos && name.find("Recovery") == std::string::npos) {
      last = hex(*platform_usb::location_id(list[i]));
    }
  }
  libusb_free_device_list(list, 1);
  EXPECT_EQ(getUSBLocationForMCU(0x05ac, 0x1227), last);
  EXPECT_TRUE(last == "0x1123000" || last == "0x1233000") << last;
  EXPECT_TRUE(log.syslog().empty());
}

TEST(UsbLocationText, DifferentLocationIndex) {
  const struct {
    const char *a, *b;
    int index;
    const char* line;
  } rows[] = {
      {"0x14521100", "0x14522100", 6, nullptr},
      {"0x1", "0x2", 2, nullptr},
      {"", "", -1, "Error strLen1:0, strLen2:0"},
      {"0x11", "0x111", -1, "Error Length for strLen1:4, strLen2:5"},
      {"0x123", "0x123", -1, "Error strLen1:5, strLen2:5"},
      {nullptr, "0x1", -1, "Error Length for strLen1:0, strLen2:3"},
  };
  for (const auto& row : rows) {
    testing_support::LogCapture log;
    EXPECT_EQ(getDifferentLocationIndex(row.a, row.b), row.index);
    EXPECT_EQ(log.syslog(), row.line ? Lines{row.line} : Lines{});
  }
}

TEST(UsbLocationText, UartTable) {
  const std::pair<const char*, int> rows[] = {// -1: rejected
                                              {"USB UART9", 8}, {"USB-UART1", 0}, {"USB UART0", -1},
                                              {"", -1},         {nullptr, -1},    {"UART", -1},
                                              {"USB UART12", 1}};
  for (const auto& [name, entry] : rows) {
    testing_support::LogCapture log;
    std::fill(std::begin(g_ListUartLocationID), std::end(g_ListUartLocationID), 0);
    addToUartLocationIDList(name, 0x1191000);
    const std::string text = name ? name : "(null)";
    if (entry < 0) {
      EXPECT_EQ(log.syslog(), Lines{"Shouldn't come here! Illegal USB UART Name:" + text});
      EXPECT_EQ(std::count(std::begin(g_ListUartLocationID), std::end(g_ListUartLocationID), 0u),
                12);
    } else {
      EXPECT_EQ(g_ListUartLocationID[entry], 0x1191000u);
      EXPECT_EQ(log.syslog(), Lines{"Save " + text + " locationID 0x1191000 to list (index=" +
                                    std::to_string(entry) + ")"});
    }
  }
}

TEST_F(UsbLocation, SiblingFoundUnknownAndOutOfRange) {
  g_ListUartLocationID[0] = 0x14521100;
  g_ListUutLocationID[0] = 0x1223000;  // other hub: its stripped text is shorter
  g_ListUutLocationID[1] = 0x14521300;
  g_ListUutLocationID[2] = 0x14521200;
  EXPECT_EQ(usbUartSiblingLocationID(0), 0x14521300u);
  EXPECT_EQ(log.syslog(), (Lines{"Something wrong when looking for USB UART sibling. UART "
                                 "location:0x14521100, Apple device location:0x1223000",
                                 "Found sibling Apple Device (location:0x14521300) for UART "
                                 "(location:0x14521100)"}));
  log.clear();
  EXPECT_EQ(usbUartSiblingLocationID(2), 0u);
  EXPECT_EQ(usbUartSiblingLocationID(40), 0u);
  EXPECT_EQ(usbUartSiblingLocationID(-1), 0u);
  EXPECT_EQ(log.syslog(),
            (Lines{"No locationID for USB UART3. Please check for existence of USB UART3",
                   "No locationID for USB UART41. Please check for existence of USB UART41",
                   "No locationID for USB UART0. Please check for existence of USB UART0"}));
  EXPECT_TRUE(reports().empty());
}

// The report's program and environment are usb_exact_test's.
TEST_F(UsbLocation, NoSiblingWritesTheReport) {
  g_ListUartLocationID[0] = 0x14521100;
  g_ListUutLocationID[0] = 0x1223000;
  g_ListUutLocationID[3] = 0x1113000;
  EXPECT_EQ(usbUartSiblingLocationID(0), 0u);

  const auto lines = log.syslog();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(Lines(lines.begin() + 2, lines.end()),
            (Lines{"Can't find sibling for UART (location:0x14521100)",
                   "Apple Device Location ID Found:0x1223000",
                   "Apple Device Location ID Found:0x1113000"}));
  const auto files = reports();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_TRUE(
      std::regex_match(files[0].string(), std::regex("/tmp/VEL_USB_UUT1_[0-9]{6}-[0-9]{6}")));
}

// A report never follows a link nor replaces a file.
TEST_F(UsbLocation, ReportNeverFollowsALink) {
  g_ListUartLocationID[0] = 0x1111000;

  const fs::path target =
      fs::temp_directory_path() / ("brakwell-target-" + std::to_string(getpid()));
  std::ofstream(target) << "keep";
  Lines links;
  for (std::time_t t = std::time(nullptr) - 1; t <= std::time(nullptr) + 5; ++t) {
    links.push_back(report_path(t));
    fs::remove(links.back());
    fs::create_symlink(target, links.back());
  }
  log.clear();
  EXPECT_EQ(usbUartSiblingLocationID(0), 0u);
  EXPECT_EQ(slurp(target), "keep");
  EXPECT_EQ(log.syslog().back(), "Can't find sibling for UART (location:0x1111000)");
  for (const auto& link : links) fs::remove(link);
  fs::remove(target);
}

}  // namespace
