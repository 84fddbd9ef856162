// Arithmetic on the numbers a host passes in (UUT indexes, wells, sites), which the library
// prints 1-based and shifts between wells. Any int a host passes must be safe here.
#pragma once

#include <cstdint>

namespace brakwell {

// Adds with 32-bit wrap-around: a wrapped number is only an index the callee refuses.
inline int32_t plus(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// The 1-based number a message prints for a 0-based index.
inline int32_t one_based(int32_t index) { return plus(index, 1); }

}  // namespace brakwell
