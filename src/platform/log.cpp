#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/platform.h"

namespace brakwell::platform {
namespace {

std::mutex sinkMutex;
LineSink sink = nullptr;
void* sinkContext = nullptr;

// "%@" is the text-object placeholder of the message catalogue; here texts are C strings.
std::string translate(const char* format) {
  std::string out;
  for (const char* p = format; *p; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      out += "%%";
      ++p;
    } else if (p[0] == '%' && p[1] == '@') {
      out += "%s";
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}

std::string format_text(const char* format, va_list args) {
  const std::string fmt = translate(format);
  va_list copy;
  va_copy(copy, args);
  char small[512];
  const int n = std::vsnprintf(small, sizeof small, fmt.c_str(), copy);
  va_end(copy);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, n);
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(big.data(), big.size(), fmt.c_str(), args);
  big.resize(n);
  return big;
}

bool mirror_to_stderr() {
  static const bool mirror = [] {
    const char* v = std::getenv("BRAKWELL_LOG");
    return v && std::strcmp(v, "stderr") == 0;
  }();
  return mirror;
}

void deliver(bool toSyslog, const std::string& text) {
  std::lock_guard lock(sinkMutex);
  if (sink) sink(toSyslog, text.c_str(), sinkContext);
}

}  // namespace

// A line that cannot be made (no memory) is lost; the call that logs it goes on.
void log(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  try {
    const std::string text = format_text(format, args);
    syslog(LOG_USER | LOG_NOTICE, "%s", text.c_str());
    if (mirror_to_stderr()) {
      std::string line = text;
      if (line.empty() || line.back() != '\n') line += '\n';
      std::fwrite(line.data(), 1, line.size(), stderr);
    }
    deliver(true, text);
  } catch (...) {
  }
  va_end(args);
}

std::string device_text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      out += c;
      continue;
    }
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    out += escaped;
  }
  return out;
}

void print(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  try {
    const std::string text = format_text(format, args);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    deliver(false, text);
  } catch (...) {
  }
  va_end(args);
}

void print_line(const char* text) noexcept {
  std::puts(text);
  std::fflush(stdout);
  try {
    deliver(false, std::string(text) + "\n");
  } catch (...) {
  }
}

void debug(const char* format, ...) {
  const char* on = std::getenv("BRAKWELL_DEBUG");
  if (!on || std::strcmp(on, "1") != 0) return;
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::fprintf(stderr, "brakwell: %s\n", text);
}

void set_line_sink(LineSink newSink, void* context) {
  std::lock_guard lock(sinkMutex);
  sink = newSink;
  sinkContext = context;
}

}  // namespace brakwell::platform
