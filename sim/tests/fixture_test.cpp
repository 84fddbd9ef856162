// The virtual fixture's own behaviour, in process: units under test that follow the lines their
// board receives, timed faults, and the trace and VCD writers.
#include "fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <sstream>
#include <thread>

#include "tools_support.h"
#include "topology.h"
#include "vcd.h"

namespace {

using sim::BootMode;

// Writes lines to a site's port as the library would, then waits until the fixture has taken them
// all: our trace listener comes after the units' one, so seeing the marker line means every line
// before it was handled.
class Port {
 public:
  Port(sim::Fixture& fixture, int site)
      : fd_(open(sim::board_devnode(site).c_str(), O_RDWR | O_NOCTTY)) {
    fixture.testbed().on_trace([markers = markers_, site](const sim::TraceEvent& e) {
      if (e.source == "site" + std::to_string(site) && e.what == "vel_marker\n") ++*markers;
    });
  }
  ~Port() { close(fd_); }
  int fd() const { return fd_; }

  // `names`: the lines without their "vel_" and end, blank-separated.
  void send(const std::string& names) {
    const int expected = *markers_ + 1;
    std::istringstream in(names + " marker");
    for (std::string name; in >> name;) {
      const std::string line = "vel_" + name + "\n";
      ASSERT_EQ(write(fd_, line.data(), line.size()), ssize_t(line.size()));
    }
    for (int i = 0; i < 500 && *markers_ < expected; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(*markers_, expected);
  }

 private:
  int fd_;
  std::shared_ptr<std::atomic<int>> markers_ = std::make_shared<std::atomic<int>>(0);
};

TEST(VirtualUnits, BootModeFollowsTheLinesAtPowerUp) {
  sim::FixtureOptions options;
  options.wells = 1;
  options.dioModules = {};
  sim::Fixture fixture(options);
  Port port(fixture, 2);
  ASSERT_GE(port.fd(), 0);
  const std::pair<const char*, std::optional<BootMode>> cases[] = {
      {"vusb_on", BootMode::Normal},  // one supply alone
      {"vbatt_on", BootMode::Normal},
      {"forcedfu_on vbatt_on", BootMode::Dfu},
      {"hi5_enable hi5_enter_recovery vusb_on", BootMode::Recovery},
      {"hi5_enter_recovery hi5_enter_diag vusb_on", BootMode::Normal},  // diag overrides
      {"vusb_on forcedfu_on", BootMode::Normal},        // force-DFU after power-up changes nothing
      {"vusb_on vbatt_on vusb_off", BootMode::Normal},  // one supply still on
      {"vusb_on vbatt_on vusb_off vbatt_off", std::nullopt},
      {"vbatt_on dfu_reset", std::nullopt},  // a board reset cuts power
      // The recovery request is forgotten at power-down.
      {"hi5_enter_recovery vusb_on vusb_off vusb_on", BootMode::Normal},
  };
  for (const auto& [lines, mode] : cases) {
    SCOPED_TRACE(lines);
    // From rest: unpowered, force-DFU released, no request pending.
    port.send("dfu_reset forcedfu_off hi5_enter_diag");
    ASSERT_FALSE(fixture.units().present(2));
    port.send(lines);
    EXPECT_EQ(fixture.units().present(2), mode);
    sim::UsbDevice* unit = fixture.usb().find(sim::site_port_path(2, sim::kUnitPort));
    ASSERT_EQ(unit != nullptr, mode.has_value());
    if (!unit) continue;
    const sim::UnitIdentity& id = sim::unit_identity(*mode);
    EXPECT_EQ(unit->desc().productName, id.name);
    EXPECT_EQ(unit->desc().product, id.product);
    EXPECT_EQ(unit->location_id(), 0x1123000u);
  }
  EXPECT_FALSE(fixture.units().present(1));  // the other sites heard nothing
  // The waveform follows site 2's board and its unit coming and going.
  tools_test::ScratchDir dir;
  ASSERT_TRUE(fixture.write_vcd(dir / "units.vcd"));
  const auto vcd = tools_test::read_vcd(dir / "units.vcd").vars;
  const std::string site = "fixture.site2.site2.";
  EXPECT_EQ(vcd.at(site + "board_usb").values.back().second, "1");
  EXPECT_EQ(vcd.at(site + "unit_usb").values.front().second, "0");
  EXPECT_EQ(vcd.at(site + "unit_usb").values.back().second, "1");
  EXPECT_GE(vcd.at(site + "unit").values.size(), 2 * std::size(cases));
}

TEST(VirtualFaults, StrikeAtTheirTimeAfterStart) {
  sim::FixtureOptions options;
  options.wells = 1;
  options.dioModules = {0};
  options.faults = {{sim::TimedFault::BoardUnplugged, 2, 0.2},
                    {sim::TimedFault::BoardStopsReading, 3, 0.3},
                    {sim::TimedFault::DioGone, 0, 0.1}};
  sim::Fixture fixture(options);
  const int fd = open(sim::board_devnode(2).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_GE(fd, 0);
  const double t0 = sim::now();
  fixture.start();
  EXPECT_EQ(write(fd, "vel_ntc_on\n", 11), 11);  // still plugged
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  EXPECT_LT(write(fd, "vel_ntc_on\n", 11), 0);
  close(fd);
  EXPECT_TRUE(fixture.dio(0)->gone());

  std::map<std::string, double> seen;
  for (const auto& e : fixture.testbed().trace_events()) {
    if (e.time >= t0) seen.emplace(e.source + " " + e.what, e.time - t0);
  }
  const std::pair<const char*, double> expected[] = {{"site2 unplugged=1", 0.2},
                                                     {"usb 1-1.2.2=remove", 0.2},
                                                     {"site3 reading=0", 0.3},
                                                     {"usb 1-3=remove", 0.1}};
  for (const auto& [event, at] : expected) {
    ASSERT_TRUE(seen.count(event)) << event;
    EXPECT_GE(seen[event], at) << event;
    EXPECT_LT(seen[event], at + 0.3) << event;
  }
}

TEST(TraceAndVcd, WritersKeepTimesAndValues) {
  const double t0 = 100.0;
  EXPECT_EQ(sim::trace_line({t0, "site1", std::string("a\x01\n")}, t0),
            "   0.000000  site1     < a\\x01");

  sim::Vcd vcd;
  vcd.declare("site1", "pass_led", "0");
  vcd.declare("site1", "vbatt_mv", "0");
  vcd.declare("well1", "plate", "up");
  vcd.change(t0 + 0.5, "site1", "pass_led", "1");
  vcd.change(t0 + 1.0, "site1", "vbatt_mv", "4100");
  vcd.change(t0 + 0.25, "well1", "plate", "moving");
  vcd.change(t0 + 0.75, "well1", "plate", "down");
  vcd.change(t0 + 0.1, "site9", "ghost", "1");       // never declared: left out
  vcd.change(t0 + 0.2, "dio0", "reg1", "90", true);  // declared by its first change
  EXPECT_FALSE(vcd.has("site9", "ghost"));

  tools_test::ScratchDir dir;
  ASSERT_TRUE(vcd.write(dir / "w.vcd", t0, "test"));
  const auto file = tools_test::read_vcd(dir / "w.vcd");
  ASSERT_TRUE(file.ok);
  ASSERT_EQ(file.vars.size(), 4u);
  const auto& led = file.vars.at("fixture.site1.site1.pass_led");
  EXPECT_EQ(led.type, "wire");
  EXPECT_EQ(led.width, 1);
  EXPECT_EQ(led.values, (std::vector<std::pair<long long, std::string>>{{0, "0"}, {500000, "1"}}));
  const auto& mv = file.vars.at("fixture.site1.site1.vbatt_mv");
  EXPECT_EQ(mv.type, "integer");
  EXPECT_EQ(mv.width, 32);
  EXPECT_EQ(mv.values.back(), (std::pair<long long, std::string>{1000000, "b1000000000100"}));
  const auto& plate = file.vars.at("fixture.well1.well1.plate");  // states up, moving, down
  EXPECT_EQ(plate.width, 2);
  EXPECT_EQ(plate.values, (std::vector<std::pair<long long, std::string>>{
                              {0, "b0"}, {250000, "b1"}, {750000, "b10"}}));
  EXPECT_NE(tools_test::read_file(dir / "w.vcd").find("well1.plate: 0=up 1=moving 2=down"),
            std::string::npos);
}

}  // namespace
