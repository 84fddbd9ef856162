// Where each site's unit sits on the USB bus, derived from the locations of the fixture's UART
// bridges: the branch rule (getUSBLocationForUART) and the sibling rule
// (usbUartSiblingLocationID).
#include <Brakwell.h>

#include <cctype>
#include <cstdio>
#include <ctime>
#include <string>

#include "common/numbers.h"
#include "common/result_text.h"
#include "platform/platform.h"
#include "usb/AppleDevices.h"

using brakwell::platform::device_text;
using brakwell::platform::log;
namespace platform_usb = brakwell::platform::usb;

extern "C" {
uint32_t g_ListUartLocationID[BRAKWELL_APPLE_DEV_MAX] = {};
const char* USBLocation[BRAKWELL_UUT_COUNT] = {};
}

namespace brakwell::usb {

namespace {

// Walks the devices of an enumeration with their names and locations; a device whose location
// cannot be read is logged and skipped. False, after the enumeration's one message, when it could
// not be made.
template <typename Visit>
bool for_each_located(long vendorId, long productId, Visit visit) {
  auto devices = matching_devices(vendorId, productId);
  if (!devices) {
    log("enumUsbForLocationID - IOServiceMatching returned NULL.\n");
    return false;
  }
  for (libusb_device* device : *devices) {
    const std::string name = platform_usb::product_string(device);
    if (const auto location = logged_location(device)) visit(name, *location);
  }
  release_devices(*devices);
  return true;
}

constexpr int kUartSlots = 8;
constexpr char kUnitPortDigit = '3';  // the unit sits on port 3 of its site's hub

// Storage of the texts USBLocation points at: each slot is rewritten in place.
char locationSlots[BRAKWELL_UUT_COUNT][16];

// The slot (1-8) that a UART's name fills: whole-name match, case ignored, "USB UART<n>" before
// "USB-UART<n>"; 0 for any other name.
int uart_slot(const std::string& name) {
  for (int n = 1; n <= kUartSlots; ++n) {
    for (const char* form : {"USB UART", "USB-UART"}) {
      if (equals_ignoring_case(name, form + std::to_string(n))) return n;
    }
  }
  return 0;
}

// Puts the unit's port digit into one well's slots at the position after the branch digit.
void apply_branch(std::string* slots, int first, int branch) {
  if (branch == -1) return;
  const size_t at = static_cast<size_t>(branch) + 1;
  for (int n = first; n < first + 4; ++n) {
    std::string& slot = slots[n - 1];
    if (slot.empty()) continue;
    if (at >= slot.size()) {
      log("UART%d location %@ has no digit after its branch index %d; left unchanged", n,
          slot.c_str(), branch);
      continue;
    }
    slot[at] = kUnitPortDigit;
  }
}

// Only slots that are null or that point at the library's own storage: the host's stay.
void fill_usb_location(const std::string* slots) {
  for (int i = 0; i < BRAKWELL_UUT_COUNT; ++i) {
    if (USBLocation[i] && USBLocation[i] != locationSlots[i]) continue;
    if (slots[i].empty()) {
      USBLocation[i] = nullptr;
      continue;
    }
    std::snprintf(locationSlots[i], sizeof locationSlots[i], "%s", slots[i].c_str());
    USBLocation[i] = locationSlots[i];
  }
}

// The 16-bit units of a UTF-8 text, which the branch index counts; a byte that is not valid
// UTF-8 counts as one unit.
std::u16string utf16_units(const char* text) {
  std::u16string units;
  const auto* p = reinterpret_cast<const unsigned char*>(text ? text : "");
  while (*p) {
    const int extra = *p >= 0xf0 ? 3 : *p >= 0xe0 ? 2 : *p >= 0xc0 ? 1 : 0;
    char32_t code = extra ? *p & (0x3f >> extra) : *p;
    int taken = 1;
    while (taken <= extra && (p[taken] & 0xc0) == 0x80) code = code << 6 | (p[taken++] & 0x3f);
    if (taken <= extra) code = *p, taken = 1;  // a cut sequence: the lead byte alone
    if (code > 0xffff) {
      units += static_cast<char16_t>(0xd800 + ((code - 0x10000) >> 10));
      units += static_cast<char16_t>(0xdc00 + (code & 0x3ff));
    } else {
      units += static_cast<char16_t>(code);
    }
    p += taken;
  }
  return units;
}

// "%x" of a location without its trailing zero digits.
std::string stripped_hex(uint32_t locationID) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", removeHexTrailingZeros(locationID));
  return text;
}

void write_report(int uartIndex) {
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::strftime(stamp, sizeof stamp, "%y%m%d-%H%M%S", &local);
  char path[96];
  std::snprintf(path, sizeof path, "/tmp/%s%d_%s", "VEL_USB_UUT", brakwell::one_based(uartIndex),
                stamp);
  // A report already written this second, or none at all, shows only in the debug trace.
  brakwell::platform::write_usb_report(path);
}

}  // namespace

}  // namespace brakwell::usb

using namespace brakwell::usb;

extern "C" {

const char* getUSBLocationForUART(long vendorId, long productId) try {
  // Eight "0x%x" fields of at most ten characters and seven commas.
  thread_local char result[kUartSlots * 11];
  std::string slots[kUartSlots];
  const bool enumerated =
      for_each_located(vendorId, productId, [&](const std::string& name, uint32_t location) {
        const std::string text = location_text(location);
        log("UART Device added: DeviceName=%@ locationID=%@", device_text(name).c_str(),
            text.c_str());
        if (const int slot = uart_slot(name)) slots[slot - 1] = text;
      });
  if (!enumerated) return "error";

  const int b1 = getDifferentLocationIndex(slots[0].c_str(), slots[1].c_str());
  log("idx1 for 1-4 is %d", b1);
  apply_branch(slots, 1, b1);
  const int b2 = getDifferentLocationIndex(slots[4].c_str(), slots[5].c_str());
  log("idx2 for 5-8 is %d", b2);
  apply_branch(slots, 5, b2);

  std::string joined;
  for (int i = 0; i < kUartSlots; ++i) joined += (i ? "," : "") + slots[i];
  log("usblocation is %@", joined.c_str());
  if (b1 == -1 && b2 == -1) return "error";
  fill_usb_location(slots);
  return brakwell::result_text(result, joined);
} catch (...) {
  return brakwell::platform::failed("getUSBLocationForUART", "error");
}

const char* getUSBLocationForMCU(long vendorId, long productId) try {
  thread_local char result[16];
  std::string found;
  const bool enumerated =
      for_each_located(vendorId, productId, [&](const std::string& name, uint32_t location) {
        if (contains_ignoring_case(name, "DFU Mode")) found = location_text(location);
      });
  return enumerated ? brakwell::result_text(result, found) : "error";
} catch (...) {
  return brakwell::platform::failed("getUSBLocationForMCU", "error");
}

int getDifferentLocationIndex(const char* text1, const char* text2) try {
  const std::u16string a = utf16_units(text1), b = utf16_units(text2);
  const int l1 = static_cast<int>(a.size()), l2 = static_cast<int>(b.size());
  if (l1 != l2) {
    log("Error Length for strLen1:%d, strLen2:%d", l1, l2);
    return -1;
  }
  if (l1 < 1) {
    log("Error strLen1:%d, strLen2:%d", l1, l1);
    return -1;
  }
  for (int i = 0; i < l1; ++i) {
    if (a[i] != b[i]) return i;
  }
  log("Error strLen1:%d, strLen2:%d", l1, l1);
  return -1;
} catch (...) {
  return brakwell::platform::failed("getDifferentLocationIndex", -1);
}

void addToUartLocationIDList(const char* uartName, uint32_t locationID) try {
  const std::string name = uartName ? uartName : "";
  const char last = name.empty() ? '\0' : name.back();
  const int k = std::isdigit(static_cast<unsigned char>(last)) ? last - '0' : 0;
  if (k < 1 || k > 13) {
    log("Shouldn't come here! Illegal USB UART Name:%@", uartName);
    return;
  }
  g_ListUartLocationID[k - 1] = locationID;
  log("Save %@ locationID 0x%x to list (index=%d)", uartName, locationID, k - 1);
} catch (...) {
  brakwell::platform::failed("addToUartLocationIDList");
}

uint32_t usbUartSiblingLocationID(int uartIndex) try {
  const uint32_t u =
      uartIndex >= 0 && uartIndex < BRAKWELL_APPLE_DEV_MAX ? g_ListUartLocationID[uartIndex] : 0;
  if (u == 0) {
    log("No locationID for USB UART%d. Please check for existence of USB UART%d",
        brakwell::one_based(uartIndex), brakwell::one_based(uartIndex));
    return 0;
  }
  const std::string uart = stripped_hex(u);
  const auto history = location_history();
  for (uint32_t a : history) {
    if (a == 0) continue;
    const std::string apple = stripped_hex(a);
    if (apple.size() != uart.size()) {
      log("Something wrong when looking for USB UART sibling. UART location:0x%lx, Apple device "
          "location:0x%lx",
          static_cast<unsigned long>(u), static_cast<unsigned long>(a));
      continue;
    }
    if (apple.compare(0, apple.size() - 1, uart, 0, uart.size() - 1) == 0) {
      log("Found sibling Apple Device (location:0x%x) for UART (location:0x%lx)", a,
          static_cast<unsigned long>(u));
      return a;
    }
  }
  log("Can't find sibling for UART (location:0x%x)", u);
  for (uint32_t a : history) {
    if (a != 0) log("Apple Device Location ID Found:0x%x", a);
  }
  write_report(uartIndex);
  return 0;
} catch (...) {
  return brakwell::platform::failed("usbUartSiblingLocationID", 0u);
}

}  // extern "C"
