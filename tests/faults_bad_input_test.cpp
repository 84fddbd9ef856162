// Bad input to every exported call: UUT, well, site, module and pipe numbers far outside their
// range, null and tiny buffers. The answer must be the documented one, nothing may reach a board
// that should not, and the station must go on working afterwards. (Null handles, and the bad
// numbers and buffers that each area's own suite tries, are checked there only.)
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/station_fixture.h"

namespace {

using testing_support::status_reply;

constexpr int kBad[] = {-1, 8, 100, INT_MIN, INT_MAX};

// 1-based numbers in messages are the index plus one, wrapped to 32 bits.
std::string plus_one(int index) {
  return std::to_string(static_cast<int32_t>(static_cast<uint32_t>(index) + 1u));
}

using BadInput = testing_support::StationFixture;

TEST_F(BadInput, UutIndexesOutsideTheStationAreFailedWrites) {
  int n = 0;
  for (auto call : {SOC_NTC_ON, SOC_USBPower, SOC_BatteryPower, SOC_USBHost, SOC_ForceDFU,
                    SOC_GPIO1_On, SOC_GPIO2_On, SOC_UART, SOC_ACC_IDENTIFY, SOC_Hi5, SOC_ACC_DETECT,
                    SOC_PassLed, SOC_FailLed, SOC_Batt_Supercap}) {
    ++n;
    for (int bad : kBad) EXPECT_FALSE(call(bad, true)) << "switch " << n << " (" << bad << ")";
  }
  for (auto call :
       {SOC_Hi5EnterDiag, SOC_Hi5EnterRecovery, SOC_PowerOffUUT, SOC_DFU_Host_Conn, SOC_ResetUUT}) {
    ++n;
    for (int bad : kBad) EXPECT_FALSE(call(bad)) << "call " << n << " (" << bad << ")";
  }
  for (int bad : kBad) {
    EXPECT_FALSE(SOC_Set_VBatt(bad, -4100)) << bad;
    EXPECT_FALSE(SOC_Write(bad, "vel_ntc_on\n")) << bad;
    EXPECT_EQ(SOC_Read(bad), nullptr) << bad;
    EXPECT_EQ(SOC_GetWellIndex(bad), bad > 3 ? 1 : 0) << bad;
  }
  expect_wire({});
  // The messages name the index plus one, without overflow; a failure is never reported as a
  // success, except by SOC_Set_VBatt, whose success line is unconditional.
  EXPECT_TRUE(log.has("VELMORA: SOC_USBPower UUT:9 TurnOn:1"));
  EXPECT_TRUE(log.has("VELMORA: SOC_USBPower, UUT:9, Failed to write vel_vusb_on\n"));
  EXPECT_TRUE(
      log.has("VELMORA: SOC_Write, UUT:" + plus_one(INT_MAX) + ", Failed to write vel_ntc_on\n"));
  EXPECT_TRUE(log.has("VELMORA: SOC_Set_VBatt, UUT:" + plus_one(INT_MIN) +
                      ", Successfully write vel_set_vbatt_-4100\n"));
  for (const auto& line : log.syslog()) {
    if (line.find("Successfully") != std::string::npos) {
      EXPECT_NE(line.find("SOC_Set_VBatt"), std::string::npos) << line;
    }
  }
  expect_working();
}

TEST_F(BadInput, ResultLedFoldsTheIndexBeforeTheRangeRule) {
  // Indexes above 3 drive the port four lower: 8 reaches UUT index 4, the rest stay outside.
  EXPECT_TRUE(SOC_ResultLed(8, true));
  for (int bad : {-1, 100, INT_MIN, INT_MAX}) EXPECT_FALSE(SOC_ResultLed(bad, false)) << bad;
  expect_wire({{5, "vel_pass_led_on\n"}});
  EXPECT_TRUE(log.has("VELMORA: SOC_ResultLed UUT:9 Pass:1"));
  EXPECT_TRUE(log.has("VELMORA: SOC_ResultLed, UUT:5, Successfully write vel_pass_led_on\n"));
}

TEST_F(BadInput, WellNumbersOtherThanOneAreTheFirstWellForResetLedsAndMoves) {
  std::string first, others;
  for (int bad : kBad) {
    EXPECT_TRUE(SOC_Reset(bad)) << bad;
    EXPECT_TRUE(SOC_PowerOff(bad)) << bad;
    EXPECT_TRUE(SOC_RunLed(bad, true)) << bad;
    EXPECT_TRUE(SOC_PneumaticValveOff(bad)) << bad;
    fixtureDown(bad);
    EXPECT_TRUE(log.has("VELMORA: SOC_Reset WELL:" + plus_one(bad))) << bad;
    first +=
        "vel_dfu_reset\nvel_dfu_reset\nvel_run_led_on\nvel_pne_up\nvel_pne_out\nvel_pne_down\n";
    others += "vel_dfu_reset\nvel_dfu_reset\nvel_pne_down\n";
  }
  expect_wire({{1, first}, {2, others}, {3, others}, {4, others}});
}

TEST_F(BadInput, WellNumbersOtherThanZeroAreTheSecondWellForStatusAndPress) {
  // 24: plate down, both buttons held. A press cycle ends at its first poll and lights the run
  // LED by the board link's rule: the first well's, for any well but 1.
  board(5).script_status({status_reply(24)});
  const struct {
    bool (*test)(int);
    int well;
    bool answer;
  } rows[] = {{SOC_IsFixtureEngaged, -1, true},
              {SOC_IsBoth_Pressed, INT_MIN, true},
              {SOC_IsAbort_Pressed, 8, false},
              {SOC_IsValveOn, 100, false}};
  for (const auto& r : rows) EXPECT_EQ(r.test(r.well), r.answer) << r.well;
  for (int bad : kBad) EXPECT_FALSE(SOC_IsRun_Pressed(bad)) << bad;  // serves 0 and 1 only
  EXPECT_TRUE(SOC_PneumaticValveOn(INT_MAX, -1.0f));
  EXPECT_TRUE(PneumaticValveAutoOn(100, 0.5f));
  std::string queries;
  for (int i = 0; i < 6; ++i) queries += "vel_fixture_status\n";
  expect_wire({{1, "vel_run_led_on\n"}, {5, queries + "vel_pne_in\nvel_pne_down\n"}});
  EXPECT_TRUE(log.has("VELMORA: SOC_FixtureEngaged, rdData = 24"));
  EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveOn WELL:" + plus_one(INT_MAX)));
  EXPECT_TRUE(log.has("VELMORA: PneumaticValveAutoOn, WELL:101"));
}

TEST_F(BadInput, SitesOfAHandle) {
  for (int w = 0; w < 2; ++w) {
    FixtureController* h = wells[w];
    for (int site : kBad) {
      const int64_t uut64 = static_cast<int64_t>(site) + (w == 1 ? 4 : 0);
      const int32_t uut = static_cast<int32_t>(static_cast<uint32_t>(uut64));
      const bool inStation = site >= 1 && uut >= 1 && uut <= 8;  // only site 8 on well 0
      const std::string at = "well " + std::to_string(w) + " site " + std::to_string(site);
      const std::string uart = "/dev/cu.usbserial-RT00000" + std::to_string(uut);
      EXPECT_EQ(get_uart_path(h, site), site < 1 ? "error" : uart) << at;
      EXPECT_STREQ(get_usb_location(h, site), inStation ? USBLocation[uut - 1] : "error") << at;
      EXPECT_EQ(actuator_for_site(h, site), inStation ? 1 : -1) << at;
      EXPECT_EQ(set_usb_power(h, 0, site), inStation ? 0 : -1) << at;
      EXPECT_EQ(set_led_state(h, 1, site), inStation ? 0 : -1) << at;
      if (inStation) continue;  // the sequences below would really run on UUT 8
      for (auto sequence :
           {set_battery_power, set_force_dfu, set_force_diags, set_force_iboot, set_dut_power}) {
        for (int state : {0, 1, 2}) EXPECT_EQ(sequence(h, state, site), -1) << at;
      }
      for (auto setter : {set_conn_acc_apple_id, set_usb_signal, set_uart_signal, set_apple_id,
                          set_conn_det_grounded, set_hi5_bs_grounded}) {
        EXPECT_EQ(setter(h, site, site), 0) << at;
      }
      for (auto getter : {usb_power, battery_power, force_dfu, usb_signal, uart_signal, apple_id,
                          conn_det_grounded, hi5_bs_grounded, dut_power}) {
        EXPECT_EQ(getter(h, site), 0) << at;
      }
      EXPECT_TRUE(is_board_detected(h, site)) << at;
    }
  }
  // Only UUT 8, reached as site 8 of the first well, got anything.
  expect_wire({{8, "vel_vusb_on\nvel_fail_led_off\nvel_pass_led_on\n"}});
  // A site near INT_MAX on the second well wraps instead of overflowing.
  EXPECT_TRUE(log.has("VELMORA: set_usb_signal for UUT:" + plus_one(INT_MIN + 2)));
}

TEST_F(BadInput, NullAndTinyBuffers) {
  char buffer[32];
  std::memset(buffer, '#', sizeof buffer);
  for (int size : {0, -1, INT_MIN}) EXPECT_FALSE(SOC_LibVersion(buffer, size)) << size;
  EXPECT_EQ(buffer[0], '#');
  EXPECT_FALSE(SOC_LibVersion(nullptr, INT_MAX));

  EXPECT_TRUE(SOC_Write(0, nullptr));  // a missing text is the empty one
  EXPECT_FALSE(DIORS232Write(0, nullptr, 5));
  EXPECT_FALSE(DIORS232Write(0, "vel_ntc_on\n", -1));  // nothing written is no success
  EXPECT_FALSE(DIORS232Write(0, "vel_ntc_on\n", INT_MIN));
  expect_wire({});

  EXPECT_EQ(getDifferentLocationIndex("0x1", nullptr), -1);
  EXPECT_EQ(getDifferentLocationIndex(nullptr, nullptr), -1);
  usbDeviceArrival(nullptr, nullptr);
  createSerialIterator(nullptr);
  EXPECT_STREQ(getRegistryString(nullptr, "IOTTYDevice"), "");
  EXPECT_STREQ(getRegistryString(nullptr, nullptr), "");
  EXPECT_EQ(dioRead(0, 1, nullptr), 0);
  EXPECT_EQ(dioStatus(0, nullptr), 0);
  EXPECT_EQ(dioReadSensor(0, nullptr), 0);
  EXPECT_EQ(writeToEndpt(0, 1, nullptr, 5), 0);
}

TEST_F(BadInput, ModuleAndPipeNumbers) {
  unsigned char buffer[16] = {};
  uint32_t value = 7;
  for (int bad : {-1, 2, 8, 100, INT_MIN, INT_MAX}) {
    const std::string at = "module " + std::to_string(bad);
    EXPECT_EQ(openUSB(bad), 0) << at;
    EXPECT_EQ(USBDeviceAlive(bad), 0) << at;
    EXPECT_EQ(closeUSB(bad), 0) << at;
    EXPECT_EQ(readFromEndpt(bad, 1, buffer, 10), 0) << at;
    EXPECT_EQ(writeToEndpt(bad, 1, buffer, 3), 0) << at;
    EXPECT_EQ(vendorRequest(bad, 1), 0) << at;
    dealWithDevice(bad, nullptr);
    dealWithInterface(bad, nullptr);
    readTimerHandler(nullptr, &bad);
    EXPECT_EQ(dioReset(bad), 1) << at;
    EXPECT_EQ(dioOpen(bad), 0) << at;
    EXPECT_EQ(dioWrite(bad, 1, "0x01"), 0) << at;
    EXPECT_EQ(resetAllRegisters(bad), 0) << at;
    resetAllRegisters2(bad);
    EXPECT_EQ(dioRead(bad, 1, &value), 0) << at;
    EXPECT_EQ(value, 0u) << at;
    EXPECT_EQ(dioStatus(bad, &value), 0) << at;
    dioClose(bad);
    EXPECT_EQ(dioReadSensor(bad, &value), 0) << at;
    EXPECT_EQ(value, 0xFFu) << at;
    EXPECT_FALSE(SOC_BoardID(bad, &value)) << at;
    EXPECT_EQ(value, 255u) << at;
  }
  readCompletion(nullptr, INT_MIN);
  for (int bad : kBad) EXPECT_EQ(usbUartSiblingLocationID(bad), 0u) << bad;
  for (long id : {-1L, 0L, static_cast<long>(INT_MAX), LONG_MIN, LONG_MAX}) {
    EXPECT_EQ(enumUsbForLocationID(id, id), 0) << id;
  }
}

}  // namespace
