// Station start and stop, the library's version text and the well and slot counts.
#include <Brakwell.h>

#include <cstring>
#include <string>

#include "platform/platform.h"

using brakwell::platform::log;

extern "C" {
uint32_t g_WellNumber;
uint32_t g_SlotNumber;
bool dioOn1;
bool dioOn2;
}

namespace {

constexpr char kVersion[] = "Velmora Lumbrix 4.01";
constexpr int kVersionBufferMin = 25;

constexpr long kFtdiVendor = 0x0403;
constexpr long kFtdiSingle = 0x6001;
constexpr long kFtdiQuad = 0x6011;
constexpr long kBoardVendor = 0x1FC9;
constexpr long kBoardProduct = 0xDF01;

constexpr char kHi5Disable[] = "vel_hi5_disable\n";
constexpr double kStopPause = 0.2;

// A well counts only when the boards of all four of its sites answered by name.
bool well_present(const char* names, int firstSite) {
  for (int site = firstSite; site < firstSite + 4; ++site) {
    const std::string name = "Velmora_DFU_CDC" + std::to_string(site);
    if (!std::strstr(names, name.c_str())) return false;
  }
  return true;
}

}  // namespace

extern "C" {

bool SOC_LibVersion(char* buffer, int size) {
  if (size < kVersionBufferMin || !buffer) return false;
  std::memcpy(buffer, kVersion, sizeof kVersion);
  log("VELMORA: %s", kVersion);
  return true;
}

bool SOC_Start(void) try {
  log("VELMORA: ***************SOC_Start***************");
  g_SlotNumber = 0;
  g_WellNumber = 0;
  dioOn2 = false;
  dioOn1 = false;

  // The quad bridge is looked for only when no single bridge told us the cable kind; the board
  // enumeration runs last, so its names are the ones counted below.
  if (enumUsbForLocationID(kFtdiVendor, kFtdiSingle) == 0) {
    enumUsbForLocationID(kFtdiVendor, kFtdiQuad);
  }
  enumUsbForLocationID(kBoardVendor, kBoardProduct);

  const std::string names = getUSBDeviceName();
  bool found = false;
  // Either well may be the one present; both count the same.
  for (int firstSite : {1, 5}) {
    if (well_present(names.c_str(), firstSite)) {
      ++g_WellNumber;
      found = true;
    }
  }

  listSerialPorts();
  matchDIO_UART();

  if (g_WellNumber == 1) g_SlotNumber = 4;
  if (g_WellNumber == 2) g_SlotNumber = 8;
  return found;
} catch (...) {
  return brakwell::platform::failed("SOC_Start", false);
}

void SOC_Done(void) {
  log("VELMORA: ***************SOC_Done***************");
  for (int uut = 0; uut < BRAKWELL_UUT_COUNT; ++uut) {
    brakwell::platform::sleep_seconds(kStopPause);
    const bool sent = DIORS232Write(uut, kHi5Disable, sizeof kHi5Disable - 1);
    log(sent ? "VELMORA: Successfully sent %@ for UUT%d" : "VELMORA: Failed to send %@ for UUT%d",
        kHi5Disable, uut + 1);
  }
  for (int uut = 0; uut < BRAKWELL_UUT_COUNT; ++uut) CloseDIOSerialPort(uut);
  usbDeviceRemoveAll();
}

uint32_t SOC_GetWellNumber(void) { return g_WellNumber; }

uint32_t SOC_GetSlotNumber(void) { return g_SlotNumber; }

int SOC_GetWellIndex(int uut) {
  if (g_WellNumber == 1) return 0;
  return uut > 3 ? 1 : 0;
}

}  // extern "C"
