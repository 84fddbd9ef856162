// Running fixturesim and fixturectl as programs, and reading the VCD files they write.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace tools_test {

struct ScratchDir {
  std::string path =
      mkdtemp((std::filesystem::temp_directory_path() / "brakwell-XXXXXX").string().data());
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline std::string read_file(const std::string& path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {}};
}

struct Ran {
  int status = -1;  // exit status, 128 + N for signal N (137 when it overran)
  std::string out, err;
};

// Runs argv (no word holds a quote) killed after `timeout` seconds.
inline Ran run(const std::vector<std::string>& argv, double timeout = 120) {
  ScratchDir dir;
  std::string command = "exec /usr/bin/timeout -s KILL " + std::to_string(timeout);
  for (const auto& word : argv) command += " '" + word + "'";
  const int status = std::system((command + " >" + dir / "out" + " 2>" + dir / "err").c_str());
  return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status),
          read_file(dir / "out"), read_file(dir / "err")};
}

// A VCD file as a viewer reads it: variables by full name ("fixture.site3.unit").
struct VcdVar {
  std::string type;
  int width = 0;
  std::vector<std::pair<long long, std::string>> values;  // time, value ("1", "b101")
};
using VcdFile = std::map<std::string, VcdVar>;

inline VcdFile read_vcd(const std::string& path) {
  VcdFile vcd;
  bool body = false;  // past $enddefinitions
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
      vcd[byId[id] = name] = var;
    } else if (w == "$enddefinitions") {
      body = true;
    } else if (body && w[0] == '#') {
      time = std::stoll(w.substr(1));
    } else if (body && (w[0] == 'b' || w[0] == 'r') && in >> id && byId.count(id)) {
      vcd[byId[id]].values.emplace_back(time, w);
    } else if (body && byId.count(w.substr(1))) {
      vcd[byId[w.substr(1)]].values.emplace_back(time, w.substr(0, 1));
    }
  }
  return vcd;
}

}  // namespace tools_test
