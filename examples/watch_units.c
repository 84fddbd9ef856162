/*
 * watch_units: power every site's unit up one after the other and report each as it arrives on
 * USB, then power them all down and watch them leave.
 *
 *   fixturesim -- build/examples/watch_units
 */
#include <Brakwell.h>
#include <stdio.h>
#include <time.h>

static int units_present(void) {
  int i, n = 0;
  for (i = 0; i < BRAKWELL_APPLE_DEV_MAX; i++) n += g_pListAppleDev[i] != NULL;
  return n;
}

/* Arrivals and removals are taken on the library's USB event thread: poll for the count. */
static int wait_for_count(int want) {
  const struct timespec pause = {0, 20 * 1000 * 1000};
  int tries;
  for (tries = 0; tries < 150 && units_present() != want; tries++) nanosleep(&pause, NULL);
  return units_present() == want;
}

int main(void) {
  FixtureController* well = create_fixture_controller(0);
  const int sites = (int)SOC_GetSlotNumber();
  uint32_t seen[BRAKWELL_UUT_COUNT] = {0};
  int uut, i, j, ok = sites > 0;

  usbDeviceConnStatus(0x05ac, 0x12a8);
  usbDeviceConnStatus(0x05ac, 0x1281);
  usbDeviceConnStatus(0x05ac, 0x1227);
  for (uut = 0; uut < sites; uut++) {
    SOC_USBPower(uut, true);
    ok &= wait_for_count(uut + 1);
    /* The newcomer is the one whose location was not seen yet. */
    for (i = 0; i < BRAKWELL_APPLE_DEV_MAX; i++) {
      const AppleDevRecord* d = g_pListAppleDev[i];
      for (j = 0; d && j < uut && seen[j] != d->locationID; j++) continue;
      if (d && j == uut) {
        seen[uut] = d->locationID;
        printf("arrived: site %d \"%s\" at 0x%x\n", uut + 1, d->deviceName, d->locationID);
      }
    }
  }
  for (uut = 0; uut < sites; uut++) SOC_USBPower(uut, false);
  ok &= wait_for_count(0);
  printf("%d unit(s) left; %d on USB now\n", sites, units_present());
  release_fixture_controller(well);
  return ok ? 0 : 1;
}
