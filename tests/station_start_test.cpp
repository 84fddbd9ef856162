// Station start and stop: the well count from the board names, a second start, the stop's timing.

#include <cstring>
#include <set>

#include "support/station_fixture.h"
#include "topology.h"

namespace {

using testing_support::kReaderJitter;
using testing_support::Lines;

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
 public:
  ~Station() override {
    for (int uut = 0; uut < 8; ++uut) CloseDIOSerialPort(uut);
    std::memset(DIO_SerialDevice, 0, sizeof DIO_SerialDevice);
    std::memset(DIO_UUTSerialDevice, 0, sizeof DIO_UUTSerialDevice);
    bench.reset();
    brakwell::platform::usb::shutdown();
  }
  // A libusb context hears only the testbed that was current when it was made.
  void build(const std::set<int>& sites) {
    bench.reset();
    brakwell::platform::usb::shutdown();
    bench = std::make_unique<Bench>(sites);
  }
  // The counts, the well of every UUT (the first, when there is one) and the ports opened.
  void expect_station(uint32_t wells, const std::set<int>& openSites) {
    EXPECT_EQ(SOC_GetWellNumber(), wells);
    EXPECT_EQ(g_WellNumber, wells);
    EXPECT_EQ(SOC_GetSlotNumber(), 4 * wells);
    for (int uut = 0; uut < 8; ++uut) {
      EXPECT_EQ(SOC_GetWellIndex(uut), wells != 1 && uut >= 4) << uut;
      EXPECT_EQ(DIO_fileDescriptor[uut] != -1, openSites.count(uut + 1) == 1) << uut;
    }
  }

  std::unique_ptr<Bench> bench;
  testing_support::LogCapture log;
};

// The quad bridge is enumerated only when no cable kind was found.
TEST_F(Station, WellsCountedFromCompleteSetsOfBoardNames) {
  const struct {
    const char* what;
    std::set<int> sites;
    bool earlierNames;  // bridges named like sites 5-8, seen by the first enumeration only
    uint32_t wells;
    const char* single = nullptr;  // a bridge of this name beside a quad bridge
  } cases[] = {
      {"first well only", {1, 2, 3, 4}, false, 1},
      {"second well only", {5, 6, 7, 8}, false, 1},
      {"three of four", {1, 2, 4}, false, 0},
      {"names from the last enumeration only", {1, 2, 3, 4}, true, 1},
      {"a cable kind", {}, false, 0, "USB UART1"},
      {"no cable kind", {}, false, 0, "FT232R"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    build(c.sites);
    for (int site = 5; c.earlierNames && site <= 8; ++site) {
      bench->bus.add_uart(site, sim::board_name(site));
    }
    if (c.single) {
      bench->bus.add_uart(1, c.single);
      bench->bus.add({"1-6.1", 0x0403, 0x6011, "Quad bridge", "Q1", 0, {}});
    }
    log.clear();
    EXPECT_EQ(SOC_Start(), c.wells > 0);
    EXPECT_EQ(log.syslog().at(0), "VELMORA: ***************SOC_Start***************");
    EXPECT_EQ(log.has("UART Device added: DeviceName=Quad bridge Serial Number=Q1"),
              c.single && std::strcmp(c.single, "FT232R") == 0);
    // The serial scan and the opens run whatever the count.
    expect_station(c.wells, c.sites);
  }
}

TEST_F(Station, SecondStartRecountsAndDoneStopsEveryPort) {
  const std::set<int> all = {1, 2, 3, 4, 5, 6, 7, 8};
  build(all);
  EXPECT_TRUE(testing_support::takes(8 * 0.1, 30, [] { return SOC_Start(); }));
  expect_station(2, all);

  // The host may set the flags; a second start clears them and counts again.
  dioOn1 = dioOn2 = true;
  for (int site = 5; site <= 8; ++site) bench->bus.remove(*bench->boardDevices[site]);
  EXPECT_TRUE(SOC_Start());
  EXPECT_FALSE(dioOn1 || dioOn2);
  expect_station(1, all);

  // Each stop sends one disable a site every 0.2 s, in site order, and closes every port; the
  // second finds no port open: every disable fails and the pauses stay.
  for (const std::string sent : {"Successfully sent", "Failed to send"}) {
    log.clear();
    testing_support::takes(8 * 0.2, 30, [] { return SOC_Done(), 0; });
    Lines want{"VELMORA: ***************SOC_Done***************"};
    for (int uut = 1; uut <= 8; ++uut) {
      want.push_back("VELMORA: " + sent + " vel_hi5_disable\n for UUT" + std::to_string(uut));
      EXPECT_EQ(DIO_fileDescriptor[uut - 1], -1);
    }
    Lines got = log.syslog();
    got.resize(std::min(got.size(), want.size()));
    EXPECT_EQ(got, want);
  }
  for (int site = 1; site <= 8; ++site) {
    const auto lines = bench->boards.site(site).lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().text, "vel_hi5_disable\n");
    if (site > 1) {
      EXPECT_GE(lines.back().time - bench->boards.site(site - 1).lines().back().time,
                0.2 - kReaderJitter);
    }
  }
  EXPECT_EQ(std::pair(g_WellNumber, g_SlotNumber), std::pair(1u, 4u));  // they outlive the stop
}

// A fresh bench with serial ports of these dial-in links, listed by libudev in this order.
int scan(Station& s, std::initializer_list<std::string> links) {
  s.build({});
  std::memset(DIO_SerialDevice, 0, sizeof DIO_SerialDevice);
  int n = 0;
  for (const auto& link : links) {
    const std::string tty = "ttyACM" + std::to_string(10 + n++);
    s.bench->boards.add(
        {0, "/dev/" + tty, link,
         std::string(sim::kPciRoot) + "/usb1/1-9/1-9:1." + std::to_string(n) + "/tty/" + tty});
  }
  s.log.clear();
  return listSerialPorts();
}

TEST_F(Station, SerialScanBindsBySiteNumberAfterTheFirstUnderscore) {
  // A dial-in path of 41 characters ends the scan.
  const std::string forty = "/dev/tty.usbmodemVEL_01_A" + std::string(15, 'x');
  const std::string fortyOne = "/dev/tty.usbmodemVEL_02_A" + std::string(16, 'y');
  EXPECT_EQ(scan(*this, {forty, fortyOne, "/dev/tty.usbmodemVEL_03_A1"}), -1);
  EXPECT_STREQ(DIO_SerialDevice[0], forty.c_str());
  EXPECT_STREQ(DIO_SerialDevice[1], "");
  EXPECT_EQ(log.stdout_lines(), Lines{"dialInDevice [" + fortyOne + "] too long\n"});

  EXPECT_EQ(scan(*this, {}), 1);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(portConnected[i], 0);
  EXPECT_EQ(
      scan(*this, {"/dev/tty.usbmodemVEL_03_A1", "/dev/tty.usbmodemNOUNDERSCORE1",
                   "/dev/tty.usbmodemX_09_1", "/dev/tty.usbmodemX_00_1", "/dev/tty.usbmodemX_ab_1",
                   "/dev/tty.usbmodemVEL_05_A1", "/dev/tty.usbmodemOTHER_05_B1",
                   "/dev/tty.usbmodemX_7", "/dev/tty.usbmodemX_1_2_3", "/dev/tty.serialonly_02"}),
      1);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(portConnected[i], 1);  // empty fragments match all
  matchDIO_UART();
  // Eight candidates fill the table; the ninth usbmodem port has no slot; a later one wins.
  EXPECT_STREQ(DIO_SerialDevice[7], "/dev/tty.usbmodemX_7");
  EXPECT_STREQ(DIO_UUTSerialDevice[2], "/dev/tty.usbmodemVEL_03_A1");
  EXPECT_STREQ(DIO_UUTSerialDevice[4], "/dev/tty.usbmodemOTHER_05_B1");
  for (int uut : {0, 1, 3, 5, 6, 7}) EXPECT_STREQ(DIO_UUTSerialDevice[uut], "") << uut;
  EXPECT_TRUE(log.has("DIO_SerialDevice[0]:/dev/tty.usbmodemVEL_03_A1"));
  EXPECT_TRUE(log.has("device [ttyACM10]  dialin [/dev/tty.usbmodemVEL_03_A1]\n"));
  EXPECT_EQ(log.timed("Warning").size(), 6u);  // and none for the two bound ports
  for (int uut = 1; uut <= 8; ++uut) {
    const bool bound = uut == 3 || uut == 5;
    const std::string warning = "Warning, UUT" + std::to_string(uut) + ", cannot open DIO";
    EXPECT_EQ(log.has(warning + " serial port device "), !bound) << uut;
    EXPECT_EQ(DIO_fileDescriptor[uut - 1] != -1, bound) << uut;
  }
}

}  // namespace
