#include <cerrno>
#include <cmath>
#include <ctime>

#include "platform/platform.h"

namespace brakwell::platform {

void sleep_seconds(double seconds) {
  if (!(seconds > 0)) return;
  // An absolute deadline: an interrupted sleep resumes towards the same instant.
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  const double whole = std::floor(seconds);
  deadline.tv_sec += static_cast<time_t>(whole);
  deadline.tv_nsec += static_cast<long>(std::llround((seconds - whole) * 1e9));
  while (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_nsec -= 1000000000L;
    ++deadline.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}

double monotonic_seconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace brakwell::platform
