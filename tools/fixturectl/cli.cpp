#include "cli.h"

#include <glob.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace fixturectl {

void usage_error(const std::string& message) { throw Failure{kUsage, message, ""}; }

void fail(int code, const std::string& message, const std::string& hint) {
  throw Failure{code, message, hint};
}

// ---- output --------------------------------------------------------------------------------

void Output::start(bool json, std::string command) {
  json_ = json;
  command_ = std::move(command);
  if (!json_) return;
  // Keep the real standard output for the JSON object; whatever else is printed to it
  // (the library's own messages) goes to standard error.
  std::fflush(stdout);
  const int fd = dup(STDOUT_FILENO);
  if (fd >= 0) {
    out_ = fdopen(fd, "w");
    dup2(STDERR_FILENO, STDOUT_FILENO);
  }
  if (!out_) out_ = stdout;
}

void Output::say(const std::string& line) {
  if (json_) return;
  std::fprintf(out_, "%s\n", line.c_str());
  std::fflush(out_);
}

namespace {

std::string label(const std::string& key) {
  std::string out = key;
  std::replace(out.begin(), out.end(), '_', ' ');
  return out;
}

// An array of objects reads best as a table whose columns are the first row's keys.
void render_table(FILE* f, const Json::Array& rows, const std::string& indent) {
  std::vector<std::string> keys;
  for (const auto& [k, v] : rows.front().members()) keys.push_back(k);
  std::vector<std::vector<std::string>> cells;
  std::vector<size_t> width;
  for (const auto& k : keys) width.push_back(label(k).size());
  for (const auto& row : rows) {
    std::vector<std::string> line;
    for (size_t c = 0; c < keys.size(); ++c) {
      const Json* v = row.find(keys[c]);
      line.push_back(v ? v->text() : "-");
      width[c] = std::max(width[c], line.back().size());
    }
    cells.push_back(std::move(line));
  }
  auto print_row = [&](const std::vector<std::string>& line) {
    std::string text = indent;
    for (size_t c = 0; c < line.size(); ++c) {
      text += line[c];
      if (c + 1 < line.size()) text += std::string(width[c] - line[c].size() + 2, ' ');
    }
    std::fprintf(f, "%s\n", text.c_str());
  };
  std::vector<std::string> header;
  for (const auto& k : keys) header.push_back(label(k));
  print_row(header);
  for (const auto& line : cells) print_row(line);
}

void render(FILE* f, const Json& object, const std::string& indent) {
  for (const auto& [key, value] : object.members()) {
    if (value.is_object()) {
      std::fprintf(f, "%s%s:\n", indent.c_str(), label(key).c_str());
      render(f, value, indent + "  ");
    } else if (value.is_array() && !value.elements().empty() &&
               value.elements().front().is_object()) {
      std::fprintf(f, "%s%s:\n", indent.c_str(), label(key).c_str());
      render_table(f, value.elements(), indent + "  ");
    } else if (value.is_array()) {
      std::string items;
      for (const auto& e : value.elements()) items += (items.empty() ? "" : ", ") + e.text();
      std::fprintf(f, "%s%s: %s\n", indent.c_str(), label(key).c_str(),
                   items.empty() ? "none" : items.c_str());
    } else {
      std::fprintf(f, "%s%s: %s\n", indent.c_str(), label(key).c_str(), value.text().c_str());
    }
  }
}

}  // namespace

void Output::finish(int code, const Failure* failure) {
  if (json_) {
    Json all = Json::object();
    all["command"] = command_;
    all["ok"] = code == kOk;
    all["exit"] = code;
    if (failure) {
      all["error"] = failure->message;
      if (!failure->hint.empty()) all["hint"] = failure->hint;
    }
    for (const auto& [k, v] : result_.members()) all[k] = v;
    std::fprintf(out_, "%s\n", all.dump().c_str());
  } else {
    render(out_, result_, "");
  }
  std::fflush(out_);
}

// ---- the station ---------------------------------------------------------------------------

namespace {

std::vector<std::string> glob_paths(const char* pattern) {
  std::vector<std::string> out;
  glob_t g{};
  if (glob(pattern, 0, nullptr, &g) == 0) {
    for (size_t i = 0; i < g.gl_pathc; ++i) out.push_back(g.gl_pathv[i]);
  }
  globfree(&g);
  return out;
}

std::string rules_file() {
  char exe[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    exe[n] = 0;
    std::string dir(exe);
    dir = dir.substr(0, dir.rfind('/'));
    const std::string installed = dir + "/../lib/udev/rules.d/70-brakwell.rules";
    if (access(installed.c_str(), R_OK) == 0) return installed;
  }
  return "packaging/udev/70-brakwell.rules";
}

// Why no fixture answered, and what to do about it.
std::string no_fixture_hint() {
  enumUsbForLocationID(0x1fc9, 0xdf01);
  std::string boards = getUSBDeviceName() ? getUSBDeviceName() : "";
  while (!boards.empty() && boards.back() == ',') boards.pop_back();
  std::vector<std::string> ports;
  for (const char* pattern : {"/dev/tty.usbmodem*", "/dev/ttyACM*", "/dev/ttyUSB*"}) {
    for (auto& p : glob_paths(pattern)) ports.push_back(p);
  }
  std::vector<std::string> links = glob_paths("/dev/tty.usbmodem*");
  bool denied = false;
  for (const auto& link : links) denied |= access(link.c_str(), R_OK | W_OK) != 0;

  std::string portText;
  for (const auto& p : ports) portText += " " + p;
  std::string hint = "  fixture boards on USB (1fc9:df01): " +
                     (boards.empty() || boards == "(null)" ? std::string("none") : boards) +
                     "\n  serial ports seen:" + (portText.empty() ? " none" : portText) + "\n";
  if (boards.empty() || boards == "(null)") {
    hint +=
        "  Check that the fixture is powered and its USB cable is in: `lsusb -d 1fc9:df01` "
        "should list 4 boards per well.";
  } else if (links.empty()) {
    hint +=
        "  The boards are on USB but no port is named /dev/tty.usbmodem<serial><n>: install "
        "the udev rule:\n    sudo cp " +
        rules_file() +
        " /etc/udev/rules.d/ && sudo udevadm control --reload && sudo udevadm trigger";
  } else if (denied) {
    hint +=
        "  The ports exist but you may not open them: sudo usermod -aG brakwell $USER, "
        "then log in again.";
  } else {
    hint +=
        "  A well counts only when all four of its boards (Velmora_DFU_CDC1-4 or 5-8) "
        "answer: check the missing boards' cables.";
  }
  return hint;
}

}  // namespace

FixtureController* Context::controller(int wellIndex) {
  FixtureController*& handle = controllers[wellIndex == 1 ? 1 : 0];
  if (!handle) {
    handle = create_fixture_controller(wellIndex == 1 ? 1 : 0);
    if (SOC_GetWellNumber() == 0) {
      fail(kNotFound, "no fixture found: no complete well of fixture boards answered",
           no_fixture_hint());
    }
  }
  return handle;
}

FixtureController* Context::controller_for_site(int site, int* siteInWell) {
  *siteInWell = site > 4 ? site - 4 : site;
  return controller(site > 4 ? 1 : 0);
}

void Context::require_site_port(int site) {
  if (DIO_fileDescriptor[site - 1] >= 0) return;
  const char* bound = DIO_UUTSerialDevice[site - 1];
  fail(kNotFound, "site " + std::to_string(site) + ": its fixture board port is not open",
       bound[0] ? std::string("  ") + bound + " was found but could not be opened"
                : "  no port named /dev/tty.usbmodemVEL_0" + std::to_string(site) +
                      "_A<n> was found; `fixturectl start` lists the ports");
}

void Context::release() {
  for (auto*& handle : controllers) {
    if (handle) release_fixture_controller(handle);
    handle = nullptr;
  }
}

// ---- arguments -----------------------------------------------------------------------------

int parse_int(const std::string& text, const char* what) {
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || *end || errno || v < INT_MIN || v > INT_MAX) {
    usage_error(std::string(what) + " must be a whole number, not '" + text + "'");
  }
  return static_cast<int>(v);
}

int parse_site(const std::string& text) {
  const int site = parse_int(text, "SITE");
  if (site < 1 || site > 8) usage_error("SITE must be 1-8, not " + text);
  return site;
}

double parse_seconds(const std::string& text, const char* what) {
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end || !std::isfinite(v) || v < 0) {
    usage_error(std::string(what) + " must be a number of seconds, not '" + text + "'");
  }
  return v;
}

bool parse_on_off(const std::string& text) {
  if (text == "on" || text == "1") return true;
  if (text == "off" || text == "0") return false;
  usage_error("expected on or off, not '" + text + "'");
}

int parse_module(const std::string& text) {
  if (text == "0" || text == "1") return text[0] - '0';
  usage_error("MODULE must be 0 (0471:df01) or 1 (0471:df02), not '" + text + "'");
}

std::string hex(unsigned value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", value);
  return buf;
}

void with_progress(const std::string& what, const std::function<void()>& fn) {
  using Clock = std::chrono::steady_clock;
  const bool tty = isatty(STDERR_FILENO);
  const auto start = Clock::now();
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  if (!tty) std::fprintf(stderr, "%s\n", what.c_str());
  std::thread ticker([&] {
    std::unique_lock lock(mutex);
    const auto period = tty ? std::chrono::milliseconds(200) : std::chrono::seconds(5);
    while (!cv.wait_for(lock, period, [&] { return done; })) {
      const double s = std::chrono::duration<double>(Clock::now() - start).count();
      if (tty) {
        std::fprintf(stderr, "\r%s %.1f s ", what.c_str(), s);
      } else {
        std::fprintf(stderr, "  still waiting, %.0f s\n", s);
      }
    }
  });
  struct Stop {
    std::mutex& m;
    std::condition_variable& cv;
    bool& done;
    std::thread& t;
    ~Stop() {
      {
        std::lock_guard lock(m);
        done = true;
      }
      cv.notify_all();
      t.join();
    }
  } stop{mutex, cv, done, ticker};
  fn();
  if (tty) std::fprintf(stderr, "\r\033[K");
}

}  // namespace fixturectl
