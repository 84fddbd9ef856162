#!/usr/bin/env python3
"""A fixture "plug" in the shape test frameworks use: setup before a test run, teardown after.

A sequencer creates the plug, calls ``setup()`` (or uses it in a ``with``), hands it to its
test phases, and calls ``teardown()`` whatever happened. The plug owns the station unless it is
given one that is already started (as the pytest plugin's ``fixture_sim`` gives).

    fixturesim --operator auto -- python3 examples/plug.py
"""

from __future__ import annotations

from typing import Optional

from brakwell import Led, Site, Station, Well


class FixturePlug:
    """One well of the fixture for a test sequencer."""

    def __init__(self, well: int = 0, press_timeout: float = 30.0,
                 station: Optional[Station] = None) -> None:
        self._owned = station is None
        self.station = station or Station()
        self.well_index, self.press_timeout = well, press_timeout
        self.well: Optional[Well] = None

    def setup(self) -> "FixturePlug":
        """Starts the station if the plug owns it, brings the well to rest (about 5.1 s) and
        waits for the operator to load it (the press cycle)."""
        if self._owned:
            self.station.start()
        self.well = next(w for w in self.station.wells if w.index == self.well_index)
        self.well.init()
        self.well.press(timeout=self.press_timeout)
        self.well.leds(Led.INPROGRESS)
        self.well.power_all(True)
        return self

    def site(self, number: int) -> Site:
        """A site of the well, 1-4."""
        assert self.well is not None, "setup() first"
        return self.well.sites[number - 1]

    def verdict(self, number: int, passed: bool) -> None:
        self.site(number).led(Led.PASS if passed else Led.FAIL)

    def teardown(self) -> None:
        """Powers every site off (1.02 s, all at once), run LED off, press released, and the
        station stopped if the plug started it (1.6 s)."""
        try:
            if self.well is not None:
                self.well.power_all(False)
                self.well.run_led(False)
                self.well.release()
        finally:
            if self._owned:
                self.station.stop()

    def __enter__(self) -> "FixturePlug":
        return self.setup()

    def __exit__(self, *exc: object) -> None:
        self.teardown()


if __name__ == "__main__":
    with FixturePlug() as plug:
        for n in range(1, 5):
            plug.verdict(n, plug.site(n).connected)
            print(f"site {n}: {'PASS' if plug.site(n).connected else 'FAIL'}")
