#include "support/log_capture.h"

#include <algorithm>

#include "platform/log.h"

namespace testing_support {

LogCapture::LogCapture() { brakwell::platform::set_line_sink(&LogCapture::sink, this); }
LogCapture::~LogCapture() { brakwell::platform::set_line_sink(nullptr, nullptr); }

void LogCapture::sink(bool toSyslog, const char* text, void* self) {
  auto* capture = static_cast<LogCapture*>(self);
  std::lock_guard lock(capture->mutex_);
  (toSyslog ? capture->syslog_ : capture->stdout_).emplace_back(text);
}

std::vector<std::string> LogCapture::syslog() const {
  std::lock_guard lock(mutex_);
  return syslog_;
}

std::vector<std::string> LogCapture::stdout_lines() const {
  std::lock_guard lock(mutex_);
  return stdout_;
}

bool LogCapture::has(const std::string& line) const { return count(line) > 0; }

size_t LogCapture::count(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count(syslog_.begin(), syslog_.end(), line));
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  syslog_.clear();
  stdout_.clear();
}

}  // namespace testing_support
