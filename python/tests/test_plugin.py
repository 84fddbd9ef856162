# The pytest plugin: marker options, a Station inside fixturesim, a failing test's files kept.
import pytest

from brakwell import BrakwellError, unit_events
from brakwell.pytest_plugin import fixturesim_options


def test_marker_keywords_become_fixturesim_options():  # hyphens, flags, repeated options
    mark = pytest.mark.fixture_sim(dio_gone="0@1", echo=True, unplug=["2@1", "3@2"]).mark
    assert fixturesim_options(mark) == "--dio-gone 0@1 --echo --unplug 2@1 --unplug 3@2".split()


@pytest.mark.fixture_sim(wells=1, missing="3", operator="auto")
def test_station_inside_the_virtual_fixture(fixture_sim):
    (well,) = fixture_sim.wells
    assert [s.number for s in fixture_sim.sites] == [1, 2, 4]
    assert (well.status(), well.disengaged, well.opened) == (0x14, True, True)
    well.press(timeout=20)
    assert (well.status(), well.engaged, well.closed) == (0x2B, True, True)
    well.power_all(True)
    arrivals = {e.unit.location for e in unit_events(quiet=0.5) if e.arrived}
    assert arrivals == {int(fixture_sim.unit_locations()[n], 16) for n in (1, 2, 4)}
    assert well.sites[3].unit_name == "Apple Mobile Device (Recovery Mode)"
    with pytest.raises(BrakwellError) as missing:
        well.sites[2].usb_power(True)
    assert (missing.value.call, missing.value.result) == ("SOC_USBPower", False)


def test_a_failing_test_keeps_its_trace_and_waveform(pytester):
    pytester.makepyfile(test_cycle="""
        import pytest
        @pytest.mark.fixture_sim(wells=1)
        def test_fails(fixture_sim):
            fixture_sim.sites[1].usb_power(True)
            fixture_sim.wells[0].press(timeout=0.5)  # nobody finishes it
        def test_passes(fixture_sim):
            assert fixture_sim.sites[1].connected
    """)
    kept = pytester.path / "kept"
    result = pytester.runpytest_subprocess("-p", "brakwell.pytest_plugin", "--fixturesim-keep",
                                           str(kept))
    result.assert_outcomes(passed=1, failed=1)
    result.stdout.fnmatch_lines(["*BrakwellError: PneumaticValveOn returned False*",
                                 f"*fixturesim trace: {kept}/*test_fails.trace",
                                 f"*fixturesim waveform: {kept}/*test_fails.vcd"])
    assert sorted(p.name for p in kept.iterdir()) == ["test_cycle.py_test_fails.trace",
                                                      "test_cycle.py_test_fails.vcd"]
    assert "site2     < vel_vusb_on" in (kept / "test_cycle.py_test_fails.trace").read_text()
