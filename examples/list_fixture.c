/*
 * list_fixture: what a station sees of its fixture: wells, sites, each site's board port and
 * the console path of its unit.
 *
 *   fixturesim -- build/examples/list_fixture
 */
#include <Brakwell.h>
#include <stdio.h>

int main(void) {
  FixtureController* first = create_fixture_controller(0);
  int uut;

  if (SOC_GetWellNumber() == 0) {
    fprintf(stderr, "list_fixture: no fixture found\n");
    release_fixture_controller(first);
    return 1;
  }
  printf("%s fixture: %u well(s), %d sites\n", get_vendor(), SOC_GetWellNumber(),
         get_site_count(first));
  for (uut = 1; uut <= get_site_count(first); uut++) {
    /* Sites past the first four belong to the second well; the first handle reaches them
     * too, as the station-wide numbers 5-8. */
    printf("site %d  well %d  board %s  console %s\n", uut, actuator_for_site(first, uut) + 1,
           DIO_UUTSerialDevice[uut - 1], get_uart_path(first, uut));
  }
  release_fixture_controller(first);
  return 0;
}
