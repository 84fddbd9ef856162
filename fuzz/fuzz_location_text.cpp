// The location-text rules: the branch index of two location texts, the stripping of trailing
// zero digits, and the UART table filled from a UART's name. The first four bytes are a location
// ID; the rest is two texts separated by a line feed, the first also used as a UART name.
#include <Brakwell.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quiet.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  brakwell_fuzz_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  uint32_t location = 0;
  std::memcpy(&location, data, 4);
  const std::string rest(reinterpret_cast<const char*>(data + 4), size - 4);
  const size_t split = rest.find('\n');
  const std::string one = rest.substr(0, split);
  const std::string two = split == std::string::npos ? "" : rest.substr(split + 1);
  const char* a = one.c_str();
  const char* b = two.c_str();

  // The first index where equally long texts differ, or -1.
  const int index = getDifferentLocationIndex(a, b);
  const size_t la = std::strlen(a), lb = std::strlen(b);
  if (index != -1) {
    if (la != lb || index < 0 || static_cast<size_t>(index) >= la) std::abort();
    if (a[index] == b[index] || std::memcmp(a, b, static_cast<size_t>(index)) != 0) std::abort();
  } else if (la == lb && la > 0 && std::strcmp(a, b) != 0) {
    std::abort();
  }

  // The value with its low zero digits shifted out.
  const uint32_t stripped = removeHexTrailingZeros(location);
  if ((location == 0) != (stripped == 0)) std::abort();
  if (location != 0) {
    uint32_t back = stripped;
    while (back != location && back < 0x10000000u && back != 0) back <<= 4;
    if ((stripped & 0xF) == 0 || back != location) std::abort();
  }

  // Only the entry named by the last digit 1-9 of the name may change.
  uint32_t before[BRAKWELL_APPLE_DEV_MAX];
  std::memcpy(before, g_ListUartLocationID, sizeof before);
  addToUartLocationIDList(a, location);
  const int k = la > 0 && a[la - 1] >= '1' && a[la - 1] <= '9' ? a[la - 1] - '0' : 0;
  for (int i = 0; i < BRAKWELL_APPLE_DEV_MAX; ++i) {
    const uint32_t expected = i == k - 1 ? location : before[i];
    if (g_ListUartLocationID[i] != expected) std::abort();
  }
  return 0;
}
