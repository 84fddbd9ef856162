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
  try {
    log("%s failed: %s", call, reason);
  } catch (...) {
    // No memory even for the line: the answer still goes back.
  }
}

}  // namespace brakwell::platform
