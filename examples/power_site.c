/*
 * power_site: power one site's unit up, find it on USB, read its console's first line, and
 * power it down again.
 *
 *   fixturesim -- build/examples/power_site [SITE]      (SITE 1-8, default 1)
 */
#include <Brakwell.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static const AppleDevRecord* wait_for_unit(void) {
  const struct timespec pause = {0, 50 * 1000 * 1000};
  int tries, i;
  for (tries = 0; tries < 60; tries++) {
    for (i = 0; i < BRAKWELL_APPLE_DEV_MAX; i++) {
      if (g_pListAppleDev[i]) return g_pListAppleDev[i];
    }
    nanosleep(&pause, NULL);
  }
  return NULL;
}

int main(int argc, char** argv) {
  const int uut = argc > 1 ? atoi(argv[1]) : 1;
  FixtureController* well = create_fixture_controller(uut > 4 ? 1 : 0);
  const int site = (uut - 1) % 4 + 1; /* within the handle's well */
  const AppleDevRecord* unit;
  char line[128] = "";
  struct pollfd console;
  ssize_t got = 0;
  int i;

  if (uut < 1 || uut > (int)SOC_GetSlotNumber()) {
    fprintf(stderr, "power_site: no site %d on this fixture\n", uut);
    release_fixture_controller(well);
    return 1;
  }
  /* Watch the three identities a unit boots as: normal, recovery, DFU. */
  usbDeviceConnStatus(0x05ac, 0x12a8);
  usbDeviceConnStatus(0x05ac, 0x1281);
  usbDeviceConnStatus(0x05ac, 0x1227);
  set_usb_power(well, 0, site); /* any state but 1 is on */
  unit = wait_for_unit();
  printf("site %d: unit \"%s\" at 0x%x\n", uut, unit ? unit->deviceName : "-",
         unit ? unit->locationID : 0);

  /* The unit's console: it says how it booted, and echoes what it is sent. */
  console.fd = open(get_uart_path(well, site), O_RDWR | O_NOCTTY | O_CLOEXEC);
  console.events = POLLIN;
  for (i = 0; i < 2 && console.fd >= 0 && poll(&console, 1, 2000) == 1; i++) {
    got = read(console.fd, line, sizeof line - 1);
    line[got > 0 ? got : 0] = '\0';
    line[strcspn(line, "\r\n")] = '\0';
    printf("console %s: %s\n", i ? "echo" : get_uart_path(well, site), line);
    if (i == 0 && write(console.fd, "hello\n", 6) != 6) break;
  }
  if (console.fd >= 0) close(console.fd);

  set_usb_power(well, 1, site);
  release_fixture_controller(well);
  return unit && i == 2 ? 0 : 1;
}
