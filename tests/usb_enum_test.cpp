// Enumeration by vendor and product: the device-name text, the cable kind, the serial request,
// and the location-ID rule.
#include <Brakwell.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/platform.h"
#include "support/station_fixture.h"
#include "topology.h"
#include "usb.h"

namespace {

namespace platform_usb = brakwell::platform::usb;

class UsbEnum : public ::testing::Test {
 protected:
  // Each test has its own testbed: the library's context must be made anew for it.
  UsbEnum() { platform_usb::shutdown(); }
  ~UsbEnum() override { platform_usb::shutdown(); }

  sim::UsbDevice& add_ftdi(int port, const std::string& name) {
    return bus.add({"1-3." + std::to_string(port), 0x0403, 0x6001, name, "FT1", 0, {}});
  }
  // Product names of one vendor's devices in the order libusb lists them.
  static std::vector<std::string> listed_names(uint16_t vendor) {
    std::vector<std::string> names;
    libusb_device** list = nullptr;
    const ssize_t n = libusb_get_device_list(platform_usb::context(), &list);
    for (ssize_t i = 0; i < n; ++i) {
      libusb_device_descriptor d{};
      libusb_get_device_descriptor(list[i], &d);
      if (d.idVendor == vendor) names.push_back(platform_usb::product_string(list[i]));
    }
    libusb_free_device_list(list, 1);
    return names;
  }

  sim::Testbed bed;
  sim::UsbBus bus{bed};
  testing_support::LogCapture log;
};

// Runs first: nothing has been enumerated yet in this process.
TEST_F(UsbEnum, NameTextBeforeAnyEnumerationAndWhenNothingMatches) {
  EXPECT_STREQ(getUSBDeviceName(), "(null)");
  EXPECT_EQ(enumUsbForLocationID(0x1fc9, 0xdf01), 0);
  ASSERT_NE(mutableUSBDeviceName, nullptr);
  EXPECT_STREQ(getUSBDeviceName(), "");
  EXPECT_TRUE(log.syslog().empty());
}

TEST_F(UsbEnum, CableKind) {
  const std::pair<const char*, int> rows[] = {
      {"USB UART1", 1},
      {"USB-UART7", 1},
      {"usb uart1", 0},  // the UART texts are compared with case
      {"usb-uart1", 0},
      {"usb <-> serial cable", 2},  // the cable text is not
      {"USB <-> Serial Cable", 2},
      {"USB-UART USB <-> Serial Cable", 1},
      {"USB <-> Serial Cable USB UART", 1},
      {"FT232R", 0},
  };
  for (const auto& [name, kind] : rows) {
    sim::UsbDevice& device = add_ftdi(1, name);
    EXPECT_EQ(enumUsbForLocationID(0x0403, 0x6001), kind) << name;
    EXPECT_STREQ(mutableUSBDeviceName, "") << name;
    bus.remove(device);
  }
  EXPECT_TRUE(log.has("UART Device added: DeviceName=USB UART1 Serial Number=FT1"));

  // Of several, the last classified device in list order decides.
  for (bool uartFirst : {true, false}) {
    std::vector<sim::UsbDevice*> added = {
        &add_ftdi(1, uartFirst ? "USB UART" : "USB <-> Serial Cable"), &add_ftdi(2, "Plain bridge"),
        &add_ftdi(3, uartFirst ? "USB <-> Serial Cable" : "USB UART")};
    std::string last;
    for (const auto& name : listed_names(0x0403)) {
      if (name != "Plain bridge") last = name;
    }
    EXPECT_EQ(enumUsbForLocationID(0x0403, 0x6001), last == "USB UART" ? 1 : 2);
    for (auto* device : added) bus.remove(*device);
  }
  add_ftdi(1, "USB UART");
  EXPECT_EQ(enumUsbForLocationID(0x10403, 0x6001), 0);  // the ids' upper bits count
}

// Names with "CDC" in any case, in list order, each followed by a comma; a board whose serial
// number cannot be read is skipped; a non-CDC name is logged but not named.
TEST_F(UsbEnum, BoardNamesAndTheSerialRequest) {
  sim::UsbDevice& good = bus.add_board(1);
  bus.add_board(2).fail_strings(true);
  for (int site = 3; site <= 4; ++site) bus.add_board(site);
  bus.add({"1-3.1", 0x1fc9, 0xdf01, "spare cdc port", "X9", 0, {}});
  bus.add({"1-3.2", 0x1fc9, 0xdf01, "Velmora_DFU_Boot", "X8", 0, {}});
  EXPECT_EQ(enumUsbForLocationID(0x1fc9, 0xdf01), 0);
  std::string expected;
  for (const auto& name : listed_names(0x1fc9)) {
    if (!name.empty() && name != "Velmora_DFU_Boot") expected += name + ",";  // 2 is mute
  }
  EXPECT_EQ(expected.size(), std::string("Velmora_DFU_CDC1,").size() * 3 + 15);
  EXPECT_STREQ(getUSBDeviceName(), expected.c_str());
  EXPECT_TRUE(log.has("UART Device added: DeviceName=Velmora_DFU_CDC3 Serial Number=VEL_03_A"));
  EXPECT_TRUE(log.has("UART Device added: DeviceName=Velmora_DFU_Boot Serial Number=X8"));
  EXPECT_EQ(log.count("Could not get serial number string using index\n"), 1u);
  EXPECT_EQ(log.syslog().size(), 6u);
  bool asked = false;
  for (const auto& s : good.control_log()) {
    asked |= s.bmRequestType == 0x80 && s.bRequest == 6 && s.wValue == 0x0303 &&
             s.wIndex == 0x0409 && s.wLength == 256;
  }
  EXPECT_TRUE(asked);

  // The next enumeration starts a new text.
  EXPECT_EQ(enumUsbForLocationID(0x0403, 0x6001), 0);
  EXPECT_STREQ(mutableUSBDeviceName, "");
}

// Thirty CDC devices: every one opened, named and asked for its serial number.
TEST_F(UsbEnum, ThirtyDevicesTimed) {
  for (int site = 1; site <= 8; ++site) bus.add_board(site);
  for (int i = 0; i < 22; ++i) {
    const std::string port =
        i < 15 ? "1-3." + std::to_string(i + 1) : "1-4." + std::to_string(i - 14);
    bus.add({port, 0x1fc9, 0xdf01, "cdc " + std::to_string(i), "S" + std::to_string(i), 0, {}});
  }
  platform_usb::context();
  EXPECT_EQ(testing_support::takes(0, 10.0, [] { return enumUsbForLocationID(0x1fc9, 0xdf01); }),
            0);
  const std::string names = mutableUSBDeviceName;
  EXPECT_EQ(std::count(names.begin(), names.end(), ','), 30);
}

TEST(UsbLocation, RuleOfTiersAndTrailingZeros) {
  const struct {
    uint8_t bus;
    std::vector<uint8_t> ports;
    std::optional<uint32_t> id;
  } rows[] = {
      {1, {2, 3}, 0x1230000},
      {1, {2, 2, 3}, 0x1223000},
      {1, {1, 4, 5, 2, 1, 1}, 0x1145211},
      {3, {}, 0x3000000},
      {0x14, {5, 2, 1, 1}, 0x14521100},
      {1, {15, 15}, 0x1ff0000},
      {1, {16}, std::nullopt},  // no single digit for it
      {1, {2, 16, 3}, std::nullopt},
      {1, {1, 1, 1, 1, 1, 1, 1}, std::nullopt},  // seven tiers do not fit
  };
  for (const auto& row : rows) {
    EXPECT_EQ(
        platform_usb::location_id(row.bus, row.ports.data(), static_cast<int>(row.ports.size())),
        row.id);
  }
  const std::pair<uint32_t, uint32_t> stripped[] = {
      {0, 0}, {0x140, 0x14}, {0x1A, 0x1A}, {0x100, 0x1}, {0x1223000, 0x1223}, {0x80000000, 0x8}};
  for (auto [in, out] : stripped) EXPECT_EQ(removeHexTrailingZeros(in), out) << std::hex << in;
}

}  // namespace
