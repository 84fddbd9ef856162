// The subcommands: one per family of calls and per bench task.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "common/station.h"

namespace fixturectl {
namespace {

using Args = std::vector<std::string>;

void expect_count(const Args& args, size_t min, size_t max) {
  if (args.size() < min) usage_error("missing arguments");
  if (args.size() > max) usage_error("unexpected argument '" + args[max] + "'");
}

// Pulls "--name VALUE" or a bare "--name" out of args; returns whether it was there.
bool take_option(Args& args, const std::string& name, std::string* value = nullptr) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] != name) continue;
    if (value) {
      if (i + 1 >= args.size()) usage_error(name + " needs a value");
      *value = args[i + 1];
      args.erase(args.begin() + i, args.begin() + i + 2);
    } else {
      args.erase(args.begin() + i);
    }
    return true;
  }
  return false;
}

void reject_options(const Args& args) {
  for (const auto& a : args) {
    if (a.size() > 1 && a[0] == '-' && a.find_first_not_of("-0123456789.") != std::string::npos) {
      usage_error("unknown option " + a);
    }
  }
}

const char* well_name(int well) { return well == 1 ? "2" : "1"; }

// ---- station -------------------------------------------------------------------------------

int cmd_start(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  FixtureController* h = ctx.controller(ctx.well);
  char library[32] = {};
  SOC_LibVersion(library, sizeof library);
  Json& r = ctx.out.result();
  r["vendor"] = get_vendor();
  r["interface_version"] = get_version(h);
  r["library"] = library;
  r["fixture_serial"] = get_serial_number(h);
  r["wells"] = SOC_GetWellNumber();
  r["slots"] = SOC_GetSlotNumber();
  r["actuators"] = get_actuator_count(h);
  Json ports = Json::array();
  for (int u = 0; u < BRAKWELL_UUT_COUNT; ++u) {
    Json p = Json::object();
    p["site"] = u + 1;
    p["well"] = SOC_GetWellIndex(u) + 1;
    p["port"] = DIO_UUTSerialDevice[u][0] ? DIO_UUTSerialDevice[u] : "-";
    p["open"] = DIO_fileDescriptor[u] >= 0;
    ports.push(std::move(p));
  }
  r["ports"] = std::move(ports);
  return kOk;
}

int cmd_stop(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  ctx.controller(ctx.well);
  SOC_Done();
  ctx.out.result()["stopped"] = true;
  return kOk;
}

// The status word's bits are active low; -1 is no answer.
Json decode_status(int status) {
  using namespace brakwell::station;
  const auto holds = [status](int bit) { return (status & bit) == 0; };
  Json s = Json::object();
  s["word"] = status;
  s["button_a"] = holds(kButtonA) ? "held" : "released";
  s["button_b"] = holds(kButtonB) ? "held" : "released";
  s["plate"] = holds(kPlateDown) ? "down" : holds(kPlateUp) ? "up" : "between";
  s["tray"] = holds(kTrayClosed) ? "in" : holds(kTrayOpen) ? "out" : "between";
  return s;
}

int cmd_status(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  ctx.controller(ctx.well);
  const int first = brakwell::station::first_uut_only_one(ctx.well);
  const int status = first != 0 ? queryFixtureStatusForWell2(first) : queryFixtureStatusForWell1(0);
  Json& r = ctx.out.result();
  r["well"] = ctx.well + 1;
  if (status < 0) {
    r["status"] = nullptr;
    fail(kFailed, std::string("well ") + well_name(ctx.well) + ": no status reply",
         "  the well's first board (site " + std::to_string(ctx.well * 4 + 1) +
             ") did not answer vel_fixture_status; check its port with `fixturectl start`");
  }
  r["status"] = decode_status(status);
  return kOk;
}

// ---- power, boot modes, LEDs ----------------------------------------------------------------

int cmd_power(Context& ctx, const Args& args) {
  expect_count(args, 2, 2);
  const bool on = parse_on_off(args[0]);
  const int site = args[1] == "all" ? 0 : parse_site(args[1]);
  Json& r = ctx.out.result();
  r["power"] = on ? "on" : "off";
  if (!site) {
    FixtureController* h = ctx.controller(ctx.well);
    r["well"] = ctx.well + 1;
    // Powering a well off is the boards' reset line, site by site.
    const bool ok = on ? set_dut_power_all(h, 0) == 0 : SOC_PowerOff(ctx.well);
    if (!ok)
      fail(kFailed, std::string("power ") + args[0] + " failed on well " + well_name(ctx.well));
    return kOk;
  }
  int s = 0;
  FixtureController* h = ctx.controller_for_site(site, &s);
  ctx.require_site_port(site);
  r["site"] = site;
  if (set_dut_power(h, on ? 0 : 1, s) != 0) {
    fail(kFailed, "site " + std::to_string(site) + ": the board did not take the power commands");
  }
  return kOk;
}

int cmd_boot(Context& ctx, const Args& args) {
  Args a = args;
  const bool off = take_option(a, "--off");
  reject_options(a);
  expect_count(a, 2, 2);
  using Sequence = int (*)(FixtureController*, int, int);
  struct Mode {
    const char* name;
    Sequence sequence;
  };
  static const Mode kModes[] = {
      {"dfu", set_force_dfu}, {"diags", set_force_diags}, {"iboot", set_force_iboot}};
  const Mode* mode = nullptr;
  for (const auto& m : kModes) {
    if (a[0] == m.name) mode = &m;
  }
  if (!mode) usage_error("boot mode must be dfu, diags or iboot, not '" + a[0] + "'");
  const int site = parse_site(a[1]);
  int s = 0;
  FixtureController* h = ctx.controller_for_site(site, &s);
  ctx.require_site_port(site);
  Json& r = ctx.out.result();
  r["site"] = site;
  r["mode"] = mode->name;
  r["state"] = off ? "off" : "on";
  if (mode->sequence(h, off ? 1 : 0, s) != 0) {
    fail(kFailed, "site " + std::to_string(site) + ": the " + mode->name + " sequence failed");
  }
  return kOk;
}

int cmd_led(Context& ctx, const Args& args) {
  expect_count(args, 2, 2);
  static const char* const kStates[] = {"off", "pass", "fail", "run"};  // 0 1 2 3
  int state = -1;
  for (int i = 0; i < 4; ++i) {
    if (args[0] == kStates[i]) state = i;
  }
  if (state < 0) usage_error("LED state must be pass, fail, off or run, not '" + args[0] + "'");
  Json& r = ctx.out.result();
  r["led"] = kStates[state];
  int result = 0;
  if (args[1] == "all") {
    r["well"] = ctx.well + 1;
    result = set_led_state_all(ctx.controller(ctx.well), state);
  } else {
    const int site = parse_site(args[1]);
    int s = 0;
    FixtureController* h = ctx.controller_for_site(site, &s);
    ctx.require_site_port(site);
    r["site"] = site;
    result = set_led_state(h, state, s);
  }
  if (result != 0) fail(kFailed, "the board did not take the LED command");
  return kOk;
}

// ---- single lines (the station-control family) ----------------------------------------------

struct Line {
  const char* name;
  bool (*set)(int uut, bool on);
};
const Line kLines[] = {
    {"usb", SOC_USBPower},       {"battery", SOC_BatteryPower}, {"supercap", SOC_Batt_Supercap},
    {"uart", SOC_UART},          {"forcedfu", SOC_ForceDFU},    {"hi5", SOC_Hi5},
    {"accid", SOC_ACC_IDENTIFY}, {"accdet", SOC_ACC_DETECT},    {"ntc", SOC_NTC_ON},
    {"gpio1", SOC_GPIO1_On},     {"gpio2", SOC_GPIO2_On},       {"usbhost", SOC_USBHost},
    {"pass", SOC_PassLed},       {"fail", SOC_FailLed},
};
struct Request {
  const char* name;
  bool (*send)(int uut);
};
const Request kRequests[] = {
    {"diag", SOC_Hi5EnterDiag},
    {"recovery", SOC_Hi5EnterRecovery},
    {"dfu-host", SOC_DFU_Host_Conn},
    {"reset", SOC_ResetUUT},
};

int cmd_line(Context& ctx, const Args& args) {
  expect_count(args, 2, 3);
  const int site = parse_site(args[0]);
  const std::string& name = args[1];
  const Line* line = nullptr;
  for (const auto& l : kLines) {
    if (name == l.name) line = &l;
  }
  const Request* request = nullptr;
  for (const auto& q : kRequests) {
    if (name == q.name) request = &q;
  }
  if (!line && !request && name != "vbatt") usage_error("no line named '" + name + "'");
  if ((line || name == "vbatt") && args.size() != 3) usage_error(name + " needs a value");
  if (request && args.size() != 2) usage_error(name + " takes no value");
  const bool on = line ? parse_on_off(args[2]) : false;
  const int millivolts = name == "vbatt" ? parse_int(args[2], "MILLIVOLTS") : 0;

  ctx.controller(site > 4 ? 1 : 0);
  ctx.require_site_port(site);
  Json& r = ctx.out.result();
  r["site"] = site;
  r["line"] = name;
  bool ok = false;
  if (line) {
    r["state"] = on ? "on" : "off";
    ok = line->set(site - 1, on);
  } else if (request) {
    ok = request->send(site - 1);
  } else {
    r["millivolts"] = millivolts;
    ok = SOC_Set_VBatt(site - 1, millivolts);
  }
  if (!ok) fail(kFailed, "site " + std::to_string(site) + ": the board did not take " + name);
  return kOk;
}

int cmd_reset(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  ctx.controller(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  SOC_Reset(ctx.well);  // reports success whatever the writes did
  return kOk;
}

// "\n", "\r", "\t" and "\\" in TEXT are the characters they stand for.
std::string unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    const char c = text[++i];
    out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
  }
  return out;
}

// The other way round, for showing what was sent.
std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c == '\n'   ? "\\n"
           : c == '\r' ? "\\r"
           : c == '\t' ? "\\t"
           : c == '\\' ? "\\\\"
                       : std::string(1, c);
  }
  return out;
}

int cmd_raw(Context& ctx, const Args& args) {
  Args a = args;
  const bool exact = take_option(a, "--no-newline");
  expect_count(a, 2, 2);
  const int site = parse_site(a[0]);
  std::string text = unescape(a[1]);
  if (!exact && (text.empty() || text.back() != '\n')) text += '\n';
  ctx.controller(site > 4 ? 1 : 0);
  ctx.require_site_port(site);
  Json& r = ctx.out.result();
  r["site"] = site;
  r["sent"] = escape(text);
  if (!SOC_Write(site - 1, text.c_str())) {
    fail(kFailed, "site " + std::to_string(site) + ": the write did not go through");
  }
  return kOk;
}

// ---- press and tray -------------------------------------------------------------------------

int cmd_press(Context& ctx, const Args& args) {
  Args a = args;
  std::string timeoutText = "0";
  take_option(a, "--timeout", &timeoutText);
  const bool automatic = take_option(a, "--auto");
  reject_options(a);
  expect_count(a, 0, 0);
  const double timeout = parse_seconds(timeoutText, "--timeout");
  ctx.controller(ctx.well);
  Json& r = ctx.out.result();
  r["well"] = ctx.well + 1;
  bool done = false;
  if (automatic) {
    done = PneumaticValveAutoOn(ctx.well, static_cast<float>(timeout));
  } else {
    with_progress(std::string("well ") + well_name(ctx.well) +
                      ": waiting for the operator to press both buttons...",
                  [&] { done = PneumaticValveOn(ctx.well, static_cast<float>(timeout)); });
  }
  r["pressed"] = done;
  if (!done) {
    fail(kTimedOut, "the operator did not complete the press cycle within " + timeoutText + " s");
  }
  return kOk;
}

int cmd_release(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  ctx.controller(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  if (!SOC_PneumaticValveOff(ctx.well)) fail(kFailed, "the board did not take vel_pne_out");
  return kOk;
}

template <int (*Action)(FixtureController*)>
int press_action(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  ctx.out.result()["well"] = ctx.well + 1;
  Action(ctx.controller(ctx.well));  // the board link reports nothing back here
  return kOk;
}

// ---- USB topology ---------------------------------------------------------------------------

std::vector<std::string> split_commas(const std::string& text) {
  std::vector<std::string> out(1);
  for (char c : text) {
    if (c == ',') {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return out;
}

int cmd_locations(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  const std::string uarts = getUSBLocationForUART(0x0403, 0x6001);
  const std::string dfu = getUSBLocationForMCU(kAppleVendor, kDfuProduct);
  Json& r = ctx.out.result();
  if (uarts == "error") {
    r["dfu_unit"] = dfu.empty() ? "-" : dfu;
    fail(kNotFound, "no UART bridges (0403:6001) named USB UART1-8 were found",
         "  each site's hub carries a UART bridge beside its unit; check the fixture's USB");
  }
  const auto fields = split_commas(uarts);
  Json sites = Json::array();
  for (size_t i = 0; i < fields.size() && i < 8; ++i) {
    Json s = Json::object();
    s["site"] = static_cast<int>(i + 1);
    s["unit_location"] = fields[i].empty() ? "-" : fields[i];
    sites.push(std::move(s));
  }
  r["sites"] = std::move(sites);
  r["dfu_unit"] = dfu.empty() ? "-" : dfu;
  return kOk;
}

int cmd_apple_devices(Context& ctx, const Args& args) {
  Args a = args;
  std::string waitText = "0.5";
  take_option(a, "--wait", &waitText);
  reject_options(a);
  expect_count(a, 0, 0);
  const double wait = parse_seconds(waitText, "--wait");
  for (long product : kUnitProducts) usbDeviceConnStatus(kAppleVendor, product);
  // Arrivals are taken on the library's USB event thread; give them a moment.
  std::this_thread::sleep_for(std::chrono::duration<double>(wait));
  const auto sites = split_commas(getUSBLocationForUART(0x0403, 0x6001));
  Json devices = Json::array();
  for (int i = 0; i < BRAKWELL_APPLE_DEV_MAX; ++i) {
    const AppleDevRecord* d = g_pListAppleDev[i];
    if (!d) continue;
    Json e = Json::object();
    e["name"] = d->deviceName ? d->deviceName : "";
    e["location"] = hex(d->locationID);
    int site = 0;
    for (size_t s = 0; s < sites.size(); ++s) {
      if (sites[s] == hex(d->locationID)) site = static_cast<int>(s + 1);
    }
    e["site"] = site ? Json(site) : Json();
    devices.push(std::move(e));
  }
  Json history = Json::array();
  for (int i = 0; i < BRAKWELL_APPLE_DEV_MAX; ++i) {
    if (g_ListUutLocationID[i]) history.push(hex(g_ListUutLocationID[i]));
  }
  Json& r = ctx.out.result();
  r["devices"] = std::move(devices);
  r["locations_seen"] = std::move(history);
  return kOk;
}

// ---- DIO modules ----------------------------------------------------------------------------

void open_module(int m) {
  if (!USBDeviceAlive(m)) {
    fail(kNotFound,
         "DIO module " + std::to_string(m) + " (0471:df0" + std::to_string(m + 1) +
             ") is not on the bus",
         "  check its USB cable; `lsusb -d 0471:` lists the modules present");
  }
  if (!openUSB(m) || !dioOpen(m)) {
    fail(kFailed, "DIO module " + std::to_string(m) +
                      " did not answer the reset and register "
                      "writes of dioOpen");
  }
}

int cmd_dio(Context& ctx, const Args& args) {
  expect_count(args, 2, 4);
  const std::string& op = args[0];
  const int m = parse_module(args[1]);
  Json& r = ctx.out.result();
  r["module"] = m;
  auto need = [&](size_t n) {
    if (args.size() != n) usage_error("dio " + op + " takes " + std::to_string(n - 2) + " values");
  };
  int ok = 1;
  if (op == "open") {
    need(2);
    open_module(m);
    r["open"] = true;
  } else if (op == "close") {
    need(2);
    open_module(m);
    dioClose(m);
    ok = closeUSB(m) == 0;
  } else if (op == "read") {
    need(3);
    const int reg = parse_int(args[2], "REGISTER");
    if (reg < 0 || reg > 13) usage_error("REGISTER must be 0-13");
    open_module(m);
    uint32_t value = 0;
    ok = dioRead(m, reg, &value);
    r["register"] = reg;
    r["value"] = hex(value);
  } else if (op == "write") {
    need(4);
    const int reg = parse_int(args[2], "REGISTER");
    if (reg < 0 || reg > 13) usage_error("REGISTER must be 0-13");
    open_module(m);
    ok = dioWrite(m, reg, args[3].c_str());
    r["register"] = reg;
    r["value"] = args[3];
  } else if (op == "status") {
    need(2);
    open_module(m);
    uint32_t status = 0;
    ok = dioStatus(m, &status);
    r["status"] = hex(status);
  } else if (op == "sensors") {
    need(2);
    open_module(m);
    uint32_t sensors = 0;
    ok = dioReadSensor(m, &sensors);
    r["sensors"] = hex(sensors);
    r["stable"] = ok == 1;
  } else if (op == "board-id") {
    need(2);
    open_module(m);
    uint32_t id = 0;
    ok = SOC_BoardID(m, &id);
    r["board_id"] = static_cast<int>(id);
  } else if (op == "vendor") {
    need(3);
    const int value = parse_int(args[2], "VALUE");
    open_module(m);
    ok = vendorRequest(m, static_cast<uint32_t>(value));
  } else {
    usage_error(
        "dio operation must be open, close, read, write, status, sensors, board-id or "
        "vendor, not '" +
        op + "'");
  }
  if (!ok) fail(kFailed, "DIO module " + std::to_string(m) + ": " + op + " failed");
  return kOk;
}

// ---- key chords -----------------------------------------------------------------------------

int cmd_keys(Context& ctx, const Args& args) {
  expect_count(args, 1, 1);
  if (args[0] == "z") {
    SOC_SendCtrlAltZ();
  } else if (args[0] == "y") {
    SOC_SendCtrlAltY();
  } else {
    usage_error("the chord letter is z (first well) or y (second well)");
  }
  ctx.out.result()["chord"] = "Control+Alt+" + std::string(args[0] == "z" ? "Z" : "Y");
  return kOk;
}

int cmd_run_button(Context& ctx, const Args& args) {
  expect_count(args, 0, 0);
  ctx.controller(ctx.well);
  const bool pressed = SOC_IsRun_Pressed(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  ctx.out.result()["run_pressed"] = pressed;
  return kOk;
}

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = {
      {"start", "", "start the station: identity, wells, and each site's board port",
       "Finds the fixture boards, opens their ports and reports what it found.", cmd_start},
      {"stop", "", "stop the station: Hi5 off on every site, ports closed",
       "Sends vel_hi5_disable to all eight sites (0.2 s apart) and closes the ports.", cmd_stop},
      {"status", "", "the well's status word: buttons, plate and tray",
       "Asks the well's first board for vel_fixture_status (--well picks the well).", cmd_status},
      {"power", "on|off SITE|all", "power a unit up (through recovery) or down",
       "on: Hi5 recovery request, accessory id, 4100 mV, battery, supercap, USB.\n"
       "off: USB, supercap, battery off. 'all' acts on the whole --well; off then resets\n"
       "every site of the well.",
       cmd_power},
      {"boot", "dfu|diags|iboot SITE [--off]", "bring a unit up in a boot mode",
       "Runs the force-DFU, force-diags or force-iBoot sequence (--off: every line off).",
       cmd_boot},
      {"led", "pass|fail|off|run SITE|all", "pass and fail LEDs, and the well's run LED",
       "pass/fail switch the site's LEDs; off/run switch its well's run LED. With 'all', pass\n"
       "and fail light every site of the --well.",
       cmd_led},
      {"line", "SITE NAME [on|off|MILLIVOLTS]", "switch one line of a site",
       "NAME on|off: usb battery supercap uart forcedfu hi5 accid accdet ntc gpio1 gpio2\n"
       "  usbhost pass fail\n"
       "NAME MILLIVOLTS: vbatt\n"
       "NAME alone: diag recovery (Hi5 requests), dfu-host, reset",
       cmd_line},
      {"reset", "", "reset every site of the --well (vel_dfu_reset)", "", cmd_reset},
      {"raw", "SITE TEXT [--no-newline]", "send TEXT to the site's board",
       "\\n, \\r, \\t and \\\\ in TEXT stand for themselves; a newline is added unless TEXT\n"
       "ends in one or --no-newline is given.",
       cmd_raw},
      {"press", "[--timeout SECONDS] [--auto]", "run the two-hand press cycle",
       "Waits for the operator to hold both buttons until the fixture is closed and the plate\n"
       "down, then to let go. --timeout 0 (the default) waits without limit; exit 4 when it\n"
       "runs out. --auto closes and lowers without the operator.",
       cmd_press},
      {"release", "", "plate up and tray out", "", cmd_release},
      {"engage", "", "lower the plate (vel_pne_down)", "", press_action<fixture_engage>},
      {"disengage", "", "raise the plate (vel_pne_up)", "", press_action<fixture_disengage>},
      {"close", "", "move the tray in (vel_pne_in)", "", press_action<fixture_close>},
      {"open", "", "reset the well's sites, then move the tray out", "",
       press_action<fixture_open>},
      {"locations", "", "where each site's unit sits on USB",
       "From the UART bridges (USB UART1-8, 0403:6001): the unit sits on port 3 of the\n"
       "UART's hub. dfu unit: the location of the unit in DFU mode, if any.",
       cmd_locations},
      {"apple-devices", "[--wait SECONDS]", "units on USB now, with their sites",
       "Arms arrival tracking for Apple units (05ac: normal, recovery, DFU), waits (0.5 s)\n"
       "and lists the units present and every location seen.",
       cmd_apple_devices},
      {"dio", "open|close|read|write|status|sensors|board-id|vendor MODULE [REG] [VALUE]",
       "the USB DIO modules 0471:df01 (0) and 0471:df02 (1)",
       "Every dio command opens the module first (openUSB, dioOpen: registers to rest).\n"
       "write VALUE: 0xNN, decimal, or an 8-character bit pattern such as 1x0xxxxx.",
       cmd_dio},
      {"keys", "z|y", "post the Run key chord Control+Alt+Z (well 1) or Y (well 2)", "", cmd_keys},
      {"run-button", "", "post the well's key chord if Run alone is held", "", cmd_run_button},
      {"demo", "", "a narrated station cycle on every well of the fixture",
       "Start, init, two-hand press, power up, USB locations, DFU and diags boots, LEDs,\n"
       "DIO modules, release and stop, then a table of every site. Run it inside fixturesim:\n"
       "  fixturesim --operator auto -- fixturectl demo",
       run_demo},
  };
  return kCommands;
}

}  // namespace fixturectl
