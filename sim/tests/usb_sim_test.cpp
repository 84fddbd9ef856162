// The virtual USB bus seen through libusb: what the library's own tests do not reach. Bulk and
// vendor transfers, failures and a vanished device are exercised by dio_module_test.
#include <gtest/gtest.h>
#include <libusb.h>

#include "platform/platform.h"
#include "topology.h"
#include "usb.h"

namespace {

libusb_device_handle* open_at(libusb_context* ctx, uint32_t location) {
  libusb_device** list = nullptr;
  const ssize_t n = libusb_get_device_list(ctx, &list);
  libusb_device_handle* handle = nullptr;
  for (ssize_t i = 0; i < n; ++i) {
    if (brakwell::platform::usb::location_id(list[i]) == location) libusb_open(list[i], &handle);
  }
  libusb_free_device_list(list, 1);
  return handle;
}

TEST(UsbSim, StringDescriptorsAndAnUnansweredTransfer) {
  sim::Testbed bed;
  sim::UsbBus bus(bed);
  sim::UsbDevice& board = bus.add_board(6);
  bus.add({"1-4", 0x0471, 0xdf01, "DIO", "M1", 0, {{0xff, 0, 0, {{0x81, 2}, {0x02, 2}}}}});
  libusb_context* ctx = nullptr;
  ASSERT_EQ(libusb_init(&ctx), 0);

  EXPECT_EQ(board.location_id(), 0x1222000u);
  libusb_device_handle* handle = open_at(ctx, 0x1222000);
  ASSERT_NE(handle, nullptr);
  unsigned char text[256] = {};
  EXPECT_EQ(libusb_control_transfer(handle, 0x80, 6, 0x0303, 0x0409, text, 256, 1000), 2 + 2 * 8);
  EXPECT_EQ((std::vector<int>{text[0], text[1], text[2], text[3], text[16]}),
            (std::vector<int>{18, 3, 'V', 0, 'A'}));
  board.fail_strings(true);
  EXPECT_LT(libusb_control_transfer(handle, 0x80, 6, 0x0303, 0x0409, text, 256, 1000), 0);
  libusb_close(handle);

  // A bulk IN transfer nobody answers times out and is cancelled.
  handle = open_at(ctx, 0x1400000);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(libusb_claim_interface(handle, 0), 0);
  int done = 0;
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, text, 16, &done, 200), LIBUSB_ERROR_TIMEOUT);
  libusb_release_interface(handle, 0);
  libusb_close(handle);
  libusb_exit(ctx);
}

}  // namespace
