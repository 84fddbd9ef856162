// Serial port discovery and the per-UUT port table.
#include <Brakwell.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/platform.h"
#include "station/board_link.h"

using brakwell::platform::log;
using brakwell::platform::print;
using brakwell::platform::print_line;

extern "C" {
char DIO_SerialDevice[BRAKWELL_UUT_COUNT][BRAKWELL_PATH_SLOT];
char DIO_UUTSerialDevice[BRAKWELL_UUT_COUNT][BRAKWELL_PATH_SLOT];
int32_t DIO_fileDescriptor[BRAKWELL_UUT_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1};
char portList[BRAKWELL_UUT_COUNT][BRAKWELL_PATH_SLOT];
int32_t portConnected[BRAKWELL_UUT_COUNT];
}

namespace {

constexpr size_t kLongestPath = BRAKWELL_PATH_SLOT - 1;

template <size_t N>
void copy_text(char (&slot)[N], const char* text) {
  const size_t n = strnlen(text, N - 1);
  std::memcpy(slot, text, n);
  slot[n] = '\0';
}

bool open_port(const char* caller, int uut) {
  if (!brakwell::link::valid_uut(uut)) return false;
  CloseDIOSerialPort(uut);
  brakwell::platform::sleep_seconds(0.1);
  const auto port = brakwell::link::hold_port(uut);
  // Non-blocking: a board that stopped reading makes a write come up short, never wait. Not
  // inherited by the programs the host starts.
  const int fd = open(DIO_UUTSerialDevice[uut], O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  DIO_fileDescriptor[uut] = fd;
  log("VELMORA: %s, DIO_fileDescriptor[%d] = %d", caller, uut + 1, fd);
  if (fd == -1) return false;

  termios settings{};
  cfmakeraw(&settings);
  cfsetspeed(&settings, B115200);
  // The control flags are replaced whole, but Linux keeps the line speed among them.
  settings.c_cflag = (settings.c_cflag & (CBAUD | CBAUDEX)) | CS8 | CREAD | CLOCAL;
  const int result = tcsetattr(fd, TCSANOW, &settings);
  // Rejected settings leave the port open with whatever it had; the caller still gets success.
  if (result != 0) log("ioctl - TIOCSETA returned %d (errno %d)\n", result, errno);
  return true;
}

}  // namespace

namespace brakwell::link {

int site_of_port_path(const char* path) {
  const char* first = std::strchr(path, '_');
  if (!first || first[1] == '\0' || first[2] == '\0') return 0;
  const char digits[3] = {first[1], first[2], '\0'};
  return static_cast<int>(std::strtol(digits, nullptr, 10));
}

}  // namespace brakwell::link

extern "C" int listSerialPorts(void) try {
  std::vector<brakwell::platform::SerialPort> ports;
  if (!brakwell::platform::list_serial_ports(&ports)) {
    print_line("createSerialIterator failed");
    return 0;
  }
  std::memset(portConnected, 0, sizeof portConnected);
  int slot = 0;
  for (const auto& port : ports) {
    const char* dialIn = port.dialIn.c_str();
    // Any port of the machine with a long name ends the scan, fixture or not.
    if (std::strlen(dialIn) > kLongestPath) {
      print("dialInDevice [%s] too long\n", dialIn);
      return -1;
    }
    log("device [%s]  dialin [%s]\n", port.baseName.c_str(), dialIn);
    if (std::strstr(dialIn, "usbmodem") && slot < BRAKWELL_UUT_COUNT) {
      copy_text(DIO_SerialDevice[slot], dialIn);
      log("DIO_SerialDevice[%d]:%@", slot, dialIn);
      ++slot;
    }
    for (int i = 0; i < BRAKWELL_UUT_COUNT; ++i) {
      if (std::strstr(dialIn, portList[i])) portConnected[i] = 1;
    }
  }
  return 1;
} catch (...) {
  return brakwell::platform::failed("listSerialPorts", 0);
}

extern "C" void matchDIO_UART(void) {
  for (const auto& path : DIO_SerialDevice) {
    if (path[0] == '\0') continue;
    const int site = brakwell::link::site_of_port_path(path);
    if (site < 1 || site > BRAKWELL_UUT_COUNT) continue;  // no room for it in the table
    copy_text(DIO_UUTSerialDevice[site - 1], path);
  }
  for (int uut = 0; uut < BRAKWELL_UUT_COUNT; ++uut) {
    const bool opened = uut < 4 ? openDIO_UARTForWell1(uut) : openDIO_UARTForWell2(uut);
    if (!opened) {
      log("Warning, UUT%d, cannot open DIO serial port device %s", uut + 1,
          DIO_UUTSerialDevice[uut]);
    }
  }
}

extern "C" bool openDIO_UARTForWell1(int uut) { return open_port("openDIO_UARTForWell1", uut); }
extern "C" bool openDIO_UARTForWell2(int uut) { return open_port("openDIO_UARTForWell2", uut); }

extern "C" void CloseDIOSerialPort(int uut) {
  const auto port = brakwell::link::hold_port(uut);
  if (!brakwell::link::valid_uut(uut) || DIO_fileDescriptor[uut] == -1) return;
  brakwell::link::clear_held(uut);
  // A board that stopped taking its output must not hold up the close for the kernel's closing
  // wait: its unsent output is dropped. Any other port keeps what was just written (SOC_Done
  // closes right after the last site's command).
  if (brakwell::link::refusing[uut]) tcflush(DIO_fileDescriptor[uut], TCOFLUSH);
  brakwell::link::refusing[uut] = false;
  close(DIO_fileDescriptor[uut]);
  DIO_fileDescriptor[uut] = -1;
}
