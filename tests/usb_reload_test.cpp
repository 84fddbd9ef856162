// dlclose unloads the library even after a per-thread text was handed back: fresh tables, no event
// thread, and a DIO module left open closed with the USB context (no descriptor left open).
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

template <typename T>
T symbol(void* library, const char* name) {
  return reinterpret_cast<T>(dlsym(library, name));
}

TEST(Reload, FreshCopyNoThreadNoOpenModule) {
  const auto so = fs::canonical("/proc/self/exe").parent_path().parent_path() / "libBrakwell.so";
  auto bed = std::make_unique<sim::Testbed>();
  auto bus = std::make_unique<sim::UsbBus>(*bed);
  auto module = std::make_unique<sim::DioModule>(*bus, 0);
  bool unloaded = true;
  setenv("LIBUSB_DEBUG", "2", 1);  // libusb's warnings, among them devices left open at exit
  ::testing::internal::CaptureStderr();
  size_t fds = 0;
  const size_t threads = entries("/proc/self/task");
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    void* library = dlopen(so.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto* uarts = symbol<uint32_t*>(library, "g_ListUartLocationID");
    EXPECT_EQ(uarts[0], 0u) << "static state left from the last copy";
    uarts[0] = 1;
    EXPECT_STREQ(symbol<const char* (*)()>(library, "getUSBDeviceName")(), "(null)");
    symbol<int (*)(long, long)>(library, "usbDeviceConnStatus")(0x05ac, 0x1281);
    for (int i = 0; i < 400 && symbol<int (*)(int)>(library, "USBDeviceAlive")(0) != 1; ++i)
      brakwell::platform::sleep_seconds(0.005);
    EXPECT_EQ(symbol<int (*)(int)>(library, "openUSB")(0), 1);
    ASSERT_EQ(dlclose(library), 0);
    void* still = dlopen(so.c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(still, nullptr) << "still loaded after dlclose";
    if (still) unloaded = false, dlclose(still);
    for (int i = 0; i < 400 && entries("/proc/self/task") != threads; ++i)
      brakwell::platform::sleep_seconds(0.005);
    EXPECT_EQ(entries("/proc/self/task"), threads);
    if (round == 0) fds = entries("/proc/self/fd");
    EXPECT_EQ(entries("/proc/self/fd"), fds);
  }
  const std::string warnings = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(warnings.find("left some devices open"), std::string::npos) << warnings;
  unsetenv("LIBUSB_DEBUG");
  if (!unloaded) {  // the copy still loaded talks to this testbed until the process exits
    module.release(), bus.release(), bed.release();
  }
}

}  // namespace
