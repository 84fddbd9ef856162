#pragma once

namespace brakwell::platform {

// Puts the calling thread to sleep for at least `seconds` (never less, whatever signals come).
// Zero, negative and NaN durations return at once.
void sleep_seconds(double seconds);

// Monotonic time in seconds, for elapsed-time tests.
double monotonic_seconds();

}  // namespace brakwell::platform
