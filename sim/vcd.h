// Writers for what the virtual fixture saw: the trace as text, one line per event, and a VCD
// waveform (IEEE 1364 value change dump) that GTKWave and PulseView load.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testbed.h"

namespace sim {

// "  12.345678  site3     < vel_vusb_on" for a line received, "  12.400000  site3     unit=dfu"
// for a change; the time is seconds since `origin`.
std::string trace_line(const TraceEvent& event, double origin);

// Appends trace lines to a file as events happen, so that the file can be followed live.
class TraceFile {
 public:
  TraceFile(Testbed& bed, const std::string& path, double origin);
  ~TraceFile();
  bool ok() const { return file_ != nullptr; }

 private:
  struct Shared;
  // Outlives this object: the testbed keeps calling the listener until it goes.
  std::shared_ptr<Shared> shared_;
  FILE* file_;
};

// A waveform: signals in scopes, each with an initial value and changes over time. A signal's
// values are texts. Its format is fixed by its declaration where given: a 32-bit integer, or a
// set of named states written as their index in that list, so that one code means one state in
// every scope. Otherwise it is inferred: all 0 and 1 make a one-bit wire, all whole numbers an
// integer, anything else named states in order of first appearance. The state names are in
// comments of the header. Each variable is named "<scope>.<name>", since some readers (sigrok's
// VCD input) drop the scopes and would see the sites' signals under one name.
struct VcdFormat {
  bool integer = false;
  std::vector<std::string> states;  // codes 0, 1, 2...; values outside the list follow them
};

class Vcd {
 public:
  using Format = VcdFormat;
  void declare(const std::string& scope, const std::string& name, const std::string& initial,
               Format format = {});
  // Ignored for a signal not declared, unless `declareIfNew`.
  void change(double time, const std::string& scope, const std::string& name,
              const std::string& value, bool declareIfNew = false);
  bool has(const std::string& scope, const std::string& name) const;
  // Writes the file with times in microseconds since `origin`. False (and errno) on failure.
  bool write(const std::string& path, double origin, const std::string& title) const;

 private:
  struct Signal {
    std::string scope, name, initial;
    Format format;
    std::vector<std::pair<double, std::string>> changes;
  };
  Signal* find(const std::string& scope, const std::string& name);
  std::vector<Signal> signals_;  // in order of declaration
  std::map<std::string, size_t> index_;
};

}  // namespace sim
