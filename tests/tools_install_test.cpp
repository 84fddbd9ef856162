// The installed tree: a small C host (strict C99, the header alone) builds against it through
// pkg-config and through find_package(Brakwell), and runs inside the installed fixturesim.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tools_support.h"

namespace {

namespace fs = std::filesystem;
using tools_test::run;

const char* kHost = R"(#include <Brakwell.h>
#include <stdio.h>

int main(void) {
  char version[32];
  FixtureController *h = create_fixture_controller(0);
  int sites = get_site_count(h);
  int led = set_led_state(h, 1, 1);
  int lib = SOC_LibVersion(version, sizeof version);
  printf("%s|%s|%d|%d\n", get_vendor(), lib ? version : "?", sites, led);
  release_fixture_controller(h);
  return sites == 8 && led == 0 ? 0 : 1;
}
)";

const char* kProject = R"(cmake_minimum_required(VERSION 3.16)
project(host C)
find_package(Brakwell 4.1 REQUIRED)
add_executable(host host.c)
target_link_libraries(host PRIVATE Brakwell::Brakwell)
)";

void write(const std::string& path, const char* text) { std::ofstream(path) << text; }

TEST(Install, HostBuildsAgainstTheInstalledTreeAndRunsInTheFixture) {
  tools_test::ScratchDir dir;
  // Staged as a package would be: the udev and sysusers files go to /usr/lib whatever the prefix.
  const std::string prefix = dir / "root/usr";
  const auto install = run({"cmake", "--install", BRAKWELL_BINARY_DIR, "--prefix", "/usr"},
                           {"DESTDIR=" + (dir / "root")});
  ASSERT_EQ(install.status, 0) << install.out << install.err;
  for (const char* file :
       {"include/Brakwell.h", "bin/fixturesim", "bin/fixturectl", "lib/libBrakwell.so",
        "lib/pkgconfig/brakwell.pc", "lib/cmake/Brakwell/BrakwellConfig.cmake",
        "lib/udev/rules.d/60-brakwell.rules", "lib/udev/rules.d/70-brakwell-access.rules",
        "lib/sysusers.d/brakwell.conf", "share/doc/brakwell/copyright",
        "share/man/man1/fixturectl.1.gz", "share/man/man1/fixturesim.1.gz",
        "share/bash-completion/completions/fixturectl",
        "share/bash-completion/completions/fixturesim"}) {
    EXPECT_TRUE(fs::exists(fs::path(prefix) / file)) << file;
  }
  EXPECT_TRUE(fs::is_symlink(prefix + "/lib/libBrakwell.so.4"));

  // Through pkg-config, from a tree that was moved after installing.
  const std::string moved = dir / "moved";
  fs::rename(prefix, moved);
  write(dir / "host.c", kHost);
  const auto flags = run({"pkg-config", "--cflags", "--libs", "brakwell"},
                         {"PKG_CONFIG_PATH=" + moved + "/lib/pkgconfig"});
  ASSERT_EQ(flags.status, 0) << flags.err;
  EXPECT_TRUE(flags.out.find("-I" + moved) != std::string::npos) << flags.out;
  const auto cc = run(
      {"sh", "-c",
       "cc -std=c99 -pedantic -Wall -Werror host.c " + flags.out.substr(0, flags.out.find('\n')) +
           " -Wl,-rpath," + prefix + "/lib -o host-pc"},
      {}, 120, dir.path());
  ASSERT_EQ(cc.status, 0) << cc.err;
  fs::rename(moved, prefix);

  // Through find_package.
  fs::create_directory(dir / "project");
  write(dir / "project/host.c", kHost);
  write(dir / "project/CMakeLists.txt", kProject);
  const auto configure = run({"cmake", "-S", dir / "project", "-B", dir / "project/build",
                              "-DCMAKE_PREFIX_PATH=" + prefix});
  ASSERT_EQ(configure.status, 0) << configure.out << configure.err;
  const auto build = run({"cmake", "--build", dir / "project/build"});
  ASSERT_EQ(build.status, 0) << build.out << build.err;

  // Both hosts, and the installed fixturectl, run inside the installed fixturesim.
  const std::string sim = prefix + "/bin/fixturesim";
  for (const std::string& host : {dir / "host-pc", dir / "project/build/host"}) {
    const std::string trace = host + ".trace";
    const auto ran = run({sim, "--quiet", "--trace", trace, "--", host});
    EXPECT_EQ(ran.status, 0) << host << ran.err;
    EXPECT_EQ(ran.out, "Velmora Technologies|Velmora Lumbrix 4.01|8|0\n") << host;
    EXPECT_NE(tools_test::read_file(trace).find("site1     < vel_pass_led_on"), std::string::npos)
        << host;
  }
  const auto ctl = run({sim, "--quiet", "--", prefix + "/bin/fixturectl", "--json", "start"});
  EXPECT_EQ(ctl.status, 0) << ctl.err;
  EXPECT_NE(ctl.out.find("\"slots\":8"), std::string::npos) << ctl.out;
}

}  // namespace
