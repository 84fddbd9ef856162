// Fixture boards that fail: unplugged before a sequence and in the middle of one, a board that
// stops reading, replies that are garbled, oversized or late. The library reports each failure
// as its calls document, sends nothing after a failed step, and the rest of the station keeps
// working. An unplugged board stays unplugged, so each test spends its own site.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "Brakwell.h"
#include "boards.h"
#include "platform/sleep.h"
#include "support/log_capture.h"
#include "usb.h"

namespace {

using brakwell::platform::monotonic_seconds;
using brakwell::platform::sleep_seconds;
using testing_support::LogCapture;

std::string status_reply(int status) {
  std::string bits;
  for (int b = 5; b >= 0; --b) bits += (status >> b) & 1 ? '1' : '0';
  return "vel_fixture_status=" + bits + " l_sw\n";
}

bool wait_for(const std::atomic<bool>& flag) {
  for (int i = 0; i < 500 && !flag; ++i) sleep_seconds(0.01);
  return flag;
}

class BoardFaults : public ::testing::Test {
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
    for (auto* board : boards->all()) {
      board->set_responder(nullptr);
      board->clear();
    }
  }
  static sim::Board& board(int site) { return boards->site(site); }
  // What a site received, compared once as many lines as expected have come (an empty
  // expectation gets a moment for stray lines to show).
  static void expect_received(int site, const std::string& expected) {
    const size_t lines = static_cast<size_t>(std::count(expected.begin(), expected.end(), '\n'));
    if (lines == 0) brakwell::platform::sleep_seconds(0.05);
    boards->site(site).wait_lines(lines, 2);
    EXPECT_EQ(boards->site(site).received(), expected) << "site " << site;
  }
  // The sites that are still plugged take commands as before.
  static void expect_working(std::initializer_list<int> sites) {
    for (int site : sites) {
      board(site).clear();
      EXPECT_TRUE(SOC_GPIO1_On(site - 1, true)) << site;
      EXPECT_TRUE(board(site).wait_lines(1, 2)) << site;
    }
  }

  static sim::Testbed* bed;
  static sim::UsbBus* bus;
  static sim::Boards* boards;
  static FixtureController* wells[2];
  LogCapture log;
};

sim::Testbed* BoardFaults::bed;
sim::UsbBus* BoardFaults::bus;
sim::Boards* BoardFaults::boards;
FixtureController* BoardFaults::wells[2];

TEST_F(BoardFaults, UnpluggedBeforeSequences) {
  board(2).unplug();
  // A sequence on the site stops at its first step; well-wide calls go on around it.
  EXPECT_EQ(set_force_dfu(wells[0], 0, 2), -1);
  EXPECT_TRUE(log.has("VELMORA: SOC_USBPower, UUT:2, Failed to write vel_vusb_off\n"));
  EXPECT_FALSE(log.has("VELMORA: SOC_Batt_Supercap UUT:2 OnOff:0"));
  EXPECT_EQ(set_led_state_all(wells[0], 1), -1);  // the first failure ends it
  EXPECT_TRUE(SOC_Reset(0));
  EXPECT_TRUE(log.has("VELMORA: SOC_Reset, UUT:2, Failed to write vel_dfu_reset\n"));
  EXPECT_EQ(fixture_engage(wells[0]), 0);  // press moves never report a failed site
  EXPECT_TRUE(log.has("VELMORA: fixtureDown, Failed to send vel_pne_down\n for WELL:1, UUT:2"));
  EXPECT_FALSE(SOC_Hi5EnterDiag(1));  // both writes tried, both fail
  EXPECT_TRUE(log.has("VELMORA: SOC_Hi5EnterDiag, UUT:2, Failed to write vel_hi5_enable\n"));
  EXPECT_TRUE(log.has("VELMORA: SOC_Hi5EnterDiag, UUT:2, Failed to write vel_hi5_enter_diag\n"));

  expect_received(1, "vel_pass_led_on\nvel_dfu_reset\nvel_pne_down\n");
  for (int site : {3, 4}) expect_received(site, "vel_dfu_reset\nvel_pne_down\n");
  expect_working({1, 3, 4, 5});
}

TEST_F(BoardFaults, UnpluggedInTheMiddleOfABootSequence) {
  // The board goes when the battery goes off; the next step, a second later, finds it gone.
  board(3).set_responder([](const sim::ReceivedLine& line) -> std::optional<std::string> {
    if (line.text == "vel_vbatt_off\n") boards->site(3).unplug();
    return std::nullopt;
  });
  const double start = monotonic_seconds();
  EXPECT_EQ(set_force_iboot(wells[0], 0, 3), -1);
  EXPECT_GE(monotonic_seconds() - start, 1.02);
  expect_received(3, "vel_vusb_off\nvel_batt_supercap_disconn\nvel_vbatt_off\n");
  EXPECT_TRUE(log.has("VELMORA: SOC_UART, UUT:3, Failed to write vel_uart_on\n"));
  EXPECT_FALSE(log.has("VELMORA: SOC_ForceDFU UUT:3 TurnOn:1"));
  EXPECT_EQ(set_dut_power(wells[0], 0, 3), -1);
  expect_working({1, 4, 8});
}

TEST_F(BoardFaults, UnpluggedInTheMiddleOfAPressCycle) {
  // Both buttons held with the tray out: the cycle closes the tray, and the board is gone.
  board(5).set_responder([](const sim::ReceivedLine& line) -> std::optional<std::string> {
    if (line.text == "vel_pne_in\n") boards->site(5).unplug();
    if (line.text == "vel_fixture_status\n") return status_reply(20);
    return std::nullopt;
  });
  const double start = monotonic_seconds();
  EXPECT_FALSE(SOC_PneumaticValveOn(1, 1.0f));
  const double elapsed = monotonic_seconds() - start;
  EXPECT_GE(elapsed, 1.0);
  EXPECT_LT(elapsed, 2.0);
  expect_received(5, "vel_fixture_status\nvel_pne_in\n");
  EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveOn WELL:2, rd is 0xffffffff"));
  // Without an answer the well reads: not engaged, Abort pressed.
  EXPECT_FALSE(SOC_IsFixtureEngaged(1));
  EXPECT_TRUE(SOC_IsAbort_Pressed(1));
  EXPECT_EQ(fixture_close(wells[1]), 0);
  expect_working({6, 7, 1});
}

TEST_F(BoardFaults, BoardThatStopsReading) {
  board(4).stop_reading();
  const std::string chunk(1000, 'x');
  bool full = false;
  for (int i = 0; i < 2000 && !full; ++i) full = !DIORS232Write(3, chunk.c_str(), 1000);
  ASSERT_TRUE(full);
  full = false;  // then byte by byte, until not even one more fits
  for (int i = 0; i < 100000 && !full; ++i) full = !DIORS232Write(3, "x", 1);
  ASSERT_TRUE(full);
  const int fd = DIO_fileDescriptor[3];
  log.clear();
  EXPECT_FALSE(SOC_USBPower(3, true));
  EXPECT_EQ(log.syslog(), (std::vector<std::string>{
                              "VELMORA: SOC_USBPower UUT:4 TurnOn:1", "k != nlen",
                              "VELMORA: SOC_USBPower, UUT:4, Failed to write vel_vusb_on\n"}));
  // The port stays open; once the board drains it, commands go through again.
  board(4).resume_reading();
  bool sent = false;
  for (int i = 0; i < 200 && !sent; ++i) {
    sleep_seconds(0.01);
    sent = SOC_NTC_ON(3, true);
  }
  EXPECT_TRUE(sent);
  EXPECT_EQ(DIO_fileDescriptor[3], fd);
  expect_working({1, 8});
}

TEST_F(BoardFaults, GarbledOversizedAndLateReplies) {
  std::strcpy(DIORS232Buff[1], "neighbour");
  // Garbled: no "=" and marker in it.
  board(1).script_status({std::string("\xff\xfe garbage \x01\n", 14)});
  EXPECT_FALSE(SOC_IsFixtureEngaged(0));
  EXPECT_TRUE(log.has("VELMORA: SOC_FixtureEngaged, rdData = -1"));
  // Oversized: the area keeps its first 24,999 bytes; a status among them counts, one past
  // them does not, and nothing spills into the next UUT's area.
  board(1).script_status({status_reply(40) + std::string(30000, 'x')});
  EXPECT_TRUE(SOC_IsFixtureEngaged(0));
  board(1).script_status({std::string(30000, 'x') + status_reply(40)});
  EXPECT_FALSE(SOC_IsFixtureEngaged(0));
  EXPECT_EQ(strnlen(DIORS232Buff[0], BRAKWELL_RX_AREA), size_t{BRAKWELL_RX_AREA - 1});
  EXPECT_STREQ(DIORS232Buff[1], "neighbour");

  // Late: the answer comes well after the wait, when the one poll of the press cycle is over;
  // it must not be taken for the answer to the next query.
  std::atomic<bool> lateSent{false};
  board(1).set_responder([&](const sim::ReceivedLine& line) -> std::optional<std::string> {
    if (line.text == "vel_fixture_status\n") {
      std::thread([&] {
        sleep_seconds(0.5);
        boards->site(1).reply(status_reply(63));
        lateSent = true;
      }).detach();
    }
    return std::nullopt;
  });
  EXPECT_FALSE(SOC_PneumaticValveOn(0, -1.0f));
  EXPECT_EQ(log.count("VELMORA: SOC_PneumaticValveOn WELL:1, rd is 0xffffffff"), 1u);
  ASSERT_TRUE(wait_for(lateSent));
  sleep_seconds(0.05);
  board(1).script_status({status_reply(40)});
  EXPECT_TRUE(SOC_IsFixtureEngaged(0));
}

}  // namespace
