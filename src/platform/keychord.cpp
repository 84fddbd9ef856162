#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>

#include <cstring>
#include <initializer_list>
#include <mutex>

#include "platform/platform.h"

namespace brakwell::platform {
namespace {

// A freshly made input device is picked up by the display server only after udev has announced
// it; events sent before that are dropped. One settling pause after making the keyboard keeps
// the first chord.
constexpr double kNewDeviceSettle = 0.2;

// Never destroyed: the kernel removes the device when the process ends, and tearing it down
// from a static destructor could outlive whatever serves /dev/uinput.
libevdev_uinput* keyboard = nullptr;

// Both wells may post at once: one lock over making the keyboard and over each whole chord, so
// that there is one keyboard and no chord's keys come between another's.
std::mutex chordMutex;

const char* make_keyboard() {
  libevdev* dev = libevdev_new();
  if (!dev) return "out of memory";
  libevdev_set_name(dev, "Brakwell key chords");
  libevdev_set_id_bustype(dev, BUS_VIRTUAL);
  libevdev_enable_event_type(dev, EV_KEY);
  for (unsigned code : {KEY_LEFTCTRL, KEY_LEFTALT, KEY_Z, KEY_Y}) {
    libevdev_enable_event_code(dev, EV_KEY, code, nullptr);
  }
  const int rc = libevdev_uinput_create_from_device(dev, LIBEVDEV_UINPUT_OPEN_MANAGED, &keyboard);
  libevdev_free(dev);
  if (rc != 0) {
    keyboard = nullptr;
    return std::strerror(-rc);
  }
  sleep_seconds(kNewDeviceSettle);
  return nullptr;
}

// One key event and its report; 0 or a negative errno.
int key(unsigned code, int value) {
  const int rc = libevdev_uinput_write_event(keyboard, EV_KEY, code, value);
  return rc != 0 ? rc : libevdev_uinput_write_event(keyboard, EV_SYN, SYN_REPORT, 0);
}

}  // namespace

const char* post_control_alt_chord(ChordLetter letter) {
  std::lock_guard lock(chordMutex);
  if (!keyboard) {
    if (const char* why = make_keyboard()) return why;
  }
  const unsigned code = letter == ChordLetter::Z ? KEY_Z : KEY_Y;
  int rc = key(KEY_LEFTCTRL, 1);
  if (rc == 0) rc = key(KEY_LEFTALT, 1);
  if (rc == 0) rc = key(code, 1);
  if (rc == 0) rc = key(code, 0);
  // The modifiers are let go even after a failed press, so that none is left held.
  const int up = key(KEY_LEFTCTRL, 0);
  const int upAlt = key(KEY_LEFTALT, 0);
  if (rc == 0) rc = up != 0 ? up : upAlt;
  return rc == 0 ? nullptr : std::strerror(-rc);
}

}  // namespace brakwell::platform
