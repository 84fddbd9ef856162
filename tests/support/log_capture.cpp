#include "support/log_capture.h"

#include <algorithm>

#include "platform/platform.h"

namespace testing_support {

LogCapture::LogCapture() { brakwell::platform::set_line_sink(&LogCapture::sink, this); }
LogCapture::~LogCapture() { brakwell::platform::set_line_sink(nullptr, nullptr); }

void LogCapture::sink(bool toSyslog, const char* text, void* self) {
  auto* capture = static_cast<LogCapture*>(self);
  std::lock_guard lock(capture->mutex_);
  if (toSyslog) {
    capture->syslog_.emplace_back(brakwell::platform::monotonic_seconds(), text);
  } else {
    capture->stdout_.emplace_back(text);
  }
}

std::vector<std::string> LogCapture::syslog() const {
  std::vector<std::string> out;
  for (auto& line : timed()) out.push_back(std::move(line.second));
  return out;
}

std::vector<std::pair<double, std::string>> LogCapture::timed(const std::string& prefix) const {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<double, std::string>> out;
  for (const auto& line : syslog_) {
    if (line.second.rfind(prefix, 0) == 0) out.push_back(line);
  }
  return out;
}

std::vector<std::string> LogCapture::stdout_lines() const {
  std::lock_guard lock(mutex_);
  return stdout_;
}

size_t LogCapture::count(const std::string& line) const {
  const auto lines = syslog();
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  syslog_.clear();
  stdout_.clear();
}

}  // namespace testing_support
