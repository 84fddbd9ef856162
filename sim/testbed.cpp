#include "testbed.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace sim {

double now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

Testbed::Testbed() : bed_(umockdev_testbed_new()) {
  if (!umockdev_in_mock_environment()) {
    std::fprintf(stderr, "sim: run this program under umockdev-wrapper\n");
    std::abort();
  }
}

Testbed::~Testbed() { g_object_unref(bed_); }

std::string Testbed::root() const {
  gchar* dir = umockdev_testbed_get_root_dir(bed_);
  std::string out = dir;
  g_free(dir);
  return out;
}

void Testbed::add_from_string(const std::string& record) {
  GError* error = nullptr;
  if (!umockdev_testbed_add_from_string(bed_, record.c_str(), &error)) {
    std::fprintf(stderr, "sim: device record refused: %s\n%s\n", error ? error->message : "?",
                 record.c_str());
    std::abort();
  }
}

void Testbed::remove_device(const std::string& sysPath) {
  umockdev_testbed_remove_device(bed_, sysPath.c_str());
}

void Testbed::uevent(const std::string& sysPath, const char* action) {
  umockdev_testbed_uevent(bed_, sysPath.c_str(), action);
}

void Testbed::add_dev_link(const std::string& linkPath, const std::string& target) {
  const std::string at = root() + linkPath;
  unlink(at.c_str());
  if (symlink(target.c_str(), at.c_str()) != 0) {
    std::perror(("sim: symlink " + at).c_str());
    std::abort();
  }
}

void Testbed::trace(const std::string& source, const std::string& what) {
  TraceEvent event{now(), source, what};
  std::vector<std::function<void(const TraceEvent&)>> listeners;
  {
    std::lock_guard lock(traceMutex_);
    events_.push_back(event);
    listeners = listeners_;
  }
  for (auto& listener : listeners) listener(event);
}

std::vector<TraceEvent> Testbed::trace_events() const {
  std::lock_guard lock(traceMutex_);
  return events_;
}

void Testbed::clear_trace() {
  std::lock_guard lock(traceMutex_);
  events_.clear();
  events_.shrink_to_fit();
}

void Testbed::on_trace(std::function<void(const TraceEvent&)> listener) {
  std::lock_guard lock(traceMutex_);
  listeners_.push_back(std::move(listener));
}

}  // namespace sim
