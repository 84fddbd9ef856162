#!/usr/bin/env python3
"""A whole station cycle on a two-well fixture, every site at once, with a results table.

Both wells are brought to rest, the operator loads them with the two-hand press, every unit is
powered and booted (odd sites into DFU mode, even sites into recovery through iBoot), each site
passes when its unit shows up on USB at its own location in that mode, the LEDs show the
verdicts, and everything is powered down and released. Try it on the virtual fixture, with an
operator who holds both buttons from 1 s to 15 s after the start:

    fixturesim --operator "AB+@1 AB-@15" -- python3 examples/station_cycle.py
"""

from __future__ import annotations

import sys
import time
from typing import Callable

from brakwell import BootMode, Led, Site, Station, Well, in_parallel, present_units, track_units

EXPECTED = {"dfu": "(DFU Mode)", "iboot": "(Recovery Mode)"}


def mode_of(site: Site) -> BootMode:
    return "dfu" if site.number % 2 else "iboot"


def timed(fn: Callable[[], object]) -> float:
    start = time.monotonic()
    fn()
    return time.monotonic() - start


def units_by_location(expected: int, wait: float = 3.0) -> dict[str, str]:
    """The units on USB by location text, once ``expected`` of them are there (or after
    ``wait`` seconds): arrivals come on the library's USB thread."""
    deadline = time.monotonic() + wait
    while True:
        units = {f"0x{u.location:x}": u.name for u in present_units()}
        if len(units) >= expected or time.monotonic() > deadline:
            return units
        time.sleep(0.05)


def timed_total(durations: list[float]) -> str:
    return (f"{max(durations):.2f} s at once, {sum(durations):.2f} s summed one site after "
            f"another")


def main() -> int:
    started = time.monotonic()
    with Station() as station:
        print(f"{station.vendor}, library {station.version}, {len(station.wells)} well(s), "
              f"{len(station.sites)} site(s)")
        in_parallel(Well.init, station.wells)
        print("wells at rest; waiting for the operator's two-hand press on every well")
        in_parallel(lambda w: w.press(timeout=30), station.wells)
        for well in station.wells:
            well.leds(Led.INPROGRESS)
        track_units()
        sites = station.sites
        durations = station.each_site(lambda s: timed(lambda: s.boot(mode_of(s))))
        print(f"boot sequences on {len(sites)} sites: {timed_total(durations)}")
        locations = station.unit_locations()
        units = units_by_location(len(sites))
        rows, failed = [], 0
        for site in sites:
            location = locations.get(site.number, "-")
            unit = units.get(location, "-")
            ok = unit.endswith(EXPECTED[mode_of(site)])
            failed += not ok
            site.led(Led.PASS if ok else Led.FAIL)
            rows.append((site.number, site.well.number, mode_of(site), location, unit,
                         "PASS" if ok else "FAIL"))
        station.each_site(lambda s: s.power(False))
        for well in station.wells:
            well.run_led(False)
            well.release()
    print(f"\n{'site':<5}{'well':<5}{'boot':<6}{'location':<11}{'unit':<38}result")
    for row in rows:
        print("{:<5}{:<5}{:<6}{:<11}{:<38}{}".format(*row))
    print(f"\n{len(rows) - failed} passed, {failed} failed; "
          f"cycle {time.monotonic() - started:.1f} s")
    return 1 if failed or not rows else 0


if __name__ == "__main__":
    sys.exit(main())
