// A station's day in fast cycles, against the virtual fixture, with the library loaded as a
// station loads it (dlopen). A cycle is one unit's life on all eight sites at once: boot mode,
// power on, the unit's arrival on USB, DIO reads, a status query, result LEDs, power off, the
// unit's removal, and a child forked (some exec a program, some fail to exec, some end without
// one, by exit or _exit). Every 50 cycles the station stops, the library is reloaded and the
// station starts again with a press cycle on each well. Faults come on a schedule. One line at
// the end: cycles, faults, and open descriptors, resident memory and threads after the first
// cycle and after the last; the status is 1 on any growth, lost or ghost record, or wire byte
// out of place.
//
//   brakwell_soak [--cycles N] [--reload N] [--library PATH]      (under umockdev-wrapper)
#include <Brakwell.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "fixture.h"
#include "topology.h"

namespace {

constexpr long kApple = 0x05ac;
constexpr int kReload = 50;            // cycles between reloads
constexpr long kRssSlack = 512 << 10;  // the allocator moves whole pages as it reuses memory
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kJudgeRss = false;  // a sanitizer's quarantine and shadow keep memory resident
#else
constexpr bool kJudgeRss = true;
#endif

// clang-format off
#define SOAK_CALLS(X)                                                                         \
  X(SOC_Start) X(SOC_Done) X(SOC_USBPower) X(SOC_ForceDFU) X(SOC_Hi5EnterRecovery)            \
  X(SOC_ResultLed) X(SOC_PneumaticValveOn) X(SOC_PneumaticValveOff) X(SOC_RunLed) X(openUSB)  \
  X(closeUSB) X(dioOpen) X(dioClose) X(dioStatus) X(usbDeviceConnStatus)                      \
  X(queryFixtureStatusForWell1) X(queryFixtureStatusForWell2)
// clang-format on

struct Library {
  void* handle = nullptr;
#define SOAK_POINTER(name) decltype(&::name) name = nullptr;
  SOAK_CALLS(SOAK_POINTER)
  AppleDevRecord** list = nullptr;

  bool load(const char* path) {
    handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!handle) return std::fprintf(stderr, "soak: %s\n", dlerror()), false;
#define SOAK_RESOLVE(name) name = reinterpret_cast<decltype(name)>(dlsym(handle, #name));
    SOAK_CALLS(SOAK_RESOLVE)
    list = static_cast<AppleDevRecord**>(dlsym(handle, "g_pListAppleDev"));
    return SOC_Done && list;
  }
};

struct Count {
  long fds, rss, threads;
  std::multiset<std::string> targets;  // of the descriptors counted, for a report of growth
};

// Open descriptors (their targets), less the one that lists them and the listening sockets of
// the testbed's device handlers (the virtual bus keeps one per device number used, up to 127).
Count measure(const std::string& testbedRoot) {
  Count count{};
  const std::string handlers = testbedRoot + "/ioctl/";
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    const int n = std::atoi(fd.path().filename().c_str());
    if (getsockname(n, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        std::strncmp(address.sun_path, handlers.c_str(), handlers.size()) == 0) {
      continue;
    }
    std::error_code error;
    count.targets.insert(std::filesystem::read_symlink(fd.path(), error).string());
  }
  count.fds = static_cast<long>(count.targets.size()) - 1;
  for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    ++count.threads;
  }
  long pages = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &count.rss) != 2) count.rss = 0;
    std::fclose(f);
  }
  count.rss *= sysconf(_SC_PAGESIZE);
  return count;
}

template <typename Pred>
bool wait_until(Pred pred, double seconds) {
  const double end = sim::now() + seconds;
  while (!pred()) {
    if (sim::now() > end) return false;
    usleep(1000);
  }
  return true;
}

class Soak {
 public:
  Soak(const char* path, int reload) : path_(path), reload_(reload), fixture_(options()) {}

  int run(int cycles) {
    // Every device number of the virtual bus used once: its table of device handlers is at its
    // full size before the first measure.
    for (int i = 0; i < 127; ++i) {
      fixture_.usb().remove(fixture_.usb().add({"1-5", 0xffff, 0xffff, "", "", 0, {}}));
    }
    fixture_.start();
    if (!start()) return 1;
    Count first{}, last{};
    for (int c = 1; c <= cycles; ++c) {
      cycle(c);
      (c == 1 ? first : last) = settled();
      if (c % reload_ == 0 && c < cycles && !(stop() && start())) return 1;
    }
    if (cycles == 1) last = first;
    stop();
    std::string faults;
    long total = 0;
    for (const auto& [name, n] : faults_) {
      faults += (faults.empty() ? "" : ", ") + std::to_string(n) + " " + name;
      total += n;
    }
    const bool grew = last.fds > first.fds || last.threads > first.threads ||
                      (kJudgeRss && last.rss > first.rss + kRssSlack);
    for (const auto& target : last.targets) {
      if (last.fds > first.fds && last.targets.count(target) > first.targets.count(target)) {
        std::fprintf(stderr, "soak: open at the end, not after the first cycle: %s\n",
                     target.c_str());
      }
    }
    const bool ok = !grew && lost_ == 0 && ghosts_ == 0 && wire_ == 0 && failed_ == 0;
    std::printf(
        "soak: %d cycles, unloaded at %d of %d dlcloses, %ld faults (%s); fds %ld->%ld, RSS "
        "%.1f->%.1f MiB, threads "
        "%ld->%ld; lost %d, ghost %d, wire %d, failed calls %d: %s\n",
        cycles, unloaded_, reloads_, total, faults.c_str(), first.fds, last.fds,
        first.rss / 1048576.0, last.rss / 1048576.0, first.threads, last.threads, lost_, ghosts_,
        wire_, failed_, ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
  }

 private:
  // The smallest of a few measures: a descriptor that the event thread or umockdev holds for a
  // moment (a device's sysfs entry, a handler's connection) is not growth.
  Count settled() {
    Count best = measure(fixture_.testbed().root());
    for (int i = 0; i < 4; ++i) {
      usleep(20000);
      Count now = measure(fixture_.testbed().root());
      if (now.fds < best.fds) best = std::move(now);
    }
    return best;
  }

  static sim::FixtureOptions options() {
    sim::FixtureOptions o;
    o.operatorScript = "auto";
    o.pressTravel = o.trayTravel = 0.05;
    return o;
  }

  void problem(int& counter, int cycle, const std::string& what) {
    if (++counter <= 5) std::fprintf(stderr, "soak: cycle %d: %s\n", cycle, what.c_str());
  }
  void expect(bool ok, int cycle, const char* what) {
    if (!ok) problem(failed_, cycle, what);
  }

  // Every board received exactly its expected text since the last check.
  void check_wire(int cycle, std::map<int, std::string>& expected) {
    for (int site = 1; site <= 8; ++site) {
      sim::Board& board = fixture_.boards().site(site);
      const std::string& want = expected[site];
      wait_until([&] { return board.received().size() >= want.size(); }, 2);
      usleep(2000);
      if (board.received() != want) {
        problem(wire_, cycle,
                "site " + std::to_string(site) + " received '" + board.received() + "', not '" +
                    want + "'");
      }
      board.clear();
    }
    expected.clear();
  }

  std::multiset<uint32_t> listed() const {
    std::multiset<uint32_t> out;
    for (int i = 0; i < BRAKWELL_APPLE_DEV_MAX; ++i) {
      if (AppleDevRecord* r = lib_.list[i]) out.insert(r->locationID);
    }
    return out;
  }
  // The tracker lists exactly the units on the bus, each once.
  void check_records(int cycle, const std::multiset<uint32_t>& want) {
    if (wait_until([&] { return listed() == want; }, 5)) return;
    const auto have = listed();
    for (uint32_t id : want) {
      if (have.count(id) < want.count(id))
        problem(lost_, cycle, "lost record " + std::to_string(id));
    }
    for (uint32_t id : have) {
      if (have.count(id) > want.count(id))
        problem(ghosts_, cycle, "ghost record " + std::to_string(id));
    }
  }

  bool start() {
    if (!lib_.load(path_)) return false;
    if (!lib_.SOC_Start()) return std::fprintf(stderr, "soak: SOC_Start failed\n"), false;
    for (int m = 0; m < 2; ++m) expect(lib_.openUSB(m) == 1 && lib_.dioOpen(m) == 1, 0, "DIO open");
    for (auto mode : {sim::BootMode::Normal, sim::BootMode::Recovery, sim::BootMode::Dfu}) {
      lib_.usbDeviceConnStatus(kApple, sim::unit_identity(mode).product);
    }
    // A press cycle on each well; the operator lets go once the run LED is lit, so it goes off
    // again with the plate up, as at the end of a station's cycle.
    for (int well = 0; well < 2; ++well) {
      expect(lib_.SOC_PneumaticValveOn(well, 20) && lib_.SOC_PneumaticValveOff(well) &&
                 lib_.SOC_RunLed(well, false),
             0, "press cycle");
    }
    usleep(100000);  // the press's last lines
    for (auto* board : fixture_.boards().all()) board->clear();
    return true;
  }

  bool stop() {
    lib_.SOC_Done();
    for (int m = 0; m < 2; ++m) {
      lib_.dioClose(m);
      lib_.closeUSB(m);
    }
    const bool closed = dlclose(lib_.handle) == 0;
    ++reloads_;
    if (void* still = dlopen(path_, RTLD_NOW | RTLD_NOLOAD)) {
      dlclose(still);
    } else {
      ++unloaded_;
    }
    lib_ = Library{};
    usleep(100000);  // SOC_Done's last lines
    for (auto* board : fixture_.boards().all()) board->clear();
    return closed;
  }

  void cycle(int c) {
    const int site = c % 8 + 1, uut = site - 1;
    const auto mode = static_cast<sim::BootMode>(c % 3);
    const sim::UnitIdentity& unit = sim::unit_identity(mode);
    std::map<int, std::string> wire;
    std::multiset<uint32_t> units;
    sim::Board& faulty = fixture_.boards().site(site);
    if (c % 10 == 5) {
      faulty.stop_reading();
      ++faults_["stop-reading"];
    }
    for (int u = 0; u < 8; ++u) {
      if (mode == sim::BootMode::Dfu) {
        expect(lib_.SOC_ForceDFU(u, true), c, "SOC_ForceDFU");
        wire[u + 1] += "vel_forcedfu_on\n";
      } else if (mode == sim::BootMode::Recovery) {
        expect(lib_.SOC_Hi5EnterRecovery(u), c, "SOC_Hi5EnterRecovery");
        wire[u + 1] += "vel_hi5_enable\nvel_hi5_enter_recovery\n";
      }
      expect(lib_.SOC_USBPower(u, true), c, "SOC_USBPower");
      wire[u + 1] += "vel_vusb_on\n";
      units.insert(sim::location_id(sim::site_port_path(u + 1, sim::kUnitPort)));
    }
    usleep(20000);
    faulty.resume_reading();
    check_records(c, units);

    sim::UsbDevice* replugged = nullptr;
    if (c % 10 == 3) {
      const std::string port = sim::site_port_path(site, sim::kUnitPort);
      if (sim::UsbDevice* present = fixture_.usb().find(port)) fixture_.usb().remove(*present);
      units.erase(units.find(sim::location_id(port)));
      check_records(c, units);
      replugged = &fixture_.usb().add_unit(site, unit.name, unit.vendor, unit.product);
      units.insert(sim::location_id(port));
      check_records(c, units);
      ++faults_["unplug/replug"];
    }

    const int m = c / 10 % 2;
    if (c % 10 == 9) {
      (dio_[m] ? dio_[m].get() : fixture_.dio(m))->vanish();
      uint32_t status = 0;
      expect(lib_.dioStatus(m, &status) == 0, c, "dioStatus of a module gone");
      dio_[m] = std::make_unique<sim::DioModule>(fixture_.usb(), m);
      dio_[m]->script_status({static_cast<uint8_t>(0x17 + 0x10 * m)});
      lib_.closeUSB(m);
      expect(lib_.openUSB(m) == 1 && lib_.dioOpen(m) == 1, c, "DIO back");
      ++faults_["DIO gone and back"];
    }
    for (int k = 0; k < 2; ++k) {
      sim::DioModule& module = dio_[k] ? *dio_[k] : *fixture_.dio(k);
      module.clear_record();
      uint32_t status = 0;
      expect(lib_.dioStatus(k, &status) == 1 && status == 0x17u + 0x10u * k, c, "dioStatus");
      if (module.frames() != std::vector<std::vector<uint8_t>>{{0x02, 0x03, 0x02}}) {
        problem(wire_, c, "DIO module " + std::to_string(k) + ": status frame out of place");
      }
    }

    if (c % 10 == 7) {
      faulty.reply("\x01vel_fixture_status=1x\xff\r\n");  // line noise before the query
      usleep(5000);
      ++faults_["garbled reply"];
    }
    const int status =
        uut < 4 ? lib_.queryFixtureStatusForWell1(uut) : lib_.queryFixtureStatusForWell2(uut);
    expect(c % 10 == 7 || status != -1, c, "status query");
    wire[site] += "vel_fixture_status\n";

    for (int u = 0; u < 8; ++u) {
      const bool pass = (u + c) % 3 != 0;
      expect(lib_.SOC_ResultLed(u, pass), c, "SOC_ResultLed");
      wire[(u > 3 ? u - 4 : u) + 1] += pass ? "vel_pass_led_on\n" : "vel_fail_led_on\n";
    }
    for (int u = 0; u < 8; ++u) {
      expect(lib_.SOC_USBPower(u, false), c, "SOC_USBPower off");
      wire[u + 1] += "vel_vusb_off\n";
      if (mode == sim::BootMode::Dfu) {
        expect(lib_.SOC_ForceDFU(u, false), c, "SOC_ForceDFU off");
        wire[u + 1] += "vel_forcedfu_off\n";
      }
    }
    check_wire(c, wire);
    if (replugged) fixture_.usb().remove(*replugged);
    check_records(c, {});
    child(c);
    fixture_.testbed().clear_trace();
  }

  // Children as a station starts them: some exec a program, some fail to exec, some end
  // without one; by exit (the library's static destructors run) or _exit.
  // The child calls nothing that umockdev's preload wraps (open, close, stat...): a parent thread
  // may have held the preload's path lock at the fork, and the child would wait on it for ever.
  void child(int c) {
    const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::fflush(nullptr);  // else the child's exit writes the parent's buffered output again
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(null_fd, STDERR_FILENO);
      char* argv[] = {const_cast<char*>("true"), nullptr};
      switch (c % 4) {
        case 0:
          execv("/bin/true", argv);
          std::exit(127);
        case 1:
          execv("/nonexistent/brakwell-soak-child", argv);
          std::exit(127);
        case 2:
          std::exit(0);
        default:
          _exit(0);
      }
    }
    close(null_fd);
    // A child stuck on a lock its parent held at the fork is a failure, not a hung soak.
    int status = 0;
    pid_t done = 0;
    for (int waited_ms = 0; pid > 0 && done == 0 && waited_ms < 10000; waited_ms += 10) {
      done = waitpid(pid, &status, WNOHANG);
      if (done == 0) usleep(10000);
    }
    if (pid > 0 && done == 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    expect(pid > 0 && done == pid && WIFEXITED(status), c, "child");
  }

  const char* path_;
  int reload_;  // cycles between reloads
  sim::Fixture fixture_;
  std::unique_ptr<sim::DioModule> dio_[2];  // modules plugged in again after a fault
  Library lib_;
  std::map<std::string, long> faults_;
  int lost_ = 0, ghosts_ = 0, wire_ = 0, failed_ = 0, reloads_ = 0, unloaded_ = 0;
};

}  // namespace

// LeakSanitizer's check at a forked child's exit would report its parent's threads' memory and,
// on a sanitizer build's large heap, take longer than the child is given; the soak process itself
// is checked at its own exit.
const pid_t soakProcess = getpid();
extern "C" int __lsan_is_turned_off() { return getpid() != soakProcess; }

int main(int argc, char** argv) {
  int cycles = 1000, reload = 50;
  const char* library = BRAKWELL_LIBRARY;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--cycles") == 0) {
      cycles = std::max(1, std::atoi(argv[i + 1]));
    } else if (std::strcmp(argv[i], "--reload") == 0) {
      reload = std::max(1, std::atoi(argv[i + 1]));
    } else if (std::strcmp(argv[i], "--library") == 0) {
      library = argv[i + 1];
    }
  }
  // The operator alert of a module gone goes to standard error, not to a dialog.
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  return Soak(library, reload).run(cycles);
}
