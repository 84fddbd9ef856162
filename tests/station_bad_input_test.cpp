// Hostile input and a station's day: numbers far outside their range and null or tiny buffers get
// the documented answer and reach no board (each area's suite tries its own bad values too); ports
// kept from programs the host starts, forged log lines, stalled boards.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/station_fixture.h"
#include "topology.h"

namespace {

using testing_support::Lines;
using testing_support::StationFixture;
using testing_support::Transcript;

using BadInput = testing_support::StationFixture;
using StationLife = testing_support::StationFixture;

TEST_F(BadInput, UutIndexesAndBuffers) {
  // The version text needs 25 bytes.
  char buffer[32] = "x";
  for (int size : {24, 0, -1, INT_MIN}) EXPECT_FALSE(SOC_LibVersion(buffer, size)) << size;
  EXPECT_FALSE(SOC_LibVersion(nullptr, 25) || SOC_LibVersion(nullptr, INT_MAX));
  EXPECT_STREQ(buffer, "x");
  EXPECT_TRUE(log.syslog().empty());
  EXPECT_TRUE(SOC_LibVersion(buffer, 25));
  EXPECT_STREQ(buffer, "Velmora Lumbrix 4.01");
  EXPECT_EQ(log.syslog(), Lines{"VELMORA: Velmora Lumbrix 4.01"});
  for (int bad : {-1, 8, 100, INT_MIN, INT_MAX}) {
    EXPECT_EQ(SOC_Read(bad), nullptr) << bad;
    EXPECT_EQ(SOC_GetWellIndex(bad), bad > 3 ? 1 : 0) << bad;
    EXPECT_EQ(usbUartSiblingLocationID(bad), 0u) << bad;
  }

  EXPECT_TRUE(SOC_Write(0, nullptr));  // a missing text is the empty one
  EXPECT_FALSE(DIORS232Write(0, nullptr, 5));
  for (int n : {-1, INT_MIN}) EXPECT_FALSE(DIORS232Write(0, "vel_ntc_on\n", n));  // no success
  expect_wire({});
  EXPECT_EQ(getDifferentLocationIndex("0x1", nullptr), -1);
  EXPECT_EQ(getDifferentLocationIndex(nullptr, nullptr), -1);
  usbDeviceArrival(nullptr, nullptr);
  createSerialIterator(nullptr);
  EXPECT_STREQ(getRegistryString(nullptr, "IOTTYDevice"), "");
  EXPECT_STREQ(getRegistryString(nullptr, nullptr), "");
  EXPECT_EQ(dioRead(0, 1, nullptr) + dioStatus(0, nullptr) + dioReadSensor(0, nullptr), 0);
  for (long id : {-1L, 0L, static_cast<long>(INT_MAX), LONG_MIN, LONG_MAX}) {
    EXPECT_EQ(enumUsbForLocationID(id, id), 0) << id;
  }
}

// Which well's port a call reaches for a well number: LEDs, release and the board link's moves
// take only 1 as the second well, the status tests and the presses any non-zero.
struct WellRule : testing_support::StationFixture, ::testing::WithParamInterface<Transcript> {};
TEST_P(WellRule, Transcript) { run(GetParam()); }

std::vector<Transcript> well_rules() {
  constexpr char kQuery[] = "vel_fixture_status\n", kDown[] = "vel_pne_down\n";
  std::vector<Transcript> rows;
  for (int well : {0, 1, 2, INT_MAX}) {
    const int onlyOne = well == 1 ? 5 : 1, anyNonZero = well != 0 ? 5 : 1;
    const std::string at = well == INT_MAX ? "_max" : "_" + std::to_string(well);
    Transcript down{"fixtureDown" + at, [well] { return fixtureDown(well), 1; }, 1};
    for (int site = onlyOne; site < onlyOne + 4; ++site) down.wire.push_back({site, kDown, 0.01});
    // clang-format off
    rows.insert(rows.end(), {down,
        {"SOC_RunLed" + at, [well] { return int(SOC_RunLed(well, true)); }, 1,
         {{onlyOne, "vel_run_led_on\n"}}},
        {"SOC_PneumaticValveOff" + at, [well] { return int(SOC_PneumaticValveOff(well)); }, 1,
         {{onlyOne, "vel_pne_up\n"}, {onlyOne, "vel_pne_out\n", 0.01}}},
        {"SOC_IsFixtureEngaged" + at, [well] { return int(SOC_IsFixtureEngaged(well)); }, 0,
         {{anyNonZero, kQuery}}, std::nullopt, 0.3},
        // Both buttons held, plate down: one poll, then the run LED by the other rule.
        {"SOC_PneumaticValveOn" + at, [well, anyNonZero] {
           StationFixture::board(anyNonZero).script_status({testing_support::status_reply(24)});
           return int(SOC_PneumaticValveOn(well, -1.0f));
         }, 1, {{anyNonZero, kQuery}, {onlyOne, "vel_run_led_on\n", 0.01}}, std::nullopt, 0.3},
        {"SOC_PneumaticValveAutoOn" + at, [well] { return int(SOC_PneumaticValveAutoOn(well, 0)); },
         1, {{anyNonZero, kQuery}, {anyNonZero, "vel_pne_in\n"}, {anyNonZero, kDown}},
         std::nullopt, 0.65}});
    // clang-format on
  }
  return rows;
}
INSTANTIATE_TEST_SUITE_P(Wells, WellRule, ::testing::ValuesIn(well_rules()),
                         testing_support::row_name);

// A site is UUT site + 4 on the second well (handle index 1 only), wrapping at 32 bits as the
// library does; only UUTs 1-8 are in the station. The sequences are tried outside it only.
TEST_F(BadInput, SitesOfAHandle) {
  std::map<int, std::string> wire;
  for (int index : {0, 7, 1}) {
    FixtureController h{index, 8, 2, 4};
    for (int site : {1, 4, 5, 8, 0, -1, 100, INT_MIN, INT_MAX}) {
      const int32_t uut = int32_t(uint32_t(site) + (index == 1 ? 4u : 0u));
      const bool inStation = site >= 1 && uut >= 1 && uut <= 8;
      SCOPED_TRACE("index " + std::to_string(index) + " site " + std::to_string(site));
      EXPECT_EQ(get_uart_path(&h, site),
                site < 1 ? "error" : "/dev/cu.usbserial-RT00000" + std::to_string(uut));
      EXPECT_STREQ(get_usb_location(&h, site), inStation ? USBLocation[uut - 1] : "error");
      log.clear();
      const int actuator = inStation ? uut > 4 : -1;
      EXPECT_EQ(actuator_for_site(&h, site), actuator);
      const std::string at = "VELMORA: actuator_for_site for UUT:" + std::to_string(uut);
      EXPECT_EQ(log.syslog(),
                site < 1 ? Lines() : Lines({at, at + ", returning " + std::to_string(actuator)}));
      EXPECT_EQ(set_usb_power(&h, 0, site), inStation ? 0 : -1);
      EXPECT_EQ(set_led_state(&h, 1, site), inStation ? 0 : -1);
      if (inStation) {
        wire[uut] += "vel_vusb_on\nvel_fail_led_off\nvel_pass_led_on\n";
        continue;
      }
      for (auto sequence :
           {set_battery_power, set_force_dfu, set_force_diags, set_force_iboot, set_dut_power}) {
        for (int state : {0, 1, 2}) EXPECT_EQ(sequence(&h, state, site), -1);
      }
      EXPECT_EQ(set_usb_signal(&h, site, site), 0);  // the signal calls: the controller's
    }
  }
  expect_wire(wire);
  EXPECT_TRUE(log.has("VELMORA: set_usb_signal for UUT:-2147483645"));  // INT_MAX + 4, wrapped
  // The location table's slots as the host left them, filled or not.
  const char* const saved = std::exchange(USBLocation[5], "0x1220000");
  const char* const unfilled = std::exchange(USBLocation[6], nullptr);
  log.clear();
  EXPECT_STREQ(get_usb_location(wells[1], 2), "0x1220000");
  EXPECT_EQ(get_usb_location(wells[1], 3), nullptr);
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: get_usb_location for UUT:5 is 0x1220000",
                                 "VELMORA: get_usb_location for UUT:6 is (null)"}));
  USBLocation[5] = saved;
  USBLocation[6] = unfilled;
}

TEST_F(BadInput, ModuleAndPipeNumbers) {
  unsigned char buffer[16] = {};
  for (int bad : {-1, 2, 8, 100, INT_MIN, INT_MAX}) {
    uint32_t read = 7, status, sensor = 7, id = 7;
    dealWithDevice(bad, nullptr);
    dealWithInterface(bad, nullptr);
    readTimerHandler(nullptr, &bad);
    resetAllRegisters2(bad);
    dioClose(bad);
    readCompletion(nullptr, bad);
    // Every call refuses with 0 and the reads give their no-module values; the reset answers 1.
    EXPECT_EQ(
        (std::vector<int>{openUSB(bad), USBDeviceAlive(bad), closeUSB(bad),
                          readFromEndpt(bad, 1, buffer, 10), writeToEndpt(bad, 1, buffer, 3),
                          vendorRequest(bad, 1), dioOpen(bad), dioWrite(bad, 1, "0x01"),
                          resetAllRegisters(bad), dioRead(bad, 1, &read), dioStatus(bad, &status),
                          dioReadSensor(bad, &sensor), SOC_BoardID(bad, &id), dioReset(bad) - 1}),
        std::vector<int>(14, 0))
        << bad;
    EXPECT_EQ(std::tuple(read, sensor, id), std::tuple(0u, 0xFFu, 255u)) << bad;
  }
}

// No port reaches a program the host starts.
TEST_F(StationLife, PortsCloseOnExec) {
  for (int uut = 0; uut < 8; ++uut) {
    EXPECT_TRUE(fcntl(DIO_fileDescriptor[uut], F_GETFD) & FD_CLOEXEC) << "UUT index " << uut;
  }
}

TEST_F(StationLife, DeviceStringsCannotForgeLogLines) {
  const std::string name = "CDC\nVELMORA: forged\x1b[2J\x7F";
  bus->add({sim::site_port_path(1, 4), 0x1234, 0x5678, name, "SN\r1", 0, {}});
  ASSERT_EQ(enumUsbForLocationID(0x1234, 0x5678), 0);
  EXPECT_EQ(log.syslog(), std::vector<std::string>{"UART Device added: DeviceName=CDC\\x0aVELMORA: "
                                                   "forged\\x1b[2J\\x7f Serial Number=SN\\x0d1"});
  EXPECT_EQ(std::string(getUSBDeviceName()), name + ",");  // the host gets it as read
}

// It stops the station and starts it again. (A pseudo-terminal has no closing wait to show; on
// a CDC-ACM port a full queue would hold each close for up to 30 s.)
TEST_F(StationLife, StopWithStalledBoardsTakesOnlyItsPauses) {
  for (auto* b : boards->all()) b->stop_reading();
  const std::string chunk(1000, 'x');
  for (int uut = 0; uut < 8; ++uut) {
    while (DIORS232Write(uut, chunk.c_str(), 1000)) continue;  // until its queue is full
  }
  const double start = brakwell::platform::monotonic_seconds();
  SOC_Done();
  const double elapsed = brakwell::platform::monotonic_seconds() - start;
  EXPECT_GE(elapsed, 8 * 0.2);
  EXPECT_LT(elapsed, 8 * 0.2 + 0.1);
  for (auto* b : boards->all()) b->resume_reading();
  ASSERT_TRUE(SOC_Start());
  expect_working();
}

}  // namespace
