/*
 * press_cycle: one two-hand press cycle on the first well: the operator holds both buttons, the
 * tray goes in and the plate down; then the plate goes up and the tray out again.
 *
 *   fixturesim --operator auto -- build/examples/press_cycle
 */
#include <Brakwell.h>
#include <stdio.h>

int main(void) {
  FixtureController* well = create_fixture_controller(0);
  bool pressed;

  if (SOC_GetWellNumber() == 0) {
    fprintf(stderr, "press_cycle: no fixture found\n");
    release_fixture_controller(well);
    return 1;
  }
  printf("waiting for both hands on the buttons (30 s at most)\n");
  pressed = PneumaticValveOn(0, 30.0f);
  printf("press %s: engaged %d, closed %d\n", pressed ? "done" : "timed out",
         is_fixture_engaged(well), is_fixture_closed(well));
  /* Each call sends its command and returns: the plate and tray take their time to move. */
  printf("release: plate up %s, tray out %s\n", fixture_disengage(well) == 0 ? "sent" : "failed",
         fixture_open(well) == 0 ? "sent" : "failed");
  release_fixture_controller(well);
  return pressed ? 0 : 1;
}
