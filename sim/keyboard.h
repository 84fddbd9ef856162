// The virtual keyboard: /dev/uinput in the testbed. It accepts the uinput set-up of the library's
// keyboard and records every input event written to it, in order, with its time.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "testbed.h"

namespace sim {

struct KeyEvent {
  double time;
  int type;   // EV_KEY 1, EV_SYN 0
  int code;   // KEY_LEFTCTRL 29, KEY_LEFTALT 56, KEY_Y 21, KEY_Z 44
  int value;  // 1 down, 0 up
  bool operator==(const KeyEvent& o) const {
    return type == o.type && code == o.code && value == o.value;  // time not compared
  }
};

class Keyboard {
 public:
  explicit Keyboard(Testbed& bed);  // adds /dev/uinput; only one Keyboard per testbed
  ~Keyboard();
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  std::vector<KeyEvent> events() const;  // every event written since the last clear()
  std::vector<KeyEvent> keys() const;    // the EV_KEY events only
  void clear();
  int created() const;                    // UI_DEV_CREATE calls so far
  std::string name() const;               // the name the library gave its keyboard
  std::vector<int> enabled_keys() const;  // codes enabled with UI_SET_KEYBIT

 private:
  // Run on umockdev's worker thread; the library's call waits for them.
  static gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, Keyboard* self);
  static gboolean on_write(UMockdevIoctlBase*, UMockdevIoctlClient* client, Keyboard* self);

  Testbed& bed_;
  UMockdevIoctlBase* handler_ = nullptr;
  mutable std::mutex mutex_;
  std::vector<KeyEvent> events_;
  std::vector<int> enabledKeys_;
  std::string name_;
  int created_ = 0;
};

}  // namespace sim
