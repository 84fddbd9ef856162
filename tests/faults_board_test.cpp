// Fixture boards that fail under the station calls: unplugged before a sequence and in the middle
// of a press cycle, a board that stops reading, an oversized reply. The library reports each
// failure as its calls document, sends nothing after a failed step, and the rest of the station
// keeps working. An unplugged board stays unplugged, so each test spends its own site. (The
// board link's own faults, and a board unplugged in a boot sequence, are the area suites' cases.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/station_fixture.h"

namespace {

using brakwell::platform::monotonic_seconds;
using testing_support::status_reply;

using BoardFaults = testing_support::StationFixture;

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
  expect_wire({{1, "vel_pass_led_on\nvel_dfu_reset\nvel_pne_down\n"},
               {3, "vel_dfu_reset\nvel_pne_down\n"},
               {4, "vel_dfu_reset\nvel_pne_down\n"}});
  expect_working({1, 3, 4, 5});
}

TEST_F(BoardFaults, UnpluggedInTheMiddleOfAPressCycle) {
  // Both buttons held with the tray out: the cycle closes the tray, and the board is gone; the
  // cycle polls on without an answer until its time is up.
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
  expect_wire({{5, "vel_fixture_status\nvel_pne_in\n"}});
  EXPECT_TRUE(log.has("VELMORA: SOC_PneumaticValveOn WELL:2, rd is 0xffffffff"));
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
  // The kernel may still move a little of the queue on meanwhile: a command can slip through
  // once or twice before the full queue refuses one.
  bool refused = false;
  for (int i = 0; i < 1000 && !refused; ++i) {
    log.clear();
    refused = !SOC_USBPower(3, true);
  }
  ASSERT_TRUE(refused);
  EXPECT_EQ(log.syslog(), (std::vector<std::string>{
                              "VELMORA: SOC_USBPower UUT:4 TurnOn:1", "k != nlen",
                              "VELMORA: SOC_USBPower, UUT:4, Failed to write vel_vusb_on\n"}));
  // The port stays open; once the board drains it, commands go through again.
  board(4).resume_reading();
  bool sent = false;
  for (int i = 0; i < 200 && !sent; ++i) {
    brakwell::platform::sleep_seconds(0.01);
    sent = SOC_NTC_ON(3, true);
  }
  EXPECT_TRUE(sent);
  EXPECT_EQ(DIO_fileDescriptor[3], fd);
  expect_working({1, 8});
}

TEST_F(BoardFaults, OversizedReply) {
  // The receive area keeps the first 24,999 bytes: a status among them counts, one past them
  // does not, and nothing spills into the next UUT's area.
  std::strcpy(DIORS232Buff[1], "neighbour");
  board(1).script_status({status_reply(40) + std::string(30000, 'x')});
  EXPECT_TRUE(SOC_IsFixtureEngaged(0));
  board(1).script_status({std::string(30000, 'x') + status_reply(40)});
  EXPECT_FALSE(SOC_IsFixtureEngaged(0));
  EXPECT_STREQ(DIORS232Buff[1], "neighbour");
}

}  // namespace
