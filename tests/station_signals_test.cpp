// UUT signal commands against eight open boards: the bytes on each site's port, the log lines
// for on, off and a failed write, the well-wide calls, the result LED folding, the Hi5 pauses,
// the battery voltage line, and raw write and read.
#include <Brakwell.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "boards.h"
#include "platform/sleep.h"
#include "support/log_capture.h"
#include "topology.h"

namespace {

using brakwell::platform::monotonic_seconds;
using Lines = std::vector<std::string>;

template <typename... Args>
std::string format(const char* pattern, Args... args) {
  char text[256];
  std::snprintf(text, sizeof text, pattern, args...);
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
  // Every line received since the last clear, as "<site>:<text>", in site order, once the
  // given site has n lines.
  static Lines wire(size_t n = 0, int site = 1) {
    boards->site(site).wait_lines(n, 2.0);
    Lines out;
    for (int s = 1; s <= 8; ++s) {
      for (const auto& line : boards->site(s).lines())
        out.push_back(std::to_string(s) + ":" + line.text);
    }
    return out;
  }
  // Runs a call with a site's port closed.
  template <typename Call>
  static auto closed(int uut, Call call) {
    const int fd = DIO_fileDescriptor[uut];
    DIO_fileDescriptor[uut] = -1;
    const auto result = call();
    DIO_fileDescriptor[uut] = fd;
    return result;
  }

  static inline sim::Testbed* bed;
  static inline sim::Boards* boards;
  testing_support::LogCapture log;
};

// One row per signal call: its commands (without "vel_" and "\n"), the word of its entry line
// ("" for none, "-" for an entry line with the UUT only), and its departures.
struct Row {
  std::function<bool(int, bool)> call;
  const char* name;
  const char* on;
  const char* off;
  const char* entry;
  const char* verb = "write";
};
#define FLAG(f) [](int u, bool on) { return f(u, on); }, #f
#define NOFLAG(f) [](int u, bool) { return f(u); }, #f

const Row kRows[] = {
    {FLAG(SOC_NTC_ON), "ntc_on", "ntc_off", "TurnOn"},
    {FLAG(SOC_USBPower), "vusb_on", "vusb_off", "TurnOn"},
    {FLAG(SOC_BatteryPower), "vbatt_on", "vbatt_off", ""},
    {FLAG(SOC_USBHost), "dfu_host_conn", "dfu_host_disconn", "TurnOn"},
    {FLAG(SOC_ForceDFU), "forcedfu_on", "forcedfu_off", "TurnOn"},
    {FLAG(SOC_GPIO1_On), "gpio1_on", "gpio1_off", "TurnOn"},
    {FLAG(SOC_GPIO2_On), "gpio2_on", "gpio2_off", "TurnOn"},
    {FLAG(SOC_UART), "uart_on", "uart_off", "TurnOn"},  // and its "before ON/OFF" line
    {FLAG(SOC_ACC_IDENTIFY), "accid_on", "accid_off", "TurnOn"},
    {FLAG(SOC_Hi5), "hi5_enable", "hi5_disable", "TurnOn"},
    {FLAG(SOC_ACC_DETECT), "accdet_on", "accdet_off", "TurnOn"},
    {FLAG(SOC_PassLed), "pass_led_on", "pass_led_off", "Pass"},
    {FLAG(SOC_FailLed), "fail_led_on", "fail_led_off", "Pass"},
    {FLAG(SOC_Batt_Supercap), "batt_supercap_conn", "batt_supercap_disconn", "OnOff"},
    // The calls without a flag send their one line either way.
    {NOFLAG(SOC_PowerOffUUT), "dfu_reset", "dfu_reset", "-"},
    {NOFLAG(SOC_DFU_Host_Conn), "dfu_host_conn", "dfu_host_conn", "-"},
    {NOFLAG(SOC_ResetUUT), "dfu_reset", "dfu_reset", "-", "wrote"},
};

Lines expected_log(const Row& row, int uut, bool on, bool written) {
  const std::string name = row.name, at = " UUT:" + std::to_string(uut + 1);
  const std::string flag = std::string(row.entry) + ":" + std::to_string(on);
  Lines out;
  if (*row.entry) out.push_back("VELMORA: " + name + at + (*row.entry == '-' ? "" : " " + flag));
  if (name == "SOC_UART")
    out.push_back(std::string("VELMORA: before ") + (on ? "ON" : "OFF") + ", " + name + at + " " +
                  flag);
  out.push_back("VELMORA: " + name + "," + at + ", " +
                (written ? std::string("Successfully ") + row.verb : "Failed to write") + " vel_" +
                (on ? row.on : row.off) + "\n");
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
      EXPECT_EQ(wire(1, uut + 1),
                Lines{format("%d:vel_", uut + 1) + (on ? row.on : row.off) + "\n"});
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
  for (auto [call, name] : {std::pair<bool (*)(int), const char*>{SOC_Reset, "SOC_Reset"},
                            {SOC_PowerOff, "SOC_PowerOff"}}) {
    for (auto [well, first] : {std::pair{1, 5}, {0, 1}, {2, 1}, {-1, 1}}) {
      SCOPED_TRACE(format("%s %d", name, well));
      clear();
      const double start = monotonic_seconds();
      EXPECT_TRUE(call(well));
      EXPECT_GE(monotonic_seconds() - start, 4 * 0.01);  // 0.01 s before each site
      Lines want, wantLog{format("VELMORA: %s WELL:%d", name, well + 1)};
      for (int site = first; site < first + 4; ++site) {
        want.push_back(format("%d:vel_dfu_reset\n", site));
        wantLog.push_back(
            format("VELMORA: %s, UUT:%d, Successfully wrote vel_dfu_reset\n", name, site));
      }
      EXPECT_EQ(wire(1, first + 3), want);
      EXPECT_EQ(log.syslog(), wantLog);
      for (int site = first + 1; site < first + 4; ++site) {  // ascending order on the wire
        EXPECT_LE(boards->site(site - 1).lines().at(0).time, boards->site(site).lines().at(0).time);
      }
    }
  }
  // With every port closed both still succeed, with one failure line a site.
  clear();
  int saved[8];
  std::memcpy(saved, DIO_fileDescriptor, sizeof saved);
  std::fill(DIO_fileDescriptor, DIO_fileDescriptor + 8, -1);
  EXPECT_TRUE(SOC_Reset(1));
  EXPECT_TRUE(SOC_PowerOff(0));
  std::memcpy(DIO_fileDescriptor, saved, sizeof saved);
  EXPECT_EQ(log.count("VELMORA: SOC_Reset, UUT:8, Failed to write vel_dfu_reset\n"), 1u);
  EXPECT_EQ(log.count("VELMORA: SOC_PowerOff, UUT:1, Failed to write vel_dfu_reset\n"), 1u);
  EXPECT_EQ(log.syslog().size(), 10u);
}

TEST_F(Signals, ResultLedFoldsSecondWellOntoFirstAndNeverSwitchesOff) {
  for (auto [uut, pass, site] :
       {std::tuple{5, true, 2}, {1, true, 2}, {4, false, 1}, {7, false, 4}, {3, true, 4}}) {
    SCOPED_TRACE(uut);
    clear();
    const char* line = pass ? "vel_pass_led_on\n" : "vel_fail_led_on\n";
    EXPECT_TRUE(SOC_ResultLed(uut, pass));
    EXPECT_EQ(wire(1, site), Lines{format("%d:%s", site, line)});
    EXPECT_EQ(log.syslog(),
              (Lines{format("VELMORA: SOC_ResultLed UUT:%d Pass:%d", uut + 1, pass),
                     format("VELMORA: SOC_ResultLed, UUT:%d, Successfully write %s", site, line)}));
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
    EXPECT_TRUE(diag ? quickest >= 0.01 : quickest < 0.005) << quickest;
    EXPECT_EQ(wire(), (Lines{"7:vel_hi5_enable\n", format("7:%s", mode)}));
    EXPECT_EQ(log.syslog(),
              (Lines{format("VELMORA: %s UUT:7", name),
                     format("VELMORA: %s, UUT:7, Successfully write vel_hi5_enable\n", name),
                     format("VELMORA: %s, UUT:7, Successfully write %s", name, mode)}));
  }
  // The mode line follows a failed enable line, and alone decides the result.
  clear();
  EXPECT_FALSE(closed(7, [] { return SOC_Hi5EnterDiag(7); }));
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: SOC_Hi5EnterDiag UUT:8",
                   "VELMORA: SOC_Hi5EnterDiag, UUT:8, Failed to write vel_hi5_enable\n",
                   "VELMORA: SOC_Hi5EnterDiag, UUT:8, Failed to write vel_hi5_enter_diag\n"}));
}

TEST_F(Signals, BatteryVoltageLineAndItsUnconditionalSuccessMessage) {
  EXPECT_TRUE(SOC_Set_VBatt(0, 4100));
  EXPECT_TRUE(SOC_Set_VBatt(1, -250));
  EXPECT_EQ(wire(1, 2), (Lines{"1:vel_set_vbatt_4100\n", "2:vel_set_vbatt_-250\n"}));
  clear();
  EXPECT_FALSE(closed(2, [] { return SOC_Set_VBatt(2, 4100); }));
  EXPECT_EQ(log.syslog(),
            Lines{"VELMORA: SOC_Set_VBatt, UUT:3, Successfully write vel_set_vbatt_4100\n"});
}

TEST_F(Signals, RunLedGoesThroughTheWellsFirstSite) {
  EXPECT_TRUE(SOC_RunLed(1, true));
  EXPECT_TRUE(SOC_RunLed(2, false));
  ASSERT_TRUE(boards->site(1).wait_lines(1, 2.0));
  EXPECT_EQ(wire(1, 5), (Lines{"1:vel_run_led_off\n", "5:vel_run_led_on\n"}));
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
