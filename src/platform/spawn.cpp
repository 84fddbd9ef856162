#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/platform.h"

namespace brakwell::platform {

std::string system_program(const char* name) {
  for (const char* dir : {"/usr/bin", "/bin", "/usr/sbin", "/sbin"}) {
    const std::string path = std::string(dir) + "/" + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  debug("%s not found in the system directories", name);
  return {};
}

int run_program(const std::string& path, const char* const* argv, int stdoutFd) {
  if (path.empty()) return -1;
  std::vector<std::string> variables;
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR",
                           "DBUS_SESSION_BUS_ADDRESS", "HOME"}) {
    if (const char* value = std::getenv(name)) variables.push_back(std::string(name) + "=" + value);
  }
  std::vector<char*> environment;
  for (auto& v : variables) environment.push_back(v.data());
  environment.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (stdoutFd != -1) posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, path.c_str(), &actions, nullptr, const_cast<char* const*>(argv),
                             environment.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    debug("%s could not be started: %s", path.c_str(), std::strerror(rc));
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 0;  // reaped by the host (SIGCHLD ignored): it did run and end
  }
  return status;
}

bool write_usb_report(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    debug("USB report %s not written: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  static const std::string lsusb = system_program("lsusb");
  const char* const argv[] = {"lsusb", "-v", nullptr};
  const int status = run_program(lsusb, argv, fd);
  close(fd);
  return status != -1;
}

namespace {
const pid_t loadedBy = getpid();
}  // namespace

bool forked_child() { return getpid() != loadedBy; }

}  // namespace brakwell::platform
