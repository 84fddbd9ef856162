// Where C++ meets the C ABI: no exception may leave an exported call (a C host cannot catch it,
// and the process would abort). An exported call that can allocate or start a thread ends in
//   int call(...) try { ... } catch (...) { return brakwell::platform::failed("call", 0); }
#pragma once

namespace brakwell::platform {

// Inside a catch block: logs "<call> failed: <what the exception says>" as one line (never
// throwing itself) and gives `failure`, the call's answer for a failure.
void log_caught(const char* call) noexcept;
template <typename Result>
Result failed(const char* call, Result failure) noexcept {
  log_caught(call);
  return failure;
}
inline void failed(const char* call) noexcept { log_caught(call); }

// Runs `body`, an exception ending it as failed() does; for the library's own threads.
template <typename Body>
void guard(const char* what, Body&& body) noexcept {
  try {
    body();
  } catch (...) {
    log_caught(what);
  }
}

}  // namespace brakwell::platform
