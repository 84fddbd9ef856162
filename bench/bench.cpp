// Timing fidelity of the library's sequences, measured at two points: every line carries the
// time of the library's write call (inside the process) and the time its virtual board took it;
// every status frame a virtual DIO module answers carries its own. Beside each sequence stand
// the lines it must send and the pause the library is meant to make before each; the bench runs
// every sequence several times and compares, judging the library at the write call. It ends with
// a throughput figure for DIORS232Write, the CPU time of a press cycle that waits, and the eight
// sites' power and boot-mode sequences one after another and all at once.
//
//   brakwell_bench [--runs N] [--commands]      (under umockdev-wrapper)
#include <Brakwell.h>
#include <dirent.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "boards.h"
#include "common/station.h"
#include "dio.h"
#include "topology.h"
#include "usb.h"
#include "write_tap.h"

namespace {

constexpr double S = brakwell::station::kLinePause;
constexpr double L = brakwell::station::kLongPause;
constexpr double Q = 0.3;        // between a status query and its parse
constexpr double P = 0.1;        // between press-cycle polls
constexpr double kEarly = 1e-3;  // a gap shorter than its pause by more than this is early

// One line the library must send: to which site, and the pause it makes before it (since the
// previous line of the sequence, or since the call for the first).
struct Line {
  int site;
  std::string text;
  double pause;
};

struct Sequence {
  std::string name;
  std::function<void()> call;
  std::vector<Line> lines;
  double tail = 0;                // pause after the last line, before the call returns
  std::function<void()> prepare;  // scripts the boards' replies before each run
  bool dio = false;               // lines are the DIO module's status frames
};

// Where a line is timed: at the library's write call inside the process, and where its board
// took it (the boards' one reader thread, which a busy machine can make late).
enum Point { AtCall, AtBoard, kPoints };
constexpr const char* kPointName[kPoints] = {"at the write call", "at the boards"};

struct Measured {
  std::vector<double> durations;
  std::vector<std::vector<double>> gaps[kPoints];  // per point, per line, per run
  int mismatches = 0;
};

double thread_cpu() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double process_cpu() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

std::string strip(std::string line) {
  if (!line.empty() && line.back() == '\n') line.pop_back();
  return line;
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The virtual fixture's own threads (the boards' reader, umockdev's workers) are the measuring
// instrument: they run real-time when the system allows it, so that a loaded machine delays
// the library, which is measured, rather than the timestamps. Returns how many were raised.
int raise_instrument_threads() {
  const pid_t self = gettid();
  int raised = 0;
  DIR* tasks = opendir("/proc/self/task");
  if (!tasks) return 0;
  while (dirent* entry = readdir(tasks)) {
    const pid_t tid = static_cast<pid_t>(std::atoi(entry->d_name));
    if (tid <= 0 || tid == self) continue;
    const sched_param param{50};
    raised += sched_setscheduler(tid, SCHED_FIFO, &param) == 0;
  }
  closedir(tasks);
  return raised;
}

// What the machine adds to any sleep of the calling thread (an absolute-deadline sleep, as the
// library makes): the floor under every gap.
void print_machine_baseline() {
  std::vector<double> over;
  for (int i = 0; i < 100; ++i) {
    const double start = sim::now();
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += static_cast<long>(S * 1e9);
    if (deadline.tv_nsec >= 1000000000) {
      deadline.tv_nsec -= 1000000000;
      ++deadline.tv_sec;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
    over.push_back(sim::now() - start - S);
  }
  std::sort(over.begin(), over.end());
  double load = 0;
  if (FILE* f = std::fopen("/proc/loadavg", "r")) {
    if (std::fscanf(f, "%lf", &load) != 1) load = 0;
    std::fclose(f);
  }
  std::printf(
      "machine: %ld cores, load average %.2f; a 10 ms sleep of this thread overshoots "
      "by %.0f us (median), %.0f us (90th percentile)\n",
      sysconf(_SC_NPROCESSORS_ONLN), load, median(over) * 1e6, over[90] * 1e6);
}

// ---- the sequences, as the library is meant to perform them -------------------------------

const char* on_off(bool on, const char* onText, const char* offText) {
  return on ? onText : offText;
}

// The boot-mode sequences of one site: force DFU, diagnostics or iBoot.
enum class Boot { Dfu, Diags, Iboot };

std::vector<Line> boot_lines(Boot mode, int site, bool on) {
  const bool dfuLine = mode == Boot::Dfu ? on : !on;  // diags and iBoot invert the force line
  std::vector<Line> out = {
      {site, "vel_vusb_off\n", 0},
      {site, "vel_batt_supercap_disconn\n", S},
      {site, "vel_vbatt_off\n", S},
      {site, on_off(on, "vel_uart_on\n", "vel_uart_off\n"), L},
      {site, on_off(dfuLine, "vel_forcedfu_on\n", "vel_forcedfu_off\n"), S},
      {site, on_off(on, "vel_hi5_enable\n", "vel_hi5_disable\n"), S},
  };
  if (mode == Boot::Iboot) {
    out.push_back({site, "vel_hi5_enable\n", S});
    out.push_back({site, "vel_hi5_enter_recovery\n", 0});
  } else {
    out.push_back({site, "vel_hi5_enable\n", mode == Boot::Diags ? 0 : S});
    out.push_back({site, "vel_hi5_enter_diag\n", S});  // the pause inside SOC_Hi5EnterDiag
  }
  out.push_back({site, on_off(on, "vel_accid_on\n", "vel_accid_off\n"), S});
  if (mode != Boot::Diags) out.push_back({site, "vel_dfu_host_conn\n", S});
  double pending = S;
  if (on) {
    out.push_back({site, "vel_set_vbatt_4100\n", S});
  } else {
    pending += S;  // the pause after the battery-voltage step is made even without it
  }
  out.push_back({site, on_off(on, "vel_vbatt_on\n", "vel_vbatt_off\n"), pending});
  out.push_back({site, on_off(on, "vel_batt_supercap_conn\n", "vel_batt_supercap_disconn\n"), S});
  out.push_back({site, on_off(on, "vel_vusb_on\n", "vel_vusb_off\n"), S});
  return out;
}

std::vector<Line> dut_power_off_lines(int site) {
  return {{site, "vel_vusb_off\n", 0},
          {site, "vel_batt_supercap_disconn\n", S},
          {site, "vel_vbatt_off\n", S}};
}

std::vector<Line> dut_power_on_lines(int site) {
  return {{site, "vel_hi5_enable\n", 0},         {site, "vel_hi5_enable\n", 0},
          {site, "vel_hi5_enter_recovery\n", 0}, {site, "vel_accid_on\n", S},
          {site, "vel_set_vbatt_4100\n", S},     {site, "vel_vbatt_on\n", S},
          {site, "vel_batt_supercap_conn\n", 0}, {site, "vel_vusb_on\n", S}};
}

// The well-wide power sequence: the supercap step addresses the previous UUT, so on the first
// well it fails at once (index -1) and ends the call.
std::vector<Line> dut_power_all_lines(int well, bool on, double* tail) {
  std::vector<Line> out;
  const int first = well == 1 ? 5 : 1;
  for (int site = first; site < first + 4; ++site) {
    if (on) {
      out.push_back({site, "vel_hi5_enable\n", 0});
      out.push_back({site, "vel_hi5_enable\n", 0});
      out.push_back({site, "vel_hi5_enter_recovery\n", 0});
      out.push_back({site, "vel_accid_on\n", S});
      out.push_back({site, "vel_set_vbatt_4100\n", S});
      out.push_back({site, "vel_vbatt_on\n", S});
    } else {
      out.push_back({site, "vel_vusb_off\n", 0});
    }
    if (site == 1) {
      *tail = S;
      return out;
    }
    out.push_back({site - 1, on ? "vel_batt_supercap_conn\n" : "vel_batt_supercap_disconn\n", S});
    if (on) {
      out.push_back({site, "vel_vusb_on\n", S});
    } else {
      out.push_back({site, "vel_vbatt_off\n", S});
    }
  }
  *tail = 0;
  return out;
}

// A command to each site of the well, each after its own short pause.
std::vector<Line> well_lines(int well, const char* text, double firstExtra = 0) {
  std::vector<Line> out;
  const int first = well == 1 ? 5 : 1;
  for (int i = 0; i < 4; ++i) out.push_back({first + i, text, S + (i == 0 ? firstExtra : 0)});
  return out;
}

std::vector<Line> join(std::vector<std::vector<Line>> parts) {
  std::vector<Line> out;
  for (auto& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// ---- the bench --------------------------------------------------------------------------------

class Bench {
 public:
  Bench() : bus_(bed_), boards_(bed_) {
    for (int site = 1; site <= 8; ++site) bus_.add_board(site);
    boards_.add_sites(1, 8);
    dio_ = std::make_unique<sim::DioModule>(bus_, 0);
  }

  void run(int runs, bool commands) {
    const int raised = raise_instrument_threads();
    std::printf("instrument threads: %s\n", raised ? "real-time (SCHED_FIFO)" : "normal priority");
    print_machine_baseline();
    const double start0 = sim::now();
    if (!SOC_Start()) {
      std::fprintf(stderr, "bench: the station found no fixture\n");
      std::exit(1);
    }
    std::printf("station start: %.3f s (0.8 s of it pauses)\n", sim::now() - start0);
    controllers_[0] = create_fixture_controller(0);
    controllers_[1] = create_fixture_controller(1);
    define();

    double measuredSum = 0, plannedSum = 0;
    int early[kPoints] = {}, mismatches = 0;
    std::vector<double> excess;
    std::vector<std::pair<double, std::string>> excessOf;  // time beyond the pauses, all runs
    std::vector<std::string> earlyNotes;
    std::printf("\n%-34s %9s %9s %9s %9s %22s %11s\n", "sequence", "pauses s", "median s",
                "worst s", "overhead", "shortest gap / pause", "early c/b");
    for (auto& sequence : sequences_) {
      Measured m;
      for (auto& gaps : m.gaps) gaps.resize(sequence.lines.size());
      for (int r = 0; r < runs; ++r) measure(sequence, m);
      const double planned = planned_of(sequence);
      double shortest = INFINITY, shortestPause = 0;
      for (size_t i = 0; i < sequence.lines.size(); ++i) {
        for (double gap : m.gaps[AtCall][i]) {
          const double pause = sequence.lines[i].pause;
          excess.push_back(gap - pause);
          if (gap - pause < shortest - shortestPause) {
            shortest = gap;
            shortestPause = pause;
          }
        }
      }
      int seqEarly[kPoints] = {};
      for (int point = 0; point < kPoints; ++point) {
        seqEarly[point] = count_early(sequence, m.gaps[point], kPointName[point], earlyNotes);
        early[point] += seqEarly[point];
      }
      for (double d : m.durations) measuredSum += d;
      plannedSum += planned * static_cast<double>(m.durations.size());
      const double med = median(m.durations);
      const double worst = *std::max_element(m.durations.begin(), m.durations.end());
      char gapText[64] = "-";
      if (!sequence.lines.empty()) {
        std::snprintf(gapText, sizeof gapText, "%.4f / %.3f", shortest, shortestPause);
      }
      char overhead[32] = "-";
      if (planned > 0) {
        std::snprintf(overhead, sizeof overhead, "%+.2f%%", 100 * (med - planned) / planned);
      }
      char earlyText[32];
      std::snprintf(earlyText, sizeof earlyText, "%d/%d", seqEarly[AtCall], seqEarly[AtBoard]);
      std::printf("%-34s %9.3f %9.4f %9.4f %9s %22s %11s%s\n", sequence.name.c_str(), planned, med,
                  worst, overhead, gapText, earlyText, m.mismatches ? "  LINES DIFFER" : "");
      if (commands) print_commands(sequence, m);
      std::fflush(stdout);
      excessOf.push_back({std::accumulate(m.durations.begin(), m.durations.end(), 0.0) -
                              planned * static_cast<double>(m.durations.size()),
                          sequence.name});
      mismatches += m.mismatches;
    }

    for (const auto& note : earlyNotes) std::printf("early gap: %s\n", note.c_str());
    std::sort(excessOf.rbegin(), excessOf.rend());
    std::printf("\nmost time beyond the pauses (all runs, of %.3f s in all):",
                measuredSum - plannedSum);
    for (size_t i = 0; i < 4 && i < excessOf.size(); ++i) {
      std::printf("%s %s %.3f s", i ? "," : "", excessOf[i].second.c_str(), excessOf[i].first);
    }
    std::printf("\n");

    throughput();
    press_cycle_cpu();
    parallel_sites();

    SOC_Done();
    release_fixture_controller(controllers_[0]);
    release_fixture_controller(controllers_[1]);
    if (mismatches) std::printf("\n%d runs sent other lines than expected\n", mismatches);
    std::printf(
        "\ntiming: %zu sequences, overhead %.2f%% over planned pauses, %d early gaps at the write "
        "call (%d at the boards), median command excess %.0f us\n",
        sequences_.size(), 100 * (measuredSum - plannedSum) / plannedSum, early[AtCall],
        early[AtBoard], median(excess) * 1e6);
  }

 private:
  // Gaps shorter than their pause, each with a note. An early gap right after a late one is a
  // line that was timed late (at the boards: the pty delivers in bursts when the machine is
  // busy), not a short pause: the note says which it was.
  static int count_early(const Sequence& sequence, const std::vector<std::vector<double>>& gaps,
                         const char* point, std::vector<std::string>& notes) {
    int early = 0;
    for (size_t i = 0; i < sequence.lines.size(); ++i) {
      for (size_t r = 0; r < gaps[i].size(); ++r) {
        const double shortBy = sequence.lines[i].pause - gaps[i][r];
        if (shortBy <= kEarly) continue;
        ++early;
        const double lateBefore = i > 0 ? gaps[i - 1][r] - sequence.lines[i - 1].pause : 0;
        char note[320];
        std::snprintf(note, sizeof note,
                      "%s, %s, line %zu (%s): %.2f ms short; the line before came %.2f ms late",
                      point, sequence.name.c_str(), i + 1, strip(sequence.lines[i].text).c_str(),
                      shortBy * 1e3, lateBefore * 1e3);
        notes.push_back(note);
      }
    }
    return early;
  }

  static double planned_of(const Sequence& sequence) {
    double total = sequence.tail;
    for (const auto& line : sequence.lines) total += line.pause;
    return total;
  }

  void add(std::string name, std::function<void()> call, std::vector<Line> lines, double tail = 0,
           std::function<void()> prepare = nullptr) {
    sequences_.push_back(
        {std::move(name), std::move(call), std::move(lines), tail, std::move(prepare), false});
  }

  // Replies to every status query of a site, in turn.
  void script(int site, std::vector<int> statuses) {
    std::vector<std::string> replies;
    for (int s : statuses) replies.push_back(brakwell::station::status_reply(s));
    boards_.site(site).script_status(std::move(replies));
  }

  void define() {
    for (int well = 0; well < 2; ++well) {
      FixtureController* h = controllers_[well];
      const int site = well == 1 ? 5 : 1;
      const int uut = site - 1;
      const std::string w = " well " + std::to_string(well);
      const std::string query = brakwell::station::kStatusQuery;

      for (int state : {0, 1}) {
        const bool on = state != 1;
        const std::string st = on ? " on" : " off";
        add(
            "set_force_dfu" + st + w, [h, state] { set_force_dfu(h, state, 1); },
            boot_lines(Boot::Dfu, site, on), S);
        add(
            "set_force_diags" + st + w, [h, state] { set_force_diags(h, state, 1); },
            boot_lines(Boot::Diags, site, on), S);
        add(
            "set_force_iboot" + st + w, [h, state] { set_force_iboot(h, state, 1); },
            boot_lines(Boot::Iboot, site, on), 0);
        double tail = 0;
        auto all = dut_power_all_lines(well, on, &tail);
        add(
            "set_dut_power_all" + st + w, [h, state] { set_dut_power_all(h, state); }, all, tail);
        add("set_usb_power" + st + w, [h, state] { set_usb_power(h, state, 1); },
            {{site, on_off(on, "vel_vusb_on\n", "vel_vusb_off\n"), 0}});
        add("set_battery_power" + st + w, [h, state] { set_battery_power(h, state, 1); },
            {{site, on_off(on, "vel_vbatt_on\n", "vel_vbatt_off\n"), 0}});
      }
      add(
          "set_dut_power off" + w, [h] { set_dut_power(h, 1, 1); }, dut_power_off_lines(site), L);
      add(
          "set_dut_power on" + w, [h] { set_dut_power(h, 0, 1); }, dut_power_on_lines(site), 0);

      // Well-wide reset, press moves and LEDs.
      add(
          "SOC_Reset" + w, [well] { SOC_Reset(well); }, well_lines(well, "vel_dfu_reset\n"));
      add(
          "SOC_PowerOff" + w, [well] { SOC_PowerOff(well); }, well_lines(well, "vel_dfu_reset\n"));
      add("SOC_RunLed on" + w, [well] { SOC_RunLed(well, true); }, {{site, "vel_run_led_on\n", S}});
      add("SOC_RunLed off" + w, [well] { SOC_RunLed(well, false); },
          {{site, "vel_run_led_off\n", S}});
      add(
          "set_led_state_all pass" + w, [h] { set_led_state_all(h, 1); },
          well_lines(well, "vel_pass_led_on\n"));
      add(
          "set_led_state_all fail" + w, [h] { set_led_state_all(h, 2); },
          well_lines(well, "vel_fail_led_on\n"));
      add("set_led_state pass" + w, [h] { set_led_state(h, 1, 1); },
          {{site, "vel_fail_led_off\n", 0}, {site, "vel_pass_led_on\n", 0}});
      add(
          "fixture_engage" + w, [h] { fixture_engage(h); }, well_lines(well, "vel_pne_down\n"));
      add(
          "fixture_disengage" + w, [h] { fixture_disengage(h); }, well_lines(well, "vel_pne_up\n"));
      add(
          "fixture_close" + w, [h] { fixture_close(h); }, well_lines(well, "vel_pne_in\n"));
      add(
          "fixture_open" + w, [h] { fixture_open(h); },
          join({well_lines(well, "vel_dfu_reset\n"), well_lines(well, "vel_pne_out\n", L)}));
      {
        std::vector<Line> leds;
        for (int s = site; s < site + 4; ++s) {
          leds.push_back({s, "vel_pass_led_off\n", 0});
          leds.push_back({s, "vel_fail_led_off\n", 0});
        }
        add(
            "init" + w, [h] { init(h); },
            join({well_lines(well, "vel_dfu_reset\n"), well_lines(well, "vel_pne_up\n", 3.0),
                  well_lines(well, "vel_pne_out\n", 2.0), leds}));
      }

      // Hi5 calls.
      add("SOC_Hi5EnterDiag" + w, [uut] { SOC_Hi5EnterDiag(uut); },
          {{site, "vel_hi5_enable\n", 0}, {site, "vel_hi5_enter_diag\n", S}});
      add("SOC_Hi5EnterRecovery" + w, [uut] { SOC_Hi5EnterRecovery(uut); },
          {{site, "vel_hi5_enable\n", 0}, {site, "vel_hi5_enter_recovery\n", 0}});

      // Status tests and the press: the well's board answers every query.
      const auto answer = [this, site](int status) {
        return [this, site, status] { script(site, {status}); };
      };
      add(
          "SOC_IsValveOn" + w, [well] { SOC_IsValveOn(well); }, {{site, query, 0.2}}, Q,
          answer(43));
      add(
          "SOC_IsFixtureEngaged" + w, [well] { SOC_IsFixtureEngaged(well); }, {{site, query, S}}, Q,
          answer(40));
      add(
          "SOC_IsFixtureOpened" + w, [well] { SOC_IsFixtureOpened(well); }, {{site, query, S}}, Q,
          answer(20));
      add(
          "SOC_IsAbort_Pressed" + w, [well] { SOC_IsAbort_Pressed(well); }, {{site, query, 0}}, Q,
          answer(42));
      add(
          "SOC_IsBoth_Pressed" + w, [well] { SOC_IsBoth_Pressed(well); }, {{site, query, 0}}, Q,
          answer(36));
      add(
          "SOC_PneumaticValveOn" + w, [well] { SOC_PneumaticValveOn(well, 0); },
          {{site, query, 0},
           {site, "vel_pne_in\n", Q},
           {site, query, P},
           {site, "vel_pne_down\n", Q},
           {site, query, P},
           {site, "vel_run_led_on\n", Q + S},
           {site, query, P}},
          Q,
          [this, site] {
            script(site, {20, 36, 40, 43});
          });
      add(
          "SOC_PneumaticValveOn released" + w, [well] { SOC_PneumaticValveOn(well, 0); },
          {{site, query, 0},
           {site, "vel_pne_down\n", Q},
           {site, query, P},
           {site, "vel_pne_up\n", Q},
           {site, "vel_pne_out\n", 0.2},
           {site, query, P},
           {site, "vel_run_led_on\n", Q + S}},
          0,
          [this, site] {
            script(site, {36, 37, 24});
          });
      add(
          "SOC_PneumaticValveAutoOn" + w, [well] { SOC_PneumaticValveAutoOn(well, 0); },
          {{site, query, P}, {site, "vel_pne_in\n", Q}, {site, "vel_pne_down\n", 0.2}}, 0.05,
          answer(63));
      add("SOC_PneumaticValveOff" + w, [well] { SOC_PneumaticValveOff(well); },
          {{site, "vel_pne_up\n", 0}, {site, "vel_pne_out\n", S}});
    }

    // Station stop, then start again for the runs that follow; start has no line to see, so it
    // is timed from the host side only.
    std::vector<Line> stop;
    for (int site = 1; site <= 8; ++site) stop.push_back({site, "vel_hi5_disable\n", 0.2});
    add(
        "SOC_Done", [] { SOC_Done(); }, stop, 0,
        [] {
          if (DIO_fileDescriptor[0] == -1) SOC_Start();  // stopped by the previous run
        });
    add(
        "SOC_Start", [] { SOC_Start(); }, {}, 0.8);

    // The DIO debounce: five status reads, 1 ms apart, seen by the module.
    if (openUSB(0) && dioOpen(0)) {
      std::vector<Line> reads = {{0, "status", 0}};
      for (int i = 0; i < 4; ++i) reads.push_back({0, "status", 0.001});
      sequences_.push_back({"dioReadSensor",
                            [] {
                              uint32_t sensors = 0;
                              dioReadSensor(0, &sensors);
                            },
                            reads, 0, [this] { dio_->script_status({0x47}); }, true});
    } else {
      std::fprintf(stderr, "bench: the DIO module did not open; no debounce figure\n");
    }
  }

  void measure(const Sequence& sequence, Measured& m) {
    for (auto* board : boards_.all()) {
      board->set_responder(nullptr);
      board->clear();
    }
    if (sequence.prepare) sequence.prepare();
    sim::write_tap::watch(DIO_fileDescriptor);  // the ports may have been opened anew
    sim::write_tap::clear();
    const double start = sim::now();
    sequence.call();
    const double end = sim::now();
    m.durations.push_back(end - start);

    std::vector<double> times[kPoints];
    if (sequence.dio) {
      times[AtCall] = times[AtBoard] = dio_->status_times();
    } else {
      times[AtCall] =
          line_times(sequence.lines, [](int site) { return sim::write_tap::lines(site - 1); });
      times[AtBoard] =
          line_times(sequence.lines, [this](int site) { return boards_.site(site).lines(); });
    }
    for (int point = 0; point < kPoints; ++point) {
      if (times[point].size() != sequence.lines.size()) {
        ++m.mismatches;
        return;
      }
    }
    for (int point = 0; point < kPoints; ++point) {
      double previous = start;
      for (size_t i = 0; i < times[point].size(); ++i) {
        m.gaps[point][i].push_back(times[point][i] - previous);
        previous = times[point][i];
      }
    }
  }

  // The time of each expected line, from the lines each site got (waiting for the boards): per
  // site, the lines must be exactly the expected ones, in order, and no other site may have
  // any; an empty result when they are not.
  std::vector<double> line_times(
      const std::vector<Line>& expected,
      const std::function<std::vector<sim::ReceivedLine>(int site)>& linesOf) {
    std::map<int, size_t> perSite;
    for (const auto& line : expected) ++perSite[line.site];
    for (auto [site, count] : perSite) boards_.site(site).wait_lines(count, 2);
    std::map<int, std::vector<sim::ReceivedLine>> got;
    for (int site = 1; site <= 8; ++site) {
      got[site] = linesOf(site);
      if (got[site].size() != perSite[site]) return {};
    }
    std::map<int, size_t> next;
    std::vector<double> times;
    for (const auto& line : expected) {
      const auto& received = got[line.site][next[line.site]++];
      if (received.text != line.text) return {};
      times.push_back(received.time);
    }
    return times;
  }

  static void print_commands(const Sequence& sequence, const Measured& m) {
    for (size_t i = 0; i < sequence.lines.size(); ++i) {
      const auto& gaps = m.gaps[AtCall][i];
      if (gaps.empty()) continue;
      const std::string text = strip(sequence.lines[i].text);
      std::printf("    site %d %-28s pause %.3f  gap median %.4f  shortest %.4f\n",
                  sequence.lines[i].site, text.c_str(), sequence.lines[i].pause, median(gaps),
                  *std::min_element(gaps.begin(), gaps.end()));
    }
  }

  // Commands per second that DIORS232Write sustains, written back to back: to one site, and
  // round the eight sites. A write the port's queue cannot take counts as not sent.
  void throughput() {
    static const char kLine[] = "vel_vusb_on\n";
    std::printf("\n");
    for (int sites : {1, 8}) {
      for (auto* board : boards_.all()) board->clear();
      long sent = 0, refused = 0;
      const double start = sim::now();
      double now = start;
      while (now - start < 1.0) {
        for (int i = 0; i < 100; ++i) {
          (DIORS232Write(static_cast<int>(sent + refused) % sites, kLine, sizeof kLine - 1)
               ? sent
               : refused)++;
        }
        now = sim::now();
      }
      const double elapsed = now - start;
      size_t received = 0;
      for (int site = 1; site <= sites; ++site) {
        boards_.site(site).wait_lines(static_cast<size_t>(sent / sites), 2);
        received += boards_.site(site).lines().size();
      }
      std::printf(
          "DIORS232Write to %d site%s: %.0f commands/s sent (%ld in %.2f s, %zu received, "
          "%ld refused by a full queue)\n",
          sites, sites == 1 ? "" : "s", static_cast<double>(sent) / elapsed, sent, elapsed,
          received, refused);
    }
  }

  // A press cycle whose operator never presses: the call polls until its time limit. The
  // library must sleep meanwhile, not spin.
  void press_cycle_cpu() {
    script(1, {63});
    const double wall0 = sim::now(), thread0 = thread_cpu(), process0 = process_cpu();
    SOC_PneumaticValveOn(0, 2.0f);
    const double wall = sim::now() - wall0;
    const double thread = thread_cpu() - thread0, process = process_cpu() - process0;
    std::printf(
        "press cycle waiting %.2f s: calling thread %.1f ms CPU (%.2f%%), whole process "
        "with the virtual fixture %.1f ms\n",
        wall, thread * 1e3, 100 * thread / wall, process * 1e3);
  }

  // Every site's power and boot-mode sequences (force DFU on, then DUT power off): one site after
  // another, then the eight at once, each from its own thread. The floor is the longest single
  // site's sum of pauses; the lines on every wire must be the same both ways.
  void parallel_sites() {
    const auto site_work = [this](int site) {
      FixtureController* h = controllers_[site > 4 ? 1 : 0];
      set_force_dfu(h, 0, (site - 1) % 4 + 1);
      set_dut_power(h, 1, (site - 1) % 4 + 1);
    };
    double floor = 0;
    std::vector<Line> lines[9];
    for (int site = 1; site <= 8; ++site) {
      lines[site] = join({boot_lines(Boot::Dfu, site, true), dut_power_off_lines(site)});
      lines[site][lines[site].size() - 3].pause += S;  // the boot sequence's last pause
      floor = std::max(floor, planned_of({"", nullptr, lines[site], L, nullptr, false}));
    }
    int differ = 0;
    const auto check_wires = [&] {
      for (int site = 1; site <= 8; ++site) {
        std::vector<std::string> texts;
        for (const auto& line : sim::write_tap::lines(site - 1)) texts.push_back(line.text);
        bool same = texts.size() == lines[site].size();
        for (size_t i = 0; same && i < texts.size(); ++i) same = texts[i] == lines[site][i].text;
        differ += !same;
      }
      sim::write_tap::clear();
    };
    sim::write_tap::watch(DIO_fileDescriptor);
    sim::write_tap::clear();
    double start = sim::now();
    for (int site = 1; site <= 8; ++site) site_work(site);
    const double sequential = sim::now() - start;
    check_wires();
    start = sim::now();
    std::vector<std::thread> threads;
    for (int site = 1; site <= 8; ++site) threads.emplace_back(site_work, site);
    for (auto& t : threads) t.join();
    const double parallel = sim::now() - start;
    check_wires();
    std::printf(
        "parallel: 8 sites, power+boot %.2f s sequential, %.2f s parallel, %.1fx, floor %.2f s%s\n",
        sequential, parallel, sequential / parallel, floor, differ ? "  LINES DIFFER" : "");
  }

  sim::Testbed bed_;
  sim::UsbBus bus_;
  sim::Boards boards_;
  std::unique_ptr<sim::DioModule> dio_;
  FixtureController* controllers_[2] = {};
  std::vector<Sequence> sequences_;
};

}  // namespace

int main(int argc, char** argv) {
  int runs = 3;
  bool commands = false;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--runs") && i + 1 < argc) {
      runs = std::max(1, std::atoi(argv[++i]));
    } else if (!std::strcmp(argv[i], "--commands")) {
      commands = true;
    } else {
      std::fprintf(stderr, "usage: brakwell_bench [--runs N] [--commands]\n");
      return 2;
    }
  }
  Bench bench;
  bench.run(runs, commands);
  return 0;
}
