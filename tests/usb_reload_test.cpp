// dlclose unloads each copy, with its event thread armed, a unit coming and going, a per-thread
// text handed out and a DIO module open: its thread and descriptors go with it (LSan: the heap).
#include <Brakwell.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "dio.h"
#include "platform/platform.h"
#include "usb.h"

namespace {

namespace fs = std::filesystem;

size_t entries(const char* dir) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}
template <typename Pred>
bool wait_until(Pred pred) {
  for (int i = 0; i < 1000 && !pred(); ++i) brakwell::platform::sleep_seconds(0.005);
  return pred();
}

TEST(Reload, FreshCopyNoThreadNoDescriptorNoOpenModule) {
  const auto so = fs::canonical("/proc/self/exe").parent_path().parent_path() / "libBrakwell.so";
  auto bed = std::make_unique<sim::Testbed>();
  auto bus = std::make_unique<sim::UsbBus>(*bed);
  auto module = std::make_unique<sim::DioModule>(*bus, 0);
  bus->add_unit(1, "iPhone");
  bool unloaded = true;
  size_t fds = 0;
  const size_t threads = entries("/proc/self/task");
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    void* library = dlopen(so.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto symbol = [&](const char* name) { return dlsym(library, name); };
    auto* apple = static_cast<AppleDevRecord**>(symbol("g_pListAppleDev"));
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(symbol("getUSBDeviceName"))(), "(null)");
    EXPECT_EQ(reinterpret_cast<int (*)(long, long)>(symbol("usbDeviceConnStatus"))(0x05ac, 0x1281),
              0);
    if (round < 3) {  // a unit arrives and leaves while the event thread runs
      sim::UsbDevice& unit = bus->add_unit(2, "iPad");
      EXPECT_TRUE(wait_until([&] { return apple[1] != nullptr; }));
      EXPECT_GT(entries("/proc/self/task"), threads);
      bus->remove(unit);
      EXPECT_TRUE(wait_until([&] { return apple[1] == nullptr; }));
    }
    EXPECT_EQ(reinterpret_cast<int (*)(int)>(symbol("openUSB"))(0), 1);
    ASSERT_EQ(dlclose(library), 0);
    void* still = dlopen(so.c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(still, nullptr) << "still loaded after dlclose";
    if (still) unloaded = false, dlclose(still);
    EXPECT_TRUE(wait_until([&] { return entries("/proc/self/task") == threads; }));
    // The testbed keeps a descriptor for each unit it added: counted in the later rounds only.
    if (round == 3) fds = entries("/proc/self/fd");
    EXPECT_EQ(round < 3 ? fds : entries("/proc/self/fd"), fds);
  }
  if (!unloaded) module.release(), bus.release(), bed.release();  // the copy still talks to them
}

}  // namespace
