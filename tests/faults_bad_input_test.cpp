// Bad input to every exported call: out-of-range UUT, well, site, module and pipe numbers, null
// and tiny buffers, null handles. The answer must be the documented one, nothing may reach a
// board that should not, and the station must go on working afterwards.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Brakwell.h"
#include "boards.h"
#include "platform/sleep.h"
#include "support/log_capture.h"
#include "usb.h"

namespace {

using testing_support::LogCapture;

constexpr int kBad[] = {-1, 8, 100, INT_MIN, INT_MAX};

// 1-based numbers in messages are the index plus one, wrapped to 32 bits.
std::string plus_one(int index) {
  return std::to_string(static_cast<int32_t>(static_cast<uint32_t>(index) + 1u));
}

std::string status_reply(int status) {
  std::string bits;
  for (int b = 5; b >= 0; --b) bits += (status >> b) & 1 ? '1' : '0';
  return "vel_fixture_status=" + bits + " l_sw\n";
}

// One station for the whole program: eight boards, both wells found, all ports open.
class BadInput : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bed = new sim::Testbed;
    bus = new sim::UsbBus(*bed);
    boards = new sim::Boards(*bed);
    for (int site = 1; site <= 8; ++site) bus->add_board(site);
    boards->add_sites(1, 8);
    wells[0] = create_fixture_controller(0);
    wells[1] = create_fixture_controller(1);
  }
  static void TearDownTestSuite() {
    release_fixture_controller(wells[0]);
    release_fixture_controller(wells[1]);
    for (int uut = 0; uut < 8; ++uut) CloseDIOSerialPort(uut);
    delete boards;
    delete bus;
    delete bed;
  }
  void SetUp() override {
    ASSERT_EQ(g_WellNumber, 2u);
    for (auto* board : boards->all()) {
      board->set_responder(nullptr);
      board->clear();
    }
  }

  // What a site received, compared once as many lines as expected have come (an empty
  // expectation gets a moment for stray lines to show).
  static void expect_received(int site, const std::string& expected) {
    const size_t lines = static_cast<size_t>(std::count(expected.begin(), expected.end(), '\n'));
    if (lines == 0) brakwell::platform::sleep_seconds(0.05);
    boards->site(site).wait_lines(lines, 2);
    EXPECT_EQ(boards->site(site).received(), expected) << "site " << site;
  }
  // Lets lines that were written reach their boards before a board is found silent.
  static void settle() { brakwell::platform::sleep_seconds(0.05); }
  static void expect_silent(const std::string& context) {
    settle();
    for (int site = 1; site <= 8; ++site) {
      EXPECT_EQ(boards->site(site).received(), "") << context << ", site " << site;
    }
  }
  // The station still works: a command to every site arrives.
  static void expect_station_intact() {
    for (int uut = 0; uut < 8; ++uut) EXPECT_TRUE(SOC_NTC_ON(uut, true)) << uut;
    for (int site = 1; site <= 8; ++site) {
      EXPECT_TRUE(boards->site(site).wait_lines(1, 2)) << site;
    }
  }

  static sim::Testbed* bed;
  static sim::UsbBus* bus;
  static sim::Boards* boards;
  static FixtureController* wells[2];
  LogCapture log;
};

sim::Testbed* BadInput::bed;
sim::UsbBus* BadInput::bus;
sim::Boards* BadInput::boards;
FixtureController* BadInput::wells[2];

struct UutCall {
  const char* name;
  std::function<bool(int)> call;
};

// Every station call that takes a UUT index; each must refuse a bad one as a failed write.
const std::vector<UutCall>& uut_calls() {
  static const std::vector<UutCall> calls = {
      {"SOC_NTC_ON", [](int u) { return SOC_NTC_ON(u, true); }},
      {"SOC_USBPower", [](int u) { return SOC_USBPower(u, true); }},
      {"SOC_BatteryPower", [](int u) { return SOC_BatteryPower(u, false); }},
      {"SOC_USBHost", [](int u) { return SOC_USBHost(u, true); }},
      {"SOC_ForceDFU", [](int u) { return SOC_ForceDFU(u, true); }},
      {"SOC_GPIO1_On", [](int u) { return SOC_GPIO1_On(u, true); }},
      {"SOC_GPIO2_On", [](int u) { return SOC_GPIO2_On(u, false); }},
      {"SOC_UART", [](int u) { return SOC_UART(u, true); }},
      {"SOC_ACC_IDENTIFY", [](int u) { return SOC_ACC_IDENTIFY(u, true); }},
      {"SOC_Hi5", [](int u) { return SOC_Hi5(u, false); }},
      {"SOC_ACC_DETECT", [](int u) { return SOC_ACC_DETECT(u, true); }},
      {"SOC_PassLed", [](int u) { return SOC_PassLed(u, true); }},
      {"SOC_FailLed", [](int u) { return SOC_FailLed(u, false); }},
      {"SOC_Batt_Supercap", [](int u) { return SOC_Batt_Supercap(u, true); }},
      {"SOC_Hi5EnterDiag", [](int u) { return SOC_Hi5EnterDiag(u); }},
      {"SOC_Hi5EnterRecovery", [](int u) { return SOC_Hi5EnterRecovery(u); }},
      {"SOC_PowerOffUUT", [](int u) { return SOC_PowerOffUUT(u); }},
      {"SOC_DFU_Host_Conn", [](int u) { return SOC_DFU_Host_Conn(u); }},
      {"SOC_ResetUUT", [](int u) { return SOC_ResetUUT(u); }},
      {"SOC_Set_VBatt", [](int u) { return SOC_Set_VBatt(u, -4100); }},
      {"SOC_Write", [](int u) { return SOC_Write(u, "vel_ntc_on\n"); }},
      {"DIORS232Write", [](int u) { return DIORS232Write(u, "vel_ntc_on\n", 11); }},
  };
  return calls;
}

TEST_F(BadInput, UutIndexesOutsideTheStationAreFailedWrites) {
  for (const auto& c : uut_calls()) {
    for (int bad : kBad) EXPECT_FALSE(c.call(bad)) << c.name << "(" << bad << ")";
  }
  expect_silent("UUT calls");
  // The messages name the index plus one; a failure is never reported as a success, except
  // by SOC_Set_VBatt, whose success line is unconditional.
  EXPECT_TRUE(log.has("VELMORA: SOC_USBPower UUT:9 TurnOn:1"));
  EXPECT_TRUE(log.has("VELMORA: SOC_USBPower, UUT:9, Failed to write vel_vusb_on\n"));
  EXPECT_TRUE(log.has("VELMORA: SOC_UART, UUT:0, Failed to write vel_uart_on\n"));
  EXPECT_TRUE(
      log.has("VELMORA: SOC_Write, UUT:" + plus_one(INT_MAX) + ", Failed to write vel_ntc_on\n"));
  EXPECT_TRUE(log.has("VELMORA: SOC_Set_VBatt, UUT:" + plus_one(INT_MIN) +
                      ", Successfully write vel_set_vbatt_-4100\n"));
  for (const auto& line : log.syslog()) {
    if (line.find("Successfully") != std::string::npos) {
      EXPECT_NE(line.find("SOC_Set_VBatt"), std::string::npos) << line;
    }
  }
  for (int bad : kBad) {
    EXPECT_EQ(SOC_Read(bad), getDIORdBuff(bad)) << bad;
    EXPECT_EQ(SOC_GetWellIndex(bad), bad > 3 ? 1 : 0) << bad;
  }
  expect_station_intact();
}

TEST_F(BadInput, ResultLedFoldsTheIndexBeforeTheRangeRule) {
  // Indexes above 3 drive the port four lower: 8 reaches UUT index 4, the rest stay outside.
  EXPECT_TRUE(SOC_ResultLed(8, true));
  for (int bad : {-1, 100, INT_MIN, INT_MAX}) EXPECT_FALSE(SOC_ResultLed(bad, false)) << bad;
  ASSERT_TRUE(boards->site(5).wait_lines(1, 2));
  expect_received(5, "vel_pass_led_on\n");
  for (int site : {1, 2, 3, 4, 6, 7, 8}) expect_received(site, "");
  EXPECT_TRUE(log.has("VELMORA: SOC_ResultLed UUT:9 Pass:1"));
  EXPECT_TRUE(log.has("VELMORA: SOC_ResultLed, UUT:5, Successfully write vel_pass_led_on\n"));
}

TEST_F(BadInput, WellNumbersOtherThanOneAreTheFirstWellForResetLedsAndMoves) {
  for (int bad : kBad) {
    EXPECT_TRUE(SOC_Reset(bad)) << bad;
    EXPECT_TRUE(SOC_PowerOff(bad)) << bad;
    EXPECT_TRUE(SOC_RunLed(bad, true)) << bad;
    EXPECT_TRUE(SOC_PneumaticValveOff(bad)) << bad;
    fixtureDown(bad);
    EXPECT_TRUE(log.has("VELMORA: SOC_Reset WELL:" + plus_one(bad))) << bad;
  }
  ASSERT_TRUE(boards->site(1).wait_lines(5 * 6, 2));
  std::string first, others;
  for (int i = 0; i < 5; ++i) {
    first +=
        "vel_dfu_reset\nvel_dfu_reset\nvel_run_led_on\nvel_pne_up\nvel_pne_out\nvel_pne_down\n";
    others += "vel_dfu_reset\nvel_dfu_reset\nvel_pne_down\n";
  }
  expect_received(1, first);
  for (int site : {2, 3, 4}) expect_received(site, others);
  for (int site : {5, 6, 7, 8}) expect_received(site, "");
}

TEST_F(BadInput, WellNumbersOtherThanZeroAreTheSecondWellForStatusTests) {
  // The second well's board says: plate down, fixture closed, both buttons held (40); the
  // first well's says the opposite (63). The Run test serves wells 0 and 1 only.
  boards->site(5).script_status({status_reply(40)});
  boards->site(1).script_status({status_reply(63)});
  for (int bad : kBad) {
    EXPECT_TRUE(SOC_IsFixtureEngaged(bad)) << bad;
    EXPECT_FALSE(SOC_IsRun_Pressed(bad)) << bad;
  }
  EXPECT_TRUE(SOC_IsBoth_Pressed(INT_MIN));
  EXPECT_FALSE(SOC_IsAbort_Pressed(INT_MAX));
  EXPECT_FALSE(SOC_IsValveOn(-1));
  EXPECT_TRUE(is_fixture_engaged(wells[1]));
  EXPECT_TRUE(boards->site(5).wait_lines(5 + 3 + 1, 2));
  settle();
  EXPECT_EQ(boards->site(5).lines().size(), 5u + 3u + 1u);
  expect_received(1, "");
  EXPECT_TRUE(log.has("VELMORA: SOC_FixtureEngaged, rdData = 40"));
}

TEST_F(BadInput, PressCycleOnABadWellPollsTheSecondAndLightsTheFirst) {
  // Status 24 finishes the cycle at the first poll; the run LED follows the board link's rule.
  boards->site(5).script_status({status_reply(24)});
  for (int bad : {INT_MIN, INT_MAX}) {
    EXPECT_TRUE(SOC_PneumaticValveOn(bad, -1.0f)) << bad;
    EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveOn WELL:" + plus_one(bad))) << bad;
  }
  EXPECT_TRUE(PneumaticValveAutoOn(100, 0.5f));
  ASSERT_TRUE(boards->site(5).wait_lines(5, 2));
  expect_received(5,
                  "vel_fixture_status\nvel_fixture_status\nvel_fixture_status\nvel_pne_in\n"
                  "vel_pne_down\n");
  expect_received(1, "vel_run_led_on\nvel_run_led_on\n");
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
      if (site < 1) {
        EXPECT_STREQ(get_usb_location(h, site), "error") << at;
        EXPECT_STREQ(get_uart_path(h, site), "error") << at;
      } else {
        EXPECT_EQ(get_uart_path(h, site), "/dev/cu.usbserial-RT00000" + std::to_string(uut)) << at;
        if (inStation) {
          EXPECT_EQ(get_usb_location(h, site), USBLocation[uut - 1]) << at;
        } else {
          EXPECT_STREQ(get_usb_location(h, site), "error") << at;
        }
      }
      EXPECT_EQ(actuator_for_site(h, site), inStation ? 1 : -1) << at;
      EXPECT_EQ(set_usb_power(h, 0, site), inStation ? 0 : -1) << at;
      EXPECT_EQ(set_led_state(h, 1, site), inStation ? 0 : -1) << at;
      if (inStation) continue;  // the sequences below would really run on UUT 8
      EXPECT_EQ(set_battery_power(h, 0, site), -1) << at;
      EXPECT_EQ(set_force_dfu(h, 0, site), -1) << at;
      EXPECT_EQ(set_force_diags(h, 1, site), -1) << at;
      EXPECT_EQ(set_force_iboot(h, 2, site), -1) << at;
      EXPECT_EQ(set_dut_power(h, 1, site), -1) << at;
      EXPECT_EQ(set_dut_power(h, 0, site), -1) << at;
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
  ASSERT_TRUE(boards->site(8).wait_lines(3, 2));
  expect_received(8, "vel_vusb_on\nvel_fail_led_off\nvel_pass_led_on\n");
  for (int site = 1; site <= 7; ++site) expect_received(site, "");
  // A site near INT_MAX on the second well wraps instead of overflowing.
  EXPECT_TRUE(log.has("VELMORA: set_usb_signal for UUT:" + plus_one(INT_MIN + 2)));
}

TEST_F(BadInput, StatesOutsideTheirRange) {
  // A state outside 0-3 sets no site LED; any state but 0, 1 and 3 lights the well's fail LEDs.
  for (int bad : kBad) EXPECT_EQ(set_led_state(wells[0], bad, 1), 0) << bad;
  expect_silent("set_led_state");
  for (int bad : kBad) EXPECT_EQ(set_led_state_all(wells[1], bad), 0) << bad;
  for (int site = 5; site <= 8; ++site) {
    ASSERT_TRUE(boards->site(site).wait_lines(5, 2));
    std::string five;
    for (int i = 0; i < 5; ++i) five += "vel_fail_led_on\n";
    expect_received(site, five);
  }
  EXPECT_EQ(get_error_message(INT_MIN), std::string("UNKNOWN"));
  EXPECT_EQ(get_error_message(INT_MAX), std::string("UNKNOWN"));
}

TEST_F(BadInput, NullHandles) {
  FixtureController* h = nullptr;
  EXPECT_STREQ(get_serial_number(h), "UNKNOWN");
  EXPECT_STREQ(get_version(h), "UNKNOWN");
  EXPECT_EQ(get_site_count(h), -1);
  EXPECT_EQ(get_actuator_count(h), -1);
  EXPECT_STREQ(get_usb_location(h, 1), "error");
  EXPECT_STREQ(get_uart_path(h, 1), "error");
  EXPECT_EQ(actuator_for_site(h, 1), -1);
  for (auto call : {init, reset, fixture_engage, fixture_disengage, fixture_close, fixture_open}) {
    EXPECT_EQ(call(h), -1);
  }
  for (auto query :
       {is_fixture_engaged, is_fixture_disengaged, is_fixture_closed, is_fixture_open}) {
    EXPECT_FALSE(query(h));
  }
  EXPECT_EQ(set_led_state(h, 1, 1), -1);
  EXPECT_EQ(set_led_state_all(h, 1), -1);
  for (auto sequence : {set_usb_power, set_battery_power, set_force_dfu, set_force_diags,
                        set_force_iboot, set_dut_power}) {
    EXPECT_EQ(sequence(h, 0, 1), -1);
  }
  EXPECT_EQ(set_dut_power_all(h, 0), -1);
  for (auto setter : {set_conn_acc_apple_id, set_usb_signal, set_uart_signal, set_apple_id,
                      set_conn_det_grounded, set_hi5_bs_grounded}) {
    EXPECT_EQ(setter(h, 1, 1), -1);
  }
  for (auto getter : {usb_power, battery_power, force_dfu, usb_signal, uart_signal, apple_id,
                      conn_det_grounded, hi5_bs_grounded, dut_power}) {
    EXPECT_EQ(getter(h, 1), -1);
  }
  EXPECT_FALSE(is_board_detected(h, 1));
  release_fixture_controller(h);
  expect_silent("null handle");
}

TEST_F(BadInput, NullAndTinyBuffers) {
  char buffer[32];
  std::memset(buffer, '#', sizeof buffer);
  for (int size : {24, 0, -1, INT_MIN}) {
    EXPECT_FALSE(SOC_LibVersion(buffer, size)) << size;
  }
  EXPECT_EQ(buffer[0], '#');
  EXPECT_FALSE(SOC_LibVersion(nullptr, 25));
  EXPECT_FALSE(SOC_LibVersion(nullptr, INT_MAX));
  EXPECT_TRUE(SOC_LibVersion(buffer, 25));
  EXPECT_STREQ(buffer, "Velmora Lumbrix 4.01");

  EXPECT_TRUE(SOC_Write(0, ""));       // nothing to send
  EXPECT_TRUE(SOC_Write(0, nullptr));  // a missing text is the empty one
  EXPECT_FALSE(DIORS232Write(0, nullptr, 5));
  EXPECT_FALSE(DIORS232Write(0, "vel_ntc_on\n", -1));  // nothing written is no success
  EXPECT_FALSE(DIORS232Write(0, "vel_ntc_on\n", INT_MIN));
  expect_silent("null texts");

  EXPECT_EQ(getDifferentLocationIndex(nullptr, "0x1"), -1);
  EXPECT_EQ(getDifferentLocationIndex("0x1", nullptr), -1);
  EXPECT_EQ(getDifferentLocationIndex(nullptr, nullptr), -1);
  const uint32_t before = g_ListUartLocationID[0];
  addToUartLocationIDList(nullptr, 0x1210000);
  addToUartLocationIDList("", 0x1210000);
  EXPECT_EQ(g_ListUartLocationID[0], before);
  EXPECT_EQ(addSelfToAppleDevList(nullptr), 0);
  usbDeviceRemoval(nullptr, nullptr, 0xE0000010, nullptr);
  usbDeviceArrival(nullptr, nullptr);
  createSerialIterator(nullptr);
  EXPECT_STREQ(getRegistryString(nullptr, "IOTTYDevice"), "");
  EXPECT_STREQ(getRegistryString(nullptr, nullptr), "");

  uint32_t value = 7;
  EXPECT_EQ(dioRead(0, 1, nullptr), 0);
  EXPECT_EQ(dioStatus(0, nullptr), 0);
  EXPECT_EQ(dioReadSensor(0, nullptr), 0);
  EXPECT_FALSE(SOC_BoardID(0, nullptr));
  EXPECT_EQ(dioWrite(0, 1, nullptr), 0);
  EXPECT_EQ(strToInt(nullptr), 0);
  EXPECT_EQ(readFromEndpt(0, 1, nullptr, 10), 0);
  EXPECT_EQ(writeToEndpt(0, 1, nullptr, 5), 0);
  EXPECT_EQ(dioRead(0, 1, &value), 0);
  EXPECT_EQ(value, 0u);
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
  readTimerHandler(nullptr, nullptr);
  readCompletion(nullptr, INT_MIN);
  for (int bad : kBad) EXPECT_EQ(usbUartSiblingLocationID(bad), 0u) << bad;
  for (long id : {-1L, 0L, static_cast<long>(INT_MAX), LONG_MIN, LONG_MAX}) {
    EXPECT_EQ(enumUsbForLocationID(id, id), 0) << id;
  }
}

}  // namespace
