// The programs the library runs: lsusb for the operator's USB report and zenity for the alert.
// Each is started by its absolute path, found once among the system directories (never through
// the host's PATH), with a minimal environment, and waited for on the caller's thread.
#pragma once

#include <string>

namespace brakwell::platform {

// The first executable /usr/bin, /bin, /usr/sbin or /sbin entry named `name`; empty if none.
std::string system_program(const char* name);

// Runs `path` with `argv` (null-terminated, argv[0] included) and waits for it. Its standard
// output goes to `stdoutFd` when that is not -1; its standard error stays the host's. The
// environment holds only what a dialog needs to reach the display (DISPLAY, WAYLAND_DISPLAY,
// XAUTHORITY, XDG_RUNTIME_DIR, DBUS_SESSION_BUS_ADDRESS, HOME), where set. Returns the wait
// status, or -1 when the program could not be started.
int run_program(const std::string& path, const char* const* argv, int stdoutFd = -1);

// Writes `lsusb -v` to `path`, which must not exist yet (created O_EXCL|O_NOFOLLOW, mode 0600:
// it lists every serial number). False, with a debug trace, when the file cannot be created or
// lsusb cannot be run.
bool write_usb_report(const std::string& path);

}  // namespace brakwell::platform
