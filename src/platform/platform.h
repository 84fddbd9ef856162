// The library's one boundary to the operating system. The portable code (src/common,
// src/fixture, src/station, src/usb) reaches the system only through the calls declared here;
// each has one file in this directory (log.cpp, sleep.cpp, serial_scan.cpp, usb_context.cpp,
// keychord.cpp, alert.cpp, host_dir.cpp, spawn.cpp, boundary.cpp), and none hands out a libudev,
// libevdev or syslog type. Every call is mandatory. Each states what it returns, on which thread
// it may run, what it blocks on and what it never does.
#pragma once

#include <libusb.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brakwell::platform {

// ---- Log and debug trace (log.cpp) ----------------------------------------------------------

// One line to the system log (syslog, LOG_USER | LOG_NOTICE), printf's format where "%@" takes a
// const char* text; mirrored to standard error when BRAKWELL_LOG was "stderr" at the first line.
// Any thread; blocks on the sink lock and syslog(); never calls openlog. Never throws: a line
// that cannot be made for want of memory is lost.
void log(const char* format, ...) noexcept;

// A device's text (USB string, board reply) fit for one log line: bytes below 0x20 and 0x7f
// become \xNN so a device can neither forge lines nor send terminal escapes; other bytes, valid
// UTF-8 included, stay. Pure; for the log only (the host gets device texts as they were read).
std::string device_text(std::string_view text);

// A message to standard output in log()'s format, written as is (no newline added) and flushed.
// Any thread; never goes to the system log; never throws.
void print(const char* format, ...) noexcept;

// A line to standard output followed by a newline, as puts() does, flushed. Any thread; never
// throws.
void print_line(const char* text) noexcept;

// A debug trace line ("brakwell: ...") to standard error when BRAKWELL_DEBUG is "1": why a device
// was skipped, why a name is empty, which libusb call failed and how. Any thread; off by default;
// never a log line and never seen by the line sink.
void debug(const char* format, ...);

// Test seam: every log line and standard-output message is also handed to `sink` (toSyslog tells
// the channel), on the caller's thread under a lock. nullptr detaches.
using LineSink = void (*)(bool toSyslog, const char* text, void* context);
void set_line_sink(LineSink sink, void* context);

// ---- Sleep and clock (sleep.cpp) ------------------------------------------------------------

// Puts the calling thread to sleep until at least `seconds` have passed on the monotonic clock,
// signals or not; zero, negative and NaN return at once. Never busy-waits, never wakes early.
void sleep_seconds(double seconds);

// Monotonic time in seconds. Any thread; never blocks.
double monotonic_seconds();

// ---- Serial scan (serial_scan.cpp) ----------------------------------------------------------

struct SerialPort {
  std::string baseName;  // "IOTTYDevice": the device's base name, e.g. "ttyACM0"
  std::string dialIn;    // "IODialinDevice": the path a host opens
};

// Appends every serial port on real hardware (sys path not under /devices/virtual/), in
// libudev's order, read through the exported createSerialIterator and getRegistryString. False,
// nothing appended, when createSerialIterator fails. Any thread; blocks on the udev database
// only; never opens a port.
bool list_serial_ports(std::vector<SerialPort>* ports);

// ---- Key chord (keychord.cpp) ---------------------------------------------------------------

enum class ChordLetter { Z, Y };

// Posts Control+Alt+letter (Control, Alt down; letter down, up; Control, Alt up) through one
// virtual keyboard made on the first call (then a 0.2 s settling sleep) and kept for the
// library's life. Returns nullptr when posted, else why not, for the caller's one log line; a
// keyboard that could not be made is tried again next call. Any thread; a second caller blocks
// until the first chord is complete; never leaves a modifier held.
const char* post_control_alt_chord(ChordLetter letter);

// ---- Operator alert (alert.cpp) -------------------------------------------------------------

// Shows one message with a single acknowledgement button and returns when the operator has
// dismissed it: a zenity dialog with a graphical session (DISPLAY or WAYLAND_DISPLAY) and zenity
// in a system directory, else title and message to standard error and the system log at once.
// Caller's thread; blocks on the dialog process; null texts read as empty.
void alert(const char* title, const char* message, const char* button) noexcept;

// Test seam: while a sink is attached every alert goes to it instead, on the caller's thread
// under a lock. nullptr detaches.
using AlertSink = void (*)(const char* title, const char* message, const char* button,
                           void* context);
void set_alert_sink(AlertSink sink, void* context);

// ---- Host directory (host_dir.cpp) ----------------------------------------------------------

// The directory of the running executable (of /proc/self/exe), no trailing slash; the empty
// text when it cannot be found. Any thread; never blocks.
std::string host_application_directory();

// ---- Spawn (spawn.cpp) ----------------------------------------------------------------------
// lsusb for the operator's USB report and zenity for the alert: each started by its absolute
// path, found among the system directories (never through the host's PATH).

// The first executable /usr/bin, /bin, /usr/sbin or /sbin entry named `name`; empty (with a
// debug trace) if none. Any thread; never blocks.
std::string system_program(const char* name);

// Runs `path` with `argv` (null-terminated, argv[0] included) and waits for it; standard output
// to `stdoutFd` unless -1, standard error the host's; an environment of only DISPLAY,
// WAYLAND_DISPLAY, XAUTHORITY, XDG_RUNTIME_DIR, DBUS_SESSION_BUS_ADDRESS and HOME, where set.
// Returns the wait status, 0 when the host reaped the child itself, -1 when it could not start.
// Caller's thread; blocks until the child ends; never searches PATH.
int run_program(const std::string& path, const char* const* argv, int stdoutFd = -1);

// True in a forked child of the process that loaded the library. The child's copy of the
// library's state is its parent's: it releases none of it and takes none of its locks, which
// another thread of the parent may have held at the fork. Any thread; never blocks.
bool forked_child();

// Writes `lsusb -v` to `path`, which must not exist yet (O_EXCL|O_NOFOLLOW, mode 0600: it lists
// every serial number). False, with a debug trace, when the file cannot be made or lsusb cannot
// run. Caller's thread; blocks until lsusb ends; never overwrites or follows a link.
bool write_usb_report(const std::string& path);

// ---- The exception boundary (boundary.cpp) --------------------------------------------------
// No exception may leave an exported call (a C host cannot catch it and the process would
// abort). An exported call that can allocate or start a thread ends in
//   int call(...) try { ... } catch (...) { return brakwell::platform::failed("call", 0); }

// Inside a catch block only: logs "<call> failed: <what the exception says>" as one line. Any
// thread; never throws.
void log_caught(const char* call) noexcept;

// Inside a catch block only: log_caught(call), then `failure`, the call's answer for a failure.
template <typename Result>
Result failed(const char* call, Result failure) noexcept {
  log_caught(call);
  return failure;
}
inline void failed(const char* call) noexcept { log_caught(call); }

// Runs `body` on the caller's thread, an exception ending it as failed() does; for the library's
// own threads. Never throws.
template <typename Body>
void guard(const char* what, Body&& body) noexcept {
  try {
    body();
  } catch (...) {
    log_caught(what);
  }
}

}  // namespace brakwell::platform

// ---- USB context and hotplug thread (usb_context.cpp) ---------------------------------------

namespace brakwell::platform::usb {

// The process's one libusb context, made on first use; nullptr when libusb cannot start and in a
// forked child of its maker (which must leave libusb's state, shared with its parent, alone).
// Any thread; blocks on the context lock. Lives until unload or exit: never touch it from static
// destructors.
libusb_context* context();

// Bus number in bits 24-31, then one hex digit per tier from bits 20-23 down, zero filled (bus 1,
// ports 2.3 -> 0x1230000). Nothing when a port is above 15 or the path is deeper than six tiers.
// Pure.
std::optional<uint32_t> location_id(uint8_t bus, const uint8_t* ports, int count);
// The same for a device; `error` (optional) gets libusb_get_port_numbers' code, or
// LIBUSB_ERROR_OVERFLOW for a path that does not fit. Any thread; no I/O.
std::optional<uint32_t> location_id(libusb_device* device, int* error = nullptr);

// The device's iProduct string in its first supported language; empty when it has none or it
// cannot be read (with a debug trace). Any thread except inside libusb's event handling; opens and
// closes the device; blocks on two control transfers.
std::string product_string(libusb_device* device);
// The same through a handle already open; leaves the handle open.
std::string product_string(libusb_device_handle* handle);

// UTF-8 of a UTF-16LE text of `bytes` bytes (a string descriptor's text). Pure.
std::string utf16le_to_utf8(const unsigned char* text, size_t bytes);

// Calls `handler` on the library's event thread for every arrival or removal of a device with
// these ids, outside libusb's event handling (so it may open the device and make synchronous
// transfers), with a device reference held for the call. The thread starts with the first watch;
// the same ids and handler again give the first watch back. Returns a watch id (> 0) or a libusb
// error (< 0); throws std::system_error when the thread cannot start. Any thread; never reports
// devices attached before the watch (scan them through run_on_event_thread).
using HotplugHandler = void (*)(int watch, libusb_device* device, bool arrived);
int watch_devices(uint16_t vendor, uint16_t product, HotplugHandler handler);

// Runs `body` on the event thread after the events queued so far and before any later one, and
// blocks until it has run; on the event thread itself runs it at once. False (body not run) when
// the thread is not running or stops first.
bool run_on_event_thread(const std::function<void()>& body);

// True when the caller is the event thread. Any thread; never blocks.
bool on_event_thread();

// Stops the event thread (blocks until it has ended), drops every watch, runs the context-end
// hooks and ends the context; the next context() makes a new one. Does nothing in a forked child
// or on the event thread. Runs by itself at unload or exit; tests call it between umockdev
// testbeds, since a context only hears the testbed current when it was made.
void shutdown();

// Registers a function that gives back what its unit still holds on the context (open device
// handles); it runs in shutdown() just before libusb_exit, on shutdown()'s thread. The same
// function again is ignored. Any thread.
using ContextEndHook = void (*)();
void on_context_end(ContextEndHook hook);

}  // namespace brakwell::platform::usb
