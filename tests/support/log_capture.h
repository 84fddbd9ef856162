// Collects the library's log lines and standard-output messages while it lives.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"

namespace testing_support {

class LogCapture {
 public:
  LogCapture() { brakwell::platform::set_line_sink(&sink, this); }
  ~LogCapture() { brakwell::platform::set_line_sink(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // System-log lines starting with `prefix`, in order, each with the monotonic time it was written.
  std::vector<std::pair<double, std::string>> timed(const std::string& prefix = "") const {
    std::lock_guard lock(mutex_);
    std::vector<std::pair<double, std::string>> out;
    for (const auto& line : syslog_)
      if (line.second.rfind(prefix, 0) == 0) out.push_back(line);
    return out;
  }
  std::vector<std::string> syslog() const {
    std::vector<std::string> out;
    for (auto& line : timed()) out.push_back(std::move(line.second));
    return out;
  }
  std::vector<std::string> stdout_lines() const {
    std::lock_guard lock(mutex_);
    return stdout_;
  }
  size_t count(const std::string& line) const {  // of an exact system-log line
    const auto lines = syslog();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
  }
  bool has(const std::string& line) const { return count(line) > 0; }
  void clear() {
    std::lock_guard lock(mutex_);
    syslog_.clear();
    stdout_.clear();
  }

 private:
  static void sink(bool toSyslog, const char* text, void* self) {
    auto* capture = static_cast<LogCapture*>(self);
    std::lock_guard lock(capture->mutex_);
    if (toSyslog) {
      capture->syslog_.emplace_back(brakwell::platform::monotonic_seconds(), text);
    } else {
      capture->stdout_.emplace_back(text);
    }
  }
  mutable std::mutex mutex_;
  std::vector<std::pair<double, std::string>> syslog_;
  std::vector<std::string> stdout_;
};

}  // namespace testing_support
