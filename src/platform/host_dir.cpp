#include <unistd.h>

#include <climits>

#include "platform/platform.h"

namespace brakwell::platform {

std::string host_application_directory() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path);
  if (n <= 0 || n == static_cast<ssize_t>(sizeof path)) return {};
  const std::string exe(path, static_cast<size_t>(n));
  const size_t slash = exe.rfind('/');
  if (slash == std::string::npos) return {};
  return slash == 0 ? std::string("/") : exe.substr(0, slash);
}

}  // namespace brakwell::platform
