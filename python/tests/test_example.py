# The example station cycle, run as a station engineer would: inside fixturesim.
import os, re, shutil, subprocess, sys  # noqa: E401
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"


def test_two_well_cycle_prints_its_results_table(tmp_path):
    trace = tmp_path / "cycle.trace"
    fixturesim = os.environ.get("FIXTURESIM") or shutil.which("fixturesim")
    run = subprocess.run([fixturesim, "--quiet", "--operator", "AB+@1 AB-@15", "--trace", trace,
                          "--", sys.executable, EXAMPLES / "station_cycle.py"],
                         stdout=subprocess.PIPE, text=True, timeout=120)
    assert run.returncode == 0, run.stdout
    rows = re.findall(r"^(\d) +(\d) +(\w+) +(0x\w+) +(.+?) +(PASS|FAIL)$", run.stdout, re.M)
    assert [(r[0], r[1], r[2], r[5]) for r in rows] == [
        (str(n), str((n + 3) // 4), "dfu" if n % 2 else "iboot", "PASS") for n in range(1, 9)]
    assert {r[4] for r in rows} == {f"Apple Mobile Device ({m} Mode)" for m in ("DFU", "Recovery")}
    assert re.search(r"^8 passed, 0 failed; cycle \d+\.\d s$", run.stdout, re.M)
    boot = re.search(r"boot sequences on 8 sites: ([\d.]+) s at once, ([\d.]+) s", run.stdout)
    assert 1.12 <= float(boot[1]) < float(boot[2]) / 4
    lines = trace.read_text()
    for n in range(1, 9):  # the press through each well's first site; boot lines; verdicts
        received = re.findall(rf"site{n} +< (\S+)", lines)
        assert ("vel_pne_down" in received) == (n in (1, 5)) and "vel_pass_led_on" in received
        assert ("vel_forcedfu_on" in received) == bool(n % 2)
        assert ("vel_hi5_enter_diag" if n % 2 else "vel_hi5_enter_recovery") in received
