// Collects the library's log lines and standard-output messages while it lives.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> syslog() const;  // system-log lines, in order
  std::vector<std::string> stdout_lines() const;
  size_t count(const std::string& line) const;  // of an exact system-log line
  bool has(const std::string& line) const { return count(line) > 0; }
  // System-log lines starting with `prefix`, each with the monotonic time it was written.
  std::vector<std::pair<double, std::string>> timed(const std::string& prefix = "") const;
  void clear();

 private:
  static void sink(bool toSyslog, const char* text, void* self);
  mutable std::mutex mutex_;
  std::vector<std::pair<double, std::string>> syslog_;
  std::vector<std::string> stdout_;
};

}  // namespace testing_support
