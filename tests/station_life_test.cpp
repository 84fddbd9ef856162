// A station's day: ports kept from programs the host starts, stalled boards, forged log lines.
#include <fcntl.h>
#include <unistd.h>

#include "support/station_fixture.h"
#include "topology.h"

namespace {

using brakwell::platform::monotonic_seconds;

using StationLife = testing_support::StationFixture;

// No port reaches a program the host starts.
TEST_F(StationLife, PortsCloseOnExec) {
  for (int uut = 0; uut < 8; ++uut) {
    EXPECT_TRUE(fcntl(DIO_fileDescriptor[uut], F_GETFD) & FD_CLOEXEC) << "UUT index " << uut;
  }
}

TEST_F(StationLife, DeviceStringsCannotForgeLogLines) {
  const std::string name = "CDC\nVELMORA: forged\x1b[2J\x7F";
  bus->add({sim::site_port_path(1, 4), 0x1234, 0x5678, name, "SN\r1", 0, {}});
  ASSERT_EQ(enumUsbForLocationID(0x1234, 0x5678), 0);
  EXPECT_EQ(log.syslog(), std::vector<std::string>{"UART Device added: DeviceName=CDC\\x0aVELMORA: "
                                                   "forged\\x1b[2J\\x7f Serial Number=SN\\x0d1"});
  EXPECT_EQ(std::string(getUSBDeviceName()), name + ",");  // the host gets it as read
}

// Runs last: it stops the station and starts it again. (A pseudo-terminal has no closing wait to
// show; on a CDC-ACM port a full queue would hold each close for up to 30 s.)
TEST_F(StationLife, StopWithStalledBoardsTakesOnlyItsPauses) {
  for (auto* b : boards->all()) b->stop_reading();
  const std::string chunk(1000, 'x');
  for (int uut = 0; uut < 8; ++uut) {
    while (DIORS232Write(uut, chunk.c_str(), 1000)) continue;  // until its queue is full
  }
  const double start = monotonic_seconds();
  SOC_Done();
  const double elapsed = monotonic_seconds() - start;
  EXPECT_GE(elapsed, 8 * 0.2);
  EXPECT_LT(elapsed, 8 * 0.2 + 0.1);
  for (auto* b : boards->all()) b->resume_reading();
  ASSERT_TRUE(SOC_Start());
  expect_working();
}

}  // namespace
