// The whole virtual fixture, built from options: per site a board on a pseudo-terminal with its
// USB device, a UART bridge and a unit under test; per well the press, tray, buttons and run LED
// with an operator; the DIO modules; the virtual keyboard; faults on demand; the trace and its
// VCD waveform. fixturesim and the tests share it.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "boards.h"
#include "dio.h"
#include "keyboard.h"
#include "testbed.h"
#include "unit.h"
#include "usb.h"
#include "well.h"

namespace sim {

// A fault that strikes a given number of seconds after start().
struct TimedFault {
  enum Kind { BoardUnplugged, BoardStopsReading, DioGone } kind;
  int target;  // the site (1-8) or the DIO module (0-1)
  double at;   // seconds after start()
};

struct FixtureOptions {
  int wells = 2;          // 1: sites 1-4; 2: sites 1-8
  std::set<int> missing;  // sites with no board, UART or unit at all
  std::vector<TimedFault> faults;
  std::set<int> garbledWells;  // 1-2: the well's status replies are garbled
  std::string operatorScript;  // "": nobody at the buttons; "auto"; or a script (well.h)
  double pressTravel = 0.3;    // seconds the plate takes between its end positions
  double trayTravel = 0.3;     // seconds the tray takes
  std::set<int> dioModules = {0, 1};
  // Status bytes a module answers in turn; without a script module m answers 0x17 + 0x10 m
  // (board id m + 1, well sensors 0x17 or 0x27).
  std::map<int, std::vector<uint8_t>> dioStatus;
};

class Fixture {
 public:
  explicit Fixture(FixtureOptions options);
  ~Fixture();
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;

  const FixtureOptions& options() const { return options_; }
  Testbed& testbed() { return *bed_; }
  Boards& boards() { return *boards_; }
  UsbBus& usb() { return *usb_; }
  Units& units() { return *units_; }
  Well* well(int well);  // 1 or 2; nullptr when not fitted
  Keyboard& keyboard() { return *keyboard_; }
  DioModule* dio(int module);                            // nullptr when not fitted
  const std::set<int>& sites() const { return sites_; }  // sites present
  double origin() const { return origin_; }              // now() when it was built

  // Starts the clock of the timed faults and of the operator: their time 0 is now.
  void start();
  // The waveform of everything traced so far: every line of every site, LEDs, press, tray,
  // buttons, USB presence, DIO registers.
  bool write_vcd(const std::string& path) const;

 private:
  void run_operator();
  void strike(const TimedFault& fault);

  FixtureOptions options_;
  double origin_;
  std::set<int> sites_;
  std::unique_ptr<Testbed> bed_;
  std::unique_ptr<UsbBus> usb_;
  std::unique_ptr<Boards> boards_;
  std::map<int, uint64_t> boardDevices_;  // ids on the bus
  std::unique_ptr<Units> units_;
  std::unique_ptr<Well> wells_[2];
  std::unique_ptr<Keyboard> keyboard_;
  std::unique_ptr<DioModule> dio_[2];

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread faults_;
  std::thread operator_;
};

}  // namespace sim
