// Fixture boards on pseudo-terminals: what the library writes to a site's port arrives here,
// timestamped; what a board answers goes back to the library's port.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "testbed.h"

namespace sim {

struct ReceivedLine {
  double time;       // now() when its last byte was read
  std::string text;  // with its "\n"
};

// A serial port as the udev scan sees it.
struct PortSpec {
  int site = 0;         // 1-8 for a fixture board, 0 for any other port
  std::string devnode;  // "/dev/ttyACM2"
  std::string link;     // "/dev/tty.usbmodemVEL_03_A1"; empty for none
  std::string sysPath;  // under /devices, not /devices/virtual
  static PortSpec for_site(int site);
};

class Board {
 public:
  // Answers a received line; return the reply to send, or nothing.
  using Responder = std::function<std::optional<std::string>(const ReceivedLine&)>;

  const PortSpec& desc() const { return spec_; }
  int site() const { return spec_.site; }

  std::string received() const;             // every byte so far, as received
  std::vector<ReceivedLine> lines() const;  // complete lines so far
  void clear();                             // forget what was received
  // Waits until at least n lines have arrived; false on time-out.
  bool wait_lines(size_t n, double timeoutSeconds) const;

  void reply(const std::string& text);  // written to the library's end now
  void set_responder(Responder responder);
  // Answers "vel_fixture_status\n" with these replies in turn, repeating the last one.
  void script_status(std::vector<std::string> replies);

  void unplug();        // closes the board's end: the library's writes fail from now on
  void stop_reading();  // stops draining the port: its queue fills, writes come up short
  void resume_reading();
  bool unplugged() const { return fd_ < 0; }

 private:
  friend class Boards;
  Board(Testbed& bed, PortSpec desc, int fd);
  void on_bytes(const char* data, size_t n);

  Testbed& bed_;
  PortSpec spec_;
  std::atomic<int> fd_;
  int holdFd_ = -1;  // the library's end, held open by the sim
  std::atomic<bool> reading_{true};
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::string bytes_;
  std::string partial_;
  std::vector<ReceivedLine> lines_;
  Responder responder_;
};

// All boards of a testbed, served by one reader thread.
class Boards {
 public:
  explicit Boards(Testbed& bed);
  ~Boards();

  Board& add(const PortSpec& desc);
  Board& add_site(int site) { return add(PortSpec::for_site(site)); }
  void add_sites(int first, int last);
  Board& site(int n);  // the board added for site n
  bool has_site(int n) const;
  std::vector<Board*> all();

 private:
  void run();
  void wake();

  Testbed& bed_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Board>> boards_;
  int wakePipe_[2] = {-1, -1};
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

}  // namespace sim
