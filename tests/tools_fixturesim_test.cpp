// fixturesim as a program: its command line, the program it runs, what it leaves behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tools_support.h"

namespace {

using tools_test::run;

const std::string kSim = BRAKWELL_FIXTURESIM;

TEST(Fixturesim, ArgumentErrorsExitTwoAndSayWhy) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, "PROGRAM: no PROGRAM to run (fixturesim [options] -- PROGRAM)"},
      {{"true"}, "The following argument was not expected: true"},
      {{"--bogus", "--", "true"}, "The following argument was not expected: --bogus"},
      {{"--wells", "3", "--", "true"}, "--wells: Value 3 not in range 1 to 2"},
      {{"--missing", "2-9", "--", "true"}, "--missing: must be 1-8, not '9'"},
      {{"--missing", "4-2", "--", "true"}, "--missing: range 4-2 runs backwards"},
      {{"--unplug", "3", "--", "true"}, "--unplug: takes TARGET@SECONDS, not '3'"},
      {{"--unplug", "3@soon", "--", "true"}, "--unplug: 'soon' is not a number of seconds"},
      {{"--dio-gone", "2@1", "--", "true"}, "--dio-gone: must be 0-1, not '2'"},
      {{"--dio-status", "0:300", "--", "true"}, "--dio-status: must be 0-255, not '300'"},
      {{"--garble", "0", "--", "true"}, "--garble: Value 0 not in range 1 to 2"},
      {{"--vcd", "/nonexistent/w.vcd", "--", "true"},
       "--vcd: cannot write /nonexistent/w.vcd: No such file or directory"},
      {{"--trace", "/proc/t", "--", "true"},
       "--trace: cannot write /proc/t: No such file or directory"},
      {{"--serial-number", "X", "--", "/nonexistent/p"},
       "--serial-number: cannot find /nonexistent/p"},
      {{"--config", "/nonexistent", "--", "true"}, "--config: File does not exist: /nonexistent"},
  };
  for (const auto& [args, message] : cases) {
    std::vector<std::string> argv{kSim};
    argv.insert(argv.end(), args.begin(), args.end());
    const auto ran = run(argv);
    EXPECT_EQ(ran.status, 2) << message;
    EXPECT_EQ(ran.err, "fixturesim: " + message + "\nTry fixturesim --help.\n");
    EXPECT_EQ(ran.out, "");
  }
  const auto help = run({kSim, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("usage: fixturesim [options] -- PROGRAM [ARGS...]"), std::string::npos);
  EXPECT_EQ(run({kSim, "--version"}).out, "fixturesim 4.1.0\n");
}

TEST(Fixturesim, ExitsWithTheProgramsStatus) {
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"true"}, 0},
      {{"sh", "-c", "exit 7"}, 7},
      {{"sh", "-c", "kill -TERM $$"}, 128 + 15},
      {{"/nonexistent/program"}, 127},
  };
  for (const auto& [program, status] : cases) {
    std::vector<std::string> argv{kSim, "--quiet", "--"};
    argv.insert(argv.end(), program.begin(), program.end());
    EXPECT_EQ(run(argv).status, status) << program.back();
  }
}

// The program sees the fixture's devices, runs under the preload even when fixturesim was
// started without it, and the testbed is gone afterwards.
TEST(Fixturesim, RunsTheProgramInsideTheFixtureAndCleansUp) {
  const auto ran =
      run({kSim, "--quiet", "--wells", "1", "--missing", "3", "--", "sh", "-c",
           "echo $UMOCKDEV_DIR; ls /dev | grep usbmodem; ls /sys/bus/usb/devices | grep -vc :"},
          {"LD_PRELOAD"});
  ASSERT_EQ(ran.status, 0) << ran.err;
  std::istringstream lines(ran.out);
  std::string testbed, line;
  std::getline(lines, testbed);
  std::vector<std::string> links;
  while (std::getline(lines, line) && line.find("usbmodem") != std::string::npos) {
    links.push_back(line);
  }
  EXPECT_EQ(links, (std::vector<std::string>{"tty.usbmodemVEL_01_A1", "tty.usbmodemVEL_02_A1",
                                             "tty.usbmodemVEL_04_A1"}));
  // Root hub, well hub, 3 site hubs with UART and board each, 2 DIO modules.
  EXPECT_EQ(line, "13");
  ASSERT_FALSE(testbed.empty());
  EXPECT_FALSE(std::filesystem::exists(testbed)) << testbed;
}

TEST(Fixturesim, SaysWhatItBuiltAndWhereItsFilesAre) {
  tools_test::ScratchDir dir;
  const auto ran = run({kSim, "--wells", "2", "--dio", "1", "--operator", "auto", "--trace",
                        dir / "t.trace", "--vcd", dir / "w.vcd", "--", "true"});
  ASSERT_EQ(ran.status, 0);
  EXPECT_NE(ran.err.find("fixturesim: 2 well(s), sites 1,2,3,4,5,6,7,8, DIO modules 1, "
                         "operator auto\n"),
            std::string::npos)
      << ran.err;
  EXPECT_NE(ran.err.find("fixturesim: true exited with status 0; "), std::string::npos);
  EXPECT_NE(ran.err.find("; trace " + (dir / "t.trace") + "; waveform " + (dir / "w.vcd")),
            std::string::npos);
  EXPECT_NE(tools_test::read_file(dir / "t.trace").find("usb       1-4=add"), std::string::npos);
  EXPECT_TRUE(tools_test::read_vcd(dir / "w.vcd").ok);
}

// Every option from a JSON file, the command line winning; the serial number where the host
// reads it, for the program's run only.
TEST(Fixturesim, ConfigFileAndSerialNumber) {
  tools_test::ScratchDir dir;
  std::ofstream(dir / "fixture.json") << R"({"wells": 1, "missing": "3", "quiet": true,
      "unplug": ["2@0"], "trace": ")" << (dir / "t.trace")
                                      << R"(", "serial-number": "FX-7"})";
  std::filesystem::copy_file("/bin/sh", dir / "sh");
  const auto ran = run({kSim, "--config", dir / "fixture.json", "--missing", "4", "--", dir / "sh",
                        "-c", "cat " + dir / "FixtureSerialNumber.txt" + "; ls /dev | grep VEL"});
  EXPECT_EQ(ran.out, "FX-7tty.usbmodemVEL_01_A1\ntty.usbmodemVEL_02_A1\ntty.usbmodemVEL_03_A1\n");
  EXPECT_EQ(ran.err.find("fixturesim:"), std::string::npos) << ran.err;
  EXPECT_NE(tools_test::read_file(dir / "t.trace").find("site2     unplugged=1"),
            std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir / "FixtureSerialNumber.txt"));
}

}  // namespace
