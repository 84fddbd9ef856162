// The USB side's figures against the virtual fixture: how soon an Apple unit's arrival is
// listed by the event thread, what that thread costs while nothing happens, and how long one
// enumeration of thirty CDC devices takes.
//
//   brakwell_usb_bench [--runs N]      (under umockdev-wrapper)
#include <Brakwell.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "testbed.h"
#include "usb.h"

namespace {

double process_cpu() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

size_t listed() {
  size_t n = 0;
  for (auto* record : g_pListAppleDev) n += record != nullptr;
  return n;
}

bool wait_listed(size_t n) {
  const double end = sim::now() + 10;
  while (listed() != n) {
    if (sim::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return true;
}

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 100;
  if (argc == 3 && !std::strcmp(argv[1], "--runs"))
    runs = std::max(1, std::atoi(argv[2]));
  else if (argc != 1) {
    std::fprintf(stderr, "usage: brakwell_usb_bench [--runs N]\n");
    return 2;
  }
  sim::Testbed bed;
  sim::UsbBus bus(bed);

  // Thirty devices of one vendor and product: every one opened, named and asked its serial.
  for (int site = 1; site <= 8; ++site) bus.add_board(site);
  for (int i = 0; i < 22; ++i) {
    const std::string port =
        i < 15 ? "1-3." + std::to_string(i + 1) : "1-4." + std::to_string(i - 14);
    bus.add({port, 0x1fc9, 0xdf01, "cdc " + std::to_string(i), "S" + std::to_string(i), 0, {}});
  }
  enumUsbForLocationID(0x1fc9, 0xdf01);  // libusb's own start-up is not the library's
  std::vector<double> enums;
  for (int i = 0; i < std::min(runs, 20); ++i) {
    const double start = sim::now();
    enumUsbForLocationID(0x1fc9, 0xdf01);
    enums.push_back(sim::now() - start);
  }
  std::printf("enumeration of 30 devices: median %.4f s, slowest %.4f s (%zu runs)\n",
              percentile(enums, 0.5), percentile(enums, 1), enums.size());

  // From the moment the testbed is asked to plug the unit in to its record in the list: the
  // testbed's own work (sysfs entries, the uevent) is included, so this is an upper bound.
  usbDeviceConnStatus(0x05ac, 0x1281);
  std::vector<double> latencies;
  for (int i = 0; i < runs; ++i) {
    const double start = sim::now();
    sim::UsbDevice& unit = bus.add_unit(5, "");
    if (!wait_listed(1)) break;
    latencies.push_back(sim::now() - start);
    bus.remove(unit);
    if (!wait_listed(0)) break;
  }
  if (latencies.empty()) {
    std::fprintf(stderr, "brakwell_usb_bench: no arrival was listed\n");
    return 1;
  }
  std::printf(
      "Apple unit plugged in to listed: median %.2f ms, 90%% %.2f ms, slowest %.2f ms (%zu)\n",
      1e3 * percentile(latencies, 0.5), 1e3 * percentile(latencies, 0.9),
      1e3 * percentile(latencies, 1), latencies.size());

  const double cpu0 = process_cpu(), wall0 = sim::now();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const double wall = sim::now() - wall0, cpu = process_cpu() - cpu0;
  std::printf("event thread idle %.1f s: %.2f ms CPU (%.3f%%), virtual fixture included\n", wall,
              cpu * 1e3, 100 * cpu / wall);
  usbDeviceRemoveAll();
  return 0;
}
