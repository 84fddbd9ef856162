"""Station scripts for Brakwell fixtures, over libBrakwell's C interface (ctypes).

    from brakwell import Station
    with Station() as station:
        well = station.wells[0]
        well.press(timeout=30)
        well.power_all(on=True)

``brakwell.lib`` is the raw C interface; ``pytest -p brakwell.pytest_plugin`` runs tests
inside the virtual fixture.
"""

from .station import (BootMode, BrakwellError, DioModule, Led, Site, Station, Unit, UnitEvent,
                      Well, in_parallel, present_units, track_units, unit_events)

__all__ = ["BootMode", "BrakwellError", "DioModule", "Led", "Site", "Station", "Unit",
           "UnitEvent", "Well", "in_parallel", "present_units", "track_units", "unit_events"]
__version__ = "4.1.0"
