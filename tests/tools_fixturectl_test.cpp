// fixturectl as a program: its command line, JSON output and exit codes, run inside fixturesim
// with an operator and with faults; and the demo, whose waveform must read back.
#include <gtest/gtest.h>

#include "tools_support.h"

namespace {

using tools_test::run;

const std::string kCtl = BRAKWELL_FIXTURECTL;
const std::string kSim = BRAKWELL_FIXTURESIM;

std::vector<std::string> in_fixture(const std::vector<std::string>& simOptions,
                                    const std::vector<std::string>& ctlArgs) {
  std::vector<std::string> argv{kSim, "--quiet"};
  argv.insert(argv.end(), simOptions.begin(), simOptions.end());
  argv.push_back("--");
  argv.push_back(kCtl);
  argv.insert(argv.end(), ctlArgs.begin(), ctlArgs.end());
  return argv;
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Bad command lines are refused before the fixture is touched.
TEST(Fixturectl, UsageErrorsExitTwoAndSayWhy) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"frobnicate"}, "fixturectl: no command named 'frobnicate'"},
      {{"--well", "3", "status"}, "fixturectl: --well takes 0 or 1, not '3'"},
      {{"power", "on", "9"}, "fixturectl power: SITE must be 1-8, not 9"},
      {{"power", "maybe", "1"}, "fixturectl power: expected on or off, not 'maybe'"},
      {{"power", "on"}, "fixturectl power: missing arguments"},
      {{"boot", "fastboot", "1"}, "fixturectl boot: boot mode must be dfu, diags or iboot"},
      {{"led", "blue", "1"}, "fixturectl led: LED state must be pass, fail, off or run"},
      {{"line", "1", "laser", "on"}, "fixturectl line: no line named 'laser'"},
      {{"line", "1", "usb"}, "fixturectl line: usb needs a value"},
      {{"press", "--timeout", "soon"}, "fixturectl press: --timeout must be a number of seconds"},
      {{"press", "--fast"}, "fixturectl press: unknown option --fast"},
      {{"dio", "read", "2", "1"}, "fixturectl dio: MODULE must be 0 (0471:df01) or 1"},
      {{"dio", "read", "0", "14"}, "fixturectl dio: REGISTER must be 0-13"},
      {{"keys", "x"}, "fixturectl keys: the chord letter is z (first well) or y"},
  };
  for (const auto& [args, message] : cases) {
    std::vector<std::string> argv{kCtl};
    argv.insert(argv.end(), args.begin(), args.end());
    const auto ran = run(argv);
    EXPECT_EQ(ran.status, 2) << message;
    EXPECT_EQ(ran.err.rfind(message, 0), 0u) << ran.err;
  }
  const auto none = run({kCtl});
  EXPECT_EQ(none.status, 2);
  EXPECT_TRUE(has(none.err, "usage: fixturectl [--well 0|1] [--json] [--log] COMMAND"));

  // With --json the error is an object on standard output too.
  const auto json = run({kCtl, "--json", "power", "on", "9"});
  EXPECT_EQ(json.status, 2);
  EXPECT_EQ(json.out,
            "{\"command\":\"power\",\"ok\":false,\"exit\":2,\"error\":\"SITE must be 1-8, not "
            "9\"}\n");
}

TEST(Fixturectl, HelpForEverySubcommand) {
  const auto overview = run({kCtl, "--help"});
  ASSERT_EQ(overview.status, 0);
  for (const char* command :
       {"start", "stop",      "status",        "power",   "boot",   "led",        "line",
        "reset", "raw",       "press",         "release", "engage", "disengage",  "close",
        "open",  "locations", "apple-devices", "dio",     "keys",   "run-button", "demo"}) {
    EXPECT_TRUE(has(overview.out, std::string("\n  ") + command + " ")) << command;
    const auto help = run({kCtl, command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.rfind(std::string("usage: fixturectl ") + command, 0), 0u) << help.out;
    EXPECT_EQ(run({kCtl, "help", command}).out, help.out);
  }
}

TEST(Fixturectl, StartReportsTheFixtureAsJson) {
  const auto ran = run(in_fixture({"--wells", "2"}, {"--json", "start"}));
  ASSERT_EQ(ran.status, 0) << ran.err;
  // One line of JSON and nothing else on standard output.
  ASSERT_EQ(ran.out.find('\n'), ran.out.size() - 1) << ran.out;
  EXPECT_EQ(ran.out.rfind("{\"command\":\"start\",\"ok\":true,\"exit\":0,", 0), 0u) << ran.out;
  for (const char* field :
       {"\"vendor\":\"Velmora Technologies\"", "\"library\":\"Velmora Lumbrix 4.01\"",
        "\"wells\":2", "\"slots\":8",
        "{\"site\":3,\"well\":1,\"port\":\"/dev/tty.usbmodemVEL_03_A1\",\"open\":true}",
        "{\"site\":8,\"well\":2,\"port\":\"/dev/tty.usbmodemVEL_08_A1\",\"open\":true}"}) {
    EXPECT_TRUE(has(ran.out, field)) << field << "\n" << ran.out;
  }
}

TEST(Fixturectl, NoFixtureSaysWhatWasSeenAndWhatToDo) {
  const auto ran = run(in_fixture({"--missing", "1-8"}, {"start"}));
  EXPECT_EQ(ran.status, 3);
  EXPECT_TRUE(has(ran.err, "fixturectl start: no fixture found")) << ran.err;
  EXPECT_TRUE(has(ran.err, "fixture boards on USB (1fc9:df01): none")) << ran.err;
  EXPECT_TRUE(has(ran.err, "lsusb -d 1fc9:df01")) << ran.err;

  // A well with a board missing does not count; the other well still does.
  const auto partial = run(in_fixture({"--missing", "2"}, {"--json", "start"}));
  EXPECT_EQ(partial.status, 0) << partial.err;
  EXPECT_TRUE(has(partial.out, "\"wells\":1")) << partial.out;
  const auto site = run(in_fixture({"--missing", "2"}, {"power", "on", "2"}));
  EXPECT_EQ(site.status, 3);
  EXPECT_TRUE(has(site.err, "site 2: its fixture board port is not open")) << site.err;
}

TEST(Fixturectl, FaultsSayWhatFailed) {
  // A board unplugged before the station starts.
  const auto unplugged = run(in_fixture({"--unplug", "3@0"}, {"power", "on", "3"}));
  EXPECT_EQ(unplugged.status, 3);
  EXPECT_TRUE(has(unplugged.err, "site 3: its fixture board port is not open\n")) << unplugged.err;

  const auto garbled = run(in_fixture({"--garble", "1"}, {"--json", "status"}));
  EXPECT_EQ(garbled.status, 1);
  EXPECT_TRUE(has(garbled.out, "\"error\":\"well 1: no status reply\"")) << garbled.out;
  const auto clean = run(in_fixture({"--garble", "1"}, {"--well", "1", "--json", "status"}));
  EXPECT_EQ(clean.status, 0);
  EXPECT_TRUE(has(clean.out, "\"status\":{\"word\":23,\"button_a\":\"released\"")) << clean.out;
}

TEST(Fixturectl, PressWaitsForTheOperator) {
  const auto pressed =
      run(in_fixture({"--operator", "auto"}, {"--json", "press", "--timeout", "20"}));
  EXPECT_EQ(pressed.status, 0) << pressed.err;
  EXPECT_TRUE(has(pressed.out, "\"pressed\":true")) << pressed.out;

  // A scripted operator holds both buttons from the start and lets go at 8 s: the cycle ends
  // then, not before.
  const auto start = std::chrono::steady_clock::now();
  const auto scripted =
      run(in_fixture({"--operator", "AB+@0 AB-@8"}, {"press", "--timeout", "30"}));
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(scripted.status, 0) << scripted.err;
  EXPECT_GE(took, 8.0);
  EXPECT_TRUE(has(scripted.out, "pressed: yes")) << scripted.out;

  // Nobody at the buttons: the cycle runs out after its first polls.
  const auto alone = run(in_fixture({}, {"press", "--timeout", "1"}));
  EXPECT_EQ(alone.status, 4);
  EXPECT_TRUE(has(alone.err, "the operator did not complete the press cycle within 1 s"));
}

TEST(Fixturectl, DemoDrivesEverySiteAndWritesAWaveform) {
  tools_test::ScratchDir dir;
  const auto ran = run({kSim, "--operator", "auto", "--vcd", dir / "demo.vcd", "--trace",
                        dir / "demo.trace", "--", kCtl, "demo"},
                       {}, 300);
  ASSERT_EQ(ran.status, 0) << ran.out << ran.err;
  for (const char* step : {"== start the station", "== the operator's two-hand press",
                           "== units appearing at their USB locations", "== boot modes",
                           "== DIO modules", "== release and stop"}) {
    EXPECT_TRUE(has(ran.out, step)) << step;
  }
  const auto vcd = tools_test::read_vcd(dir / "demo.vcd");
  ASSERT_TRUE(vcd.ok);
  for (int n = 1; n <= 8; ++n) {
    const std::string site = "fixture.site" + std::to_string(n) + ".";
    size_t signals = 0, changes = 0;
    for (const auto& [name, var] : vcd.vars) {
      if (name.rfind(site, 0) != 0) continue;
      ++signals;
      changes += var.values.size() - 1;
    }
    EXPECT_GE(signals, 6u) << site;
    EXPECT_GE(changes, 2u) << site;
    ASSERT_TRUE(vcd.vars.count(site + "unit")) << site;
    EXPECT_GE(vcd.vars.at(site + "unit").values.size(), 3u) << site;  // none, up, none
  }
  const std::string trace = tools_test::read_file(dir / "demo.trace");
  EXPECT_TRUE(has(trace, "site1     < vel_forcedfu_on")) << trace.substr(0, 2000);
  EXPECT_TRUE(has(trace, "site1     unit=dfu"));
  EXPECT_TRUE(has(trace, "site8     < vel_hi5_disable"));
}

}  // namespace
