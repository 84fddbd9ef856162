// USB devices by vendor and product: names, cable kind, locations, the operator's report.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "station/board_link.h"
#include "support/station_fixture.h"
#include "usb/AppleDevices.h"

namespace {

namespace fs = std::filesystem;
namespace platform_usb = brakwell::platform::usb;
using testing_support::Lines;

// Product names and locations of the devices with these ids, in the order libusb lists them.
std::vector<std::pair<std::string, uint32_t>> listed_names(long vendor, long product) {
  std::vector<std::pair<std::string, uint32_t>> names;
  auto devices = brakwell::usb::matching_devices(vendor, product);
  for (auto* d : *devices)
    names.emplace_back(platform_usb::product_string(d), platform_usb::location_id(d).value_or(0));
  brakwell::usb::release_devices(*devices);
  return names;
}

class UsbBusTest : public ::testing::Test {
 protected:
  // Each test has its own testbed: the library's context must be made anew for it.
  UsbBusTest() {
    platform_usb::shutdown();
    std::fill(std::begin(USBLocation), std::end(USBLocation), nullptr);
    std::fill(std::begin(g_ListUartLocationID), std::end(g_ListUartLocationID), 0);
    std::fill(std::begin(g_ListUutLocationID), std::end(g_ListUutLocationID), 0);
  }
  ~UsbBusTest() override { platform_usb::shutdown(); }
  sim::UsbDevice& ftdi(const std::string& portPath, const std::string& name, uint16_t id = 0x6001) {
    return bus.add({portPath, 0x0403, id, name, "FT1", 0, {}});
  }

  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

// The UART texts are compared with case, the cable text is not; of several devices the last
// classified one in list order decides.
TEST_F(UsbBusTest, CableKind) {
  // clang-format off
  const std::pair<const char*, int> kinds[] = {
      {"usb uart1", 0}, {"usb-uart1", 0}, {"FT232R", 0}, {"USB UART1", 1}, {"USB-UART7", 1},
      {"USB-UART USB <-> Serial Cable", 1}, {"USB <-> Serial Cable USB UART", 1},
      {"usb <-> serial cable", 2}, {"USB <-> Serial Cable", 2}};
  // clang-format on
  for (const auto& [name, kind] : kinds) {
    sim::UsbDevice& device = ftdi("1-3.1", name);
    EXPECT_EQ(enumUsbForLocationID(0x0403, 0x6001), kind) << name;
    bus.remove(device);
  }
  const char* named[] = {"USB UART", "Plain bridge", "USB <-> Serial Cable"};
  for (int round = 0; round < 2; ++round) {  // forwards on product 0x6002, backwards on 0x6003
    const uint16_t product = 0x6002 + round;
    for (int i = 0; i < 3; ++i)
      ftdi("1-" + std::to_string(4 + round) + "." + std::to_string(i + 1), named[round ? 2 - i : i],
           product);
    std::string last;
    for (const auto& [name, id] : listed_names(0x0403, product))
      last = name == named[1] ? last : name;
    EXPECT_EQ(enumUsbForLocationID(0x0403, product), last == named[0] ? 1 : 2);
  }
  ftdi("1-3.1", "USB UART");
  EXPECT_EQ(enumUsbForLocationID(0x10403, 0x6001), 0);  // the ids' upper bits count
}

// Names with "CDC" in any case, in list order, each with a comma, read with the boards' one serial
// request; a board whose serial cannot be read is skipped; the next enumeration starts anew.
TEST_F(UsbBusTest, BoardNamesAndTheSerialRequest) {
  sim::UsbDevice& good = bus.add_board(1);
  bus.add_board(2).fail_strings(true);
  for (int site = 3; site <= 8; ++site) bus.add_board(site);
  bus.add({"1-3.1", 0x1fc9, 0xdf01, "Velmora_DFU_Boot", "X8", 0, {}});
  for (int i = 2; i < 22; ++i) {
    const std::string port = "1-" + std::to_string(3 + i / 12) + "." + std::to_string(i % 12 + 1);
    bus.add({port, 0x1fc9, 0xdf01, "spare cdc " + std::to_string(i), "S", 0, {}});
  }
  EXPECT_EQ(enumUsbForLocationID(0x1fc9, 0xdf01), 0);
  std::string expected;
  for (const auto& [name, id] : listed_names(0x1fc9, 0xdf01))
    if (!name.empty() && name != "Velmora_DFU_Boot") expected += name + ",";  // 2 is mute
  EXPECT_EQ(std::count(expected.begin(), expected.end(), ','), 27);
  EXPECT_STREQ(getUSBDeviceName(), expected.c_str());
  EXPECT_TRUE(log.has("UART Device added: DeviceName=Velmora_DFU_Boot Serial Number=X8"));
  EXPECT_EQ(log.count("Could not get serial number string using index\n"), 1u);
  EXPECT_EQ(log.syslog().size(), 29u);
  EXPECT_TRUE(std::ranges::any_of(good.control_log(), [](const sim::UsbSetup& s) {
    return s.bmRequestType == 0x80 && s.bRequest == 6 && s.wValue == 0x0303 && s.wIndex == 0x0409 &&
           s.wLength == 256;
  }));
  EXPECT_EQ(enumUsbForLocationID(0x0403, 0x6001), 0);
  EXPECT_STREQ(mutableUSBDeviceName, "");
}

TEST(UsbLocationText, TiersIndexesStatusDigitsAndTheUartTable) {
  // clang-format off
  const std::pair<std::vector<uint8_t>, std::optional<uint32_t>> tiers[] = {  // bus, then ports
      {{1, 2, 3}, 0x1230000}, {{1, 2, 2, 3}, 0x1223000}, {{1, 1, 4, 5, 2, 1, 1}, 0x1145211},
      {{3}, 0x3000000}, {{0x14, 5, 2, 1, 1}, 0x14521100}, {{1, 15, 15}, 0x1ff0000},
      {{1, 16}, std::nullopt}, {{1, 2, 16, 3}, std::nullopt},  // no single digit for a port
      {{1, 1, 1, 1, 1, 1, 1, 1}, std::nullopt}};                // seven tiers do not fit
  // clang-format on
  for (const auto& [path, id] : tiers)
    EXPECT_EQ(platform_usb::location_id(path[0], path.data() + 1, int(path.size()) - 1), id);
  const std::pair<uint32_t, uint32_t> stripped[] = {
      {0, 0}, {0x140, 0x14}, {0x1A, 0x1A}, {0x100, 0x1}, {0x1223000, 0x1223}, {0x80000000, 0x8}};
  for (auto [in, out] : stripped) EXPECT_EQ(removeHexTrailingZeros(in), out) << std::hex << in;
  // clang-format off
  const std::tuple<const char*, const char*, int, const char*> indexes[] = {
      {"0x14521100", "0x14522100", 6, nullptr}, {"0x1", "0x2", 2, nullptr},
      {"", "", -1, "Error strLen1:0, strLen2:0"}, {"0x123", "0x123", -1, "Error strLen1:5, strLen2:5"},
      {"0x11", "0x111", -1, "Error Length for strLen1:4, strLen2:5"},
      {nullptr, "0x1", -1, "Error Length for strLen1:0, strLen2:3"},
      {"\u00e9", "a", 0, nullptr},  // the index counts 16-bit units of the texts
      {"\U0001F600a", "\U0001F600b", 2, nullptr}};
  // clang-format on
  for (const auto& [a, b, index, line] : indexes) {
    testing_support::LogCapture log;
    EXPECT_EQ(getDifferentLocationIndex(a, b), index);
    EXPECT_EQ(log.syslog(), line ? Lines{line} : Lines{});
  }
  // Status digits take no base prefix and saturate.
  using brakwell::link::parse_status_reply;
  EXPECT_EQ(parse_status_reply("x=0b11 l_sw"), 0);
  EXPECT_EQ(parse_status_reply(("x=" + std::string(70, '1') + " l_sw").c_str()), 63);
  const std::pair<const char*, int> uarts[] = {
      {"USB UART9", 8}, {"USB-UART1", 0}, {"USB UART12", 1}, {"USB UART0", -1},
      {"", -1},         {nullptr, -1},    {"UART", -1}};
  for (const auto& [name, entry] : uarts) {
    testing_support::LogCapture log;
    std::fill(std::begin(g_ListUartLocationID), std::end(g_ListUartLocationID), 0);
    addToUartLocationIDList(name, 0x1191000);
    const std::string text = name ? name : "(null)";
    EXPECT_EQ(log.syslog(),
              Lines{entry < 0 ? "Shouldn't come here! Illegal USB UART Name:" + text
                              : "Save " + text + " locationID 0x1191000 to list (index=" +
                                    std::to_string(entry) + ")"});
    EXPECT_EQ(std::ranges::count(g_ListUartLocationID, 0u), entry < 0 ? 12 : 11);
    EXPECT_EQ(entry < 0 ? 0x1191000u : g_ListUartLocationID[entry], 0x1191000u);
  }
}

// getUSBLocationForUART: the UARTs of sites 1..sites and others, the text answered (USBLocation
// holds its fields), and the log: every line in order when `whole`, else these among others.
struct UartCase {
  std::string name;
  int sites;
  std::vector<std::pair<std::string, std::string>> uarts;  // port path, product name
  std::string text;
  Lines log = {};
  bool whole = false;
};

class UartLocation : public UsbBusTest, public ::testing::WithParamInterface<UartCase> {};

TEST_P(UartLocation, Answers) {
  const UartCase& c = GetParam();
  for (int site = 1; site <= c.sites; ++site) bus.add_uart(site);
  for (const auto& [path, name] : c.uarts) ftdi(path, name);
  EXPECT_EQ(getUSBLocationForUART(0x0403, 0x6001), c.text);
  std::istringstream fields(c.text == "error" ? ",,,,,,," : c.text);
  std::string field;
  for (int i = 0; std::getline(fields, field, ','); ++i)
    EXPECT_EQ(USBLocation[i] ? std::string(USBLocation[i]) : "", field) << i;
  auto lines = log.syslog();
  if (c.whole) {  // the devices are taken in list order
    std::sort(lines.begin(), lines.begin() + std::min(lines.size(), c.uarts.size()));
    EXPECT_EQ(lines, c.log);
  }
  for (const auto& line : c.log) EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, UartLocation, ::testing::Values(
    UartCase{"WorkedExample", 0, {{"20-5.2.1.1", "USB UART1"}, {"20-5.2.2.1", "usb-uart2"}},
             "0x14521300,0x14522300,,,,,,",  // names in any case, with a hyphen
             {"UART Device added: DeviceName=USB UART1 locationID=0x14521100",
              "UART Device added: DeviceName=usb-uart2 locationID=0x14522100",
              "idx1 for 1-4 is 6", "Error strLen1:0, strLen2:0", "idx2 for 5-8 is -1",
              "usblocation is 0x14521300,0x14522300,,,,,,"}, true},
    UartCase{"NoUart", 0, {}, "error", {"usblocation is ,,,,,,,"}},
    UartCase{"WholeFixtureBesideNearMisses", 8,
             {{"1-3.1", "USB UART12"}, {"1-3.2", "My USB UART3"}, {"1-3.3", "USB UART3 "}},
             "0x1113000,0x1123000,0x1133000,0x1143000,0x1213000,0x1223000,0x1233000,0x1243000",
             {"idx1 for 1-4 is 4", "idx2 for 5-8 is 4",
              "UART Device added: DeviceName=USB UART12 locationID=0x1310000"}},
    // Six tiers: the texts differ in the last digit; bus 16 writes one digit more.
    UartCase{"BranchPastTheEndAndDifferentLengths", 0,
             {{"1-1.1.1.1.1.1", "USB UART1"}, {"1-1.1.1.1.1.2", "USB UART2"},
              {"16-1.2.1", "USB UART5"}, {"1-1.3.1", "USB UART6"}},
             "0x1111111,0x1111112,,,0x10121000,0x1131000,,",
             {"idx1 for 1-4 is 8",
              "UART1 location 0x1111111 has no digit after its branch index 8; left unchanged",
              "UART2 location 0x1111112 has no digit after its branch index 8; left unchanged",
              "Error Length for strLen1:10, strLen2:9", "idx2 for 5-8 is -1"}}),
    [](const auto& info) { return info.param.name; });
// clang-format on

// The last device in list order with "DFU Mode" in its name, in any case, gives the location; the
// UART lookup leaves the host's own USBLocation slots as it set them.
TEST_F(UsbBusTest, DfuLookupLastOneWinsAndTheHostsSlotsStay) {
  EXPECT_STREQ(getUSBLocationForMCU(0x05ac, 0x1227), "");
  bus.add_unit(2, "iPhone (dfu mode)", 0x05ac, 0x1227);
  bus.add_unit(7, "iPhone (DFU Mode)", 0x05ac, 0x1227);
  bus.add_unit(4, "iPhone (Recovery Mode)", 0x05ac, 0x1227);
  uint32_t last = 0;
  for (const auto& [name, id] : listed_names(0x05ac, 0x1227))
    last = name.find("Recovery") == std::string::npos ? id : last;
  EXPECT_TRUE(last == 0x1123000 || last == 0x1233000) << last;
  EXPECT_EQ(std::stoul(getUSBLocationForMCU(0x05ac, 0x1227), nullptr, 16), last);
  EXPECT_TRUE(log.syslog().empty());

  for (int site = 1; site <= 2; ++site) bus.add_uart(site);
  const char* mine = USBLocation[1] = "host";
  ASSERT_STRNE(getUSBLocationForUART(0x0403, 0x6001), "error");
  EXPECT_EQ(USBLocation[1], mine);
  EXPECT_NE(USBLocation[0], nullptr);
}

// No sibling: the log lists the units' locations; lsusb from the system directories (not PATH)
// writes a private report, never through a link (silently skipped then). A sibling: no report.
TEST_F(UsbBusTest, SiblingOrAPrivateReportButNeverThroughALink) {
  g_ListUartLocationID[0] = 0x14521100;
  g_ListUutLocationID[0] = 0x1223000;
  g_ListUutLocationID[3] = 0x1113000;
  std::vector<std::string> names;  // of UART 1's report stamped in these seconds
  for (std::time_t t = std::time(nullptr) - 1, end = t + 6; t <= end; ++t) {
    char path[40];
    std::tm local{};
    std::strftime(path, sizeof path, "/tmp/VEL_USB_UUT1_%y%m%d-%H%M%S", localtime_r(&t, &local));
    names.push_back(path);
  }
  const std::string path = getenv("PATH"), bin = "/tmp/brakwell-bin-" + std::to_string(getpid());
  const std::string target = bin + "-target";
  fs::create_directories(bin);
  std::ofstream(bin + "/lsusb") << "#!/bin/sh\necho impostor\n";
  fs::permissions(bin + "/lsusb", fs::perms::owner_all);
  setenv("PATH", (bin + ":" + path).c_str(), 1);
  for (const auto& name : names) fs::create_symlink(target, name);
  for (bool linked : {true, false}) {  // every name a link, then none
    log.clear();
    EXPECT_EQ(usbUartSiblingLocationID(0), 0u);
    const auto lines = log.syslog();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(Lines(lines.begin() + 2, lines.end()),
              (Lines{"Can't find sibling for UART (location:0x14521100)",
                     "Apple Device Location ID Found:0x1223000",
                     "Apple Device Location ID Found:0x1113000"}));
    if (linked)
      for (const auto& name : names) fs::remove(name);
  }
  setenv("PATH", path.c_str(), 1);
  fs::remove_all(bin);
  EXPECT_FALSE(fs::remove(target));  // the links dangle: a report through one would make it
  std::vector<std::string> files;
  for (const auto& name : names) fs::exists(name) ? files.push_back(name) : void();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(fs::status(files[0]).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_NE(std::string(std::istreambuf_iterator<char>(std::ifstream(files[0]).rdbuf()), {}),
            "impostor\n");
  // A sibling found (the other hub's location has a shorter text), UARTs unknown or out of range.
  g_ListUutLocationID[1] = 0x14521300;
  g_ListUutLocationID[2] = 0x14521200;
  g_ListUutLocationID[3] = 0;
  log.clear();
  EXPECT_EQ(usbUartSiblingLocationID(0), 0x14521300u);
  for (int uart : {2, 40, -1}) EXPECT_EQ(usbUartSiblingLocationID(uart), 0u);
  EXPECT_EQ(
      log.syslog(),
      (Lines{"Something wrong when looking for USB UART sibling. UART "
             "location:0x14521100, Apple device location:0x1223000",
             "Found sibling Apple Device (location:0x14521300) for UART (location:0x14521100)",
             "No locationID for USB UART3. Please check for existence of USB UART3",
             "No locationID for USB UART41. Please check for existence of USB UART41",
             "No locationID for USB UART0. Please check for existence of USB UART0"}));
  for (const auto& name : names) EXPECT_EQ(fs::remove(name), name == files[0]) << name;
}

}  // namespace
