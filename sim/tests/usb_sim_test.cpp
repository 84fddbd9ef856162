// The virtual USB bus seen through libusb where the library's own tests do not reach it.
#include <gtest/gtest.h>
#include <libusb.h>

#include <memory>

#include "dio.h"
#include "usb.h"

// A bulk IN transfer nobody answers times out. A module outlives its device, whose number a later
// device takes: the bus frees the gone device, and the module must not reach it again (a use after
// free under ASan, a crash at a soak's exit).
TEST(UsbSim, UnansweredBulkInTimesOutAndAModuleOutlivesItsDeviceNumber) {
  sim::Testbed bed;
  sim::UsbBus bus(bed);
  bus.add({"1-4", 0x0471, 0xdf01, "DIO", "M1", 0, {{0xff, 0, 0, {{0x81, 2}, {0x02, 2}}}}});
  libusb_context* ctx = nullptr;
  ASSERT_EQ(libusb_init(&ctx), 0);
  libusb_device_handle* handle = libusb_open_device_with_vid_pid(ctx, 0x0471, 0xdf01);
  ASSERT_TRUE(handle && libusb_claim_interface(handle, 0) == 0);
  unsigned char data[16] = {};
  int done = 0;
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, data, 16, &done, 200), LIBUSB_ERROR_TIMEOUT);
  libusb_close(handle);
  libusb_exit(ctx);
  auto module = std::make_unique<sim::DioModule>(bus, 0);
  module->vanish();
  for (int i = 0; i < 128; ++i) bus.remove(bus.add({"1-5", 0xffff, 0xffff, "", "", 0, {}}));
  EXPECT_TRUE(module->gone());
}
