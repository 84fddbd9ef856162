// The board link on a started station: port settings, wire bytes, status query, well-wide moves.
#include "station/board_link.h"

#include <fcntl.h>
#include <termios.h>

#include <climits>
#include <cstring>
#include <thread>

#include "support/station_fixture.h"

namespace {

using brakwell::platform::sleep_seconds;
using testing_support::closed;
using testing_support::Lines;
using testing_support::Transcript;
using Link = testing_support::StationFixture;
constexpr const char* kQuery = brakwell::station::kStatusQuery;

// Runs a call with these UUTs' ports unbound: no name in the table.
template <typename Call>
int unbound(std::initializer_list<int> uuts, Call call) {
  std::map<int, char> saved;
  for (int uut : uuts) saved[uut] = std::exchange(DIO_UUTSerialDevice[uut][0], '\0');
  const int result = call();
  for (auto [uut, first] : saved) DIO_UUTSerialDevice[uut][0] = first;
  return result;
}

// Site 5 answers the query with these parts, `before` seconds and 0.05 s apart.
void answer_later(double before, const char* first, const char* second) {
  auto& board = Link::board(5);
  board.set_responder([=, &board](const sim::ReceivedLine&) {
    std::thread([=, &board] {
      sleep_seconds(before);
      board.reply(first);
      sleep_seconds(0.05);
      board.reply(second);
    }).detach();
    return std::nullopt;
  });
}

std::string sent(const char* move, int well, int uut, const char* verb = "Successfully sent") {
  return std::string("VELMORA: ") + verb + " vel_pne_" + move +
         "\n for WELL:" + std::to_string(well) + ", UUT:" + std::to_string(uut);
}

struct LinkRows : Link, ::testing::WithParamInterface<Transcript> {};
TEST_P(LinkRows, Transcript) { run(GetParam()); }

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, LinkRows, ::testing::Values(
  // The run LED goes to the first site of the well that takes it; an unbound site ends the search.
  Transcript{"RunLedOn_past_a_closed_port", [] { return closed({0}, [] { return int(turnOnRunLed(0)); }); },
    1, {{2, "vel_run_led_on\n", 0.02}},
    Lines{"VELMORA: Failed to turn ON Run Led for UUT:1", "VELMORA: Successfully turned ON Run Led for UUT:2"}},
  Transcript{"RunLedOn_unbound", [] { return unbound({4}, [] { return int(turnOnRunLed(1)); }); }, 0, {}, Lines{}},
  // A press move goes to every bound site of the well.
  Transcript{"Down_bound_only", [] { return unbound({4, 6}, [] { return fixtureDown(1), 0; }); }, 0,
    {{6, "vel_pne_down\n", 0.01}, {8, "vel_pne_down\n", 0.01}},
    Lines{sent("down", 2, 6, "fixtureDown, Successfully sent"), sent("down", 2, 8, "fixtureDown, Successfully sent")}},
  Transcript{"Up_past_a_closed_port", [] { return closed({5}, [] { return fixtureUp(1), 0; }); }, 0,
    {{5, "vel_pne_up\n", 0.01}, {7, "vel_pne_up\n", 0.02}, {8, "vel_pne_up\n", 0.01}},
    Lines{sent("up", 2, 5), sent("up", 2, 6, "Failed to send"), sent("up", 2, 7), sent("up", 2, 8)}},
  // A tray move into the first well. (The tray out's bytes and log are the controller suite's.)
  Transcript{"In", [] { return fixtureIn(0), 0; }, 0,
    {{1, "vel_pne_in\n", 0.01}, {2, "vel_pne_in\n", 0.01}, {3, "vel_pne_in\n", 0.01}, {4, "vel_pne_in\n", 0.01}},
    Lines{sent("in", 1, 1), sent("in", 1, 2), sent("in", 1, 3), sent("in", 1, 4)}},
  // The status query reads the reply during its 0.3 s wait, however it comes.
  Transcript{"Query_split_reply", [] {
      answer_later(0, "vel_fixture_status=10", "0100 l_sw\n");
      return queryFixtureStatusForWell2(4); }, 36, {{5, kQuery, 0.3}},
    Lines{"VELMORA: queryFixtureStatusForWell2 UUT:5, result:36"}, -1, 0.45},
  // A reply after the wait is not taken for the next query's answer either.
  Transcript{"Query_late_reply", [] {
      answer_later(0.4, "vel_fixture_status=000000 l_sw\n", "");
      const int late = queryFixtureStatusForWell2(4);
      sleep_seconds(0.2);
      Link::board(5).set_responder(nullptr);
      return late + queryFixtureStatusForWell2(4); }, -2, {{5, kQuery, 0.3}, {5, kQuery, 0.5}}},
  Transcript{"Query_closed_port_at_once", [] {
      return closed({3}, [] { return queryFixtureStatusForWell1(3); }) + queryFixtureStatusForWell2(-1); },
    -2, {}, std::nullopt, 0, 0.05},
  // The board stays gone: this row runs last. A query to it fails at its write, at once.
  Transcript{"Unplugged_board", [] {
      Link::board(2).unplug();
      return DIORS232Write(1, "vel_vusb_on\n", 12) ? 0 : queryFixtureStatusForWell2(1); },
    -1, {}, Lines{"k != nlen", "k != nlen"}, 0, 0.25}),  // at once, not after 0.3 s
  testing_support::row_name);
// clang-format on

TEST_F(Link, OpensRaw115200NonBlockingAndReopenClearsArea) {
  CloseDIOSerialPort(0);
  ASSERT_TRUE(openDIO_UARTForWell1(0));
  const int fd = DIO_fileDescriptor[0];
  EXPECT_EQ(log.syslog(),
            Lines{"VELMORA: openDIO_UARTForWell1, DIO_fileDescriptor[1] = " + std::to_string(fd)});
  EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  termios t{};
  ASSERT_EQ(tcgetattr(fd, &t), 0);
  EXPECT_EQ(cfgetospeed(&t), B115200);
  EXPECT_EQ(t.c_cflag & ~(CBAUD | CBAUDEX), tcflag_t(CS8 | CREAD | CLOCAL));
  EXPECT_EQ(std::pair(t.c_lflag & (ICANON | ECHO | ISIG), t.c_oflag & OPOST), std::pair(0u, 0u));

  std::strcpy(DIORS232Buff[0], "left over");
  EXPECT_TRUE(testing_support::takes(0.1, 1, [] { return openDIO_UARTForWell2(0); }));
  EXPECT_STREQ(DIORS232Buff[0], "");
  // Closing a closed port does nothing, not even clearing its area.
  CloseDIOSerialPort(0);
  std::strcpy(DIORS232Buff[0], "kept");
  CloseDIOSerialPort(0);
  EXPECT_STREQ(DIORS232Buff[0], "kept");
  ASSERT_TRUE(openDIO_UARTForWell1(0));
  expect_working({1});
}

TEST_F(Link, WriteSendsExactBytesAndClearsTheArea) {
  // Every write clears the area first: an empty one succeeds, one to UUT 0 (port closed) fails.
  for (auto [uut, text] :
       {std::pair{2, "vel_vusb_on\n"}, {2, ""}, {2, "vel_vusb_off\n"}, {0, "vel_vusb_on\n"}}) {
    std::strcpy(DIORS232Buff[uut], "stale reply");
    const auto write = [&] { return DIORS232Write(uut, text, int(std::strlen(text))); };
    EXPECT_EQ(closed({uut == 0 ? 0 : 7}, write), uut != 0) << text;
    EXPECT_STREQ(DIORS232Buff[uut], "");
  }
  std::strcpy(DIORS232Buff[7], "untouched");
  for (int bad : {-1, 8, 100, INT_MIN, INT_MAX}) {
    EXPECT_FALSE(DIORS232Write(bad, "vel_vusb_on\n", 12)) << bad;
    EXPECT_EQ(getDIORdBuff(bad), nullptr);
    ClearDIORS232Buff(bad);
    CloseDIOSerialPort(bad);
    EXPECT_FALSE(openDIO_UARTForWell1(bad));
  }
  expect_wire({{3, "vel_vusb_on\nvel_vusb_off\n"}});
  EXPECT_STREQ(DIORS232Buff[7], "untouched");
  EXPECT_EQ(getDIORdBuff(3), &DIORS232Buff[0][0] + 3 * 25000);
  EXPECT_TRUE(log.syslog().empty());
  expect_working();
}

TEST_F(Link, ShortWriteFailsAndThePortStaysOpen) {
  board(1).stop_reading();
  const std::string big(1024, 'x');
  bool failed = false;
  for (int i = 0; i < 4096 && !failed; ++i) failed = !DIORS232Write(0, big.c_str(), 1024);
  EXPECT_TRUE(failed);
  EXPECT_TRUE(log.has("k != nlen"));
  // Once the board drains it, commands go through again.
  const int fd = DIO_fileDescriptor[0];
  board(1).resume_reading();
  for (int i = 0; i < 200 && failed; ++i) {
    sleep_seconds(0.01);
    failed = !DIORS232Write(0, "vel_ntc_on\n", 11);
  }
  EXPECT_FALSE(failed);
  EXPECT_EQ(DIO_fileDescriptor[0], fd);
  EXPECT_TRUE(board(1).wait_lines(1, 10));  // drained up to that line, for the next test
}

// Nine digits keep the low six bits, the digit before the marker is dropped, a leading blank is
// skipped, no digits read 0; no status without "=", the marker and two characters between them.
TEST(StatusReply, Parse) {
  // clang-format off
  const std::pair<const char*, int> cases[] = {
      {"vel_fixture_status=101011 l_sw\n", 43}, {"noise=101011 l_sw", 43}, {"=111111111 l_sw", 63},
      {"=1010111l_sw", 43}, {"=101011 l_sw=000000 l_sw", 43}, {"= 10 l_sw", 2}, {"=xx l_sw", 0},
      {"=101011", -1}, {"101011 l_sw", -1}, {"l_sw=101011 x", -1}, {"=l_sw", -1}, {"=1l_sw", -1},
      {"", -1}};
  // clang-format on
  for (auto [text, status] : cases)
    EXPECT_EQ(brakwell::link::parse_status_reply(text), status) << text;
}

TEST_F(Link, StatusQueryWithoutAnswer) {
  board(1).script_status({std::string(30000, '1')});  // oversized, never terminated
  EXPECT_EQ(queryFixtureStatusForWell1(0), -1);
  EXPECT_EQ(strnlen(DIORS232Buff[0], 25000), 24999u);
  // Only the first 24,999 bytes count, and nothing spills into the next UUT's area.
  std::strcpy(DIORS232Buff[1], "neighbour");
  const std::string reply = brakwell::station::status_reply(40), filler(30000, 'x');
  board(1).script_status({reply + filler});
  EXPECT_EQ(queryFixtureStatusForWell1(0), 40);
  board(1).script_status({filler + reply});
  EXPECT_EQ(queryFixtureStatusForWell1(0), -1);
  EXPECT_STREQ(DIORS232Buff[1], "neighbour");
}

}  // namespace
