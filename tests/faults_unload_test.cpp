// The shared library loaded and unloaded again and again with its USB event thread armed and a
// device arriving and leaving each time: every unload must take the thread with it and leave
// nothing behind (LeakSanitizer checks the heap at exit in the sanitizer build).
#include <Brakwell.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/platform.h"
#include "usb.h"

namespace {

using brakwell::platform::monotonic_seconds;

size_t thread_count() {
  size_t n = 0;
  for ([[maybe_unused]] auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

template <typename Pred>
bool wait_until(Pred pred, double seconds) {
  const double end = monotonic_seconds() + seconds;
  while (!pred()) {
    if (monotonic_seconds() > end) return false;
    brakwell::platform::sleep_seconds(0.001);
  }
  return true;
}

TEST(Unload, RepeatedlyWithTheEventThreadArmed) {
  // The library beside this program's build.
  const auto so =
      std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "libBrakwell.so";
  ASSERT_TRUE(std::filesystem::exists(so)) << so << " (build the Brakwell target)";
  sim::Testbed bed;
  sim::UsbBus bus(bed);
  bus.add_unit(1, "iPhone");
  const size_t threads = thread_count();
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    void* library = dlopen(so.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto arm = reinterpret_cast<int (*)(long, long)>(dlsym(library, "usbDeviceConnStatus"));
    auto list = static_cast<AppleDevRecord**>(dlsym(library, "g_pListAppleDev"));
    ASSERT_TRUE(arm && list);
    EXPECT_EQ(arm(0x05ac, 0x1281), 0);
    sim::UsbDevice& unit = bus.add_unit(2, "iPad");
    EXPECT_TRUE(wait_until([&] { return list[1] != nullptr; }, 5));
    EXPECT_GT(thread_count(), threads);
    bus.remove(unit);
    EXPECT_TRUE(wait_until([&] { return list[1] == nullptr; }, 5));
    ASSERT_EQ(dlclose(library), 0);
    void* still = dlopen(so.c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(still, nullptr) << "still loaded after dlclose";
    if (still) dlclose(still);
    EXPECT_TRUE(wait_until([&] { return thread_count() == threads; }, 2));
  }
}

}  // namespace
