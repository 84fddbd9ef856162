// The fixture board link against virtual boards: discovery and binding, the port settings,
// the bytes on the wire, the status query and the well-wide actions.
#include "station/board_link.h"

#include <Brakwell.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>

#include <climits>
#include <cstring>
#include <thread>

#include "boards.h"
#include "common/station.h"
#include "platform/platform.h"
#include "support/log_capture.h"
#include "topology.h"

namespace {

using brakwell::platform::monotonic_seconds;
using testing_support::LogCapture;

class BoardLink : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int uut = 0; uut < 8; ++uut) CloseDIOSerialPort(uut);
    // The name tables are never cleared by the library; each test starts from load state.
    std::memset(DIO_SerialDevice, 0, sizeof DIO_SerialDevice);
    std::memset(DIO_UUTSerialDevice, 0, sizeof DIO_UUTSerialDevice);
  }

  // Binds and opens the given sites directly (0.1 s per open), without a scan.
  void open_sites(std::initializer_list<int> sites) {
    for (int site : sites) {
      boards.add_site(site);
      std::strcpy(DIO_UUTSerialDevice[site - 1], sim::board_link(site).c_str());
      ASSERT_TRUE(openDIO_UARTForWell1(site - 1));
    }
    log.clear();
  }

  // A port with the given dial-in link, numbered so that libudev lists them in order.
  void add_port(const std::string& link) {
    const std::string tty = "ttyACM" + std::to_string(10 + portCount++);
    boards.add({0, "/dev/" + tty, link,
                std::string(sim::kPciRoot) + "/usb1/1-9/1-9:1." + std::to_string(portCount) +
                    "/tty/" + tty});
  }

  sim::Testbed bed;
  sim::Boards boards{bed};
  LogCapture log;
  int portCount = 0;
};

TEST_F(BoardLink, BindsPortsBySiteNumberAfterFirstUnderscore) {
  for (const char* link :
       {"/dev/tty.usbmodemVEL_03_A1", "/dev/tty.usbmodemNOUNDERSCORE1", "/dev/tty.usbmodemX_09_1",
        "/dev/tty.usbmodemX_00_1", "/dev/tty.usbmodemX_ab_1", "/dev/tty.usbmodemVEL_05_A1",
        "/dev/tty.usbmodemOTHER_05_B1", "/dev/tty.usbmodemX_7", "/dev/tty.usbmodemX_1_2_3",
        "/dev/tty.serialonly_02"}) {
    add_port(link);
  }
  EXPECT_EQ(listSerialPorts(), 1);
  matchDIO_UART();
  // Eight candidates fill the table; the ninth usbmodem port has no slot.
  EXPECT_STREQ(DIO_SerialDevice[7], "/dev/tty.usbmodemX_7");
  EXPECT_STREQ(DIO_UUTSerialDevice[2], "/dev/tty.usbmodemVEL_03_A1");
  EXPECT_STREQ(DIO_UUTSerialDevice[4], "/dev/tty.usbmodemOTHER_05_B1");  // later one wins
  for (int uut : {0, 1, 3, 5, 6, 7}) EXPECT_STREQ(DIO_UUTSerialDevice[uut], "") << uut;
  EXPECT_NE(DIO_fileDescriptor[2], -1);
  EXPECT_NE(DIO_fileDescriptor[4], -1);
  EXPECT_TRUE(log.has("DIO_SerialDevice[0]:/dev/tty.usbmodemVEL_03_A1"));
  EXPECT_TRUE(log.has("device [ttyACM10]  dialin [/dev/tty.usbmodemVEL_03_A1]\n"));
  EXPECT_TRUE(log.has("Warning, UUT1, cannot open DIO serial port device "));
  EXPECT_TRUE(log.has("Warning, UUT8, cannot open DIO serial port device "));
  EXPECT_FALSE(
      log.has("Warning, UUT3, cannot open DIO serial port device "
              "/dev/tty.usbmodemVEL_03_A1"));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(portConnected[i], 1);  // empty fragments match all
}

TEST_F(BoardLink, DialInPathOf41CharactersEndsTheScan) {
  const std::string forty = "/dev/tty.usbmodemVEL_01_A" + std::string(40 - 25, 'x');
  const std::string fortyOne = "/dev/tty.usbmodemVEL_02_A" + std::string(41 - 25, 'y');
  add_port(forty);
  add_port(fortyOne);
  add_port("/dev/tty.usbmodemVEL_03_A1");
  EXPECT_EQ(listSerialPorts(), -1);
  EXPECT_STREQ(DIO_SerialDevice[0], forty.c_str());
  EXPECT_STREQ(DIO_SerialDevice[1], "");
  EXPECT_EQ(log.stdout_lines(),
            std::vector<std::string>{"dialInDevice [" + fortyOne + "] too long\n"});
}

TEST_F(BoardLink, NoPortsAtAll) {
  EXPECT_EQ(listSerialPorts(), 1);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(portConnected[i], 0);
  matchDIO_UART();
  for (int uut = 1; uut <= 8; ++uut) {
    EXPECT_TRUE(
        log.has("Warning, UUT" + std::to_string(uut) + ", cannot open DIO serial port device "));
  }
}

TEST_F(BoardLink, OpensRaw115200NonBlockingAndReopenClearsArea) {
  boards.add_site(1);
  std::strcpy(DIO_UUTSerialDevice[0], sim::board_link(1).c_str());
  ASSERT_TRUE(openDIO_UARTForWell1(0));
  const int fd = DIO_fileDescriptor[0];
  EXPECT_EQ(log.syslog(),
            std::vector<std::string>{"VELMORA: openDIO_UARTForWell1, DIO_fileDescriptor[1] = " +
                                     std::to_string(fd)});
  EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  termios t{};
  ASSERT_EQ(tcgetattr(fd, &t), 0);
  EXPECT_EQ(cfgetospeed(&t), B115200);
  EXPECT_EQ(t.c_cflag & ~(CBAUD | CBAUDEX), tcflag_t(CS8 | CREAD | CLOCAL));
  EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);
  EXPECT_EQ(t.c_oflag & OPOST, 0u);

  std::strcpy(DIORS232Buff[0], "left over");
  const double start = monotonic_seconds();
  EXPECT_TRUE(openDIO_UARTForWell2(0));
  EXPECT_GE(monotonic_seconds() - start, 0.1);
  EXPECT_STREQ(DIORS232Buff[0], "");
  EXPECT_TRUE(DIORS232Write(0, "vel_ntc_on\n", 11));
  ASSERT_TRUE(boards.site(1).wait_lines(1, 2));

  // Closing a closed port does nothing, not even clearing its area.
  CloseDIOSerialPort(0);
  std::strcpy(DIORS232Buff[0], "kept");
  CloseDIOSerialPort(0);
  EXPECT_STREQ(DIORS232Buff[0], "kept");
}

TEST_F(BoardLink, WriteSendsExactBytesAndClearsTheArea) {
  open_sites({3});
  std::strcpy(DIORS232Buff[2], "stale reply");
  EXPECT_TRUE(DIORS232Write(2, "vel_vusb_on\n", 12));
  EXPECT_STREQ(DIORS232Buff[2], "");
  std::strcpy(DIORS232Buff[2], "stale");
  EXPECT_TRUE(DIORS232Write(2, "", 0));  // nothing to send is success, area still cleared
  EXPECT_STREQ(DIORS232Buff[2], "");
  EXPECT_TRUE(DIORS232Write(2, "vel_vusb_off\n", 13));
  ASSERT_TRUE(boards.site(3).wait_lines(2, 2));
  EXPECT_EQ(boards.site(3).received(), "vel_vusb_on\nvel_vusb_off\n");

  std::strcpy(DIORS232Buff[0], "closed port");
  EXPECT_FALSE(DIORS232Write(0, "vel_vusb_on\n", 12));
  EXPECT_STREQ(DIORS232Buff[0], "");  // cleared even though nothing was sent
  std::strcpy(DIORS232Buff[7], "untouched");
  for (int bad : {-1, 8, 100, INT_MIN, INT_MAX}) {
    EXPECT_FALSE(DIORS232Write(bad, "vel_vusb_on\n", 12)) << bad;
    EXPECT_EQ(getDIORdBuff(bad), nullptr);
    ClearDIORS232Buff(bad);
    CloseDIOSerialPort(bad);
    EXPECT_FALSE(openDIO_UARTForWell1(bad));
  }
  EXPECT_STREQ(DIORS232Buff[7], "untouched");
  EXPECT_EQ(getDIORdBuff(3), &DIORS232Buff[0][0] + 3 * 25000);
  EXPECT_FALSE(log.has("k != nlen"));
}

TEST_F(BoardLink, ShortWriteAndUnpluggedBoardFail) {
  open_sites({1, 2});
  boards.site(1).stop_reading();
  const std::string big(1024, 'x');
  bool failed = false;
  for (int i = 0; i < 4096 && !failed; ++i) failed = !DIORS232Write(0, big.c_str(), 1024);
  EXPECT_TRUE(failed);
  EXPECT_TRUE(log.has("k != nlen"));
  // The port stays open; once the board drains it, commands go through again.
  const int fd = DIO_fileDescriptor[0];
  boards.site(1).resume_reading();
  for (int i = 0; i < 200 && failed; ++i) {
    brakwell::platform::sleep_seconds(0.01);
    failed = !DIORS232Write(0, "vel_ntc_on\n", 11);
  }
  EXPECT_FALSE(failed);
  EXPECT_EQ(DIO_fileDescriptor[0], fd);

  boards.site(2).unplug();
  log.clear();
  EXPECT_FALSE(DIORS232Write(1, "vel_vusb_on\n", 12));
  EXPECT_EQ(log.syslog(), std::vector<std::string>{"k != nlen"});
}

TEST(StatusReply, Parse) {
  const struct {
    const char* text;
    int status;
  } cases[] = {
      {"vel_fixture_status=101011 l_sw\n", 43},
      {"noise=101011 l_sw", 43},
      {"=111111111 l_sw", 63},  // nine digits: low six bits
      {"=1010111l_sw", 43},     // the digit before the marker is dropped
      {"=101011 l_sw=000000 l_sw", 43},
      {"= 10 l_sw", 2},       // leading blank skipped
      {"=xx l_sw", 0},        // no digits reads as 0
      {"=101011", -1},        // no marker
      {"101011 l_sw", -1},    // no "="
      {"l_sw=101011 x", -1},  // marker before "="
      {"=l_sw", -1},          // marker right after "="
      {"=1l_sw", -1},         // one character between: no digits left
      {"", -1},
  };
  for (const auto& c : cases)
    EXPECT_EQ(brakwell::link::parse_status_reply(c.text), c.status) << c.text;
}

TEST_F(BoardLink, StatusQueryReadsTheReplyDuringItsWait) {
  open_sites({1, 5});
  boards.site(1).script_status({"vel_fixture_status=101011 l_sw\n"});
  double start = monotonic_seconds();
  EXPECT_EQ(queryFixtureStatusForWell1(0), 43);
  EXPECT_GE(monotonic_seconds() - start, 0.3);
  EXPECT_LT(monotonic_seconds() - start, 0.45);
  EXPECT_EQ(log.syslog(),
            (std::vector<std::string>{"VELMORA: queryFixtureStatusForWell1, query fixture 1 with "
                                      "vel_fixture_status\n",
                                      "VELMORA: queryFixtureStatusForWell1 UUT:1, result:43"}));
  EXPECT_EQ(boards.site(1).received(), "vel_fixture_status\n");

  // A reply split across reads, and one that arrives only after the wait.
  auto& board5 = boards.site(5);
  board5.set_responder([&](const sim::ReceivedLine&) {
    std::thread([&board5] {
      board5.reply("vel_fixture_status=10");
      brakwell::platform::sleep_seconds(0.05);
      board5.reply("0100 l_sw\n");
    }).detach();
    return std::nullopt;
  });
  log.clear();
  EXPECT_EQ(queryFixtureStatusForWell2(4), 36);
  EXPECT_EQ(log.syslog(),
            std::vector<std::string>{"VELMORA: queryFixtureStatusForWell2 UUT:5, result:36"});
  board5.set_responder([&](const sim::ReceivedLine&) {
    std::thread([&board5] {
      brakwell::platform::sleep_seconds(0.4);
      board5.reply("vel_fixture_status=000000 l_sw\n");
    }).detach();
    return std::nullopt;
  });
  EXPECT_EQ(queryFixtureStatusForWell2(4), -1);
  brakwell::platform::sleep_seconds(0.2);  // the late reply is in the queue now
  board5.set_responder(nullptr);
  EXPECT_EQ(queryFixtureStatusForWell2(4), -1);  // and is not taken for the next answer
}

TEST_F(BoardLink, StatusQueryWithoutAnswer) {
  open_sites({1});
  boards.site(1).script_status({std::string(30000, '1')});  // oversized, never terminated
  EXPECT_EQ(queryFixtureStatusForWell1(0), -1);
  EXPECT_EQ(strnlen(DIORS232Buff[0], 25000), 24999u);
  // A status among the first 24,999 bytes counts, one past them does not, and nothing spills
  // into the next UUT's area.
  std::strcpy(DIORS232Buff[1], "neighbour");
  boards.site(1).script_status({brakwell::station::status_reply(40) + std::string(30000, 'x')});
  EXPECT_EQ(queryFixtureStatusForWell1(0), 40);
  boards.site(1).script_status({std::string(30000, 'x') + brakwell::station::status_reply(40)});
  EXPECT_EQ(queryFixtureStatusForWell1(0), -1);
  EXPECT_STREQ(DIORS232Buff[1], "neighbour");
  boards.site(1).set_responder(nullptr);
  EXPECT_EQ(queryFixtureStatusForWell1(0), -1);  // silence
  const double start = monotonic_seconds();
  EXPECT_EQ(queryFixtureStatusForWell1(3), -1);  // closed port: at once
  EXPECT_EQ(queryFixtureStatusForWell2(-1), -1);
  EXPECT_LT(monotonic_seconds() - start, 0.05);
  boards.site(1).unplug();
  EXPECT_EQ(queryFixtureStatusForWell1(0), -1);
}

TEST_F(BoardLink, RunLedGoesToTheFirstSiteThatTakesIt) {
  open_sites({1, 2, 3, 4, 6, 7, 8});
  boards.site(1).unplug();
  const double start = monotonic_seconds();
  EXPECT_TRUE(turnOnRunLed(0));
  EXPECT_GE(monotonic_seconds() - start, 0.02);  // 0.01 s before each of the two tries
  EXPECT_EQ(log.syslog(),
            (std::vector<std::string>{"k != nlen", "VELMORA: Failed to turn ON Run Led for UUT:1",
                                      "VELMORA: Successfully turned ON Run Led for UUT:2"}));
  ASSERT_TRUE(boards.site(2).wait_lines(1, 2));
  EXPECT_EQ(boards.site(2).received(), "vel_run_led_on\n");
  EXPECT_EQ(boards.site(3).received(), "");

  log.clear();
  EXPECT_TRUE(turnOffRunLed(2));  // any well but 1 is the first
  EXPECT_TRUE(log.has("VELMORA: Successfully turned OFF Run Led for UUT:2"));

  // Site 5 is not bound: the second well's search ends there with nothing sent.
  log.clear();
  EXPECT_FALSE(turnOnRunLed(1));
  EXPECT_TRUE(log.syslog().empty());
  brakwell::platform::sleep_seconds(0.05);
  EXPECT_EQ(boards.site(6).received(), "");
}

TEST_F(BoardLink, PressMovesGoToEveryBoundSiteOfTheWell) {
  open_sites({6, 8, 1});
  const double start = monotonic_seconds();
  fixtureDown(1);
  EXPECT_GE(monotonic_seconds() - start, 0.02);
  EXPECT_EQ(log.syslog(),
            (std::vector<std::string>{
                "VELMORA: fixtureDown, Successfully sent vel_pne_down\n for WELL:2, UUT:6",
                "VELMORA: fixtureDown, Successfully sent vel_pne_down\n for WELL:2, UUT:8"}));
  ASSERT_TRUE(boards.site(8).wait_lines(1, 2));
  EXPECT_EQ(boards.site(6).received(), "vel_pne_down\n");

  boards.site(6).unplug();
  log.clear();
  fixtureUp(1);
  EXPECT_TRUE(log.has("VELMORA: Failed to send vel_pne_up\n for WELL:2, UUT:6"));
  EXPECT_TRUE(log.has("VELMORA: Successfully sent vel_pne_up\n for WELL:2, UUT:8"));

  for (int well : {0, 2, -1}) {
    log.clear();
    fixtureIn(well);
    fixtureOut(well);
    EXPECT_EQ(log.syslog(),
              (std::vector<std::string>{"VELMORA: Successfully sent vel_pne_in\n for WELL:" +
                                            std::to_string(well + 1) + ", UUT:1",
                                        "VELMORA: Successfully sent vel_pne_out\n for WELL:" +
                                            std::to_string(well + 1) + ", UUT:1"}));
  }
  ASSERT_TRUE(boards.site(1).wait_lines(6, 2));
  std::string thrice;
  for (int i = 0; i < 3; ++i) thrice += "vel_pne_in\nvel_pne_out\n";
  EXPECT_EQ(boards.site(1).received(), thrice);
}

}  // namespace
