// The subcommands: one per family of calls and per bench task. Each declares its arguments to
// CLI11 (checked before the station starts) and runs against the started station.
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "common/station.h"

namespace fixturectl {
namespace {

// ---- argument declarations -----------------------------------------------------------------

void none(CLI::App&, Args&) {}

CLI::Option* site_option(CLI::App& sub, Args& a) {
  return sub.add_option("SITE", a.site, "station-wide site 1-8 (5-8: the second well)")
      ->required()
      ->check(CLI::Range(1, 8));
}

const CLI::Validator kSiteOrAll(
    [](std::string& s) -> std::string {
      if (s == "all") return "";
      if (s.size() == 1 && s[0] >= '1' && s[0] <= '8') return "";
      return "must be 1-8 or all, not '" + s + "'";
    },
    "1-8|all");

const CLI::Validator kSeconds(
    [](std::string& s) -> std::string {
      double v = 0;
      if (CLI::detail::lexical_cast(s, v) && v >= 0 && v <= 86400) return "";
      return "must be a number of seconds, not '" + s + "'";
    },
    "SECONDS");

void site_or_all(CLI::App& sub, Args& a) {
  sub.add_option("SITE", a.target, "site 1-8, or all: every site of the --well")
      ->required()
      ->check(kSiteOrAll);
}

CLI::Option* word(CLI::App& sub, Args& a, const char* name, std::vector<std::string> choices) {
  return sub.add_option(name, a.word)->required()->check(CLI::IsMember(choices));
}

int target_site(const Args& a) { return a.target == "all" ? 0 : std::stoi(a.target); }
std::string site_text(int site) { return "site " + std::to_string(site); }

// ---- station -------------------------------------------------------------------------------

Json port_rows() {
  Json ports = Json::array();
  for (int u = 0; u < BRAKWELL_UUT_COUNT; ++u) {
    ports.push_back({{"site", u + 1},
                     {"well", u / 4 + 1},
                     {"port", DIO_UUTSerialDevice[u][0] ? Json(DIO_UUTSerialDevice[u]) : Json()},
                     {"open", DIO_fileDescriptor[u] >= 0}});
  }
  return ports;
}

int cmd_start(Context& ctx, const Args&) {
  FixtureController* h = ctx.controller(ctx.well);
  char library[32] = {};
  SOC_LibVersion(library, sizeof library);
  Json& r = ctx.out.result();
  r["vendor"] = get_vendor();
  r["interface_version"] = get_version(h);
  r["library"] = library;
  const std::string serial = get_serial_number(h);
  r["fixture_serial"] = serial == "UNKNOWN" ? Json() : Json(serial);
  r["wells"] = SOC_GetWellNumber();
  r["slots"] = SOC_GetSlotNumber();
  r["actuators"] = get_actuator_count(h);
  Json missing = Json::array();
  for (int w = 0; w < 2; ++w) {
    for (int s : missing_sites(w)) missing.push_back(s);
  }
  r["missing_sites"] = std::move(missing);
  r["ports"] = port_rows();
  return kOk;
}

int cmd_stop(Context& ctx, const Args&) {
  ctx.controller(ctx.well);
  SOC_Done();
  ctx.out.result()["stopped"] = true;
  return kOk;
}

int cmd_status(Context& ctx, const Args&) {
  ctx.controller(ctx.well);
  const int first = brakwell::station::first_uut_only_one(ctx.well);
  const int status = first != 0 ? queryFixtureStatusForWell2(first) : queryFixtureStatusForWell1(0);
  Json& r = ctx.out.result();
  r["well"] = ctx.well + 1;
  r["status"] = decode_status(status);
  if (status < 0) {
    fail(kFailed, "well " + std::to_string(ctx.well + 1) + ": no status reply",
         "  the well's first board (site " + std::to_string(ctx.well * 4 + 1) +
             ") did not answer vel_fixture_status; check its port with `fixturectl ports`");
  }
  return kOk;
}

// ---- power, boot modes, LEDs ----------------------------------------------------------------

// The well's sites with an open port, each run on its own thread: calls on different sites
// may overlap. Returns the sites whose call failed.
std::vector<int> each_site_at_once(int wellIndex, const std::function<bool(int)>& fn) {
  std::vector<int> sites;
  for (int s = wellIndex * 4 + 1; s <= wellIndex * 4 + 4; ++s) {
    if (DIO_fileDescriptor[s - 1] >= 0) sites.push_back(s);
  }
  std::vector<char> ok(sites.size(), 0);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < sites.size(); ++i) {
    threads.emplace_back([&, i] { ok[i] = fn(sites[i]); });
  }
  for (auto& t : threads) t.join();
  std::vector<int> failed;
  for (size_t i = 0; i < sites.size(); ++i) {
    if (!ok[i]) failed.push_back(sites[i]);
  }
  return failed;
}

void define_power(CLI::App& sub, Args& a) {
  word(sub, a, "STATE", {"on", "off"});
  site_or_all(sub, a);
}

int cmd_power(Context& ctx, const Args& a) {
  const bool on = a.word == "on";
  const int site = target_site(a);
  Json& r = ctx.out.result();
  r["power"] = a.word;
  if (!site) {
    FixtureController* h = ctx.controller(ctx.well);
    r["well"] = ctx.well + 1;
    if (!on) {
      // Powering a well off is the boards' reset line, site by site.
      if (!SOC_PowerOff(ctx.well))
        fail(kFailed, "power off failed on well " + std::to_string(ctx.well + 1));
      return kOk;
    }
    std::vector<int> failed;
    with_progress(ctx.out, "powering every site of the well...", [&] {
      failed = each_site_at_once(ctx.well,
                                 [&](int s) { return set_dut_power(h, 0, s - ctx.well * 4) == 0; });
    });
    r["failed_sites"] = failed;
    if (!failed.empty())
      fail(kFailed, "power on failed on " + std::to_string(failed.size()) + " site(s)");
    return kOk;
  }
  int s = 0;
  FixtureController* h = ctx.controller_for_site(site, &s);
  ctx.require_site_port(site);
  r["site"] = site;
  bool ok = false;
  with_progress(ctx.out, site_text(site) + ": power " + a.word + "...",
                [&] { ok = set_dut_power(h, on ? 0 : 1, s) == 0; });
  if (!ok) fail(kFailed, site_text(site) + ": the board did not take the power commands");
  return kOk;
}

struct Mode {
  const char* name;
  int (*sequence)(FixtureController*, int, int);
};
const Mode kModes[] = {
    {"dfu", set_force_dfu}, {"diags", set_force_diags}, {"iboot", set_force_iboot}};

void define_boot(CLI::App& sub, Args& a) {
  word(sub, a, "MODE", {"dfu", "diags", "iboot"});
  site_option(sub, a);
  sub.add_flag("--off", a.flag, "every line of the sequence off");
}

int cmd_boot(Context& ctx, const Args& a) {
  const Mode* mode = nullptr;
  for (const auto& m : kModes) {
    if (a.word == m.name) mode = &m;
  }
  int s = 0;
  FixtureController* h = ctx.controller_for_site(a.site, &s);
  ctx.require_site_port(a.site);
  Json& r = ctx.out.result();
  r["site"] = a.site;
  r["mode"] = mode->name;
  r["state"] = a.flag ? "off" : "on";
  bool ok = false;
  with_progress(ctx.out, site_text(a.site) + ": " + mode->name + " sequence...",
                [&] { ok = mode->sequence(h, a.flag ? 1 : 0, s) == 0; });
  if (!ok) fail(kFailed, site_text(a.site) + ": the " + mode->name + " sequence failed");
  return kOk;
}

const char* const kLedStates[] = {"off", "pass", "fail", "run"};  // the library's 0 1 2 3

void define_led(CLI::App& sub, Args& a) {
  word(sub, a, "STATE", {"pass", "fail", "off", "run"});
  site_or_all(sub, a);
}

int cmd_led(Context& ctx, const Args& a) {
  int state = 0;
  while (a.word != kLedStates[state]) ++state;
  Json& r = ctx.out.result();
  r["led"] = a.word;
  const int site = target_site(a);
  int result = 0;
  if (!site) {
    r["well"] = ctx.well + 1;
    result = set_led_state_all(ctx.controller(ctx.well), state);
  } else {
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
  bool (*set)(int uut, bool on);  // a switch: needs on|off
  bool (*send)(int uut);          // a request: takes no value
};
const Line kLines[] = {
    {"usb", SOC_USBPower, nullptr},
    {"battery", SOC_BatteryPower, nullptr},
    {"supercap", SOC_Batt_Supercap, nullptr},
    {"uart", SOC_UART, nullptr},
    {"forcedfu", SOC_ForceDFU, nullptr},
    {"hi5", SOC_Hi5, nullptr},
    {"accid", SOC_ACC_IDENTIFY, nullptr},
    {"accdet", SOC_ACC_DETECT, nullptr},
    {"ntc", SOC_NTC_ON, nullptr},
    {"gpio1", SOC_GPIO1_On, nullptr},
    {"gpio2", SOC_GPIO2_On, nullptr},
    {"usbhost", SOC_USBHost, nullptr},
    {"pass", SOC_PassLed, nullptr},
    {"fail", SOC_FailLed, nullptr},
    {"diag", nullptr, SOC_Hi5EnterDiag},
    {"recovery", nullptr, SOC_Hi5EnterRecovery},
    {"dfu-host", nullptr, SOC_DFU_Host_Conn},
    {"reset", nullptr, SOC_ResetUUT},
    {"vbatt", nullptr, nullptr},  // MILLIVOLTS
};

const Line* find_line(const std::string& name) {
  for (const auto& l : kLines) {
    if (name == l.name) return &l;
  }
  return nullptr;
}

void define_line(CLI::App& sub, Args& a) {
  site_option(sub, a);
  std::vector<std::string> names;
  for (const auto& l : kLines) names.push_back(l.name);
  sub.add_option("NAME", a.name)->required()->check(CLI::IsMember(names));
  sub.add_option("VALUE", a.value, "on|off for a switch, MILLIVOLTS for vbatt");
  // The value's kind depends on the line: checked once all of them are read.
  sub.callback([&a] {
    const Line* line = find_line(a.name);
    const bool isSwitch = line->set != nullptr, isVbatt = a.name == "vbatt";
    if ((isSwitch || isVbatt) && a.value.empty())
      throw CLI::ValidationError(a.name + " needs a value");
    if (!isSwitch && !isVbatt && !a.value.empty())
      throw CLI::ValidationError(a.name + " takes no value");
    if (isSwitch && a.value != "on" && a.value != "off") {
      throw CLI::ValidationError("VALUE", "expected on or off, not '" + a.value + "'");
    }
    if (isVbatt && !CLI::detail::lexical_cast(a.value, a.reg)) {
      throw CLI::ValidationError("VALUE",
                                 "MILLIVOLTS must be a whole number, not '" + a.value + "'");
    }
  });
}

int cmd_line(Context& ctx, const Args& a) {
  const Line* line = find_line(a.name);
  ctx.controller(a.site > 4 ? 1 : 0);
  ctx.require_site_port(a.site);
  Json& r = ctx.out.result();
  r["site"] = a.site;
  r["line"] = a.name;
  bool ok = false;
  if (line->set) {
    r["state"] = a.value;
    ok = line->set(a.site - 1, a.value == "on");
  } else if (line->send) {
    ok = line->send(a.site - 1);
  } else {
    r["millivolts"] = a.reg;
    ok = SOC_Set_VBatt(a.site - 1, a.reg);
  }
  if (!ok) fail(kFailed, site_text(a.site) + ": the board did not take " + a.name);
  return kOk;
}

int cmd_reset(Context& ctx, const Args&) {
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

void define_raw(CLI::App& sub, Args& a) {
  site_option(sub, a);
  sub.add_option("TEXT", a.text, "\\n, \\r, \\t and \\\\ stand for those characters")->required();
  sub.add_flag("--no-newline", a.exact, "send TEXT as it is, without a closing newline");
  sub.add_flag("--read", a.read, "show what the board answered within the wait");
  sub.add_option("--wait", a.readWait, "seconds to collect the answer (default 0.5)")
      ->check(kSeconds);
}

// Everything the site's port delivers until `seconds` have passed.
std::string read_answer(int fd, double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  std::string answer;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buf[512];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) answer.append(buf, static_cast<size_t>(n));
    if (n == 0) break;
  }
  return answer;
}

int cmd_raw(Context& ctx, const Args& a) {
  std::string text = unescape(a.text);
  if (!a.exact && (text.empty() || text.back() != '\n')) text += '\n';
  ctx.controller(a.site > 4 ? 1 : 0);
  ctx.require_site_port(a.site);
  Json& r = ctx.out.result();
  r["site"] = a.site;
  r["sent"] = text;
  if (!SOC_Write(a.site - 1, text.c_str()))
    fail(kFailed, site_text(a.site) + ": the write did not go through");
  if (a.read) r["answer"] = read_answer(DIO_fileDescriptor[a.site - 1], a.readWait);
  return kOk;
}

// ---- press and tray -------------------------------------------------------------------------

void define_press(CLI::App& sub, Args& a) {
  sub.add_option("--timeout", a.seconds, "seconds to wait; 0 (the default) waits without limit")
      ->check(kSeconds);
  sub.add_flag("--auto", a.automatic, "close and lower without the operator");
}

int cmd_press(Context& ctx, const Args& a) {
  ctx.controller(ctx.well);
  Json& r = ctx.out.result();
  r["well"] = ctx.well + 1;
  bool done = false;
  const float timeout = static_cast<float>(a.seconds);
  with_progress(ctx.out,
                "well " + std::to_string(ctx.well + 1) +
                    (a.automatic ? ": closing and lowering..."
                                 : ": waiting for the operator to press both buttons..."),
                [&] {
                  done = a.automatic ? PneumaticValveAutoOn(ctx.well, timeout)
                                     : PneumaticValveOn(ctx.well, timeout);
                });
  r["pressed"] = done;
  if (!done) {
    char limit[32];
    std::snprintf(limit, sizeof limit, "%g", a.seconds);
    fail(kTimedOut,
         std::string("the operator did not complete the press cycle within ") + limit + " s");
  }
  return kOk;
}

int cmd_release(Context& ctx, const Args&) {
  ctx.controller(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  if (!SOC_PneumaticValveOff(ctx.well)) fail(kFailed, "the board did not take vel_pne_out");
  return kOk;
}

template <int (*Action)(FixtureController*)>
int press_action(Context& ctx, const Args&) {
  FixtureController* h = ctx.controller(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  with_progress(ctx.out, "moving...", [&] { Action(h); });  // the board reports nothing back
  return kOk;
}

int cmd_init(Context& ctx, const Args&) {
  FixtureController* h = ctx.controller(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  int result = 0;
  with_progress(
      ctx.out,
      "well " + std::to_string(ctx.well + 1) + ": to rest (LEDs off, plate up, tray out)...",
      [&] { result = init(h); });
  if (result != 0) fail(kFailed, "init of well " + std::to_string(ctx.well + 1) + " failed");
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

// A location text "0x1113000" as a number; null when empty.
Json location(const std::string& text) {
  if (text.empty()) return nullptr;
  return std::stoull(text, nullptr, 16);
}

int cmd_locations(Context& ctx, const Args&) {
  const std::string uarts = getUSBLocationForUART(0x0403, 0x6001);
  const std::string dfu = getUSBLocationForMCU(kAppleVendor, kDfuProduct);
  Json& r = ctx.out.result();
  r["dfu_unit_location"] = location(dfu);
  if (uarts == "error") {
    fail(kNotFound, "no UART bridges (0403:6001) named USB UART1-8 were found",
         "  each site's hub carries a UART bridge beside its unit; check the fixture's USB");
  }
  const auto fields = split_commas(uarts);
  Json sites = Json::array();
  for (size_t i = 0; i < fields.size() && i < 8; ++i) {
    sites.push_back({{"site", i + 1}, {"unit_location", location(fields[i])}});
  }
  r["sites"] = std::move(sites);
  return kOk;
}

void define_apple(CLI::App& sub, Args& a) {
  a.seconds = 0.5;
  sub.add_option("--wait", a.seconds, "seconds to let arrivals come in (default 0.5)")
      ->check(kSeconds);
}

int cmd_apple_devices(Context& ctx, const Args& a) {
  for (long product : kUnitProducts) usbDeviceConnStatus(kAppleVendor, product);
  // Arrivals are taken on the library's USB event thread; give them a moment.
  std::this_thread::sleep_for(std::chrono::duration<double>(a.seconds));
  const auto sites = split_commas(getUSBLocationForUART(0x0403, 0x6001));
  Json devices = Json::array();
  for (int i = 0; i < BRAKWELL_APPLE_DEV_MAX; ++i) {
    const AppleDevRecord* d = g_pListAppleDev[i];
    if (!d) continue;
    Json site;
    for (size_t s = 0; s < sites.size(); ++s) {
      if (location(sites[s]) == Json(d->locationID)) site = s + 1;
    }
    devices.push_back({{"name", d->deviceName ? Json(d->deviceName) : Json()},
                       {"location", d->locationID},
                       {"site", site}});
  }
  Json history = Json::array();
  for (int i = 0; i < BRAKWELL_APPLE_DEV_MAX; ++i) {
    if (g_ListUutLocationID[i]) history.push_back(g_ListUutLocationID[i]);
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
         "  check its USB cable; `fixturectl ports` lists the modules present");
  }
  if (!openUSB(m) || !dioOpen(m)) {
    fail(kFailed, "DIO module " + std::to_string(m) +
                      " did not answer the reset and register writes of dioOpen");
  }
}

void define_dio(CLI::App& sub, Args& a) {
  word(sub, a, "OP", {"open", "close", "read", "write", "status", "sensors", "board-id", "vendor"});
  sub.add_option("MODULE", a.module, "0 (0471:df01) or 1 (0471:df02)")
      ->required()
      ->check(CLI::Range(0, 1));
  sub.add_option("ARG", a.text, "REGISTER (0-13) for read and write, VALUE for vendor");
  sub.add_option("VALUE", a.value, "for write: 0xNN, decimal, or a bit pattern such as 1x0xxxxx");
  sub.callback([&a] {
    const bool reg = a.word == "read" || a.word == "write";
    const size_t wanted = reg ? (a.word == "write" ? 2 : 1) : a.word == "vendor" ? 1 : 0;
    const size_t given = (a.text.empty() ? 0 : 1) + (a.value.empty() ? 0 : 1);
    if (given != wanted) {
      throw CLI::ValidationError("dio " + a.word + " takes " + std::to_string(wanted) +
                                 " value(s) after MODULE");
    }
    const int top = reg ? 13 : 0x7fffffff;
    if (wanted && (!CLI::detail::lexical_cast(a.text, a.reg) || a.reg < 0 || a.reg > top)) {
      throw CLI::ValidationError(reg ? "REGISTER" : "VALUE",
                                 "must be 0-" + std::to_string(top) + ", not '" + a.text + "'");
    }
  });
}

int cmd_dio(Context& ctx, const Args& a) {
  const int m = a.module;
  Json& r = ctx.out.result();
  r["module"] = m;
  open_module(m);
  int ok = 1;
  uint32_t value = 0;
  if (a.word == "open") {
    r["open"] = true;
  } else if (a.word == "close") {
    dioClose(m);
    ok = closeUSB(m) == 0;
  } else if (a.word == "read") {
    ok = dioRead(m, a.reg, &value);
    r["register"] = a.reg;
    r["value"] = ok ? Json(value) : Json();
  } else if (a.word == "write") {
    ok = dioWrite(m, a.reg, a.value.c_str());
    r["register"] = a.reg;
    r["written"] = a.value;
  } else if (a.word == "status") {
    ok = dioStatus(m, &value);
    r["status"] = ok ? Json(value) : Json();
  } else if (a.word == "sensors") {
    ok = dioReadSensor(m, &value);
    r["sensors"] = value;
    r["stable"] = ok == 1;
  } else if (a.word == "board-id") {
    ok = SOC_BoardID(m, &value);
    r["board_id"] = ok ? Json(value) : Json();
  } else {
    ok = vendorRequest(m, static_cast<uint32_t>(a.reg));
  }
  if (!ok) fail(kFailed, "DIO module " + std::to_string(m) + ": " + a.word + " failed");
  return kOk;
}

// ---- key chords -----------------------------------------------------------------------------

void define_keys(CLI::App& sub, Args& a) {
  word(sub, a, "CHORD", {"z", "y"})
      ->description("z: Control+Alt+Z (well 1), y: Control+Alt+Y (well 2)");
}

int cmd_keys(Context& ctx, const Args& a) {
  if (a.word == "z") {
    SOC_SendCtrlAltZ();
  } else {
    SOC_SendCtrlAltY();
  }
  ctx.out.result()["chord"] = "Control+Alt+" + std::string(a.word == "z" ? "Z" : "Y");
  return kOk;
}

int cmd_run_button(Context& ctx, const Args&) {
  ctx.controller(ctx.well);
  const bool pressed = SOC_IsRun_Pressed(ctx.well);
  ctx.out.result()["well"] = ctx.well + 1;
  ctx.out.result()["run_pressed"] = pressed;
  return kOk;
}

}  // namespace

int cmd_ports(Context& ctx, const Args& args);
void define_session(CLI::App& sub, Args& a);
int cmd_session(Context& ctx, const Args& a);

const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = {
      {"start", "start the station: identity, wells, and each site's board port",
       "Finds the fixture boards, opens their ports and reports what it found.", none, cmd_start},
      {"stop", "stop the station: Hi5 off on every site, ports closed",
       "Sends vel_hi5_disable to all eight sites (0.2 s apart) and closes the ports.", none,
       cmd_stop},
      {"ports", "every serial port and USB device of the fixture, with its site",
       "Needs no complete well: lists what is on USB (vendor:product, serial, location, site).",
       none, cmd_ports},
      {"status", "the well's status word: buttons, plate and tray",
       "Asks the well's first board for vel_fixture_status (--well picks the well).", none,
       cmd_status},
      {"init", "the well to rest: LEDs off, plate up, tray out (5 s)", "", none, cmd_init},
      {"power", "power a unit up (through recovery) or down",
       "on: Hi5 recovery request, accessory id, 4100 mV, battery, supercap, USB.\n"
       "off: USB, supercap, battery off. 'all' acts on the whole --well, every site at once;\n"
       "off then resets every site of the well.",
       define_power, cmd_power},
      {"boot", "bring a unit up in a boot mode",
       "Runs the force-DFU, force-diags or force-iBoot sequence (--off: every line off).",
       define_boot, cmd_boot},
      {"led", "pass and fail LEDs, and the well's run LED",
       "pass/fail switch the site's LEDs; off/run switch its well's run LED. With 'all', pass\n"
       "and fail light every site of the --well.",
       define_led, cmd_led},
      {"line", "switch one line of a site",
       "NAME on|off: usb battery supercap uart forcedfu hi5 accid accdet ntc gpio1 gpio2\n"
       "  usbhost pass fail\n"
       "NAME MILLIVOLTS: vbatt\n"
       "NAME alone: diag recovery (Hi5 requests), dfu-host, reset",
       define_line, cmd_line},
      {"reset", "reset every site of the --well (vel_dfu_reset)", "", none, cmd_reset},
      {"raw", "send TEXT to the site's board",
       "A newline is added unless TEXT ends in one or --no-newline is given.", define_raw, cmd_raw},
      {"press", "run the two-hand press cycle",
       "Waits for the operator to hold both buttons until the fixture is closed and the plate\n"
       "down, then to let go; exit 4 when --timeout runs out.",
       define_press, cmd_press},
      {"release", "plate up and tray out", "", none, cmd_release},
      {"engage", "lower the plate (vel_pne_down)", "", none, press_action<fixture_engage>},
      {"disengage", "raise the plate (vel_pne_up)", "", none, press_action<fixture_disengage>},
      {"close", "move the tray in (vel_pne_in)", "", none, press_action<fixture_close>},
      {"open", "reset the well's sites, then move the tray out", "", none,
       press_action<fixture_open>},
      {"locations", "where each site's unit sits on USB",
       "From the UART bridges (USB UART1-8, 0403:6001): the unit sits on port 3 of the\n"
       "UART's hub; and the location of the unit in DFU mode, if any.",
       none, cmd_locations},
      {"apple-devices", "units on USB now, with their sites",
       "Arms arrival tracking for Apple units (05ac: normal, recovery, DFU), waits and lists\n"
       "the units present and every location seen.",
       define_apple, cmd_apple_devices},
      {"dio", "the USB DIO modules 0471:df01 (0) and 0471:df02 (1)",
       "Every dio command opens the module first (openUSB, dioOpen: registers to rest).",
       define_dio, cmd_dio},
      {"keys", "post the Run key chord Control+Alt+Z (well 1) or Y (well 2)", "", define_keys,
       cmd_keys},
      {"run-button", "post the well's key chord if Run alone is held", "", none, cmd_run_button},
      {"session", "start the station once, then run commands line by line",
       "Reads one command per line (as after `fixturectl`, global options included) from FILE\n"
       "or standard input and answers each at once; # starts a comment. Exit status: that of\n"
       "the last command that failed, 0 when none did.",
       define_session, cmd_session},
      {"demo", "a narrated station cycle on every well of the fixture",
       "Start, init, two-hand press, power up (every site at once), USB locations, DFU and\n"
       "diags boots, LEDs, DIO modules, release and stop, then a table of every site. Run it\n"
       "inside fixturesim:  fixturesim --operator auto -- fixturectl demo",
       none, run_demo},
  };
  return kCommands;
}

}  // namespace fixturectl
