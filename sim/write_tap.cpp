#include "write_tap.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

namespace sim::write_tap {
namespace {

constexpr int kPorts = 8;
std::atomic<int32_t> ports[kPorts] = {-1, -1, -1, -1, -1, -1, -1, -1};
std::mutex mutex;
std::string partial[kPorts];
double partialStart[kPorts];
std::vector<ReceivedLine> written[kPorts];

void record(int uut, double time, const char* data, size_t n) {
  std::lock_guard lock(mutex);
  for (size_t i = 0; i < n; ++i) {
    if (partial[uut].empty()) partialStart[uut] = time;
    partial[uut] += data[i];
    if (data[i] == '\n') {
      written[uut].push_back({partialStart[uut], partial[uut]});
      partial[uut].clear();
    }
  }
}

}  // namespace

void watch(const int32_t* portDescriptors) {
  for (int uut = 0; uut < kPorts; ++uut) ports[uut] = portDescriptors[uut];
}

std::vector<ReceivedLine> lines(int uut) {
  std::lock_guard lock(mutex);
  return written[uut];
}

void clear() {
  std::lock_guard lock(mutex);
  for (int uut = 0; uut < kPorts; ++uut) {
    partial[uut].clear();
    written[uut].clear();
  }
}

}  // namespace sim::write_tap

extern "C" ssize_t write(int fd, const void* data, size_t n) {
  using Write = ssize_t (*)(int, const void*, size_t);
  static const auto next = reinterpret_cast<Write>(dlsym(RTLD_NEXT, "write"));
  const double time = sim::now();
  const ssize_t done = next(fd, data, n);
  for (int uut = 0; done > 0 && uut < sim::write_tap::kPorts; ++uut) {
    if (sim::write_tap::ports[uut] == fd) {
      sim::write_tap::record(uut, time, static_cast<const char*>(data), static_cast<size_t>(done));
    }
  }
  return done;
}
