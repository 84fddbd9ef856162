// The library's two message channels: the system log and standard output.
#pragma once

#include <string>
#include <string_view>

namespace brakwell::platform {

// One line to the system log (syslog, LOG_USER | LOG_NOTICE; never openlog). The format is
// printf's, where "%@" takes a const char* text. Mirrored to standard error when BRAKWELL_LOG
// was "stderr" at the first line. Safe from any thread.
void log(const char* format, ...);

// A text that came from a device (a USB string, a board reply), fit for one log line: control
// characters (below 0x20, and 0x7f) become \xNN, so that a device can neither forge lines nor
// send terminal escapes; every other byte stays, so valid UTF-8 reads as it is. For the log
// only: the host gets device texts as they were read.
std::string device_text(std::string_view text);

// A message to standard output, formatted the same way and written as is (no newline added).
void print(const char* format, ...);

// A line to standard output followed by a newline, as puts() does.
void print_line(const char* text);

// A line of the debug trace to standard error when BRAKWELL_DEBUG is "1": why a device was
// skipped, why a name is empty, which libusb call failed and how. Never a log line; off by
// default.
void debug(const char* format, ...);

// Test seam: every log line and standard-output message is also handed to the sink, with
// toSyslog telling which channel it went to. Pass nullptr to detach.
using LineSink = void (*)(bool toSyslog, const char* text, void* context);
void set_line_sink(LineSink sink, void* context);

}  // namespace brakwell::platform
