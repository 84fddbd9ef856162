// The library's writes to its board ports, timestamped at the write call inside the process. A
// board's time is when the boards' one reader thread took the line, which on a busy machine can
// be some milliseconds late and make the next gap look short; the write call's time cannot.
// A program that uses the tap has a write() in front of the C library's for the whole process.
#pragma once

#include <cstdint>
#include <vector>

#include "boards.h"

namespace sim::write_tap {

// Records the writes to these eight descriptors (the library's DIO_fileDescriptor, copied now:
// watch again after the ports are opened anew).
void watch(const int32_t* portDescriptors);
// The complete lines written to a UUT's port since the last clear, each with the time of the
// write call that carried its first byte.
std::vector<ReceivedLine> lines(int uut);
void clear();

}  // namespace sim::write_tap
