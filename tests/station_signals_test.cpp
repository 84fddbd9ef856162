// UUT signal commands against eight open boards: the bytes on each site's port, the log lines
// for on, off and a failed write, the well-wide calls, the result LED folding, the Hi5 pauses,
// the battery voltage line, and raw write and read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#include "Brakwell.h"
#include "boards.h"
#include "platform/sleep.h"
#include "support/log_capture.h"
#include "topology.h"

namespace {

using brakwell::platform::monotonic_seconds;
using Lines = std::vector<std::string>;

std::string format(const char* pattern, int a, int b = 0) {
  char text[256];
  std::snprintf(text, sizeof text, pattern, a, b);
  return text;
}

class Signals : public ::testing::Test {
 protected:
  // One set of open boards for the whole program: opening costs 0.1 s a port.
  static void SetUpTestSuite() {
    bed = new sim::Testbed;
    boards = new sim::Boards(*bed);
    for (int site = 1; site <= 8; ++site) {
      boards->add_site(site);
      std::strcpy(DIO_UUTSerialDevice[site - 1], sim::board_link(site).c_str());
      ASSERT_TRUE(openDIO_UARTForWell1(site - 1));
    }
  }
  static void TearDownTestSuite() {
    for (int uut = 0; uut < 8; ++uut) CloseDIOSerialPort(uut);
    std::memset(DIO_UUTSerialDevice, 0, sizeof DIO_UUTSerialDevice);
    delete boards;
    delete bed;
  }
  void SetUp() override { clear(); }

  void clear() {
    for (sim::Board* b : boards->all()) b->clear();
    log.clear();
  }
  // Every line received since the last clear, as "<site>:<text>", in site order.
  static Lines wire() {
    Lines out;
    for (int site = 1; site <= 8; ++site) {
      for (const auto& line : boards->site(site).lines()) {
        out.push_back(std::to_string(site) + ":" + line.text);
      }
    }
    return out;
  }
  static Lines wire_after(size_t n, int site) {
    boards->site(site).wait_lines(n, 2.0);
    return wire();
  }

  static inline sim::Testbed* bed;
  static inline sim::Boards* boards;
  testing_support::LogCapture log;
};

struct Row {
  std::function<bool(int, bool)> call;
  const char* name;
  const char* on;
  const char* off;
  const char* entry;  // nullptr: no entry line
  bool beforeLine;    // the "before ON/OFF" line of SOC_UART
  const char* verb;   // "write", or "wrote"
};

const Row kRows[] = {
    {SOC_NTC_ON, "SOC_NTC_ON", "vel_ntc_on\n", "vel_ntc_off\n",
     "VELMORA: SOC_NTC_ON UUT:%d TurnOn:%d", false, "write"},
    {SOC_USBPower, "SOC_USBPower", "vel_vusb_on\n", "vel_vusb_off\n",
     "VELMORA: SOC_USBPower UUT:%d TurnOn:%d", false, "write"},
    {SOC_BatteryPower, "SOC_BatteryPower", "vel_vbatt_on\n", "vel_vbatt_off\n", nullptr, false,
     "write"},
    {SOC_USBHost, "SOC_USBHost", "vel_dfu_host_conn\n", "vel_dfu_host_disconn\n",
     "VELMORA: SOC_USBHost UUT:%d TurnOn:%d", false, "write"},
    {SOC_ForceDFU, "SOC_ForceDFU", "vel_forcedfu_on\n", "vel_forcedfu_off\n",
     "VELMORA: SOC_ForceDFU UUT:%d TurnOn:%d", false, "write"},
    {SOC_GPIO1_On, "SOC_GPIO1_On", "vel_gpio1_on\n", "vel_gpio1_off\n",
     "VELMORA: SOC_GPIO1_On UUT:%d TurnOn:%d", false, "write"},
    {SOC_GPIO2_On, "SOC_GPIO2_On", "vel_gpio2_on\n", "vel_gpio2_off\n",
     "VELMORA: SOC_GPIO2_On UUT:%d TurnOn:%d", false, "write"},
    {SOC_UART, "SOC_UART", "vel_uart_on\n", "vel_uart_off\n", "VELMORA: SOC_UART UUT:%d TurnOn:%d",
     true, "write"},
    {SOC_ACC_IDENTIFY, "SOC_ACC_IDENTIFY", "vel_accid_on\n", "vel_accid_off\n",
     "VELMORA: SOC_ACC_IDENTIFY UUT:%d TurnOn:%d", false, "write"},
    {SOC_Hi5, "SOC_Hi5", "vel_hi5_enable\n", "vel_hi5_disable\n",
     "VELMORA: SOC_Hi5 UUT:%d TurnOn:%d", false, "write"},
    {SOC_ACC_DETECT, "SOC_ACC_DETECT", "vel_accdet_on\n", "vel_accdet_off\n",
     "VELMORA: SOC_ACC_DETECT UUT:%d TurnOn:%d", false, "write"},
    {SOC_PassLed, "SOC_PassLed", "vel_pass_led_on\n", "vel_pass_led_off\n",
     "VELMORA: SOC_PassLed UUT:%d Pass:%d", false, "write"},
    {SOC_FailLed, "SOC_FailLed", "vel_fail_led_on\n", "vel_fail_led_off\n",
     "VELMORA: SOC_FailLed UUT:%d Pass:%d", false, "write"},
    {SOC_Batt_Supercap, "SOC_Batt_Supercap", "vel_batt_supercap_conn\n",
     "vel_batt_supercap_disconn\n", "VELMORA: SOC_Batt_Supercap UUT:%d OnOff:%d", false, "write"},
    // The calls without a flag send their one line either way.
    {[](int u, bool) { return SOC_PowerOffUUT(u); }, "SOC_PowerOffUUT", "vel_dfu_reset\n",
     "vel_dfu_reset\n", "VELMORA: SOC_PowerOffUUT UUT:%d", false, "write"},
    {[](int u, bool) { return SOC_DFU_Host_Conn(u); }, "SOC_DFU_Host_Conn", "vel_dfu_host_conn\n",
     "vel_dfu_host_conn\n", "VELMORA: SOC_DFU_Host_Conn UUT:%d", false, "write"},
    {[](int u, bool) { return SOC_ResetUUT(u); }, "SOC_ResetUUT", "vel_dfu_reset\n",
     "vel_dfu_reset\n", "VELMORA: SOC_ResetUUT UUT:%d", false, "wrote"},
};

Lines expected_log(const Row& row, int uut, bool on, bool written) {
  Lines out;
  if (row.entry) out.push_back(format(row.entry, uut + 1, on));
  if (row.beforeLine) {
    out.push_back(format(on ? "VELMORA: before ON, SOC_UART UUT:%d TurnOn:%d"
                            : "VELMORA: before OFF, SOC_UART UUT:%d TurnOn:%d",
                         uut + 1, on));
  }
  out.push_back(std::string("VELMORA: ") + row.name + ", UUT:" + std::to_string(uut + 1) + ", " +
                (written ? std::string("Successfully ") + row.verb : "Failed to write") + " " +
                (on ? row.on : row.off));
  return out;
}

TEST_F(Signals, EveryCallOnAndOffAndFailed) {
  int uut = 0;
  for (const Row& row : kRows) {
    for (bool on : {true, false}) {
      SCOPED_TRACE(std::string(row.name) + (on ? " on" : " off"));
      uut = (uut + 3) % 8;  // walk over every port
      clear();
      EXPECT_TRUE(row.call(uut, on));
      EXPECT_EQ(wire_after(1, uut + 1),
                Lines{std::to_string(uut + 1) + ":" + (on ? row.on : row.off)});
      EXPECT_EQ(log.syslog(), expected_log(row, uut, on, true));
      // An index outside the port table is a failed write, the way -1 reaches SOC_Batt_Supercap.
      clear();
      EXPECT_FALSE(row.call(-1, on));
      EXPECT_EQ(log.syslog(), expected_log(row, -1, on, false));
    }
  }
  EXPECT_TRUE(wire().empty());
}

TEST_F(Signals, WellWideResetAndPowerOff) {
  const struct {
    int well;
    int firstSite;
  } cases[] = {{1, 5}, {0, 1}, {2, 1}, {-1, 1}};
  for (auto call :
       {std::make_pair(SOC_Reset, "SOC_Reset"), std::make_pair(SOC_PowerOff, "SOC_PowerOff")}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(call.second) + " " + std::to_string(c.well));
      clear();
      const double start = monotonic_seconds();
      EXPECT_TRUE(call.first(c.well));
      EXPECT_GE(monotonic_seconds() - start, 4 * 0.01);  // 0.01 s before each site
      Lines want,
          wantLog{std::string("VELMORA: ") + call.second + " WELL:" + std::to_string(c.well + 1)};
      for (int site = c.firstSite; site < c.firstSite + 4; ++site) {
        want.push_back(std::to_string(site) + ":vel_dfu_reset\n");
        wantLog.push_back(std::string("VELMORA: ") + call.second + ", UUT:" + std::to_string(site) +
                          ", Successfully wrote vel_dfu_reset\n");
      }
      EXPECT_EQ(wire_after(1, c.firstSite + 3), want);
      EXPECT_EQ(log.syslog(), wantLog);
      // Ascending order on the wire.
      for (int site = c.firstSite + 1; site < c.firstSite + 4; ++site) {
        EXPECT_LE(boards->site(site - 1).lines().at(0).time, boards->site(site).lines().at(0).time);
      }
    }
  }
}

TEST_F(Signals, WellWideCallsSucceedWithEveryPortClosed) {
  // Closed ports: the descriptors are taken away for the call and given back.
  int saved[8];
  std::memcpy(saved, DIO_fileDescriptor, sizeof saved);
  for (int uut = 0; uut < 8; ++uut) DIO_fileDescriptor[uut] = -1;
  EXPECT_TRUE(SOC_Reset(1));
  EXPECT_TRUE(SOC_PowerOff(0));
  std::memcpy(DIO_fileDescriptor, saved, sizeof saved);
  EXPECT_EQ(log.count("VELMORA: SOC_Reset, UUT:8, Failed to write vel_dfu_reset\n"), 1u);
  EXPECT_EQ(log.count("VELMORA: SOC_PowerOff, UUT:1, Failed to write vel_dfu_reset\n"), 1u);
  EXPECT_EQ(log.syslog().size(), 10u);
}

TEST_F(Signals, ResultLedFoldsSecondWellOntoFirstAndNeverSwitchesOff) {
  const struct {
    int uut;
    bool pass;
    int site;
    const char* line;
  } cases[] = {{5, true, 2, "vel_pass_led_on\n"},
               {1, true, 2, "vel_pass_led_on\n"},
               {4, false, 1, "vel_fail_led_on\n"},
               {7, false, 4, "vel_fail_led_on\n"},
               {3, true, 4, "vel_pass_led_on\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.uut);
    clear();
    EXPECT_TRUE(SOC_ResultLed(c.uut, c.pass));
    EXPECT_EQ(wire_after(1, c.site), Lines{std::to_string(c.site) + ":" + c.line});
    EXPECT_EQ(log.syslog(),
              (Lines{format("VELMORA: SOC_ResultLed UUT:%d Pass:%d", c.uut + 1, c.pass),
                     "VELMORA: SOC_ResultLed, UUT:" + std::to_string(c.site) +
                         ", Successfully write " + c.line}));
  }
}

TEST_F(Signals, Hi5EntryDiagPausesRecoveryDoesNot) {
  for (bool diag : {true, false}) {
    const char* name = diag ? "SOC_Hi5EnterDiag" : "SOC_Hi5EnterRecovery";
    const char* mode = diag ? "vel_hi5_enter_diag\n" : "vel_hi5_enter_recovery\n";
    // Recovery has no pause: the quickest of five calls shows it however loaded the machine.
    double quickest = 1e9;
    for (int i = 0; i < (diag ? 1 : 5); ++i) {
      clear();
      const double start = monotonic_seconds();
      EXPECT_TRUE(diag ? SOC_Hi5EnterDiag(6) : SOC_Hi5EnterRecovery(6));
      quickest = std::min(quickest, monotonic_seconds() - start);
      ASSERT_TRUE(boards->site(7).wait_lines(2, 2.0));
    }
    if (diag) {
      EXPECT_GE(quickest, 0.01);
    } else {
      EXPECT_LT(quickest, 0.005);
    }
    EXPECT_EQ(wire(), (Lines{"7:vel_hi5_enable\n", std::string("7:") + mode}));
    const std::string prefix = std::string("VELMORA: ") + name;
    EXPECT_EQ(log.syslog(),
              (Lines{prefix + " UUT:7", prefix + ", UUT:7, Successfully write vel_hi5_enable\n",
                     prefix + ", UUT:7, Successfully write " + mode}));
  }
  // The mode line follows a failed enable line, and alone decides the result.
  clear();
  const int fd = DIO_fileDescriptor[7];
  DIO_fileDescriptor[7] = -1;
  EXPECT_FALSE(SOC_Hi5EnterDiag(7));
  DIO_fileDescriptor[7] = fd;
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: SOC_Hi5EnterDiag UUT:8",
                   "VELMORA: SOC_Hi5EnterDiag, UUT:8, Failed to write vel_hi5_enable\n",
                   "VELMORA: SOC_Hi5EnterDiag, UUT:8, Failed to write vel_hi5_enter_diag\n"}));
}

TEST_F(Signals, BatteryVoltageLineAndItsUnconditionalSuccessMessage) {
  EXPECT_TRUE(SOC_Set_VBatt(0, 4100));
  EXPECT_TRUE(SOC_Set_VBatt(1, -250));
  EXPECT_EQ(wire_after(1, 2), (Lines{"1:vel_set_vbatt_4100\n", "2:vel_set_vbatt_-250\n"}));
  clear();
  const int fd = DIO_fileDescriptor[2];
  DIO_fileDescriptor[2] = -1;  // a closed port
  EXPECT_FALSE(SOC_Set_VBatt(2, 4100));
  DIO_fileDescriptor[2] = fd;
  EXPECT_EQ(log.syslog(),
            Lines{"VELMORA: SOC_Set_VBatt, UUT:3, Successfully write vel_set_vbatt_4100\n"});
}

TEST_F(Signals, RunLedGoesThroughTheWellsFirstSite) {
  EXPECT_TRUE(SOC_RunLed(1, true));
  EXPECT_TRUE(SOC_RunLed(2, false));
  ASSERT_TRUE(boards->site(1).wait_lines(1, 2.0));
  EXPECT_EQ(wire_after(1, 5), (Lines{"1:vel_run_led_off\n", "5:vel_run_led_on\n"}));
  EXPECT_EQ(log.syslog(), (Lines{"VELMORA: SOC_RunLed WELL:2 TurnOn:1",
                                 "VELMORA: Successfully turned ON Run Led for UUT:5",
                                 "VELMORA: SOC_RunLed WELL:3 TurnOn:0",
                                 "VELMORA: Successfully turned OFF Run Led for UUT:1"}));
}

TEST_F(Signals, RawWriteAndRead) {
  EXPECT_TRUE(SOC_Write(3, "raw text, no newline"));
  std::strcpy(SOC_Read(3), "left over");
  // An empty text writes nothing and succeeds, yet the receive area is zeroed.
  EXPECT_TRUE(SOC_Write(3, ""));
  EXPECT_STREQ(SOC_Read(3), "");
  EXPECT_FALSE(SOC_Write(-1, "x"));
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: SOC_Write, UUT:4, Successfully write raw text, no newline",
                   "VELMORA: SOC_Write, UUT:4, Successfully write ",
                   "VELMORA: SOC_Write, UUT:0, Failed to write x"}));
  EXPECT_EQ(SOC_Read(3), &DIORS232Buff[0][0] + 75000);
  EXPECT_EQ(SOC_Read(0), &DIORS232Buff[0][0]);
  EXPECT_EQ(SOC_Read(8), nullptr);
  // A text without a newline makes no line: wait for its bytes.
  for (int i = 0; i < 200 && boards->site(4).received().size() < 20; ++i) {
    boards->site(4).wait_lines(1, 0.01);
  }
  EXPECT_EQ(boards->site(4).received(), "raw text, no newline");
  EXPECT_EQ(wire(), Lines{});
}

// This program's testbed has no /dev/uinput: every chord logs one line and returns.
TEST_F(Signals, KeyChordWithoutUinputLogsOneLine) {
  if (access("/dev/uinput", F_OK) == 0) GTEST_SKIP() << "this machine has a real /dev/uinput";
  SOC_SendCtrlAltZ();
  SOC_SendCtrlAltY();
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: SOC_SendCtrlAltZ, no virtual keyboard: No such file or directory",
                   "VELMORA: SOC_SendCtrlAltY, no virtual keyboard: No such file or directory"}));
}

}  // namespace
