// fixturesim: builds the virtual fixture and runs a host program inside it.
//   fixturesim [options] -- PROGRAM [ARGS...]
// The program sees the fixture through umockdev's preload; fixturesim runs itself under
// umockdev-wrapper when it is not already, and exits with the program's status.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "fixture.h"
#include "vcd.h"

extern char** environ;

namespace {

constexpr int kUsage = 2;
constexpr int kCannotRun = 127;  // as a shell reports a program it cannot run

const char* kDescription =
    "Builds a virtual fixture (boards on pseudo-terminals, USB devices, units under test,\n"
    "press and operator, DIO modules, keyboard) and runs PROGRAM inside it. Exits with\n"
    "PROGRAM's status (128 + N when a signal N ended it).\n"
    "usage: fixturesim [options] -- PROGRAM [ARGS...]";

const char* kFooter =
    "Every option can also be given in the --config file, a JSON object whose keys are the\n"
    "option names without their dashes: {\"wells\": 1, \"operator\": \"auto\", \"unplug\":\n"
    "[\"3@1.5\"], \"trace\": \"run.trace\"}. The command line wins over the file.";

// --config: a JSON object, one key per option; arrays give an option several times.
class JsonConfig : public CLI::Config {
 public:
  std::string to_config(const CLI::App*, bool, bool, std::string) const override { return {}; }
  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    nlohmann::json j;
    try {
      input >> j;
    } catch (const nlohmann::json::exception& e) {
      throw CLI::ValidationError("--config", std::string("not JSON: ") + e.what());
    }
    if (!j.is_object()) throw CLI::ValidationError("--config", "the file must hold a JSON object");
    std::vector<CLI::ConfigItem> items;
    for (const auto& [key, value] : j.items()) {
      CLI::ConfigItem item;
      item.name = key;
      for (const auto& v : value.is_array() ? value : nlohmann::json::array({value})) {
        item.inputs.push_back(v.is_string() ? v.get<std::string>() : v.dump());
      }
      items.push_back(std::move(item));
    }
    return items;
  }
};

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> out(1);
  for (char c : text) {
    if (c == sep) {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return out;
}

// Whole numbers lo-hi, as CLI11 reads them; a ValidationError naming `what` otherwise.
int whole(const std::string& text, int lo, int hi, const std::string& what) {
  int v = 0;
  if (!CLI::detail::lexical_cast(text, v) || v < lo || v > hi) {
    throw CLI::ValidationError(
        what, "must be " + std::to_string(lo) + "-" + std::to_string(hi) + ", not '" + text + "'");
  }
  return v;
}

double seconds(const std::string& text, const std::string& what) {
  double v = 0;
  if (!CLI::detail::lexical_cast(text, v) || !std::isfinite(v) || v < 0) {
    throw CLI::ValidationError(what, "'" + text + "' is not a number of seconds");
  }
  return v;
}

std::set<int> site_list(const std::string& text) {
  std::set<int> sites;
  for (const auto& item : split(text, ',')) {
    const auto range = split(item, '-');
    if (range.size() > 2)
      throw CLI::ValidationError("--missing", "'" + item + "' is not a site or a range");
    const int first = whole(range[0], 1, 8, "--missing");
    const int last = range.size() == 2 ? whole(range[1], 1, 8, "--missing") : first;
    if (last < first) throw CLI::ValidationError("--missing", "range " + item + " runs backwards");
    for (int n = first; n <= last; ++n) sites.insert(n);
  }
  return sites;
}

// "SITE@T" or "M@T".
sim::TimedFault timed(sim::TimedFault::Kind kind, const std::string& text,
                      const std::string& option, int lo, int hi) {
  const auto parts = split(text, '@');
  if (parts.size() != 2)
    throw CLI::ValidationError(option, "takes TARGET@SECONDS, not '" + text + "'");
  return {kind, whole(parts[0], lo, hi, option), seconds(parts[1], option)};
}

// An output file must be creatable or writable before the program runs: open it as the
// program will, and take away what the test created.
const CLI::Validator kWritable(
    [](std::string& path) -> std::string {
      const bool existed = access(path.c_str(), F_OK) == 0;
      const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      if (fd < 0) return "cannot write " + path + ": " + std::strerror(errno);
      close(fd);
      if (!existed) unlink(path.c_str());
      return "";
    },
    "FILE");

struct Settings {
  sim::FixtureOptions fixture;
  std::string tracePath, vcdPath, serialNumber, serialFile;
  bool quiet = false, echo = false;
  std::vector<std::string> program;
};

// The program's own directory, where the library looks for FixtureSerialNumber.txt.
std::string program_directory(const std::string& program) {
  std::string found = program;
  if (program.find('/') == std::string::npos) {
    const char* path = std::getenv("PATH");
    for (const auto& dir : split(path ? path : "/usr/bin:/bin", ':')) {
      const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
      if (access(candidate.c_str(), X_OK) == 0) {
        found = candidate;
        break;
      }
    }
  }
  char real[PATH_MAX];
  if (!realpath(found.c_str(), real)) return {};
  const std::string full = real;
  return full.substr(0, full.rfind('/'));
}

void define(CLI::App& app, Settings& s) {
  auto& f = s.fixture;
  app.config_formatter(std::make_shared<JsonConfig>());
  app.set_config("--config", "", "the fixture and its faults in one JSON file (see below)")
      ->check(CLI::ExistingFile);
  app.set_version_flag("--version", std::string("fixturesim ") + BRAKWELL_TOOLS_VERSION);
  app.footer(kFooter);
  app.add_option("--wells", f.wells, "wells fitted (default 2: sites 1-8)")
      ->check(CLI::Range(1, 2))
      ->group("Fixture");
  app.add_option_function<std::string>(
         "--missing", [&f](const std::string& v) { f.missing = site_list(v); },
         "sites with no board, UART or unit, e.g. 3 or 5-8 or 2,7")
      ->group("Fixture");
  app.add_option_function<std::string>(
         "--operator",
         [&f](const std::string& v) {
           std::string error;
           if (v != "auto" && !sim::parse_operator_script(v, &error))
             throw CLI::ValidationError("--operator", error);
           f.operatorScript = v;
         },
         "auto completes every press cycle; a SCRIPT gives button steps per well, seconds after "
         "PROGRAM starts: \"AB+@0.5 A-@1.2 A+@2 AB-@6\" (A, B: the buttons; + press, - let go)")
      ->group("Fixture");
  app.add_option("--press-travel", f.pressTravel,
                 "seconds the plate takes up or down (default 0.3)")
      ->check(CLI::NonNegativeNumber)
      ->group("Fixture");
  app.add_option("--tray-travel", f.trayTravel, "seconds the tray takes in or out (default 0.3)")
      ->check(CLI::NonNegativeNumber)
      ->group("Fixture");
  app.add_option_function<std::string>(
         "--dio",
         [&f](const std::string& v) {
           f.dioModules.clear();
           if (v == "none") return;
           for (const auto& m : split(v, ',')) f.dioModules.insert(whole(m, 0, 1, "--dio"));
         },
         "DIO modules fitted: 0,1 (default), 0, 1 or none")
      ->group("Fixture");
  app.add_option_function<std::string>(
         "--dio-status",
         [&f](const std::string& v) {
           const size_t colon = v.find(':');
           if (colon == std::string::npos)
             throw CLI::ValidationError("--dio-status", "takes M:B,B,..., not '" + v + "'");
           std::vector<uint8_t> bytes;
           for (const auto& b : split(v.substr(colon + 1), ','))
             bytes.push_back(static_cast<uint8_t>(whole(b, 0, 255, "--dio-status")));
           f.dioStatus[whole(v.substr(0, colon), 0, 1, "--dio-status")] = bytes;
         },
         "status bytes module M answers in turn (last repeats), e.g. 0:0xa7,0xa7")
      ->group("Fixture");
  app.add_option("--serial-number", s.serialNumber,
                 "the fixture's serial number, written to FixtureSerialNumber.txt beside PROGRAM")
      ->group("Fixture");
  using Kind = sim::TimedFault::Kind;
  struct Fault {
    const char* name;
    Kind kind;
    int lo, hi;
    const char* help;
  };
  static const Fault kFaults[] = {
      {"--unplug", Kind::BoardUnplugged, 1, 8,
       "SITE@T: the site's board is unplugged T s after PROGRAM starts"},
      {"--stop-reading", Kind::BoardStopsReading, 1, 8,
       "SITE@T: the site's board stops reading its port"},
      {"--dio-gone", Kind::DioGone, 0, 1, "M@T: DIO module M leaves the bus"},
  };
  for (const auto& fault : kFaults) {
    app.add_option_function<std::vector<std::string>>(
           fault.name,
           [&f, &fault](const std::vector<std::string>& values) {
             for (const auto& v : values)
               f.faults.push_back(timed(fault.kind, v, fault.name, fault.lo, fault.hi));
           },
           fault.help)
        ->group("Faults")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  }
  app.add_option_function<std::vector<int>>(
         "--garble", [&f](const std::vector<int>& w) { f.garbledWells.insert(w.begin(), w.end()); },
         "the well's status replies are garbled (1 or 2)")
      ->check(CLI::Range(1, 2))
      ->group("Faults");
  app.add_option("--trace", s.tracePath, "one line per event: time, site or well, what happened")
      ->check(kWritable)
      ->group("Output");
  app.add_option("--vcd", s.vcdPath,
                 "a VCD waveform: a scope per site and per well (GTKWave, PulseView)")
      ->check(kWritable)
      ->group("Output");
  app.add_flag("--echo", s.echo, "every event also on standard error as it happens")
      ->group("Output");
  app.add_flag("--quiet", s.quiet, "nothing from fixturesim itself on standard error")
      ->group("Output");
}

// Parses the command line; -1 to go on, else the exit status.
int parse(int argc, char** argv, Settings& s) {
  CLI::App app(kDescription, "fixturesim");
  define(app, s);
  std::vector<std::string> options;
  int i = 1;
  for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) options.emplace_back(argv[i]);
  for (++i; i < argc; ++i) s.program.emplace_back(argv[i]);
  std::reverse(options.begin(), options.end());
  try {
    app.parse(options);
    if (s.program.empty())
      throw CLI::ValidationError("PROGRAM", "no PROGRAM to run (fixturesim [options] -- PROGRAM)");
    if (!s.serialNumber.empty()) {
      const std::string dir = program_directory(s.program[0]);
      if (dir.empty()) throw CLI::ValidationError("--serial-number", "cannot find " + s.program[0]);
      s.serialFile = dir + "/FixtureSerialNumber.txt";
      if (!kWritable(s.serialFile).empty()) {
        throw CLI::ValidationError("--serial-number", kWritable(s.serialFile));
      }
    }
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::fprintf(stderr, "fixturesim: %s\nTry fixturesim --help.\n", e.what());
    return kUsage;
  }
  return -1;
}

// umockdev's preload must be in the process before it touches /sys or /dev; when it is not,
// start again under umockdev-wrapper.
void ensure_preload(char** argv) {
  const char* preload = std::getenv("LD_PRELOAD");
  if (preload && std::strstr(preload, "libumockdev-preload")) return;
  if (std::getenv("FIXTURESIM_REEXEC")) {
    std::fprintf(stderr, "fixturesim: umockdev's preload did not load under umockdev-wrapper\n");
    std::exit(kCannotRun);
  }
  setenv("FIXTURESIM_REEXEC", "1", 1);
  // An AddressSanitizer build cannot have the preload first in the library list otherwise.
  const char* asan = std::getenv("ASAN_OPTIONS");
  std::string options = asan ? asan : "";
  if (options.find("verify_asan_link_order") == std::string::npos) {
    options += std::string(options.empty() ? "" : ":") + "verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", options.c_str(), 1);
  }
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) {
    std::perror("fixturesim: /proc/self/exe");
    std::exit(kCannotRun);
  }
  self[n] = 0;
  std::vector<char*> args{const_cast<char*>("umockdev-wrapper"), self};
  for (int i = 1; argv[i]; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);
  execvp("umockdev-wrapper", args.data());
  std::fprintf(stderr,
               "fixturesim: cannot run umockdev-wrapper (%s); install the umockdev "
               "package\n",
               std::strerror(errno));
  std::exit(kCannotRun);
}

volatile sig_atomic_t childPid = 0;

void forward(int sig) {
  if (childPid > 0) kill(childPid, sig);
}

// Runs the program with the fixture's environment; its exit status, shell style.
int run(const std::vector<std::string>& program) {
  std::vector<char*> args;
  for (const auto& a : program) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  const int err = posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ);
  if (err) {
    std::fprintf(stderr, "fixturesim: cannot run %s: %s\n", args[0], std::strerror(err));
    return kCannotRun;
  }
  childPid = pid;
  // Ctrl-C reaches the whole process group; a TERM sent to us alone is passed on. Either way
  // we stay to write the files and take the fixture down.
  struct sigaction sa {};
  sa.sa_handler = forward;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);
  signal(SIGINT, SIG_IGN);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  childPid = 0;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return kCannotRun;
}

// The fixture serial number file where the host looks for it, for as long as the program runs;
// whatever was there before is put back.
class SerialNumberFile {
 public:
  SerialNumberFile(std::string path, const std::string& text) : path_(std::move(path)) {
    if (path_.empty()) return;
    std::ifstream old(path_);
    if ((hadFile_ = old.good())) oldText_.assign(std::istreambuf_iterator<char>(old), {});
    std::ofstream(path_) << text;
  }
  ~SerialNumberFile() {
    if (path_.empty()) return;
    if (hadFile_) {
      std::ofstream(path_) << oldText_;
    } else {
      std::remove(path_.c_str());
    }
  }

 private:
  std::string path_, oldText_;
  bool hadFile_ = false;
};

std::string describe(const Settings& s, const sim::Fixture& fixture) {
  std::string sites;
  for (int n : fixture.sites()) sites += (sites.empty() ? "" : ",") + std::to_string(n);
  std::string dio;
  for (int m : s.fixture.dioModules) dio += (dio.empty() ? "" : ",") + std::to_string(m);
  return std::to_string(s.fixture.wells) + " well(s), sites " + (sites.empty() ? "none" : sites) +
         ", DIO modules " + (dio.empty() ? "none" : dio) + ", operator " +
         (s.fixture.operatorScript.empty() ? "none" : s.fixture.operatorScript);
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  if (const int exit = parse(argc, argv, settings); exit >= 0) return exit;
  ensure_preload(argv);

  int status = 0;
  {
    sim::Fixture fixture(settings.fixture);
    std::unique_ptr<sim::TraceFile> trace;
    if (!settings.tracePath.empty()) {
      trace =
          std::make_unique<sim::TraceFile>(fixture.testbed(), settings.tracePath, fixture.origin());
      if (!trace->ok()) {
        std::fprintf(stderr, "fixturesim: cannot write %s: %s\n", settings.tracePath.c_str(),
                     std::strerror(errno));
        return kUsage;
      }
    }
    if (settings.echo) {
      const double origin = fixture.origin();
      fixture.testbed().on_trace([origin](const sim::TraceEvent& e) {
        std::fprintf(stderr, "%s\n", sim::trace_line(e, origin).c_str());
      });
    }
    if (!settings.quiet) {
      std::fprintf(stderr, "fixturesim: %s\n", describe(settings, fixture).c_str());
    }
    SerialNumberFile serial(settings.serialFile, settings.serialNumber);
    fixture.start();
    status = run(settings.program);
    // The program's last lines may still be on their way through the pseudo-terminals.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    trace.reset();
    bool vcdWritten = true;
    if (!settings.vcdPath.empty() && !(vcdWritten = fixture.write_vcd(settings.vcdPath))) {
      std::fprintf(stderr, "fixturesim: cannot write %s: %s\n", settings.vcdPath.c_str(),
                   std::strerror(errno));
    }
    if (!settings.quiet) {
      std::fprintf(stderr, "fixturesim: %s exited with status %d; %zu events",
                   settings.program[0].c_str(), status, fixture.testbed().trace_events().size());
      if (!settings.tracePath.empty())
        std::fprintf(stderr, "; trace %s", settings.tracePath.c_str());
      if (!settings.vcdPath.empty() && vcdWritten) {
        std::fprintf(stderr, "; waveform %s", settings.vcdPath.c_str());
      }
      std::fprintf(stderr, "\n");
    }
  }
  return status;
}
