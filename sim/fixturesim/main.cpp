// fixturesim: builds the virtual fixture and runs a host program inside it.
//   fixturesim [options] -- PROGRAM [ARGS...]
// The program sees the fixture through umockdev's preload; fixturesim runs itself under
// umockdev-wrapper when it is not already, and exits with the program's status.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fixture.h"
#include "vcd.h"

extern char** environ;

namespace {

constexpr int kUsage = 2;
constexpr int kCannotRun = 127;  // as a shell reports a program it cannot run

const char* kHelp =
    "usage: fixturesim [options] -- PROGRAM [ARGS...]\n"
    "\n"
    "Builds a virtual fixture (boards on pseudo-terminals, USB devices, units under test,\n"
    "press and operator, DIO modules, keyboard) and runs PROGRAM inside it. Exits with\n"
    "PROGRAM's status (128 + N when a signal N ended it).\n"
    "\n"
    "Fixture:\n"
    "  --wells 1|2              wells fitted (default 2: sites 1-8)\n"
    "  --missing SITES          sites with no board, UART or unit, e.g. 3 or 5-8 or 2,7\n"
    "  --operator auto|SCRIPT   who works the buttons (default: nobody). auto completes\n"
    "                           every press cycle; SCRIPT: button steps per well, seconds\n"
    "                           after PROGRAM starts, e.g. \"AB+@0.5 A-@1.2 A+@2 AB-@6\"\n"
    "                           (A, B: the buttons; + press, - let go)\n"
    "  --press-travel SECONDS   time the plate takes up or down (default 0.3)\n"
    "  --tray-travel SECONDS    time the tray takes in or out (default 0.3)\n"
    "  --dio MODULES            DIO modules fitted: 0,1 (default), 0, 1 or none\n"
    "  --dio-status M:B,B,...   status bytes module M answers in turn (last repeats),\n"
    "                           e.g. 0:0xa7,0xa7 (default 0x17 for 0, 0x27 for 1)\n"
    "Faults (T: seconds after PROGRAM starts):\n"
    "  --unplug SITE@T          the site's board is unplugged\n"
    "  --stop-reading SITE@T    the site's board stops reading its port\n"
    "  --garble WELL            the well's status replies are garbled (1 or 2)\n"
    "  --dio-gone M@T           DIO module M leaves the bus\n"
    "Output:\n"
    "  --trace FILE             one line per event: time, site or well, what happened\n"
    "  --vcd FILE               a VCD waveform of every site's lines, LEDs, press, tray,\n"
    "                           buttons and USB presence (GTKWave, PulseView)\n"
    "  --echo                   every event also on standard error as it happens\n"
    "  --quiet                  nothing from fixturesim itself on standard error\n"
    "  --help                   this text\n";

struct Usage {
  std::string message;
};

[[noreturn]] void bad(const std::string& message) { throw Usage{message}; }

double seconds(const std::string& text, const std::string& option) {
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end || !std::isfinite(v) || v < 0) {
    bad(option + ": '" + text + "' is not a number of seconds");
  }
  return v;
}

int whole(const std::string& text, int lo, int hi, const std::string& what) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || *end || v < lo || v > hi) {
    bad(what + " must be " + std::to_string(lo) + "-" + std::to_string(hi) + ", not '" + text +
        "'");
  }
  return static_cast<int>(v);
}

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

std::set<int> site_list(const std::string& text, const std::string& option) {
  std::set<int> sites;
  for (const auto& item : split(text, ',')) {
    const auto range = split(item, '-');
    if (range.size() > 2) bad(option + ": '" + item + "' is not a site or a range");
    const int first = whole(range[0], 1, 8, option + " site");
    const int last = range.size() == 2 ? whole(range[1], 1, 8, option + " site") : first;
    if (last < first) bad(option + ": range " + item + " runs backwards");
    for (int n = first; n <= last; ++n) sites.insert(n);
  }
  return sites;
}

// "SITE@T" or "M@T".
sim::TimedFault timed(sim::TimedFault::Kind kind, const std::string& text,
                      const std::string& option, int lo, int hi) {
  const auto parts = split(text, '@');
  if (parts.size() != 2) bad(option + " takes TARGET@SECONDS, not '" + text + "'");
  return {kind, whole(parts[0], lo, hi, option + " target"), seconds(parts[1], option)};
}

struct Settings {
  sim::FixtureOptions fixture;
  std::string tracePath, vcdPath;
  bool quiet = false, echo = false, help = false;
  std::vector<std::string> program;
};

Settings parse(int argc, char** argv) {
  Settings s;
  int i = 1;
  auto value = [&](const std::string& option) -> std::string {
    if (i + 1 >= argc) bad(option + " needs a value");
    return argv[++i];
  };
  for (; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--") {
      ++i;
      break;
    }
    if (a == "--help" || a == "-h") {
      s.help = true;
    } else if (a == "--wells") {
      s.fixture.wells = whole(value(a), 1, 2, a);
    } else if (a == "--missing") {
      s.fixture.missing = site_list(value(a), a);
    } else if (a == "--operator") {
      s.fixture.operatorScript = value(a);
      std::string error;
      if (s.fixture.operatorScript != "auto" &&
          !sim::parse_operator_script(s.fixture.operatorScript, &error)) {
        bad(a + ": " + error);
      }
    } else if (a == "--press-travel") {
      s.fixture.pressTravel = seconds(value(a), a);
    } else if (a == "--tray-travel") {
      s.fixture.trayTravel = seconds(value(a), a);
    } else if (a == "--dio") {
      const std::string v = value(a);
      s.fixture.dioModules.clear();
      if (v != "none") {
        for (const auto& m : split(v, ',')) s.fixture.dioModules.insert(whole(m, 0, 1, a));
      }
    } else if (a == "--dio-status") {
      const std::string v = value(a);
      const size_t colon = v.find(':');
      if (colon == std::string::npos) bad(a + " takes M:B,B,..., not '" + v + "'");
      const int m = whole(v.substr(0, colon), 0, 1, a + " module");
      std::vector<uint8_t> bytes;
      for (const auto& b : split(v.substr(colon + 1), ',')) {
        bytes.push_back(static_cast<uint8_t>(whole(b, 0, 255, a + " byte")));
      }
      s.fixture.dioStatus[m] = bytes;
    } else if (a == "--unplug") {
      s.fixture.faults.push_back(timed(sim::TimedFault::BoardUnplugged, value(a), a, 1, 8));
    } else if (a == "--stop-reading") {
      s.fixture.faults.push_back(timed(sim::TimedFault::BoardStopsReading, value(a), a, 1, 8));
    } else if (a == "--dio-gone") {
      s.fixture.faults.push_back(timed(sim::TimedFault::DioGone, value(a), a, 0, 1));
    } else if (a == "--garble") {
      s.fixture.garbledWells.insert(whole(value(a), 1, 2, a));
    } else if (a == "--trace") {
      s.tracePath = value(a);
    } else if (a == "--vcd") {
      s.vcdPath = value(a);
    } else if (a == "--quiet") {
      s.quiet = true;
    } else if (a == "--echo") {
      s.echo = true;
    } else {
      bad("unknown option " + a + (a[0] == '-' ? "" : " (put -- before PROGRAM)"));
    }
  }
  for (; i < argc; ++i) s.program.push_back(argv[i]);
  if (!s.help && s.program.empty()) bad("no PROGRAM to run (fixturesim [options] -- PROGRAM)");
  return s;
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
  try {
    settings = parse(argc, argv);
  } catch (const Usage& u) {
    std::fprintf(stderr, "fixturesim: %s\nTry fixturesim --help.\n", u.message.c_str());
    return kUsage;
  }
  if (settings.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
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
