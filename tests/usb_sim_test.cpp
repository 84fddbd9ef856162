// The virtual USB bus seen through libusb: enumeration with topology, strings, and transfers.
#include <gtest/gtest.h>
#include <libusb.h>

#include "platform/usb_context.h"
#include "topology.h"
#include "usb.h"

namespace {

libusb_device* find(libusb_context* ctx, uint32_t location) {
  libusb_device** list = nullptr;
  const ssize_t n = libusb_get_device_list(ctx, &list);
  libusb_device* found = nullptr;
  for (ssize_t i = 0; i < n; ++i) {
    if (brakwell::platform::usb::location_id(list[i]) == location) {
      found = libusb_ref_device(list[i]);
    }
  }
  libusb_free_device_list(list, 1);
  return found;
}

TEST(UsbSim, OpenStringsAndBulkRoundTrip) {
  sim::Testbed bed;
  sim::UsbBus bus(bed);
  sim::UsbDevice& board = bus.add_board(6);
  sim::UsbDevice& module =
      bus.add({"1-4", 0x0471, 0xdf01, "DIO", "M1", 0, {{0xff, 0, 0, {{0x81, 2}, {0x02, 2}}}}});
  std::vector<uint8_t> received;
  module.on_bulk = [&](uint8_t endpoint, size_t length, std::vector<uint8_t>& data) {
    if (endpoint == 0x02) {
      received = data;
      return true;
    }
    data.assign({0xa5, 0x5a, 0x01});
    return length >= 3;
  };
  module.on_control = [](const sim::UsbSetup& setup, std::vector<uint8_t>& data) {
    if (setup.bmRequestType != 0xc0 || setup.bRequest != 0x12) return false;
    data = {0x42};
    return true;
  };

  libusb_context* ctx = nullptr;
  ASSERT_EQ(libusb_init(&ctx), 0);
  EXPECT_EQ(board.location_id(), 0x1222000u);
  libusb_device* device = find(ctx, 0x1222000);
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(brakwell::platform::usb::product_string(device), "Velmora_DFU_CDC6");
  libusb_device_handle* handle = nullptr;
  ASSERT_EQ(libusb_open(device, &handle), 0);
  unsigned char text[256] = {};
  EXPECT_EQ(libusb_control_transfer(handle, 0x80, 6, 0x0303, 0x0409, text, 256, 1000), 2 + 2 * 8);
  EXPECT_EQ(text[0], 18);
  EXPECT_EQ(text[2], 'V');
  EXPECT_EQ(text[16], 'A');
  board.fail_strings(true);
  EXPECT_LT(libusb_control_transfer(handle, 0x80, 6, 0x0303, 0x0409, text, 256, 1000), 0);
  libusb_close(handle);
  libusb_unref_device(device);

  device = find(ctx, 0x1400000);
  ASSERT_NE(device, nullptr);
  ASSERT_EQ(libusb_open(device, &handle), 0);
  ASSERT_EQ(libusb_claim_interface(handle, 0), 0);
  unsigned char out[] = {1, 2, 3, 4};
  int done = 0;
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x02, out, sizeof out, &done, 1000), 0);
  EXPECT_EQ(done, 4);
  EXPECT_EQ(received, (std::vector<uint8_t>{1, 2, 3, 4}));
  unsigned char in[16] = {};
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, in, sizeof in, &done, 1000), 0);
  EXPECT_EQ(done, 3);
  EXPECT_EQ(in[0], 0xa5);
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, in, 2, &done, 1000), LIBUSB_ERROR_IO);
  unsigned char value = 0;
  EXPECT_EQ(libusb_control_transfer(handle, 0xc0, 0x12, 0, 0, &value, 1, 1000), 1);
  EXPECT_EQ(value, 0x42);
  EXPECT_EQ(libusb_control_transfer(handle, 0xc0, 0x13, 0, 0, &value, 1, 1000), LIBUSB_ERROR_IO);

  // Nobody answers: the transfer times out and is cancelled.
  module.on_bulk = nullptr;
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, in, sizeof in, &done, 200), LIBUSB_ERROR_TIMEOUT);
  module.vanish();
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x02, out, sizeof out, &done, 1000),
            LIBUSB_ERROR_NO_DEVICE);
  libusb_release_interface(handle, 0);
  libusb_close(handle);
  libusb_unref_device(device);
  libusb_exit(ctx);
}

}  // namespace
