// For the tests of fixturesim, fixturectl and the installed tree: running a program with its
// output captured, a scratch directory, and a VCD reader.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace tools_test {

struct Ran {
  int status = -1;  // exit status, 128 + N for signal N, -1 when it had to be killed
  std::string out, err;
};

// Runs argv[0] (searched in PATH) with the environment changed by `env` ("NAME=value" sets,
// "NAME" alone removes), in `dir` when given. Killed after `timeout` seconds.
inline Ran run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               double timeout = 120, const std::string& dir = "") {
  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e) environment.push_back(*e);
  for (const auto& change : env) {
    const std::string name = change.substr(0, change.find('='));
    std::erase_if(environment, [&](const std::string& e) { return e.rfind(name + "=", 0) == 0; });
    if (change.find('=') != std::string::npos) environment.push_back(change);
  }
  std::vector<char*> envp, args;
  for (auto& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> argvCopy = argv;
  for (auto& a : argvCopy) args.push_back(a.data());
  args.push_back(nullptr);

  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  if (!dir.empty()) posix_spawn_file_actions_addchdir_np(&actions, dir.c_str());
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  Ran ran;
  if (spawned != 0) {
    close(out[0]);
    close(err[0]);
    ran.err = "cannot run " + argv[0];
    return ran;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* into[2] = {&ran.out, &ran.err};
  int open = 2;
  bool killed = false;
  while (open > 0) {
    if (std::chrono::steady_clock::now() > deadline && !killed) {
      kill(pid, SIGKILL);
      killed = true;
    }
    if (poll(fds, 2, 200) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        into[i]->append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ran.status = killed                ? -1
               : WIFEXITED(status)   ? WEXITSTATUS(status)
               : WIFSIGNALED(status) ? 128 + WTERMSIG(status)
                                     : -1;
  return ran;
}

// A directory of its own under the system's temporary directory, removed with its contents.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "brakwell-tools-XXXXXX");
    path_ = mkdtemp(pattern.data());
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// A VCD file as a waveform viewer reads it: each variable by its full name
// ("fixture.site3.unit") with its declared type, width and values over time.
struct VcdVar {
  std::string type;
  int width = 0;
  std::vector<std::pair<long long, std::string>> values;  // time, value ("1", "b101")
};
struct VcdFile {
  std::string timescale;
  std::map<std::string, VcdVar> vars;
  bool ok = false;  // the header ended with $enddefinitions
};

inline VcdFile read_vcd(const std::string& path) {
  VcdFile vcd;
  std::ifstream in(path);
  std::vector<std::string> scopes;
  std::map<std::string, std::string> byId;
  std::string word;
  long long time = 0;
  while (in >> word) {
    if (!vcd.ok) {
      if (word == "$scope") {
        std::string kind, name;
        in >> kind >> name >> word;
        scopes.push_back(name);
      } else if (word == "$upscope") {
        in >> word;
        if (!scopes.empty()) scopes.pop_back();
      } else if (word == "$var") {
        VcdVar var;
        std::string id, name;
        in >> var.type >> var.width >> id >> name >> word;
        std::string full;
        for (const auto& s : scopes) full += s + ".";
        byId[id] = full + name;
        vcd.vars[full + name] = var;
      } else if (word == "$timescale") {
        in >> vcd.timescale >> word;
      } else if (word == "$enddefinitions") {
        in >> word;
        vcd.ok = true;
      }
      continue;
    }
    if (word[0] == '#') {
      time = std::stoll(word.substr(1));
    } else if (word[0] == 'b' || word[0] == 'r') {
      std::string id;
      in >> id;
      if (byId.count(id)) vcd.vars[byId[id]].values.emplace_back(time, word);
    } else if (word[0] == '0' || word[0] == '1' || word[0] == 'x' || word[0] == 'z') {
      const std::string id = word.substr(1);
      if (byId.count(id)) vcd.vars[byId[id]].values.emplace_back(time, word.substr(0, 1));
    }
  }
  return vcd;
}

}  // namespace tools_test
