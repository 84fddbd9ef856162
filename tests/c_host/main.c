/* A plain C host: the calls a test station makes on one well, through the public header and the
 * shared library only. Exit status 0 when every call answered success. */
#include <Brakwell.h>
#include <stdio.h>

static int check(const char* what, int result) {
  if (result != 0) fprintf(stderr, "c_host: %s returned %d\n", what, result);
  return result != 0;
}

int main(void) {
  int failures = 0;
  FixtureController* controller = create_fixture_controller(0);
  if (controller == NULL) {
    fprintf(stderr, "c_host: no controller\n");
    return 1;
  }
  failures += check("init", init(controller));
  failures += check("set_dut_power", set_dut_power(controller, 0, 1));
  failures += check("set_led_state", set_led_state(controller, 1, 1));
  release_fixture_controller(controller);
  return failures == 0 ? 0 : 1;
}
