// UUT signal commands as transcripts (bytes on each site's port, full log): every signal call on,
// off and failed, the well-wide reset, the result LED, the Hi5 entries, raw write and read.
#include <unistd.h>

#include <climits>
#include <cstring>

#include "support/station_fixture.h"

namespace {

using testing_support::closed;
using testing_support::Lines;
using testing_support::Transcript;

template <typename... Args>
std::string format(const char* pattern, Args... args) {
  char text[256];
  std::snprintf(text, sizeof text, pattern, args...);
  return text;
}

struct Signals : testing_support::StationFixture, ::testing::WithParamInterface<Transcript> {};

TEST_P(Signals, Transcript) { run(GetParam()); }

// One per signal call: its commands (without "vel_" and "\n"), the word of its entry line
// ("" for none, "-" for an entry line with the UUT only), and its success verb.
struct Call {
  bool (*call)(int, bool);
  const char* name;
  const char* on;
  const char* off;
  const char* entry;
  const char* verb = "write";
};
#define FLAG(f) [](int u, bool on) { return f(u, on); }, #f
#define NOFLAG(f) [](int u, bool) { return f(u); }, #f

const Call kCalls[] = {
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

// Messages number a UUT from 1, wrapping at 32 bits.
std::string plus_one(int uut) { return std::to_string(int32_t(uint32_t(uut) + 1u)); }

Lines call_log(const Call& c, int uut, bool on, bool written) {
  const std::string name = c.name, at = " UUT:" + plus_one(uut);
  const std::string flag = std::string(c.entry) + ":" + std::to_string(on);
  Lines out;
  if (*c.entry) out.push_back("VELMORA: " + name + at + (*c.entry == '-' ? "" : " " + flag));
  if (name == "SOC_UART")
    out.push_back(format("VELMORA: before %s, ", on ? "ON" : "OFF") + name + at + " " + flag);
  out.push_back("VELMORA: " + name + "," + at + ", " +
                (written ? std::string("Successfully ") + c.verb : "Failed to write") + " vel_" +
                (on ? c.on : c.off) + "\n");
  return out;
}

// Every call on and off, walking over every port, and failing at an index outside the station.
// clang-format off
std::vector<Transcript> every_call() {
  std::vector<Transcript> rows;
  int uut = 0, n = 0;
  for (const Call& c : kCalls) {
    for (bool on : {true, false}) {
      const int bad = std::array{-1, 8, 100, INT_MIN, INT_MAX}[n++ % 5];
      uut = (uut + 3) % 8;
      const std::string name = std::string(c.name) + (on ? "_on" : "_off");
      rows.push_back({name, [&c, uut, on] { return int(c.call(uut, on)); }, 1,
                      {{uut + 1, format("vel_%s\n", on ? c.on : c.off)}},
                      call_log(c, uut, on, true)});
      rows.push_back({name + "_failed", [&c, on, bad] { return int(c.call(bad, on)); }, 0, {},
                      call_log(c, bad, on, false)});
    }
  }
  return rows;
}
INSTANTIATE_TEST_SUITE_P(EveryCall, Signals, ::testing::ValuesIn(every_call()),
                         testing_support::row_name);

// Reset and power-off of a well: only 1 is the second well; 0.01 s before each site, ascending.
// With the well's ports closed it still succeeds, with one failure line a site.
std::vector<Transcript> well_wide() {
  std::vector<Transcript> rows;
  for (auto [call, name] : {std::pair<bool (*)(int), const char*>{SOC_Reset, "SOC_Reset"},
                            {SOC_PowerOff, "SOC_PowerOff"}}) {
    for (auto [well, first, open] : {std::tuple{1, 5, true}, {2, 1, true}, {-1, 1, false}}) {
      Transcript t{format("%s_well_%d%s", name, well + 1, open ? "" : "_closed"), [=] {
          return open ? int(call(well)) : closed({0, 1, 2, 3}, [=] { return int(call(well)); }); },
        1, {}, Lines{format("VELMORA: %s WELL:%d", name, well + 1)}, 0.04};
      for (int site = first; site < first + 4; ++site) {
        if (open) t.wire.push_back({site, "vel_dfu_reset\n", 0.01});
        t.log->push_back(format("VELMORA: %s, UUT:%d, %s vel_dfu_reset\n", name, site,
                                open ? "Successfully wrote" : "Failed to write"));
      }
      rows.push_back(t);
    }
  }
  return rows;
}
// clang-format on
INSTANTIATE_TEST_SUITE_P(WellWide, Signals, ::testing::ValuesIn(well_wide()),
                         testing_support::row_name);

// The result LED drives sites 5-8 through the ports of sites 1-4 and never switches off. An index
// past the station folds too: 8 drives site 5.
std::vector<Transcript> result_led() {
  std::vector<Transcript> rows;
  const std::tuple<int, bool, int> leds[] = {{5, true, 2},  {1, true, 2}, {4, false, 1},
                                             {7, false, 4}, {3, true, 4}, {8, true, 5}};
  for (auto [uut, pass, site] : leds) {
    const char* line = pass ? "vel_pass_led_on\n" : "vel_fail_led_on\n";
    rows.push_back(
        {format("uut_%d_%s", uut + 1, pass ? "pass" : "fail"),
         [uut, pass] { return int(SOC_ResultLed(uut, pass)); },
         1,
         {{site, line}},
         Lines{format("VELMORA: SOC_ResultLed UUT:%d Pass:%d", uut + 1, pass),
               format("VELMORA: SOC_ResultLed, UUT:%d, Successfully write %s", site, line)}});
  }
  return rows;
}
INSTANTIATE_TEST_SUITE_P(ResultLed, Signals, ::testing::ValuesIn(result_led()),
                         testing_support::row_name);

// clang-format off
INSTANTIATE_TEST_SUITE_P(Single, Signals, ::testing::Values(
  Transcript{"Hi5EnterDiag", [] { return int(SOC_Hi5EnterDiag(6)); }, 1,
    {{7, "vel_hi5_enable\n"}, {7, "vel_hi5_enter_diag\n", 0.01}},
    Lines{"VELMORA: SOC_Hi5EnterDiag UUT:7",
          "VELMORA: SOC_Hi5EnterDiag, UUT:7, Successfully write vel_hi5_enable\n",
          "VELMORA: SOC_Hi5EnterDiag, UUT:7, Successfully write vel_hi5_enter_diag\n"}},
  Transcript{"Hi5EnterRecovery", [] { return int(SOC_Hi5EnterRecovery(6)); }, 1,
    {{7, "vel_hi5_enable\n"}, {7, "vel_hi5_enter_recovery\n"}},
    Lines{"VELMORA: SOC_Hi5EnterRecovery UUT:7",
          "VELMORA: SOC_Hi5EnterRecovery, UUT:7, Successfully write vel_hi5_enable\n",
          "VELMORA: SOC_Hi5EnterRecovery, UUT:7, Successfully write vel_hi5_enter_recovery\n"}},
  // The mode line follows a failed enable line, and alone decides the result.
  Transcript{"Hi5EnterDiag_closed", [] { return closed({7}, [] { return int(SOC_Hi5EnterDiag(7)); }); },
    0, {}, Lines{"VELMORA: SOC_Hi5EnterDiag UUT:8",
                 "VELMORA: SOC_Hi5EnterDiag, UUT:8, Failed to write vel_hi5_enable\n",
                 "VELMORA: SOC_Hi5EnterDiag, UUT:8, Failed to write vel_hi5_enter_diag\n"}, 0.01},
  Transcript{"ResultLed_bad", [] { return SOC_ResultLed(-1, 0) + SOC_ResultLed(100, 0) +
      SOC_ResultLed(INT_MIN, 0) + SOC_ResultLed(INT_MAX, 0); }, 0},
  Transcript{"Set_VBatt", [] { return SOC_Set_VBatt(0, 4100) + SOC_Set_VBatt(1, -250); }, 2,
    {{1, "vel_set_vbatt_4100\n"}, {2, "vel_set_vbatt_-250\n"}}, std::nullopt},
  // The success line is unconditional; the result is the write's.
  Transcript{"Set_VBatt_failed", [] {
      return closed({2}, [] { return SOC_Set_VBatt(2, 4100) + SOC_Set_VBatt(INT_MIN, -4100); }); },
    0, {}, Lines{"VELMORA: SOC_Set_VBatt, UUT:3, Successfully write vel_set_vbatt_4100\n",
                 "VELMORA: SOC_Set_VBatt, UUT:-2147483647, Successfully write vel_set_vbatt_-4100\n"}},
  Transcript{"RunLed", [] { return SOC_RunLed(1, true) + SOC_RunLed(2, false); }, 2,
    {{5, "vel_run_led_on\n"}, {1, "vel_run_led_off\n"}},
    Lines{"VELMORA: SOC_RunLed WELL:2 TurnOn:1", "VELMORA: Successfully turned ON Run Led for UUT:5",
          "VELMORA: SOC_RunLed WELL:3 TurnOn:0", "VELMORA: Successfully turned OFF Run Led for UUT:1"}},
  Transcript{"Write", [] { return SOC_Write(3, "raw text\n") + SOC_Write(INT_MAX, "x"); }, 1,
    {{4, "raw text\n"}}, Lines{"VELMORA: SOC_Write, UUT:4, Successfully write raw text\n",
                               "VELMORA: SOC_Write, UUT:-2147483648, Failed to write x"}}),
  testing_support::row_name);
// clang-format on

using SignalsF = testing_support::StationFixture;

// Recovery has no pause: the quickest of five calls shows it however loaded the machine.
TEST_F(SignalsF, Hi5RecoveryMakesNoPause) {
  double quickest = 1e9;
  for (int i = 0; i < 5; ++i) {
    const double start = brakwell::platform::monotonic_seconds();
    EXPECT_TRUE(SOC_Hi5EnterRecovery(6));
    quickest = std::min(quickest, brakwell::platform::monotonic_seconds() - start);
  }
  EXPECT_LT(quickest, 0.005);
}

TEST_F(SignalsF, RawWriteWithoutNewlineAndRead) {
  EXPECT_TRUE(SOC_Write(3, "no newline"));
  std::strcpy(SOC_Read(3), "left over");
  // An empty text writes nothing and succeeds, yet the receive area is zeroed.
  EXPECT_TRUE(SOC_Write(3, ""));
  EXPECT_STREQ(SOC_Read(3), "");
  EXPECT_EQ(log.syslog().back(), "VELMORA: SOC_Write, UUT:4, Successfully write ");
  EXPECT_EQ(SOC_Read(3), &DIORS232Buff[0][0] + 75000);
  for (int i = 0; i < 200 && board(4).received().size() < 10; ++i) board(4).wait_lines(1, 0.01);
  EXPECT_EQ(board(4).received(), "no newline");
}

// This program's testbed has no /dev/uinput: every chord logs one line and returns.
TEST_F(SignalsF, KeyChordWithoutUinputLogsOneLine) {
  if (access("/dev/uinput", F_OK) == 0) GTEST_SKIP() << "this machine has a real /dev/uinput";
  SOC_SendCtrlAltZ();
  SOC_SendCtrlAltY();
  EXPECT_EQ(log.syslog(),
            (Lines{"VELMORA: SOC_SendCtrlAltZ, no virtual keyboard: No such file or directory",
                   "VELMORA: SOC_SendCtrlAltY, no virtual keyboard: No such file or directory"}));
}

}  // namespace
