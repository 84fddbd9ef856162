// A whole station for one test program: eight fixture boards on the bus, both wells found, every
// port open, and a handle for each well. A station start is slow, so the suite keeps one for all
// its tests; each test starts with boards that have received nothing and answer nothing.
#pragma once

#include <Brakwell.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <string>

#include "boards.h"
#include "common/station.h"
#include "fixture/controller.h"
#include "platform/sleep.h"
#include "support/log_capture.h"
#include "usb.h"

namespace testing_support {

using brakwell::station::status_reply;

class StationFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
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
    for (auto* b : boards->all()) {
      b->set_responder(nullptr);
      b->clear();
    }
  }

  static sim::Board& board(int site) { return boards->site(site); }
  // Each site received exactly its text here, the others nothing: waits for the expected lines,
  // then a moment for stray ones to show.
  static void expect_wire(const std::map<int, std::string>& expected) {
    for (const auto& [site, text] : expected) {
      board(site).wait_lines(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')), 2);
    }
    brakwell::platform::sleep_seconds(0.05);
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

  static inline sim::Testbed* bed;
  static inline sim::UsbBus* bus;
  static inline sim::Boards* boards;
  static inline FixtureController* wells[2];
  LogCapture log;
};

}  // namespace testing_support
