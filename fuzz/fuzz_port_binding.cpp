// The port-name binding rule, through matchDIO_UART with the candidate table filled directly:
// each input line is one dial-in path. The paths are put under a directory that does not exist,
// so the opens that follow the binding fail at once and touch nothing on the machine; the rule
// looks only at the first underscore, which the prefix does not hold.
#include <Brakwell.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quiet.h"

namespace {

constexpr char kNowhere[] = "/nonexistent-brakwell/";

// The site a bound path must carry: the two characters after the first "_", read as a decimal
// number with the leading-number rule.
int site_of(const char* path) {
  const char* underscore = std::strchr(path, '_');
  if (!underscore || !underscore[1] || !underscore[2]) return 0;
  const char two[3] = {underscore[1], underscore[2], '\0'};
  return static_cast<int>(std::strtol(two, nullptr, 10));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  brakwell_fuzz_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::memset(DIO_SerialDevice, 0, sizeof DIO_SerialDevice);
  std::memset(DIO_UUTSerialDevice, 0, sizeof DIO_UUTSerialDevice);
  const std::string input(reinterpret_cast<const char*>(data), size);
  size_t start = 0;
  for (int slot = 0; slot < BRAKWELL_UUT_COUNT && start <= input.size(); ++slot) {
    size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    const std::string path = kNowhere + input.substr(start, end - start);
    std::strncpy(DIO_SerialDevice[slot], path.c_str(), BRAKWELL_PATH_SLOT - 1);
    start = end + 1;
  }
  matchDIO_UART();
  for (int uut = 0; uut < BRAKWELL_UUT_COUNT; ++uut) {
    const char* bound = DIO_UUTSerialDevice[uut];
    if (strnlen(bound, BRAKWELL_PATH_SLOT) == BRAKWELL_PATH_SLOT) std::abort();
    if (bound[0] && site_of(bound) != uut + 1) std::abort();
    if (DIO_fileDescriptor[uut] != -1) std::abort();
  }
  return 0;
}
