// The virtual fixture in process: units following their board's lines, timed faults, writers.
#include "fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

#include "tools_support.h"
#include "topology.h"
#include "vcd.h"

namespace {

using sim::BootMode;
using namespace std::chrono_literals;

TEST(VirtualUnits, BootModeFollowsTheLinesAtPowerUp) {
  std::atomic<int> markers = 0;  // outlives the fixture that calls the listener
  sim::FixtureOptions options;
  options.wells = 1;
  options.dioModules = {};
  sim::Fixture fixture(options);
  const int fd = open(sim::board_devnode(2).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  // Listeners run in order: once ours sees the marker, the units have handled every line before.
  fixture.testbed().on_trace([&](const sim::TraceEvent& e) {
    markers += e.source == "site2" && e.what == "vel_marker\n";
  });
  // Writes lines to site 2's port as the library would ("vusb_on" for "vel_vusb_on\n").
  const auto send = [&](const std::string& names) {
    const int expected = markers + 1;
    const std::string text =
        std::regex_replace(names + " marker", std::regex(R"((\S+) ?)"), "vel_$1\n");
    ASSERT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size()));
    for (int i = 0; i < 500 && markers < expected; ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(markers, expected);
  };
  const std::pair<const char*, std::optional<BootMode>> cases[] = {
      {"vusb_on", BootMode::Normal},  // one supply alone
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
    send("dfu_reset forcedfu_off hi5_enter_diag");  // unpowered, released, nothing pending
    ASSERT_FALSE(fixture.units().present(2));
    send(lines);
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
  close(fd);
}

TEST(VirtualFaults, StrikeAtTheirTimeAfterStart) {
  sim::FixtureOptions options;
  options.wells = 1;
  options.dioModules = {0};
  options.faults = {{sim::TimedFault::BoardUnplugged, 2, 0.2},
                    {sim::TimedFault::BoardStopsReading, 3, 0.3},
                    {sim::TimedFault::DioGone, 0, 0.1}};
  sim::Fixture fixture(options);
  const int fd = open(sim::board_devnode(2).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  const double t0 = sim::now();
  fixture.start();
  std::this_thread::sleep_for(600ms);
  EXPECT_LT(write(fd, "vel_ntc_on\n", 11), 0);  // unplugged
  close(fd);
  std::map<std::string, double> seen;
  for (const auto& e : fixture.testbed().trace_events())
    if (e.time >= t0) seen.emplace(e.source + " " + e.what, e.time - t0);
  for (auto [event, at] : {std::pair{"site2 unplugged=1", 0.2},
                           {"usb 1-1.2.2=remove", 0.2},
                           {"site3 reading=0", 0.3},
                           {"usb 1-3=remove", 0.1}})
    EXPECT_TRUE(seen.count(event) && seen[event] >= at && seen[event] < at + 0.3) << event;
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
  tools_test::ScratchDir dir;
  ASSERT_TRUE(vcd.write(dir / "w.vcd", t0, "test"));
  const auto file = tools_test::read_vcd(dir / "w.vcd");
  ASSERT_EQ(file.size(), 4u);
  const auto var = [&](const std::string& name) {  // "type width time:value..."
    const auto& v = file.at("fixture." + name);
    std::string text = v.type + " " + std::to_string(v.width);
    for (const auto& [time, value] : v.values) text += " " + std::to_string(time) + ":" + value;
    return text;
  };
  EXPECT_EQ(var("site1.site1.pass_led"), "wire 1 0:0 500000:1");
  EXPECT_EQ(var("site1.site1.vbatt_mv"), "integer 32 0:b0 1000000:b1000000000100");
  EXPECT_EQ(var("well1.well1.plate"), "wire 2 0:b0 250000:b1 750000:b10");  // up, moving, down
  EXPECT_NE(tools_test::read_file(dir / "w.vcd").find("well1.plate: 0=up 1=moving 2=down"),
            std::string::npos);
}

}  // namespace
