#include "cli.h"

#include <fcntl.h>
#include <glob.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "common/station.h"

namespace fixturectl {

void fail(int code, const std::string& message, const std::string& hint) {
  throw Failure{code, message, hint};
}

// ---- output --------------------------------------------------------------------------------

void Output::take_terminal(bool json, bool libraryLog) {
  json_ = json;
  std::fflush(stdout);
  std::fflush(stderr);
  const int out = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  const int err = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  if (out < 0 || err < 0) return;
  out_ = fdopen(out, "w");
  err_ = fdopen(err, "w");
  const int sink = libraryLog ? err : open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(sink, STDOUT_FILENO);
  dup2(sink, STDERR_FILENO);
  if (!libraryLog && sink >= 0) close(sink);
}

void Output::begin(const char* command) {
  command_ = command ? Json(command) : Json();
  result_ = Json::object();
  warnings_ = Json::array();
}

void Output::say(const std::string& line) {
  if (json_) return;
  std::fprintf(out_, "%s\n", line.c_str());
  std::fflush(out_);
}

void Output::warn(const std::string& line) {
  std::fprintf(err_, "fixturectl: %s\n", line.c_str());
  std::fflush(err_);
  warnings_.push_back(line);
}

namespace {

std::string label(const std::string& key) {
  std::string out = key;
  std::replace(out.begin(), out.end(), '_', ' ');
  return out;
}

// A value as a person reads it: texts bare, null as "-", locations in hex.
std::string text(const std::string& key, const Json& v) {
  if (v.is_string()) {
    const auto& s = v.get_ref<const std::string&>();
    const bool plain = std::all_of(s.begin(), s.end(), [](char c) { return c >= 0x20 || c < 0; });
    return plain ? s : v.dump();  // control characters shown as JSON escapes
  }
  if (v.is_null()) return "-";
  if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
  if (v.is_number_integer() && key.find("location") != std::string::npos) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", v.get<unsigned long long>());
    return buf;
  }
  if (v.is_array()) {
    std::string items;
    for (const auto& e : v) items += (items.empty() ? "" : ", ") + text(key, e);
    return items.empty() ? "none" : items;
  }
  return v.dump();
}

// An array of objects reads best as a table whose columns are the first row's keys.
void render_table(FILE* f, const Json& rows, const std::string& indent) {
  std::vector<std::string> keys;
  for (const auto& [k, v] : rows.front().items()) keys.push_back(k);
  std::vector<std::vector<std::string>> cells(1);
  for (const auto& k : keys) cells[0].push_back(label(k));
  for (const auto& row : rows) {
    cells.emplace_back();
    for (const auto& k : keys) cells.back().push_back(text(k, row.value(k, Json())));
  }
  std::vector<size_t> width(keys.size());
  for (const auto& line : cells) {
    for (size_t c = 0; c < line.size(); ++c) width[c] = std::max(width[c], line[c].size());
  }
  for (const auto& line : cells) {
    std::string out = indent;
    for (size_t c = 0; c < line.size(); ++c) {
      out += line[c];
      if (c + 1 < line.size()) out += std::string(width[c] - line[c].size() + 2, ' ');
    }
    std::fprintf(f, "%s\n", out.c_str());
  }
}

void render(FILE* f, const Json& object, const std::string& indent) {
  for (const auto& [key, value] : object.items()) {
    if (value.is_object()) {
      std::fprintf(f, "%s%s:\n", indent.c_str(), label(key).c_str());
      render(f, value, indent + "  ");
    } else if (value.is_array() && !value.empty() && value.front().is_object()) {
      std::fprintf(f, "%s%s:\n", indent.c_str(), label(key).c_str());
      render_table(f, value, indent + "  ");
    } else {
      std::fprintf(f, "%s%s: %s\n", indent.c_str(), label(key).c_str(), text(key, value).c_str());
    }
  }
}

}  // namespace

void Output::finish(int code, const Failure* failure, double seconds) {
  if (json_) {
    Json all = {{"schema", kSchema},     {"command", command_}, {"ok", code == kOk},
                {"exit", code},          {"error", nullptr},    {"hint", nullptr},
                {"warnings", warnings_}, {"seconds", seconds}};
    if (failure) {
      all["error"] = failure->message;
      if (!failure->hint.empty()) all["hint"] = failure->hint;
    }
    for (const auto& [k, v] : result_.items()) all[k] = v;
    std::fprintf(out_, "%s\n", all.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  } else if (failure) {
    const std::string who = command_.is_string() ? " " + command_.get<std::string>() : "";
    std::fprintf(err_, "fixturectl%s: %s\n", who.c_str(), failure->message.c_str());
    if (!failure->hint.empty()) std::fprintf(err_, "%s\n", failure->hint.c_str());
  } else {
    render(out_, result_, "");
  }
  std::fflush(out_);
  std::fflush(err_);
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
  std::string portText;
  for (const char* pattern : {"/dev/tty.usbmodem*", "/dev/ttyACM*", "/dev/ttyUSB*"}) {
    for (auto& p : glob_paths(pattern)) portText += " " + p;
  }
  const std::vector<std::string> links = glob_paths("/dev/tty.usbmodem*");
  bool denied = false;
  for (const auto& link : links) denied |= access(link.c_str(), R_OK | W_OK) != 0;

  const bool noBoards = boards.empty() || boards == "(null)";
  std::string hint = "  fixture boards on USB (1fc9:df01): " + (noBoards ? "none" : boards) +
                     "\n  serial ports seen:" + (portText.empty() ? " none" : portText) + "\n";
  if (noBoards) {
    return hint +
           "  Check that the fixture is powered and its USB cable is in: `lsusb -d 1fc9:df01` "
           "should list 4 boards per well.";
  }
  if (links.empty()) {
    return hint +
           "  The boards are on USB but no port is named /dev/tty.usbmodem<serial><n>: install "
           "the udev rule:\n    sudo cp " +
           rules_file() +
           " /etc/udev/rules.d/ && sudo udevadm control --reload && sudo udevadm trigger";
  }
  if (denied) {
    return hint +
           "  The ports exist but you may not open them: sudo usermod -aG brakwell $USER, "
           "then log in again.";
  }
  return hint +
         "  A well counts only when all four of its boards (Velmora_DFU_CDC1-4 or 5-8) "
         "answer: check the missing boards' cables.";
}

std::string site_list(const std::vector<int>& sites) {
  std::string out;
  for (int s : sites) out += (out.empty() ? "" : ", ") + std::to_string(s);
  return out;
}

}  // namespace

std::vector<int> missing_sites(int wellIndex) {
  std::vector<int> out;
  for (int s = wellIndex * 4 + 1; s <= wellIndex * 4 + 4; ++s) {
    if (!DIO_UUTSerialDevice[s - 1][0]) out.push_back(s);
  }
  return out;
}

FixtureController* Context::controller(int wellIndex) {
  FixtureController*& handle = controllers[wellIndex == 1 ? 1 : 0];
  if (handle) return handle;
  const bool first = !started;
  with_progress(out, first ? "starting the station..." : "opening the second well...",
                [&] { handle = create_fixture_controller(wellIndex == 1 ? 1 : 0); });
  started = true;
  if (SOC_GetWellNumber() == 0) {
    fail(kNotFound, "no fixture found: no complete well of fixture boards answered",
         no_fixture_hint());
  }
  if (!first) return handle;
  for (int w = 0; w < 2; ++w) {
    const auto missing = missing_sites(w);
    if (!missing.empty() && missing.size() < 4) {
      out.warn("well " + std::to_string(w + 1) + " is incomplete: no fixture board for site" +
               (missing.size() > 1 ? "s " : " ") + site_list(missing) +
               "; the library counts only complete wells");
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
                      "_A<n> was found; `fixturectl ports` lists what is there");
}

void Context::release() {
  for (auto*& handle : controllers) {
    if (handle) release_fixture_controller(handle);
    handle = nullptr;
  }
}

// ---- shared helpers ------------------------------------------------------------------------

// The one place that knows the status word's bits; the names follow the fixture's sensors.
Json decode_status(int status) {
  if (status < 0) return nullptr;
  using namespace brakwell::station;
  const auto held = [status](int bit) { return (status & bit) == 0; };  // active low
  return {{"word", status},
          {"button_a", held(kButtonA) ? "held" : "released"},
          {"button_b", held(kButtonB) ? "held" : "released"},
          {"plate", held(kPlateDown) ? "down"
                    : held(kPlateUp) ? "up"
                                     : "between"},
          {"tray", held(kTrayClosed) ? "in"
                   : held(kTrayOpen) ? "out"
                                     : "between"}};
}

void with_progress(Output& out, const std::string& what, const std::function<void()>& fn) {
  using Clock = std::chrono::steady_clock;
  FILE* err = out.err();
  const bool tty = isatty(fileno(err));
  const auto start = Clock::now();
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false, shown = false;
  // Only a wait longer than a second is worth a line.
  std::thread ticker([&] {
    std::unique_lock lock(mutex);
    if (cv.wait_for(lock, std::chrono::seconds(1), [&] { return done; })) return;
    shown = true;
    std::fprintf(err, tty ? "%s" : "%s\n", what.c_str());
    std::fflush(err);
    const auto period = tty ? std::chrono::milliseconds(200) : std::chrono::seconds(5);
    while (!cv.wait_for(lock, period, [&] { return done; })) {
      const double s = std::chrono::duration<double>(Clock::now() - start).count();
      if (tty) {
        std::fprintf(err, "\r%s %.1f s ", what.c_str(), s);
      } else {
        std::fprintf(err, "  still waiting, %.0f s\n", s);
      }
      std::fflush(err);
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
  };
  {
    Stop stop{mutex, cv, done, ticker};
    fn();
  }
  if (tty && shown) std::fprintf(err, "\r\033[K");
}

}  // namespace fixturectl
