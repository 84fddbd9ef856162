// UUT signal commands: one line to one site's board per call (four sites for the well-wide
// ones). The per-site switches are rows of one table driven by one function.
#include <Brakwell.h>

#include <cstdio>
#include <string>

#include "common/numbers.h"
#include "common/station.h"
#include "platform/platform.h"

using brakwell::platform::log;
using brakwell::platform::sleep_seconds;
using brakwell::station::kLinePause;
using brakwell::station::write_line;

namespace {

constexpr char kReset[] = "vel_dfu_reset\n";
constexpr char kHi5Enable[] = "vel_hi5_enable\n";

// How a row departs from the plain pattern (entry line, one write, outcome line).
enum class Departure {
  None,
  BeforeLine,  // a "before ON/OFF" line between the entry line and the write
  Wrote,       // the success line says "wrote"
  FoldIndex,   // sites 4-7 drive the ports of sites 0-3
};

struct Signal {
  const char* name;
  const char* on;     // the command when the flag is on, or the only command
  const char* off;    // nullptr: the call has no flag
  const char* entry;  // nullptr: no entry line
  Departure departure;
};

enum Id {
  NtcOn,
  UsbPower,
  BatteryPower,
  UsbHost,
  ForceDfu,
  Gpio1,
  Gpio2,
  Uart,
  AccIdentify,
  Hi5,
  AccDetect,
  PassLed,
  FailLed,
  BattSupercap,
  ResultLed,
  PowerOffUut,
  DfuHostConn,
  ResetUut,
};

// clang-format off
constexpr Signal kSignals[] = {
  {"SOC_NTC_ON", "vel_ntc_on\n", "vel_ntc_off\n",
   "VELMORA: SOC_NTC_ON UUT:%d TurnOn:%d", Departure::None},
  {"SOC_USBPower", "vel_vusb_on\n", "vel_vusb_off\n",
   "VELMORA: SOC_USBPower UUT:%d TurnOn:%d", Departure::None},
  {"SOC_BatteryPower", "vel_vbatt_on\n", "vel_vbatt_off\n",
   nullptr, Departure::None},
  {"SOC_USBHost", "vel_dfu_host_conn\n", "vel_dfu_host_disconn\n",
   "VELMORA: SOC_USBHost UUT:%d TurnOn:%d", Departure::None},
  {"SOC_ForceDFU", "vel_forcedfu_on\n", "vel_forcedfu_off\n",
   "VELMORA: SOC_ForceDFU UUT:%d TurnOn:%d", Departure::None},
  {"SOC_GPIO1_On", "vel_gpio1_on\n", "vel_gpio1_off\n",
   "VELMORA: SOC_GPIO1_On UUT:%d TurnOn:%d", Departure::None},
  {"SOC_GPIO2_On", "vel_gpio2_on\n", "vel_gpio2_off\n",
   "VELMORA: SOC_GPIO2_On UUT:%d TurnOn:%d", Departure::None},
  {"SOC_UART", "vel_uart_on\n", "vel_uart_off\n",
   "VELMORA: SOC_UART UUT:%d TurnOn:%d", Departure::BeforeLine},
  {"SOC_ACC_IDENTIFY", "vel_accid_on\n", "vel_accid_off\n",
   "VELMORA: SOC_ACC_IDENTIFY UUT:%d TurnOn:%d", Departure::None},
  {"SOC_Hi5", kHi5Enable, "vel_hi5_disable\n",
   "VELMORA: SOC_Hi5 UUT:%d TurnOn:%d", Departure::None},
  {"SOC_ACC_DETECT", "vel_accdet_on\n", "vel_accdet_off\n",
   "VELMORA: SOC_ACC_DETECT UUT:%d TurnOn:%d", Departure::None},
  {"SOC_PassLed", "vel_pass_led_on\n", "vel_pass_led_off\n",
   "VELMORA: SOC_PassLed UUT:%d Pass:%d", Departure::None},
  {"SOC_FailLed", "vel_fail_led_on\n", "vel_fail_led_off\n",
   "VELMORA: SOC_FailLed UUT:%d Pass:%d", Departure::None},
  {"SOC_Batt_Supercap", "vel_batt_supercap_conn\n", "vel_batt_supercap_disconn\n",
   "VELMORA: SOC_Batt_Supercap UUT:%d OnOff:%d", Departure::None},
  {"SOC_ResultLed", "vel_pass_led_on\n", "vel_fail_led_on\n",
   "VELMORA: SOC_ResultLed UUT:%d Pass:%d", Departure::FoldIndex},
  {"SOC_PowerOffUUT", kReset, nullptr,
   "VELMORA: SOC_PowerOffUUT UUT:%d", Departure::None},
  {"SOC_DFU_Host_Conn", "vel_dfu_host_conn\n", nullptr,
   "VELMORA: SOC_DFU_Host_Conn UUT:%d", Departure::None},
  {"SOC_ResetUUT", kReset, nullptr,
   "VELMORA: SOC_ResetUUT UUT:%d", Departure::Wrote},
};
// clang-format on

constexpr const char kPrefix[] = "VELMORA: ";

// "VELMORA: SOC_x, UUT:n, Successfully write <command>" or its failure twin.
void log_outcome(const char* name, int uut, const char* command, bool written,
                 const char* successVerb = "write") {
  const std::string format =
      std::string(kPrefix) + name + ", UUT:%d, " +
      (written ? std::string("Successfully ") + successVerb : std::string("Failed to write")) +
      " %@";
  log(format.c_str(), brakwell::one_based(uut), command);
}

// Each exported signal call is one of these three; their line texts are made on the heap, so
// this is where the calls' exception boundary is.
bool send_signal(Id id, int uut, bool on) try {
  const Signal& s = kSignals[id];
  if (s.entry) log(s.entry, brakwell::one_based(uut), on);
  if (s.departure == Departure::BeforeLine) {
    const std::string before = std::string(kPrefix) + (on ? "before ON, " : "before OFF, ") +
                               (s.entry + sizeof kPrefix - 1);
    log(before.c_str(), brakwell::one_based(uut), on);
  }
  if (s.departure == Departure::FoldIndex && uut > 3) uut -= 4;
  const char* command = on || !s.off ? s.on : s.off;
  const bool written = write_line(uut, command);
  log_outcome(s.name, uut, command, written, s.departure == Departure::Wrote ? "wrote" : "write");
  return written;
} catch (...) {
  return brakwell::platform::failed(kSignals[id].name, false);
}

// Reset and power-off of a whole well put the same line on every site's board.
bool reset_each_site(const char* name, int well) try {
  log((std::string(kPrefix) + name + " WELL:%d").c_str(), brakwell::one_based(well));
  const int first = brakwell::station::first_uut_only_one(well);
  for (int uut = first; uut < first + brakwell::station::kSitesPerWell; ++uut) {
    sleep_seconds(kLinePause);
    log_outcome(name, uut, kReset, write_line(uut, kReset), "wrote");
  }
  return true;
} catch (...) {
  return brakwell::platform::failed(name, false);
}

// Hi5 boot-mode entry: enable, then the mode line, whatever the first write did.
bool hi5_enter(const char* name, int uut, const char* mode, double pause) try {
  log((std::string(kPrefix) + name + " UUT:%d").c_str(), brakwell::one_based(uut));
  log_outcome(name, uut, kHi5Enable, write_line(uut, kHi5Enable));
  sleep_seconds(pause);
  const bool written = write_line(uut, mode);
  log_outcome(name, uut, mode, written);
  return written;
} catch (...) {
  return brakwell::platform::failed(name, false);
}

}  // namespace

extern "C" {

bool SOC_Reset(int well) { return reset_each_site("SOC_Reset", well); }
bool SOC_PowerOff(int well) { return reset_each_site("SOC_PowerOff", well); }

bool SOC_RunLed(int well, bool turnOn) {
  log("VELMORA: SOC_RunLed WELL:%d TurnOn:%d", brakwell::one_based(well), turnOn);
  return turnOn ? turnOnRunLed(well) : turnOffRunLed(well);
}

bool SOC_ResultLed(int uut, bool pass) { return send_signal(ResultLed, uut, pass); }
bool SOC_NTC_ON(int uut, bool on) { return send_signal(NtcOn, uut, on); }
bool SOC_USBPower(int uut, bool on) { return send_signal(UsbPower, uut, on); }
bool SOC_BatteryPower(int uut, bool on) { return send_signal(BatteryPower, uut, on); }
bool SOC_USBHost(int uut, bool on) { return send_signal(UsbHost, uut, on); }
bool SOC_ForceDFU(int uut, bool on) { return send_signal(ForceDfu, uut, on); }
bool SOC_GPIO1_On(int uut, bool on) { return send_signal(Gpio1, uut, on); }
bool SOC_GPIO2_On(int uut, bool on) { return send_signal(Gpio2, uut, on); }
bool SOC_UART(int uut, bool on) { return send_signal(Uart, uut, on); }
bool SOC_ACC_IDENTIFY(int uut, bool on) { return send_signal(AccIdentify, uut, on); }
bool SOC_Hi5(int uut, bool on) { return send_signal(Hi5, uut, on); }
bool SOC_ACC_DETECT(int uut, bool on) { return send_signal(AccDetect, uut, on); }
bool SOC_PassLed(int uut, bool on) { return send_signal(PassLed, uut, on); }
bool SOC_FailLed(int uut, bool on) { return send_signal(FailLed, uut, on); }
bool SOC_Batt_Supercap(int uut, bool on) { return send_signal(BattSupercap, uut, on); }
bool SOC_PowerOffUUT(int uut) { return send_signal(PowerOffUut, uut, true); }
bool SOC_DFU_Host_Conn(int uut) { return send_signal(DfuHostConn, uut, true); }
bool SOC_ResetUUT(int uut) { return send_signal(ResetUut, uut, true); }

// Diagnostics gets a short pause between its two lines; recovery goes straight on.
bool SOC_Hi5EnterDiag(int uut) {
  return hi5_enter("SOC_Hi5EnterDiag", uut, "vel_hi5_enter_diag\n", kLinePause);
}
bool SOC_Hi5EnterRecovery(int uut) {
  return hi5_enter("SOC_Hi5EnterRecovery", uut, "vel_hi5_enter_recovery\n", 0);
}

// The success line is logged whatever the write did; the result is the write's own.
bool SOC_Set_VBatt(int uut, int value) {
  char command[32];
  std::snprintf(command, sizeof command, "vel_set_vbatt_%d\n", value);
  const bool written = write_line(uut, command);
  log_outcome("SOC_Set_VBatt", uut, command, true);
  return written;
}

bool SOC_Write(int uut, const char* text) {
  if (!text) text = "";
  const bool written = write_line(uut, text);
  log(written ? "VELMORA: SOC_Write, UUT:%d, Successfully write %s"
              : "VELMORA: SOC_Write, UUT:%d, Failed to write %s",
      brakwell::one_based(uut), text);
  return written;
}

char* SOC_Read(int uut) { return getDIORdBuff(uut); }

}  // extern "C"
