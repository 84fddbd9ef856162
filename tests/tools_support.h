// For the tests of fixturesim and fixturectl as programs: running one with its output captured,
// a scratch directory, and a VCD reader.
#pragma once

#include <spawn.h>
#include <sys/mman.h>
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
// ("NAME=value" sets, "NAME" alone removes), killed after `timeout` seconds.
inline Ran run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               double timeout = 120) {
  std::vector<std::string> words{"/usr/bin/timeout", "-s", "KILL", std::to_string(timeout),
                                 "/usr/bin/env"};
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
struct ScratchDir {
  std::string path = [] {
    std::string p = std::filesystem::temp_directory_path() / "brakwell-tools-XXXXXX";
    return std::string(mkdtemp(p.data()));
  }();
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
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
  long long time = 0;
  for (std::string w, id, name; in >> w;) {
    if (w == "$scope" && in >> name >> name) {
      scopes.push_back(name);
    } else if (w == "$upscope" && !scopes.empty()) {
      scopes.pop_back();
    } else if (VcdVar var; w == "$var" && in >> var.type >> var.width >> id >> name) {
      for (auto s = scopes.rbegin(); s != scopes.rend(); ++s) name = *s + "." + name;
      vcd.vars[byId[id] = name] = var;
    } else if (w == "$timescale") {
      in >> vcd.timescale;
    } else if (w == "$enddefinitions") {
      vcd.ok = true;
    } else if (vcd.ok && w[0] == '#') {
      time = std::stoll(w.substr(1));
    } else if (vcd.ok && (w[0] == 'b' || w[0] == 'r') && in >> id && byId.count(id)) {
      vcd.vars[byId[id]].values.emplace_back(time, w);
    } else if (vcd.ok && byId.count(w.substr(1))) {
      vcd.vars[byId[w.substr(1)]].values.emplace_back(time, w.substr(0, 1));
    }
  }
  return vcd;
}

}  // namespace tools_test
