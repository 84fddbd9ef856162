#include <exception>

#include "platform/platform.h"

namespace brakwell::platform {

void log_caught(const char* call) noexcept {
  const char* reason = "unknown exception";
  try {
    throw;
  } catch (const std::exception& e) {
    reason = e.what();
  } catch (...) {
  }
  log("%s failed: %s", call, reason);  // never throws: without memory the line is lost
}

}  // namespace brakwell::platform
