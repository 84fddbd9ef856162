// Texts handed back to the host that live until the same call runs again on the same thread.
// They are kept in thread-local character buffers, not std::string: a thread-local object with a
// destructor makes the C library pin the shared library in memory, so dlclose would not unload it.
#pragma once

#include <cstdio>
#include <string_view>

namespace brakwell {

// Copies `text` into `buffer` (cut to fit) and returns the buffer.
template <size_t N>
const char* result_text(char (&buffer)[N], std::string_view text) {
  std::snprintf(buffer, N, "%.*s", static_cast<int>(text.size()), text.data());
  return buffer;
}

}  // namespace brakwell
