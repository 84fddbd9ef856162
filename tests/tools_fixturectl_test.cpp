// fixturectl inside fixturesim: its command line, JSON (docs/USAGE.md's schema) and the demo.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/station_fixture.h"
#include "tools_support.h"

namespace {

using tools_test::has;
using tools_test::run;
using Json = nlohmann::json;

const std::string kCtl = BRAKWELL_FIXTURECTL;
const std::string kSim = BRAKWELL_FIXTURESIM;

std::vector<std::string> in_fixture(std::vector<std::string> sim,
                                    const std::vector<std::string>& ctl) {
  sim.insert(sim.begin(), {kSim, "--quiet"});
  sim.insert(sim.end(), {"--", kCtl});
  sim.insert(sim.end(), ctl.begin(), ctl.end());
  return sim;
}

// Schema 1 as docs/USAGE.md gives it: the fields of every answer, then each command's own.
// Types: i integer, n number, s string, b bool, o object, a array; "?" allows null.
// clang-format off
const std::map<std::string, std::string> kSchema = {
    {"", "schema:i command:s? ok:b exit:i error:s? hint:s? warnings:a seconds:n"},
    {"start", "vendor:s interface_version:s library:s fixture_serial:s? wells:i slots:i actuators:i missing_sites:a ports:a"},
    {"ports", "usb_devices:a serial_ports:a"}, {"status", "well:i status:o?"}, {"init", "well:i"},
    {"power", "power:s"}, {"boot", "site:i mode:s state:s"}, {"led", "led:s"}, {"line", "site:i line:s"},
    {"raw", "site:i sent:s"}, {"press", "well:i pressed:b"}, {"locations", "dfu_unit_location:i?"},
    {"apple-devices", "devices:a locations_seen:a"}, {"dio", "module:i"}, {"keys", "chord:s"},
    {"run-button", "well:i run_pressed:b"}, {"stop", "stopped:b"}};
// clang-format on

// Checks one answer line against the schema; returns what is wrong, empty when nothing.
std::string schema_errors(const std::string& line) {
  const Json j = Json::parse(line, nullptr, false);
  if (!j.is_object()) return "not a JSON object: " + line;
  std::string errors;
  const std::string command = j.value("command", Json()).is_string() ? j["command"] : "";
  std::istringstream fields(kSchema.at("") + " " +
                            (kSchema.count(command) && j["ok"] == true ? kSchema.at(command) : ""));
  for (std::string field; fields >> field;) {
    const std::string key = field.substr(0, field.find(':')), type = field.substr(key.size() + 1);
    const Json v = j.contains(key) ? j[key] : Json(Json::value_t::discarded);  // absent: no type
    const std::map<char, bool> is{{'i', v.is_number_integer()}, {'n', v.is_number()},
                                  {'s', v.is_string()},         {'b', v.is_boolean()},
                                  {'o', v.is_object()},         {'a', v.is_array()}};
    if (!is.at(type[0]) && !(type.back() == '?' && v.is_null())) errors += " " + key + ": " + type;
  }
  if (j["schema"] != 1 || j["ok"] != (j["exit"] == 0) || j["error"].is_null() != (j["ok"] == true))
    errors += " schema, ok, exit and error disagree";
  return errors.empty() ? "" : errors + " in " + line;
}

// Exit 2 before any station start (there is no fixture here: a start would exit 3).
TEST(Fixturectl, BadArgumentsExitTwoBeforeTheStationStarts) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"frobnicate"}, "fixturectl: no command named 'frobnicate'"},
      {{"--well", "3", "status"}, "fixturectl status: --well: Value 3 not in range 1 to 2"},
      {{"--well=0", "status"}, "fixturectl status: --well: Value 0 not in range 1 to 2"},
      {{"power", "on", "9"}, "fixturectl power: SITE: must be 1-8 or all, not '9'"},
      {{"power", "maybe", "1"}, "fixturectl power: STATE: maybe not in {on,off}"},
      {{"power", "on"}, "fixturectl power: SITE is required"},
      {{"boot", "fastboot", "1"}, "fixturectl boot: MODE: fastboot not in {dfu,diags,iboot}"},
      {{"line", "1", "laser", "on"}, "fixturectl line: NAME: laser not in {usb,"},
      {{"line", "1", "usb"}, "fixturectl line: usb needs a value"},
      {{"line", "1", "reset", "on"}, "fixturectl line: reset takes no value"},
      {{"line", "1", "vbatt", "lots"}, "fixturectl line: VALUE: MILLIVOLTS must be a whole"},
      {{"press", "--timeout", "soon"}, "fixturectl press: --timeout: must be a number of seconds"},
      {{"press", "--fast"}, "fixturectl press: The following argument was not expected: --fast"},
      {{"raw", "1", "x", "--read", "--wait=-1"}, "fixturectl raw: --wait: must be a number"},
      {{"dio", "read", "2", "1"}, "fixturectl dio: MODULE: Value 2 not in range 0 to 1"},
      {{"dio", "read", "0", "14"}, "fixturectl dio: REGISTER: must be 0-13, not '14'"},
      {{"dio", "status", "0", "1"}, "fixturectl dio: dio status takes 0 value(s) after MODULE"},
      {{"keys", "x"}, "fixturectl keys: CHORD: x not in {z,y}"},
      {{"session", "/nonexistent"}, "fixturectl session: FILE: File does not exist"},
  };
  for (auto [argv, message] : cases) {
    argv.insert(argv.begin(), kCtl);
    const auto ran = run(argv);
    EXPECT_EQ(std::tuple(ran.status, ran.out, ran.err.substr(0, message.size())),
              std::tuple(2, "", message));
    argv.insert(argv.begin() + 1, "--json");
    const auto json = run(argv);
    EXPECT_EQ(std::pair(json.status, schema_errors(json.out)), std::pair(2, std::string()));
    EXPECT_TRUE(has(ran.err, ": " + Json::parse(json.out)["error"].get<std::string>() + "\n"));
  }
  EXPECT_EQ(run({kCtl, "--version"}).out, "fixturectl 4.1.0\n");
  const auto help = run({kCtl, "help", "raw"});  // "help COMMAND" is the command's own help
  EXPECT_TRUE(help.status == 0 && has(help.out, "Usage: fixturectl raw")) << help.out;
  EXPECT_EQ(run({kCtl, "raw", "--help"}).out, help.out);
}

// One station start, then every command family, failures included, each a schema-valid line.
TEST(Fixturectl, SessionAnswersEveryCommandInTheSchema) {
  tools_test::ScratchDir dir;
  std::ofstream(dir / "script") << "# bring-up\nstart\nports\nstatus\ninit\npower on all\n"
                                   "power off 2\nboot dfu 1\nled pass 5\nline 3 vbatt 4100\n"
                                   "raw 5 vel_fixture_status --read --wait 0.5\npress --auto\n"
                                   "release\nlocations\napple-devices --wait 0.2\ndio read 0 1\n"
                                   "keys z\nrun-button\nreset\npower on 9\n--well 2 status\n"
                                   "--well 2 press --timeout 1\nstatus\nstop\n";
  const auto ran =
      run(in_fixture({"--garble", "1"}, {"--log", "--json", "session", dir / "script"}));
  EXPECT_EQ(ran.status, 1) << ran.err;  // the garbled well's status came last
  // The library's serial-number dumps and log lines, on stderr only with --log.
  EXPECT_TRUE(has(ran.err, "VEL_01_A\n") &&
              has(ran.err, "VELMORA: SOC_Set_VBatt, UUT:3, Successfully write vel_set_vbatt_4100"));
  std::istringstream lines(ran.out);
  std::vector<Json> answers;
  for (std::string line; std::getline(lines, line);) {
    EXPECT_EQ(schema_errors(line), "");
    answers.push_back(Json::parse(line, nullptr, false));
  }
  ASSERT_EQ(answers.size(), 24u) << ran.out;  // 23 commands and the session's own answer
  EXPECT_EQ(answers[0]["ports"][7], Json::parse(R"({"site":8,"well":2,
            "port":"/dev/tty.usbmodemVEL_08_A1","open":true})"));
  EXPECT_EQ(answers[1]["usb_devices"].size(), 2u + 8 * 2);  // DIO modules, boards, UARTs
  EXPECT_TRUE(has(answers[1]["serial_ports"].dump(), R"("link":"/dev/tty.usbmodemVEL_01_A1")"));
  EXPECT_TRUE(answers[2]["exit"] == 1 && answers[2]["status"].is_null());
  EXPECT_EQ(answers[4]["failed_sites"], Json::array());
  EXPECT_EQ(answers[9]["sent"], "vel_fixture_status\n");  // the bytes, not a display escape
  EXPECT_EQ(answers[9]["answer"], "vel_fixture_status=010111 l_sw\n");
  EXPECT_EQ(answers[8]["millivolts"], 4100);
  EXPECT_EQ(answers[18]["exit"], 2);
  EXPECT_EQ(answers[19]["status"]["word"], 23);
  EXPECT_EQ(answers[20]["exit"], 4);
  EXPECT_EQ(answers[20]["error"], "the operator did not complete the press cycle within 1 s");
  EXPECT_EQ(answers[23]["command"], "session");
  // The station started once: only the second well's first use opened it again.
  EXPECT_LT(answers[8]["seconds"].get<double>(), 0.1);
}

TEST(Fixturectl, NoFixtureAndIncompleteWellsSayWhatIsMissing) {
  const auto none = run(in_fixture({"--missing", "1-8"}, {"start"}));
  EXPECT_EQ(std::pair(none.status, none.out), std::pair(3, std::string()));  // stdout stays empty
  EXPECT_TRUE(has(none.err, "fixturectl start: no fixture found") &&
              has(none.err, "fixture boards on USB (1fc9:df01): none"))
      << none.err;

  const auto partial = run(in_fixture({"--missing", "2,3"}, {"--json", "start"}));
  EXPECT_EQ(partial.status, 0) << partial.err;
  EXPECT_EQ(partial.err,
            "fixturectl: well 1 is incomplete: no fixture board for sites 2, 3; the library "
            "counts only complete wells\n");  // and no library chatter without --log
  const Json j = Json::parse(partial.out);
  EXPECT_EQ(j["missing_sites"], Json::parse("[2,3]"));
  EXPECT_EQ(j["warnings"].size(), 1u);
  EXPECT_EQ(j["ports"][4]["well"], 2);  // site 5 stays in the second well
  const auto site = run(in_fixture({"--missing", "2"}, {"power", "on", "2"}));
  EXPECT_EQ(site.status, 3);
  EXPECT_TRUE(has(site.err, "site 2: its fixture board port is not open")) << site.err;
}

TEST(Fixturectl, PressWaitsForTheOperatorWithProgress) {
  // The operator holds both buttons from the start and lets go at 8 s: the cycle ends then.
  const auto scripted = testing_support::takes(8, 30, [] {
    return run(in_fixture({"--operator", "AB+@0 AB-@8"}, {"press", "--timeout", "30"}));
  });
  EXPECT_EQ(scripted.status, 0) << scripted.err;
  EXPECT_EQ(scripted.out, "well: 1\npressed: yes\n");
  EXPECT_TRUE(has(scripted.err,
                  "well 1: waiting for the operator to press both buttons...\n"
                  "  still waiting, 6 s\n"))
      << scripted.err;
}

TEST(Fixturectl, DemoDrivesEverySiteAndSigrokReadsEachSitesSignals) {
  tools_test::ScratchDir dir;
  const auto ran =
      run({kSim, "--operator", "auto", "--vcd", dir / "demo.vcd", "--", kCtl, "demo"}, 300);
  ASSERT_EQ(ran.status, 0) << ran.out << ran.err;
  for (const char* step : {"== start the station", "== the operator's two-hand press",
                           "power up: 8 site(s) at once in ", "== boot modes, every site at once",
                           "== DIO modules", "== release and stop"})
    EXPECT_TRUE(has(ran.out, step)) << step;
  const auto shown = run({"sigrok-cli", "-I", "vcd", "-i", dir / "demo.vcd", "--show"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  const auto vcd = tools_test::read_vcd(dir / "demo.vcd");
  for (int n = 1; n <= 8; ++n) {
    const std::string site = "site" + std::to_string(n);
    size_t wires = 0;
    for (const auto& [name, var] : vcd) {
      if (name.rfind("fixture." + site + "." + site + ".", 0) != 0 || var.width != 1) continue;
      EXPECT_TRUE(has(shown.out, "- " + name.substr(site.size() + 9) + ": logic\n")) << name;
      ++wires;
    }
    EXPECT_GE(wires, 19u) << site;
    const auto& unit = vcd.at("fixture." + site + "." + site + ".unit");
    EXPECT_EQ(unit.values[1].second, "b10") << site;  // code 2 is recovery on every site
  }
}

}  // namespace
