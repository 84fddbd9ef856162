// A whole station for one test program (a start is slow): eight boards on the bus, both wells
// found, every port open, a handle per well. Each test starts with boards that have received
// nothing and answer nothing. Its cases are Transcript rows, run by a TEST_P with named rows.
#pragma once

#include <Brakwell.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "boards.h"
#include "common/station.h"
#include "fixture/controller.h"
#include "platform/platform.h"
#include "support/log_capture.h"
#include "usb.h"

namespace testing_support {

using brakwell::station::status_reply;
using Lines = std::vector<std::string>;
constexpr double kReaderJitter = 0.05;  // board arrival times include the reader's wake-up

// Runs `call` and checks it took `least` to `most` seconds (`most` allows for late wake-ups).
template <typename Call>
auto takes(double least, double most, Call call) {
  const double start = brakwell::platform::monotonic_seconds();
  auto result = call();
  const double took = brakwell::platform::monotonic_seconds() - start;
  EXPECT_GE(took, least);
  EXPECT_LE(took, most);
  return result;
}

// Runs a call with these UUTs' ports closed.
template <typename Call>
auto closed(std::initializer_list<int> uuts, Call call) {
  std::map<int, int> saved;
  for (int uut : uuts) saved[uut] = std::exchange(DIO_fileDescriptor[uut], -1);
  auto result = call();
  for (auto [uut, fd] : saved) DIO_fileDescriptor[uut] = fd;
  return result;
}

// A line a site's board must receive, and the pause the call makes before it.
struct Sent {
  int site;
  std::string text;
  double pause = 0;
};

struct Transcript {
  std::string name;  // letters, digits and '_' only: gtest's row name
  std::function<int()> call;
  int result;
  std::vector<Sent> wire = {};              // in order
  std::optional<Lines> log = std::nullopt;  // every system-log line; unset: another suite owns them
  double least = -1;                        // default: the sum of the wire's pauses
  double most = 3;
};

inline void PrintTo(const Transcript& t, std::ostream* out) { *out << t.name; }

inline std::string row_name(const ::testing::TestParamInfo<Transcript>& info) {
  return info.param.name;
}

class StationFixture : public ::testing::Test {
 public:
  // One station for every suite: a libusb context hears only the testbed current at its making.
  static void SetUpTestSuite() {
    if (bed) return;
    bed = new sim::Testbed;
    bus = new sim::UsbBus(*bed);
    boards = new sim::Boards(*bed);
    for (int site = 1; site <= 8; ++site) bus->add_board(site);
    boards->add_sites(1, 8);
    wells[0] = create_fixture_controller(0);
    // The second well's handle differs only in its index; one station start serves both.
    wells[1] = static_cast<FixtureController*>(std::malloc(sizeof(FixtureController)));
    *wells[1] = *wells[0];
    wells[1]->index = 1;
    EXPECT_EQ(g_WellNumber, 2u);
  }
  void SetUp() override {
    g_WellNumber = 2;
    for (auto* b : boards->all()) {
      b->set_responder(nullptr);
      b->clear();
    }
    log.clear();
  }

  static sim::Board& board(int site) { return boards->site(site); }
  // Each site received exactly its text, the others nothing (stray lines: `settle` s to show).
  static void expect_wire(const std::map<int, std::string>& expected, double settle = 0.05) {
    for (const auto& [site, text] : expected) {
      board(site).wait_lines(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')), 2);
    }
    brakwell::platform::sleep_seconds(settle);
    for (int site = 1; site <= 8; ++site) {
      const auto it = expected.find(site);
      EXPECT_EQ(board(site).received(), it == expected.end() ? "" : it->second) << "site " << site;
    }
  }
  // These sites still take commands.
  static void expect_working(std::initializer_list<int> sites = {1, 2, 3, 4, 5, 6, 7, 8}) {
    for (int site : sites) {
      board(site).clear();
      EXPECT_TRUE(SOC_GPIO1_On(site - 1, true)) << site;
      EXPECT_TRUE(board(site).wait_lines(1, 2)) << site;
    }
  }

  // One transcript row: the result, the time taken, the bytes on every site and the log.
  void run(const Transcript& t) {
    double pauses = 0;
    std::map<int, std::string> wire;
    for (const Sent& s : t.wire) {
      pauses += s.pause;
      wire[s.site] += s.text;
    }
    EXPECT_EQ(takes(t.least < 0 ? pauses : t.least, t.most, t.call), t.result);
    expect_wire(wire, 0);
    if (t.log) {
      EXPECT_EQ(log.syslog(), *t.log);
    }
  }

  static inline sim::Testbed* bed;
  static inline sim::UsbBus* bus;
  static inline sim::Boards* boards;
  static inline FixtureController* wells[2];
  LogCapture log;
};

}  // namespace testing_support
