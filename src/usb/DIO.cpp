#include "usb/DIO.h"

#include <cstdlib>
#include <cstring>

#include "common/numbers.h"
#include "platform/platform.h"

namespace brakwell::dio {

uint8_t reg[kModules][kRegisters] = {};
uint8_t bDioOpened[kModules] = {};
int32_t sensorState[kModules] = {7, 7};

namespace {

// Every command goes out on channel 1 (pipe 2) and is answered on its IN pipe (pipe 1).
constexpr int kChannel = 1;
constexpr unsigned char kResetFrame[] = {0x02, 0x03, 0x03};
constexpr unsigned char kStatusFrame[] = {0x02, 0x03, 0x02};
constexpr uint32_t kSensorMask = 0x3F;
constexpr double kDebouncePause = 0.001;
constexpr int kStableReads = 4;
constexpr int kDebounceReads = 12;

bool send(int m, const unsigned char* frame, int length) {
  return writeToEndpt(m, kChannel, frame, length) == 1;
}

// A command answered by one byte: the first of the fixed-length reply.
int ask(int m, const unsigned char* frame, int length, uint32_t* out) {
  unsigned char reply[kReadLength] = {};
  if (!out) return 0;
  *out = 0;
  if (!valid_module(m) || !bDioOpened[m]) return 0;
  if (!send(m, frame, length) || readFromEndpt(m, kChannel, reply, sizeof reply) != 1) return 0;
  *out = reply[0];
  return 1;
}

// Registers 1 to 13 to their rest values, skipping 1, 3 and 10 when asked; the result of the
// last write made.
int rest_registers(int m, bool keepSome) {
  int last = 0;
  for (int r = 1; r <= 13; ++r) {
    if (keepSome && (r == 1 || r == 3 || r == 10)) continue;
    last = dioWrite(m, r, (r == 11 || r == 13) ? "0xFF" : "0x00");
  }
  return last;
}

// An eight-character text is a bit pattern over the current value, most significant bit first:
// '1' sets, '0' clears, anything else keeps the bit.
uint8_t apply_pattern(uint8_t value, const char* pattern) {
  for (int bit = 0; bit < 8; ++bit) {
    const char c = pattern[7 - bit];
    if (c == '1') value |= static_cast<uint8_t>(1u << bit);
    if (c == '0') value &= static_cast<uint8_t>(~(1u << bit));
  }
  return value;
}

}  // namespace
}  // namespace brakwell::dio

using namespace brakwell::dio;

extern "C" {

long strToInt(const char* text) {
  if (!text) return 0;
  if (std::strlen(text) >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    return brakwell::leading_number(text + 2, 16);
  }
  return brakwell::leading_number(text, 10);
}

int dioReset(int m) {
  unsigned char reply[kReadLength] = {};
  if (send(m, kResetFrame, sizeof kResetFrame)) readFromEndpt(m, kChannel, reply, sizeof reply);
  return 1;
}

int dioOpen(int m) {
  if (static_cast<unsigned>(m) > 1) return 0;
  dioReset(m);
  if (!dioWrite(m, 0, "0x01")) return 0;
  resetAllRegisters(m);
  bDioOpened[m] = 1;
  return 1;
}

// Neither the open flag nor the register number is checked beyond what keeps the shadow in
// bounds: the host keeps registers within 0 to 13.
int dioWrite(int m, int r, const char* text) {
  if (!valid_module(m) || r < 0 || r >= kRegisters || !text) return 0;
  const size_t length = std::strlen(text);
  uint8_t value = 0;
  if (length == 8) {
    value = apply_pattern(reg[m][r], text);
  } else if (length > 4) {
    return 0;
  } else {
    value = static_cast<uint8_t>(strToInt(text));
  }
  const unsigned char frame[] = {0x04, 0x01, 0x00, static_cast<unsigned char>(r), value};
  if (!send(m, frame, sizeof frame)) return 0;
  reg[m][r] = value;
  return 1;
}

int resetAllRegisters(int m) { return rest_registers(m, false); }

void resetAllRegisters2(int m) { rest_registers(m, true); }

int dioRead(int m, int r, uint32_t* value) {
  const unsigned char frame[] = {0x04, 0x01, 0x01, static_cast<unsigned char>(r)};
  return ask(m, frame, sizeof frame, value);
}

int dioStatus(int m, uint32_t* status) { return ask(m, kStatusFrame, sizeof kStatusFrame, status); }

void dioClose(int m) {
  if (!valid_module(m) || !bDioOpened[m]) return;
  resetAllRegisters(m);
  bDioOpened[m] = 0;
}

// Stable means four reads in a row equal to the first one, within twelve reads after it. The
// comparison stays against that first reading: a value that settles during the debounce fails
// this call and is taken up by the next.
int dioReadSensor(int m, uint32_t* sensors) {
  if (!sensors) return 0;
  *sensors = 0xFF;
  uint32_t status = 0;
  if (!dioStatus(m, &status)) return 0;
  const int32_t first = static_cast<int32_t>(status & kSensorMask);
  if (first != sensorState[m]) {
    // m is 0 or 1 here: dioStatus succeeds for no other module.
    brakwell::platform::log(m == 0 ? "VELMORA: Left Well Sensor state changed, rdData: 0x%x"
                                   : "VELMORA: Right Well Sensor state changed, rdData: 0x%x",
                            first);
  }
  sensorState[m] = first;
  int run = 1;
  for (int attempts = 0; attempts < kDebounceReads;) {
    brakwell::platform::sleep_seconds(kDebouncePause);
    if (!dioStatus(m, &status)) return 0;
    const uint32_t now = status & kSensorMask;
    if (static_cast<int32_t>(now) != sensorState[m]) run = 0;
    if (run == kStableReads) {
      *sensors = now;
      return 1;
    }
    ++run;
    ++attempts;
  }
  return 0;
}

bool SOC_BoardID(int m, uint32_t* boardId) {
  if (!boardId) return false;
  *boardId = 255;
  uint32_t status = 0;
  if (!dioStatus(m, &status)) return false;
  *boardId = (status >> 4) & 0xF;
  if (*boardId == 0 || *boardId == 15) return false;
  dioStatus(m, &status);
  return ((status >> 4) & 0xF) == *boardId;
}

}  // extern "C"
