// fixturectl demo: one narrated station cycle that drives every family of calls.
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"

namespace fixturectl {
namespace {

using Clock = std::chrono::steady_clock;

std::string hex(unsigned value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", value);
  return buf;
}

Json or_null(const std::string& s) { return s == "-" ? Json() : Json(s); }

struct Mode {
  const char* name;
  int (*sequence)(FixtureController*, int, int);
};
const Mode kModes[] = {
    {"DFU", set_force_dfu}, {"diagnostics", set_force_diags}, {"iBoot", set_force_iboot}};

struct Site {
  int number = 0;  // 1-8
  bool port = false;
  std::string location = "-";  // where its unit appears
  std::string unit = "-";      // the unit's name as last seen
  std::string led = "-";
};

class Demo {
 public:
  explicit Demo(Context& ctx) : ctx_(ctx), start_(Clock::now()) {}
  int run();

 private:
  void say(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void step(const char* title) { say("== %s", title); }
  FixtureController* h(int well) { return ctx_.controllers[well]; }
  std::vector<int> sites_of(int well) const;
  template <typename Fn>
  void each_well_at_once(Fn fn);
  // Runs fn(site) for each site on its own thread and says how long that took against the
  // sites one after another (the sum of each site's own time).
  void each_site_at_once(const char* what, const std::vector<int>& sites,
                         const std::function<void(int)>& fn);
  // Units on USB by location, once the library's event thread has taken `expected` of them.
  std::map<std::string, std::string> units(size_t expected);
  // Says which unit each site shows; `record` keeps it for the summary.
  void show_units(const char* when, size_t expected, bool record);

  void start();
  void init_wells();
  void press();
  void power_up();
  void boot_modes();
  void dio_modules();
  void results();
  void finish();
  void summary();

  Context& ctx_;
  Clock::time_point start_;
  std::vector<int> wells_;
  Site sites_[9];
  std::vector<std::string> unitLocations_;  // by site - 1, from the UART bridges
};

void Demo::say(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  const double t = std::chrono::duration<double>(Clock::now() - start_).count();
  char line[600];
  std::snprintf(line, sizeof line, "[%5.1f s] %s", t, text);
  ctx_.out.say(line);
}

std::vector<int> Demo::sites_of(int well) const {
  std::vector<int> out;
  for (int s = well * 4 + 1; s <= well * 4 + 4; ++s) {
    if (sites_[s].port) out.push_back(s);
  }
  return out;
}

std::map<std::string, std::string> Demo::units(size_t expected) {
  std::map<std::string, std::string> out;
  const auto deadline = Clock::now() + std::chrono::seconds(3);
  do {
    out.clear();
    for (const AppleDevRecord* d : g_pListAppleDev) {
      if (d) out[hex(d->locationID)] = d->deviceName ? d->deviceName : "";
    }
    if (out.size() == expected) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  } while (Clock::now() < deadline);
  return out;
}

void Demo::show_units(const char* when, size_t expected, bool record) {
  const auto present = units(expected);
  say("%s: %zu unit(s) on USB", when, present.size());
  for (int s = 1; s <= 8; ++s) {
    if (!sites_[s].port) continue;
    const auto it = present.find(sites_[s].location);
    if (record) sites_[s].unit = it == present.end() ? "-" : it->second;
    if (it != present.end()) {
      say("  site %d: \"%s\" at %s", s, it->second.c_str(), it->first.c_str());
    }
  }
}

void Demo::start() {
  step("start the station");
  ctx_.controller(0);
  if (SOC_GetWellNumber() == 2) ctx_.controller(1);
  for (int u = 0; u < BRAKWELL_UUT_COUNT; ++u) {
    sites_[u + 1].number = u + 1;
    sites_[u + 1].port = DIO_fileDescriptor[u] >= 0;
  }
  if (SOC_GetWellNumber() == 2) {
    wells_ = {0, 1};
  } else {
    wells_ = {sites_of(0).empty() ? 1 : 0};
    if (wells_[0] == 1) ctx_.controller(1);
  }
  char library[32] = {};
  SOC_LibVersion(library, sizeof library);
  FixtureController* first = h(wells_[0]);
  say("%s fixture, library \"%s\", interface %s, serial number %s", get_vendor(), library,
      get_version(first), get_serial_number(first));
  say("%u well(s), %u slots, %d press actuator(s); site ports:", SOC_GetWellNumber(),
      SOC_GetSlotNumber(), get_actuator_count(first));
  for (int u = 0; u < BRAKWELL_UUT_COUNT; ++u) {
    if (sites_[u + 1].port) say("  site %d: %s", u + 1, DIO_UUTSerialDevice[u]);
  }
}

void Demo::init_wells() {
  step("init: every well to rest (LEDs off, plate up, tray out), both wells at once");
  int results[2] = {0, 0};
  each_well_at_once([&](int w) { results[w] = init(h(w)); });
  for (int w : wells_) {
    if (results[w] != 0) fail(kFailed, "init of well " + std::to_string(w + 1) + " failed");
    say("well %d at rest: plate %s, tray %s", w + 1, is_fixture_disengaged(h(w)) ? "up" : "?",
        is_fixture_open(h(w)) ? "out" : "?");
  }
}

void Demo::press() {
  step("the operator's two-hand press");
  say("waiting for the operator to hold both buttons on every well...");
  bool done[2] = {false, false};
  with_progress(ctx_.out, "  press cycle",
                [&] { each_well_at_once([&](int w) { done[w] = PneumaticValveOn(w, 30.0f); }); });
  for (int w : wells_) {
    if (!done[w]) {
      fail(kTimedOut, "well " + std::to_string(w + 1) + ": the operator did not press in 30 s",
           "  run the demo inside the virtual fixture with an operator:\n"
           "    fixturesim --operator auto -- fixturectl demo");
    }
    say("well %d: tray in, plate down, hands off; engaged=%s closed=%s", w + 1,
        is_fixture_engaged(h(w)) ? "yes" : "no", is_fixture_closed(h(w)) ? "yes" : "no");
    set_led_state_all(h(w), 3);
    say("well %d: run LED on (test in progress)", w + 1);
  }
}

template <typename Fn>
void Demo::each_well_at_once(Fn fn) {
  std::vector<std::thread> threads;
  for (int w : wells_) threads.emplace_back([&fn, w] { fn(w); });
  for (auto& t : threads) t.join();
}

void Demo::each_site_at_once(const char* what, const std::vector<int>& sites,
                             const std::function<void(int)>& fn) {
  std::vector<double> took(sites.size());
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (size_t i = 0; i < sites.size(); ++i) {
    threads.emplace_back([&, i] {
      const auto t0 = Clock::now();
      fn(sites[i]);
      took[i] = std::chrono::duration<double>(Clock::now() - t0).count();
    });
  }
  for (auto& t : threads) t.join();
  double sum = 0;
  for (double t : took) sum += t;
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  say("%s: %zu site(s) at once in %.2f s; one after another: %.2f s", what, sites.size(), wall,
      sum);
  Json& timing = ctx_.out.result()["timing"];
  timing.push_back({{"step", what},
                    {"sites", sites.size()},
                    {"parallel_seconds", wall},
                    {"sequential_seconds", sum}});
}

void Demo::power_up() {
  step("power up every site, all at once");
  for (long product : kUnitProducts) usbDeviceConnStatus(kAppleVendor, product);
  std::vector<int> all;
  for (int w : wells_) {
    for (int s : sites_of(w)) all.push_back(s);
  }
  std::atomic<size_t> powered{0};
  each_site_at_once("power up", all, [&](int s) {
    const int w = s > 4 ? 1 : 0;
    if (set_dut_power(h(w), 0, s - w * 4) == 0) ++powered;
  });
  say("%zu site(s) powered through the Hi5 recovery request", powered.load());
  step("units appearing at their USB locations");
  const std::string text = getUSBLocationForUART(0x0403, 0x6001);
  std::string field;
  int s = 1;
  for (char c : text + ",") {
    if (c != ',') {
      field += c;
      continue;
    }
    if (s <= 8 && !field.empty()) sites_[s].location = field;
    field.clear();
    ++s;
  }
  say("unit locations from the UART bridges: %s", text.c_str());
  show_units("after power-up", powered.load(), false);
}

void Demo::boot_modes() {
  const int w = wells_[0];
  const auto sites = sites_of(w);
  if (sites.size() < 2) return;
  step("boot modes, every site at once");
  // DFU on the first site, diags on the second, iBoot on the second of the other well.
  std::map<int, const Mode*> modes{{sites[0], &kModes[0]}, {sites[1], &kModes[1]}};
  if (wells_.size() > 1 && sites_of(1).size() > 1) modes[sites_of(1)[1]] = &kModes[2];
  std::vector<int> chosen;
  for (const auto& [s, mode] : modes) {
    say("site %d: force %s", s, mode->name);
    chosen.push_back(s);
  }
  each_site_at_once("boot modes", chosen, [&](int s) {
    const int sw = s > 4 ? 1 : 0;
    modes[s]->sequence(h(sw), 0, s - sw * 4);
  });
  const int dfu = sites[0];
  size_t expected = 0;
  for (int x : wells_) expected += sites_of(x).size();
  show_units("after the boot-mode sequences", expected, true);
  const std::string mcu = getUSBLocationForMCU(kAppleVendor, kDfuProduct);
  say("the unit in DFU mode is at %s (site %d's location is %s)", mcu.empty() ? "-" : mcu.c_str(),
      dfu, sites_[dfu].location.c_str());
  SOC_SendCtrlAltZ();
  say("key chord Control+Alt+Z posted (the Run key of well 1)");
}

void Demo::dio_modules() {
  step("DIO modules");
  for (int m = 0; m < 2; ++m) {
    if (!USBDeviceAlive(m)) {
      say("module %d (0471:df0%d): not on the bus", m, m + 1);
      continue;
    }
    openUSB(m);
    if (!dioOpen(m)) {
      say("module %d: did not answer", m);
      continue;
    }
    uint32_t id = 0, sensors = 0, value = 0;
    const bool idOk = SOC_BoardID(m, &id);
    const bool sensorsOk = dioReadSensor(m, &sensors);
    dioWrite(m, 1, "0x5A");
    dioRead(m, 1, &value);
    say("module %d: board id %s, well sensors %s, register 1 written 0x5a and read %s", m,
        idOk ? std::to_string(id).c_str() : "unknown",
        sensorsOk ? hex(sensors).c_str() : "unsettled", hex(value).c_str());
    dioClose(m);
    closeUSB(m);
  }
}

void Demo::results() {
  step("results");
  // The host interface's signal switches and getters answer without touching the fixture.
  for (int w : wells_) {
    for (int s : sites_of(w)) {
      const int in = s - w * 4;
      set_usb_signal(h(w), 1, in);
      set_uart_signal(h(w), 1, in);
      is_board_detected(h(w), in);
      dut_power(h(w), in);
    }
  }
  int n = 0;
  for (int w : wells_) {
    for (int s : sites_of(w)) {
      // One unit in three fails, so both LEDs show.
      const bool pass = n++ % 3 != 2;
      set_led_state(h(w), pass ? 1 : 2, s - w * 4);
      sites_[s].led = pass ? "pass" : "fail";
      say("site %d: %s LED", s, pass ? "pass" : "fail");
    }
    set_led_state_all(h(w), 0);
    say("well %d: run LED off", w + 1);
  }
}

void Demo::finish() {
  step("release and stop");
  for (int w : wells_) {
    SOC_PowerOff(w);
    say("well %d: units powered off (board reset line)", w + 1);
  }
  show_units("after power-off", 0, false);
  for (int w : wells_) {
    fixture_disengage(h(w));
    fixture_open(h(w));
    say("well %d: plate up, tray out", w + 1);
  }
  SOC_Done();
  say("station stopped: Hi5 off on every site, ports closed");
}

void Demo::summary() {
  Json table = Json::array();

  for (int s = 1; s <= 8; ++s) {
    if (!sites_[s].port) continue;
    table.push_back(
        {{"site", s},
         {"well", s > 4 ? 2 : 1},
         {"port", DIO_UUTSerialDevice[s - 1]},
         {"unit_location",
          sites_[s].location == "-" ? Json() : Json(std::stoull(sites_[s].location, nullptr, 16))},
         {"unit_after_boot", or_null(sites_[s].unit)},
         {"led", sites_[s].led}});
  }
  ctx_.out.say("");
  ctx_.out.result()["sites"] = std::move(table);
}

int Demo::run() {
  ctx_.out.say("Brakwell demo: one station cycle on the fixture");
  start();
  init_wells();
  press();
  power_up();
  boot_modes();
  dio_modules();
  results();
  finish();
  summary();
  return kOk;
}

}  // namespace

int run_demo(Context& ctx, const Args&) { return Demo(ctx).run(); }

}  // namespace fixturectl
