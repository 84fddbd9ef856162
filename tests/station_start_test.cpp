// Station start and stop against the virtual fixture's USB bus and boards: the well count from
// the board names, the enumeration order, a second start, the stop sequence and its timing, and
// the version text.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>

#include "Brakwell.h"
#include "boards.h"
#include "platform/sleep.h"
#include "platform/usb_context.h"
#include "support/log_capture.h"
#include "topology.h"
#include "usb.h"

namespace {

using brakwell::platform::monotonic_seconds;
// Arrival times of lines at a board include the reader thread's wake-up delay.
constexpr double kReaderJitter = 0.05;
using Lines = std::vector<std::string>;

// A fixture with the fixture boards of the given sites (USB device and serial port each).
struct Bench {
  explicit Bench(const std::set<int>& sites) {
    for (int site : sites) {
      boardDevices[site] = &bus.add_board(site);  // its tty hangs below it in sysfs
      boards.add_site(site);
    }
  }
  sim::Testbed bed;
  sim::UsbBus bus{bed};
  sim::Boards boards{bed};
  std::map<int, sim::UsbDevice*> boardDevices;
};

class Station : public ::testing::Test {
 protected:
  // A libusb context hears only the testbed that was current when it was made.
  Station() { brakwell::platform::usb::shutdown(); }
  ~Station() override {
    for (int uut = 0; uut < 8; ++uut) CloseDIOSerialPort(uut);
    std::memset(DIO_SerialDevice, 0, sizeof DIO_SerialDevice);
    std::memset(DIO_UUTSerialDevice, 0, sizeof DIO_UUTSerialDevice);
    bench.reset();
    brakwell::platform::usb::shutdown();
  }
  void build(const std::set<int>& sites) {
    bench.reset();
    brakwell::platform::usb::shutdown();
    bench = std::make_unique<Bench>(sites);
  }

  std::unique_ptr<Bench> bench;
  testing_support::LogCapture log;
};

TEST_F(Station, VersionTextNeedsTwentyFiveBytes) {
  char buffer[32];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_FALSE(SOC_LibVersion(buffer, 24));
  EXPECT_EQ(buffer[0], 'x');
  EXPECT_FALSE(SOC_LibVersion(nullptr, 25));
  EXPECT_TRUE(log.syslog().empty());
  EXPECT_TRUE(SOC_LibVersion(buffer, 25));
  EXPECT_STREQ(buffer, "Velmora Lumbrix 4.01");
  EXPECT_EQ(log.syslog(), Lines{"VELMORA: Velmora Lumbrix 4.01"});
}

TEST_F(Station, WellsCountedFromCompleteSetsOfBoardNames) {
  const struct {
    const char* what;
    std::set<int> sites;
    uint32_t wells, slots;
    std::vector<int> wellOfUut;  // SOC_GetWellIndex for UUT 0..7
  } cases[] = {
      {"all eight", {1, 2, 3, 4, 5, 6, 7, 8}, 2, 8, {0, 0, 0, 0, 1, 1, 1, 1}},
      {"first well only", {1, 2, 3, 4}, 1, 4, {0, 0, 0, 0, 0, 0, 0, 0}},
      {"second well only", {5, 6, 7, 8}, 1, 4, {0, 0, 0, 0, 0, 0, 0, 0}},
      {"three of four", {1, 2, 4}, 0, 0, {0, 0, 0, 0, 1, 1, 1, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    build(c.sites);
    log.clear();
    EXPECT_EQ(SOC_Start(), c.wells > 0);
    EXPECT_EQ(SOC_GetWellNumber(), c.wells);
    EXPECT_EQ(SOC_GetSlotNumber(), c.slots);
    EXPECT_EQ(g_WellNumber, c.wells);
    for (int uut = 0; uut < 8; ++uut) EXPECT_EQ(SOC_GetWellIndex(uut), c.wellOfUut[uut]) << uut;
    EXPECT_EQ(log.syslog().at(0), "VELMORA: ***************SOC_Start***************");
    // The serial scan and the opens run whatever the count.
    for (int uut = 0; uut < 8; ++uut) {
      EXPECT_EQ(DIO_fileDescriptor[uut] != -1, c.sites.count(uut + 1) == 1) << uut;
    }
  }
}

TEST_F(Station, OnlyTheLastEnumerationsNamesCount) {
  // Bridges named like the second well's boards are seen by the first enumeration only.
  build({1, 2, 3, 4});
  for (int site = 5; site <= 8; ++site) bench->bus.add_uart(site, sim::board_name(site));
  EXPECT_TRUE(SOC_Start());
  EXPECT_EQ(g_WellNumber, 1u);
  EXPECT_EQ(g_SlotNumber, 4u);
}

TEST_F(Station, QuadBridgeEnumeratedOnlyWhenNoCableKindWasFound) {
  for (const char* single : {"USB UART1", "FT232R"}) {
    SCOPED_TRACE(single);
    build({});
    bench->bus.add_uart(1, single);
    bench->bus.add({"1-6.1", 0x0403, 0x6011, "Quad bridge", "Q1", 0, {}});
    log.clear();
    EXPECT_FALSE(SOC_Start());
    const bool quadSeen = log.has("UART Device added: DeviceName=Quad bridge Serial Number=Q1");
    EXPECT_EQ(quadSeen, std::strcmp(single, "FT232R") == 0);
  }
}

TEST_F(Station, SecondStartRecountsAndDoneStopsEveryPort) {
  build({1, 2, 3, 4, 5, 6, 7, 8});
  double start = monotonic_seconds();
  EXPECT_TRUE(SOC_Start());
  const double took = monotonic_seconds() - start;
  EXPECT_GE(took, 8 * 0.1);
  std::printf("[ measure ] SOC_Start, full fixture: %.3f s (pauses 0.8 s)\n", took);
  EXPECT_EQ(g_SlotNumber, 8u);

  // The host may set the flags; a second start clears them and counts again.
  dioOn1 = dioOn2 = true;
  for (int site = 5; site <= 8; ++site) bench->bus.remove(*bench->boardDevices[site]);
  EXPECT_TRUE(SOC_Start());
  EXPECT_EQ(g_WellNumber, 1u);
  EXPECT_EQ(g_SlotNumber, 4u);
  EXPECT_FALSE(dioOn1);
  EXPECT_FALSE(dioOn2);
  for (int uut = 0; uut < 8; ++uut) EXPECT_NE(DIO_fileDescriptor[uut], -1) << uut;

  log.clear();
  start = monotonic_seconds();
  SOC_Done();
  EXPECT_GE(monotonic_seconds() - start, 8 * 0.2);
  for (int site = 1; site <= 8; ++site) {
    ASSERT_TRUE(bench->boards.site(site).wait_lines(1, 2.0));
    EXPECT_EQ(bench->boards.site(site).lines().back().text, "vel_hi5_disable\n");
    EXPECT_EQ(DIO_fileDescriptor[site - 1], -1);
    EXPECT_EQ(
        log.count("VELMORA: Successfully sent vel_hi5_disable\n for UUT" + std::to_string(site)),
        1u);
  }
  // One disable every 0.2 s, in site order.
  for (int site = 2; site <= 8; ++site) {
    EXPECT_GE(bench->boards.site(site).lines().back().time -
                  bench->boards.site(site - 1).lines().back().time,
              0.2 - kReaderJitter);
  }
  EXPECT_EQ(g_WellNumber, 1u);  // the counts outlive the stop
  EXPECT_EQ(g_SlotNumber, 4u);
}

TEST_F(Station, DoneWithNoPortOpen) {
  const double start = monotonic_seconds();
  SOC_Done();
  EXPECT_GE(monotonic_seconds() - start, 1.6);
  Lines want{"VELMORA: ***************SOC_Done***************"};
  for (int uut = 1; uut <= 8; ++uut) {
    want.push_back("VELMORA: Failed to send vel_hi5_disable\n for UUT" + std::to_string(uut));
  }
  const Lines got = log.syslog();
  ASSERT_GE(got.size(), want.size());
  EXPECT_EQ(Lines(got.begin(), got.begin() + 9), want);
}

}  // namespace
