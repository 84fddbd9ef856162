// dioWrite's value text and strToInt: the first byte picks the module, the second the register
// (bad ones included), the rest is the text. No module is open, so every write must fail and
// leave the register shadow as it was.
#include <Brakwell.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quiet.h"
#include "usb/DIO.h"

namespace {

constexpr int kIndexes[] = {0, 1, -1, 2, 8, 100, INT_MIN, INT_MAX};

long expected_int(const char* text) {
  if (std::strlen(text) >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    return std::strtol(text + 2, nullptr, 16);
  }
  return std::strtol(text, nullptr, 10);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  brakwell_fuzz_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int m = kIndexes[data[0] % (sizeof kIndexes / sizeof kIndexes[0])];
  const int r = data[1] & 0x80 ? kIndexes[data[1] % (sizeof kIndexes / sizeof kIndexes[0])]
                               : static_cast<int>(data[1] % 20);
  const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
  if (strToInt(text.c_str()) != expected_int(text.c_str())) std::abort();

  uint8_t before[sizeof brakwell::dio::reg];
  std::memcpy(before, brakwell::dio::reg, sizeof before);
  if (dioWrite(m, r, text.c_str()) != 0) std::abort();
  if (std::memcmp(before, brakwell::dio::reg, sizeof before) != 0) std::abort();
  return 0;
}
