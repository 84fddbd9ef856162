// Arithmetic on the numbers a host passes in (UUT indexes, wells, sites), which the library
// prints 1-based and shifts between wells. Any int a host passes must be safe here.
#pragma once

#include <cctype>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>

namespace brakwell {

// Adds with 32-bit wrap-around: a wrapped number is only an index the callee refuses.
inline int32_t plus(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// The 1-based number a message prints for a 0-based index.
inline int32_t one_based(int32_t index) { return plus(index, 1); }

// strtol(text, nullptr, base) without any base prefix: leading blanks, one sign, then the digits
// of `base` up to the first other character (none gives 0); out of range saturates. strtol
// itself takes "0x" in base 16 and, with newer C libraries, "0b" in base 2.
inline long leading_number(const char* text, int base) {
  while (std::isspace(static_cast<unsigned char>(*text))) ++text;
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  unsigned long magnitude = 0;
  const auto [end, error] = std::from_chars(text, text + std::strlen(text), magnitude, base);
  const unsigned long limit = negative ? 0UL - static_cast<unsigned long>(LONG_MIN) : LONG_MAX;
  if (error == std::errc::result_out_of_range || magnitude > limit) {
    return negative ? LONG_MIN : LONG_MAX;
  }
  return negative ? static_cast<long>(0UL - magnitude) : static_cast<long>(magnitude);
}

}  // namespace brakwell
