"""pytest plugin: tests that run inside the virtual fixture (``pytest -p brakwell.pytest_plugin``).

A test that takes the ``fixture_sim`` fixture is run in a fresh ``fixturesim`` of its own: the
plugin starts ``fixturesim [options] -- python3 -m pytest <the test>`` (fixturesim puts itself
under umockdev's preload, which its children inherit), and inside that process the fixture
hands the test a started :class:`brakwell.Station`, stopped after it. Options come from the
marker, each keyword a fixturesim option (a list repeats it, True is a bare flag)::

    @pytest.mark.fixture_sim(wells=1, missing="3", operator="AB+@1 AB-@4", unplug="2@1.5")
    def test_press(fixture_sim): ...

The trace and waveform of a failing test are kept (``--fixturesim-keep DIR``, by default under
pytest's temporary directory) and named in its report; a passing test's are removed.
``fixturesim`` is ``$FIXTURESIM`` or found on ``PATH``.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Iterator, Optional

import pytest

from brakwell import Station

_INSIDE = "BRAKWELL_FIXTURE_SIM_TEST"  # set to the node id in the process fixturesim runs
_KEEP = pytest.StashKey[Path]()  # where the test's trace and waveform go


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--fixturesim-keep", metavar="DIR",
                     help="where failing fixture_sim tests keep their trace and VCD")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers", "fixture_sim(**options): fixturesim options for the fixture_sim fixture")


def fixturesim_options(marker: Optional[pytest.Mark]) -> list[str]:
    """The marker's keywords as fixturesim options."""
    args: list[str] = []
    for key, value in (marker.kwargs if marker else {}).items():
        option = "--" + key.replace("_", "-")
        for v in value if isinstance(value, (list, tuple)) else [value]:
            args += [option] if v is True else [option, str(v)]
    return args


@pytest.fixture
def fixture_sim(request: pytest.FixtureRequest,
                tmp_path_factory: pytest.TempPathFactory) -> Iterator[Optional[Station]]:
    """Inside fixturesim: a started Station. Outside it yields None and the test itself is
    run in fixturesim by the plugin."""
    if os.environ.get(_INSIDE) != request.node.nodeid:
        chosen = request.config.getoption("--fixturesim-keep")
        keep = Path(chosen) if chosen else tmp_path_factory.getbasetemp() / "fixturesim"
        request.node.stash[_KEEP] = keep
        yield None
        return
    with Station() as station:
        yield station


@pytest.hookimpl(tryfirst=True)
def pytest_pyfunc_call(pyfuncitem: pytest.Function) -> Optional[bool]:
    if "fixture_sim" not in pyfuncitem.fixturenames or os.environ.get(_INSIDE):
        return None
    config = pyfuncitem.config
    fixturesim = os.environ.get("FIXTURESIM") or shutil.which("fixturesim")
    if not fixturesim:
        pytest.fail("fixturesim not found: put it on PATH or set FIXTURESIM", pytrace=False)
    keep = pyfuncitem.stash[_KEEP]
    keep.mkdir(parents=True, exist_ok=True)
    stem = str(keep / re.sub(r"[^\w.-]+", "_", pyfuncitem.nodeid))
    trace, vcd = Path(stem + ".trace"), Path(stem + ".vcd")
    command = [fixturesim, *fixturesim_options(pyfuncitem.get_closest_marker("fixture_sim")),
               "--trace", str(trace), "--vcd", str(vcd), "--",
               sys.executable, "-m", "pytest", "-p", "brakwell.pytest_plugin", "-q",
               "-p", "no:cacheprovider", "--rootdir", str(config.rootpath), pyfuncitem.nodeid]
    env = dict(os.environ, **{_INSIDE: pyfuncitem.nodeid})
    run = subprocess.run(command, cwd=config.rootpath, env=env, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, text=True)
    if run.returncode == 0:
        trace.unlink(missing_ok=True)
        vcd.unlink(missing_ok=True)
        return True
    report = re.split(r"^(?==+ (?:FAILURES|ERRORS) =+$)", run.stdout, maxsplit=1, flags=re.M)[-1]
    pytest.fail(f"inside fixturesim (exit {run.returncode}):\n{report}\n"
                f"fixturesim trace: {trace}\nfixturesim waveform: {vcd}", pytrace=False)
    return True
