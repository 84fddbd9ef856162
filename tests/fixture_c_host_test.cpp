// A plain C host program (tests/c_host) run against the virtual fixture: it builds from the C
// header alone, links the shared library, and its calls reach the boards.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>
#include <vector>

#include "boards.h"

extern char** environ;

namespace {

std::vector<std::string> texts(const sim::Board& board) {
  std::vector<std::string> out;
  for (const auto& line : board.lines()) out.push_back(line.text);
  return out;
}

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

  const std::vector<std::string> initLines = {"vel_dfu_reset\n", "vel_pne_up\n", "vel_pne_out\n",
                                              "vel_pass_led_off\n", "vel_fail_led_off\n"};
  std::vector<std::string> site1 = initLines;
  site1.insert(site1.end(), {"vel_hi5_enable\n", "vel_hi5_enable\n", "vel_hi5_enter_recovery\n",
                             "vel_accid_on\n", "vel_set_vbatt_4100\n", "vel_vbatt_on\n",
                             "vel_batt_supercap_conn\n", "vel_vusb_on\n", "vel_fail_led_off\n",
                             "vel_pass_led_on\n"});
  boards.site(1).wait_lines(site1.size(), 2.0);
  EXPECT_EQ(texts(boards.site(1)), site1);
  for (int site = 2; site <= 4; ++site) {
    boards.site(site).wait_lines(initLines.size(), 2.0);
    EXPECT_EQ(texts(boards.site(site)), initLines) << site;
  }
  for (int site = 5; site <= 8; ++site) EXPECT_EQ(boards.site(site).received(), "") << site;
}

}  // namespace
