// The fixture board command protocol: the one writer of command lines, the receive areas, the
// status query and the well-wide press and run-LED actions.
#include <Brakwell.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "common/numbers.h"
#include "common/station.h"
#include "platform/platform.h"
#include "station/board_link.h"

using brakwell::platform::log;
using brakwell::platform::sleep_seconds;
using brakwell::station::first_uut_only_one;
using brakwell::station::kLinePause;
using brakwell::station::kSitesPerWell;
using brakwell::station::kStatusQuery;
using brakwell::station::write_line;

extern "C" {
char DIORS232Buff[BRAKWELL_UUT_COUNT][BRAKWELL_RX_AREA];
}

namespace {

constexpr double kReplyWait = 0.3;

double now() { return brakwell::platform::monotonic_seconds(); }

int query_status(int uut, const char* name) try {
  int status = -1;
  {
    const auto port = brakwell::link::hold_port(uut);
    // Input that arrived outside a query's wait (a late reply to an earlier one) is stale.
    if (brakwell::link::valid_uut(uut) && DIO_fileDescriptor[uut] != -1) {
      tcflush(DIO_fileDescriptor[uut], TCIFLUSH);
    }
    if (!brakwell::link::write_held(uut, kStatusQuery, sizeof kStatusQuery - 1)) return -1;
    brakwell::link::collect_reply(uut, kReplyWait);
    status = brakwell::link::parse_status_reply(DIORS232Buff[uut]);
  }
  if (status < 0) return -1;
  log("VELMORA: %s UUT:%d, result:%d", name, uut + 1, status);
  return status;
} catch (...) {
  return brakwell::platform::failed(name, -1);
}

struct RunLedAction {
  const char* command;
  const char* success;
  const char* failure;
};
constexpr RunLedAction kRunLedOn{"vel_run_led_on\n",
                                 "VELMORA: Successfully turned ON Run Led for UUT:%d",
                                 "VELMORA: Failed to turn ON Run Led for UUT:%d"};
constexpr RunLedAction kRunLedOff{"vel_run_led_off\n",
                                  "VELMORA: Successfully turned OFF Run Led for UUT:%d",
                                  "VELMORA: Failed to turn OFF Run Led for UUT:%d"};

// The run LED is lit through the first site of the well whose board takes the command; an
// unbound site ends the search.
bool run_led(int well, const RunLedAction& action) {
  const int first = first_uut_only_one(well);
  for (int uut = first; uut < first + kSitesPerWell; ++uut) {
    if (DIO_UUTSerialDevice[uut][0] == '\0') return false;
    sleep_seconds(kLinePause);
    if (write_line(uut, action.command)) {
      log(action.success, uut + 1);
      return true;
    }
    log(action.failure, uut + 1);
  }
  return false;
}

struct PressMove {
  const char* command;
  const char* success;
  const char* failure;
};
constexpr const char* kMoveSent = "VELMORA: Successfully sent %@ for WELL:%d, UUT:%d";
constexpr const char* kMoveFailed = "VELMORA: Failed to send %@ for WELL:%d, UUT:%d";
constexpr PressMove kDown{brakwell::link::kPressDown,
                          "VELMORA: fixtureDown, Successfully sent %@ for WELL:%d, UUT:%d",
                          "VELMORA: fixtureDown, Failed to send %@ for WELL:%d, UUT:%d"};
constexpr PressMove kUp{brakwell::link::kPressUp, kMoveSent, kMoveFailed};
constexpr PressMove kIn{brakwell::link::kPressIn, kMoveSent, kMoveFailed};
constexpr PressMove kOut{brakwell::link::kPressOut, kMoveSent, kMoveFailed};

// A press move goes to every site of the well that has a bound port.
void press_move(int well, const PressMove& move) {
  const int first = first_uut_only_one(well);
  for (int uut = first; uut < first + kSitesPerWell; ++uut) {
    if (DIO_UUTSerialDevice[uut][0] == '\0') continue;
    sleep_seconds(kLinePause);
    const bool sent = write_line(uut, move.command);
    log(sent ? move.success : move.failure, move.command, brakwell::one_based(well), uut + 1);
  }
}

}  // namespace

namespace brakwell::link {

std::unique_lock<std::mutex> hold_port(int uut) {
  static std::mutex ports[BRAKWELL_UUT_COUNT];
  return valid_uut(uut) ? std::unique_lock(ports[uut]) : std::unique_lock<std::mutex>();
}

bool refusing[BRAKWELL_UUT_COUNT];

void clear_held(int uut) {
  if (valid_uut(uut)) std::memset(DIORS232Buff[uut], 0, BRAKWELL_RX_AREA);
}

bool write_held(int uut, const char* buf, int len) {
  if (!valid_uut(uut)) return false;
  clear_held(uut);
  const int fd = DIO_fileDescriptor[uut];
  if (fd == -1) return false;
  if (len == 0) return true;
  if (!buf || len < 0) return false;  // nothing that could be sent
  const bool whole = write(fd, buf, static_cast<size_t>(len)) == len;
  refusing[uut] = !whole;
  if (whole) return true;
  log("k != nlen");
  return false;
}

void collect_reply(int uut, double seconds) {
  const double deadline = now() + seconds;
  char* area = DIORS232Buff[uut];
  size_t used = strnlen(area, BRAKWELL_RX_AREA - 1);
  bool listening = true;
  for (double left = seconds; left > 0; left = deadline - now()) {
    if (!listening) {
      sleep_seconds(left);
      break;
    }
    const double whole = std::floor(left);
    const timespec wait{static_cast<time_t>(whole), static_cast<long>((left - whole) * 1e9)};
    pollfd port{DIO_fileDescriptor[uut], POLLIN, 0};
    if (ppoll(&port, 1, &wait, nullptr) <= 0) continue;
    if (!(port.revents & POLLIN)) {
      listening = false;  // hung up or in error: nothing more will come
      continue;
    }
    char chunk[512];
    const ssize_t n = read(port.fd, chunk, sizeof chunk);
    if (n <= 0) {
      listening = n < 0 && (errno == EAGAIN || errno == EINTR);
      continue;
    }
    const size_t room = BRAKWELL_RX_AREA - 1 - used;
    const size_t take = std::min(room, static_cast<size_t>(n));
    std::memcpy(area + used, chunk, take);
    used += take;
    area[used] = '\0';
  }
}

int parse_status_reply(const char* text) {
  const char* equals = std::strchr(text, '=');
  const char* marker = std::strstr(text, "l_sw");
  if (!equals || !marker) return -1;
  // The character just before the marker is a separator and is dropped; a marker before the
  // "=" or within one character after it leaves no digits at all.
  const long length = marker - equals - 2;
  if (length <= 0) return -1;
  const std::string digits(equals + 1, static_cast<size_t>(length));
  return static_cast<int>(brakwell::leading_number(digits.c_str(), 2) &
                          brakwell::station::kStatusBits);
}

}  // namespace brakwell::link

extern "C" bool DIORS232Write(int uut, const char* buf, int len) {
  const auto port = brakwell::link::hold_port(uut);
  return brakwell::link::write_held(uut, buf, len);
}

extern "C" void ClearDIORS232Buff(int uut) {
  const auto port = brakwell::link::hold_port(uut);
  brakwell::link::clear_held(uut);
}

extern "C" char* getDIORdBuff(int uut) {
  return brakwell::link::valid_uut(uut) ? DIORS232Buff[uut] : nullptr;
}

extern "C" int queryFixtureStatusForWell1(int uut) {
  log("VELMORA: queryFixtureStatusForWell1, query fixture 1 with %@", kStatusQuery);
  return query_status(uut, "queryFixtureStatusForWell1");
}

extern "C" int queryFixtureStatusForWell2(int uut) {
  return query_status(uut, "queryFixtureStatusForWell2");
}

extern "C" bool turnOnRunLed(int well) { return run_led(well, kRunLedOn); }
extern "C" bool turnOffRunLed(int well) { return run_led(well, kRunLedOff); }

extern "C" void fixtureDown(int well) { press_move(well, kDown); }
extern "C" void fixtureUp(int well) { press_move(well, kUp); }
extern "C" void fixtureIn(int well) { press_move(well, kIn); }
extern "C" void fixtureOut(int well) { press_move(well, kOut); }
