// For the tests of fixturesim, fixturectl and the installed tree: running a program with its
// output captured, a scratch directory, and a VCD reader.
#pragma once

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

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
  int status = -1;  // exit status, 128 + N for signal N (9 when it overran)
  std::string out, err;
};

// Runs argv[0] (searched in PATH) through env(1) with the environment changed by `env`
// ("NAME=value" sets, "NAME" alone removes), in `dir` when given, killed after `timeout` seconds.
inline Ran run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               double timeout = 120, const std::string& dir = "") {
  std::vector<std::string> words{"/usr/bin/env", "-C", dir.empty() ? "." : dir};
  for (const auto& change : env) {
    if (change.find('=') == std::string::npos) words.push_back("-u");
    words.push_back(change);
  }
  words.insert(words.end(), argv.begin(), argv.end());
  std::vector<char*> args;
  for (auto& w : words) args.push_back(w.data());
  args.push_back(nullptr);
  const int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, 1);
  posix_spawn_file_actions_adddup2(&actions, err, 2);
  pid_t pid = 0;
  Ran ran;
  if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) {
    pollfd exited{int(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    if (poll(&exited, 1, int(timeout * 1000)) == 0) kill(pid, SIGKILL);
    close(exited.fd);
    waitpid(pid, &ran.status, 0);
    ran.status = WIFSIGNALED(ran.status) ? 128 + WTERMSIG(ran.status) : WEXITSTATUS(ran.status);
  }
  posix_spawn_file_actions_destroy(&actions);
  for (auto [fd, into] : {std::pair{out, &ran.out}, std::pair{err, &ran.err}}) {
    char buf[4096];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, off_t(into->size()))) > 0;)
      into->append(buf, n);
    close(fd);
  }
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
