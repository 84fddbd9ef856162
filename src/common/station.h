// The station's own words, written once: which well a host's number means, the fixture status
// word, the pauses between lines and the one writer of a line to a site's board. The library,
// the virtual fixture, the tools and the tests all read them from here; nothing is exported.
#pragma once

#include <Brakwell.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace brakwell::station {

inline constexpr int kSitesPerWell = 4;

// Two rules pick the second well, and each call keeps the one it has always had. Both give the
// 0-based UUT index of the well's first site.
// "Only 1 is the second well": the well reset, the press release, the board link, controllers.
inline constexpr int32_t first_uut_only_one(int32_t well) { return well == 1 ? kSitesPerWell : 0; }
// "Any non-zero is the second well": the press cycle, the press without buttons, status tests.
inline constexpr int32_t first_uut_any_nonzero(int32_t well) {
  return well != 0 ? kSitesPerWell : 0;
}

// The fixture status word: six bits, each 0 while its condition holds (active low).
inline constexpr int kButtonA = 0x01;
inline constexpr int kButtonB = 0x02;
inline constexpr int kPlateDown = 0x04;
inline constexpr int kPlateUp = 0x08;
inline constexpr int kTrayClosed = 0x10;
inline constexpr int kTrayOpen = 0x20;
inline constexpr int kButtons = kButtonA | kButtonB;
inline constexpr int kStatusBits = 0x3f;

// The word in which exactly the given conditions hold.
inline constexpr int status_where(int holding) { return kStatusBits & ~holding; }

inline constexpr char kStatusQuery[] = "vel_fixture_status\n";

// A board's answer to the status query: the six bits, most significant first, and the marker.
inline std::string status_reply(int word) {
  std::string bits;
  for (int bit = 5; bit >= 0; --bit) bits += (word >> bit) & 1 ? '1' : '0';
  return "vel_fixture_status=" + bits + " l_sw\n";
}

// Pauses the station makes between lines, in seconds.
inline constexpr double kLinePause = 0.01;  // between two lines to boards
inline constexpr double kLongPause = 1.0;   // after a power line that must settle

// The one writer of a command line to a UUT's port.
inline bool write_line(int uut, const char* command) {
  return DIORS232Write(uut, command, static_cast<int>(std::strlen(command)));
}

}  // namespace brakwell::station
