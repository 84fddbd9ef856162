// The fuzz build's platform sleep: no pause at all, the clock as usual.
#include <ctime>

#include "platform/platform.h"

namespace brakwell::platform {

void sleep_seconds(double) {}

double monotonic_seconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace brakwell::platform
