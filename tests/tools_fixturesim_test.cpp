// fixturesim as a program: its command line, the program it runs, what it leaves behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "tools_support.h"

namespace {

using tools_test::has;
using tools_test::run;

const std::string kSim = BRAKWELL_FIXTURESIM;

// Bad command lines exit 2 and say why; otherwise fixturesim exits with its program's status.
TEST(Fixturesim, ExitStatusAndArgumentErrors) {
  // clang-format off
  const std::tuple<int, std::vector<std::string>, std::string> cases[] = {
      {2, {}, "PROGRAM: no PROGRAM to run (fixturesim [options] -- PROGRAM)"},
      {2, {"true"}, "The following argument was not expected: true"},
      {2, {"--wells", "3", "--", "true"}, "--wells: Value 3 not in range 1 to 2"},
      {2, {"--missing", "2-9", "--", "true"}, "--missing: must be 1-8, not '9'"},
      {2, {"--missing", "4-2", "--", "true"}, "--missing: range 4-2 runs backwards"},
      {2, {"--unplug", "3", "--", "true"}, "--unplug: takes TARGET@SECONDS, not '3'"},
      {2, {"--unplug", "3@soon", "--", "true"}, "--unplug: 'soon' is not a number of seconds"},
      {2, {"--dio-gone", "2@1", "--", "true"}, "--dio-gone: must be 0-1, not '2'"},
      {2, {"--dio-status", "0:300", "--", "true"}, "--dio-status: must be 0-255, not '300'"},
      {2, {"--garble", "0", "--", "true"}, "--garble: Value 0 not in range 1 to 2"},
      {2, {"--vcd", "/no/w", "--", "true"}, "--vcd: cannot write /no/w: No such file or directory"},
      {2, {"--trace", "/proc/t", "--", "true"}, "--trace: cannot write /proc/t: No such file or directory"},
      {2, {"--serial-number", "X", "--", "/no/p"}, "--serial-number: cannot find /no/p"},
      {2, {"--config", "/no", "--", "true"}, "--config: File does not exist: /no"},
      {7, {"--quiet", "--", "sh", "-c", "exit 7"}, ""},
      {128 + 15, {"--quiet", "--", "sh", "-c", "kill -TERM $$"}, ""},
      {127, {"--quiet", "--", "/no/p"}, "fixturesim: cannot run /no/p: No such file or directory\n"},
  };
  // clang-format on
  for (auto [status, argv, why] : cases) {
    argv.insert(argv.begin(), kSim);
    const auto ran = run(argv);
    const std::string err = status == 2 ? "fixturesim: " + why + "\nTry fixturesim --help.\n" : why;
    EXPECT_EQ(std::tuple(ran.status, ran.err, ran.out), std::tuple(status, err, ""));
  }
  EXPECT_TRUE(has(run({kSim, "--help"}).out, "usage: fixturesim [options] -- PROGRAM [ARGS...]"));
  EXPECT_EQ(run({kSim, "--version"}).out, "fixturesim 4.1.0\n");
}

// Options from a JSON file, the command line winning; devices and serial number, none left after.
TEST(Fixturesim, RunsTheProgramInsideTheConfiguredFixtureAndCleansUp) {
  tools_test::ScratchDir dir;
  std::ofstream(dir / "fixture.json") << R"({"wells": 1, "missing": "3", "dio": 1,
      "operator": "auto", "unplug": ["2@0"], "trace": ")"
                                      << (dir / "t.trace") << R"(", "serial-number": "FX-7"})";
  std::filesystem::copy_file("/bin/sh", dir / "sh");
  const auto ran = run({"/usr/bin/env", "-u", "LD_PRELOAD", kSim, "--config", dir / "fixture.json",
                        "--missing", "4", "--vcd", dir / "w.vcd", "--", dir / "sh", "-c",
                        "cat " + dir / "FixtureSerialNumber.txt" +
                            "; echo; echo $UMOCKDEV_DIR; ls /dev | grep usbmodem"});
  ASSERT_EQ(ran.status, 0) << ran.err;
  const std::string testbed = ran.out.substr(5, ran.out.find('\n', 5) - 5);
  EXPECT_EQ(ran.out, "FX-7\n" + testbed +
                         "\ntty.usbmodemVEL_01_A1\ntty.usbmodemVEL_02_A1\ntty.usbmodemVEL_03_A1\n");
  EXPECT_FALSE(testbed.empty() || std::filesystem::exists(testbed)) << testbed;
  EXPECT_FALSE(std::filesystem::exists(dir / "FixtureSerialNumber.txt"));
  EXPECT_TRUE(has(ran.err,
                  "fixturesim: 1 well(s), sites 1,2,3, DIO modules 1, operator auto\n"
                  "fixturesim: " +
                      (dir / "sh") + " exited with status 0; ") &&
              has(ran.err, "; trace " + (dir / "t.trace") + "; waveform " + (dir / "w.vcd")))
      << ran.err;
  const std::string trace = tools_test::read_file(dir / "t.trace");
  EXPECT_TRUE(has(trace, "usb       1-4=add") && has(trace, "site2     unplugged=1")) << trace;
}

}  // namespace
