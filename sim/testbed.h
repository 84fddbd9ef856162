// The virtual fixture's seam to the library: an umockdev testbed. The program must run under
// umockdev-wrapper. Later pieces (USB devices, wells, DIO modules) add to one Testbed.
#pragma once

#include <umockdev.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

// Seconds on CLOCK_MONOTONIC, the clock of every timestamp in sim/ (and of the library's sleeps).
double now();

// One timestamped event of the virtual fixture: a line a board received, a state change.
struct TraceEvent {
  double time;         // now() when it happened
  std::string source;  // "site3", "well1", "dio0", "usb", "keyboard"
  std::string what;    // the line received (with its "\n") or "name=value"
};

class Testbed {
 public:
  Testbed();
  ~Testbed();
  Testbed(const Testbed&) = delete;
  Testbed& operator=(const Testbed&) = delete;

  UMockdevTestbed* raw() const { return bed_; }
  std::string root() const;  // the testbed's root directory, for links under /dev

  // Adds a device in umockdev's text record format; fails the process loudly if refused.
  void add_from_string(const std::string& record);
  void remove_device(const std::string& sysPath);
  void uevent(const std::string& sysPath, const char* action);
  // Creates the link /dev/<linkName> to `target` inside the testbed.
  void add_dev_link(const std::string& linkPath, const std::string& target);

  // The trace: every piece appends, the trace and VCD writers read.
  void trace(const std::string& source, const std::string& what);
  std::vector<TraceEvent> trace_events() const;
  void clear_trace();  // forgets the events so far (a long run keeps its memory flat)
  // Called (under no lock) for every event as it is traced; for live trace writers.
  void on_trace(std::function<void(const TraceEvent&)> listener);

 private:
  UMockdevTestbed* bed_;
  mutable std::mutex traceMutex_;
  std::vector<TraceEvent> events_;
  std::vector<std::function<void(const TraceEvent&)>> listeners_;
};

}  // namespace sim
