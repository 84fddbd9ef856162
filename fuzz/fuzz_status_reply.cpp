// The status-reply parser, fed the way a status query feeds it: whatever a board sent, cut to
// the receive area (never past its last byte, always NUL-terminated).
#include <Brakwell.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "quiet.h"
#include "station/board_link.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  brakwell_fuzz_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* area = DIORS232Buff[0];
  const size_t n = size < BRAKWELL_RX_AREA - 1 ? size : BRAKWELL_RX_AREA - 1;
  std::memcpy(area, data, n);
  area[n] = '\0';
  const int status = brakwell::link::parse_status_reply(area);
  if (status < -1 || status > 63) std::abort();
  // No "=" or no marker in the text the parser sees is no answer.
  if ((!std::strchr(area, '=') || !std::strstr(area, "l_sw")) && status != -1) std::abort();
  return 0;
}
