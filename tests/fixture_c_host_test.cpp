// A plain C host program (tests/c_host) run against the virtual fixture: it builds from the C
// header alone, links the shared library, and its calls reach the boards.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "boards.h"

extern char** environ;

namespace {

TEST(CHost, DrivesTheFirstWell) {
  const std::string program =
      (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "c_host/brakwell_c_host")
          .string();
  ASSERT_TRUE(std::filesystem::exists(program)) << program << " was not built";
  sim::Testbed bed;  // the child finds it through the environment umockdev set up
  sim::Boards boards(bed);
  boards.add_sites(1, 8);

  pid_t pid = 0;
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
  ASSERT_EQ(posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ), 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // init on every site of the first well, then power on and the PASS LED on its first site.
  const std::string init =
      "vel_dfu_reset\nvel_pne_up\nvel_pne_out\nvel_pass_led_off\nvel_fail_led_off\n";
  const std::string site1 =
      init +
      "vel_hi5_enable\nvel_hi5_enable\nvel_hi5_enter_recovery\nvel_accid_on\n"
      "vel_set_vbatt_4100\nvel_vbatt_on\nvel_batt_supercap_conn\nvel_vusb_on\n"
      "vel_fail_led_off\nvel_pass_led_on\n";
  for (int site = 1; site <= 8; ++site) {
    const std::string want = site == 1 ? site1 : site <= 4 ? init : "";
    boards.site(site).wait_lines(std::count(want.begin(), want.end(), '\n'), 2.0);
    EXPECT_EQ(boards.site(site).received(), want) << site;
  }
}

}  // namespace
