"""The virtual fixture as the system's own tools and the example hosts see it (one well)."""
import collections, os, re, subprocess  # noqa: E401

import pytest

SIM, EXAMPLES = os.environ["BRAKWELL_FIXTURESIM"], os.environ["BRAKWELL_EXAMPLES"]

# Every device: port path, ids, product string, serial number.
DEVICES = [("usb1", "1d6b:0002", "xHCI Host Controller", ""),
           ("1-1", "05e3:0608", "USB2.0 Hub", ""),
           ("1-3", "0471:df01", "DFU DIO_01 Module", ""),
           ("1-4", "0471:df02", "DFU DIO_02 Module", "")]
for s in range(1, 5):
    DEVICES += [(f"1-1.{s}", "05e3:0608", "USB2.0 Hub", ""),
                (f"1-1.{s}.1", "0403:6001", f"USB UART{s}", f"RT00000{s}"),
                (f"1-1.{s}.2", "1fc9:df01", f"Velmora_DFU_CDC{s}", f"VEL_0{s}_A")]


def inside(*command, options=()):
    ran = subprocess.run([SIM, "--quiet", "--wells", "1", *options, "--", *command],
                         capture_output=True, text=True, timeout=120, check=False)
    assert ran.returncode == 0, ran.stderr
    return ran.stdout


def test_lsusb_lists_reads_and_draws_every_device():
    listed, verbose, tree = inside("sh", "-c", "lsusb; echo ==; lsusb -v; echo ==; lsusb -t").split("==\n")
    seen = [tuple(line.split("ID ")[1].split(None, 1)) for line in listed.splitlines()]
    assert sorted(seen) == sorted((ids, name) for _, ids, name, _ in DEVICES)
    assert sorted(re.findall(r"iProduct +2 (.*)", verbose)) == sorted(d[2] for d in DEVICES)
    assert sorted(re.findall(r"iSerial +3 (.*)", verbose)) == sorted(d[3] for d in DEVICES if d[3])
    assert verbose.count("Hub Port Status:") == 6
    assert tree.startswith("/:  Bus 01.Port 1: Dev 1, Class=root_hub, Driver=xhci_hcd/4p, 480M")
    drivers = collections.Counter(re.findall(r"Driver=(\S*),", tree))
    assert drivers == {"xhci_hcd/4p": 1, "hub/4p": 5, "cdc_acm": 8, "ftdi_sio": 4, "": 2}


def test_pyserial_finds_every_port_with_its_usb_identity():
    script = ("from serial.tools import list_ports\n"
              "for p in sorted(list_ports.comports()):\n"
              "    print(p.device, f'{p.vid:04x}:{p.pid:04x}', p.serial_number, p.location,"
              " p.product, sep='|')")
    expected = sorted(f"/dev/tty{'USB' if ids[0] == '0' else 'ACM'}{int(path[4]) - 1}|{ids}|"
                      f"{serial}|{path}{'' if ids[0] == '0' else ':1.0'}|{name}"
                      for path, ids, name, serial in DEVICES if serial)
    assert inside("/usr/bin/python3", "-c", script).splitlines() == expected


@pytest.mark.parametrize("example,options,expected", [
    ("power_site", (), ['site 1: unit "iPhone" at 0x1113000',
                        "console /dev/cu.usbserial-RT000001: unit 1 booted in normal mode",
                        "console echo: hello"]),
    ("press_cycle", ("--operator", "auto"), ["press done: engaged 1, closed 1",
                                             "release: plate up sent, tray out sent"]),
    ("watch_units", (), ['arrived: site 4 "iPhone" at 0x1143000',
                         "4 unit(s) left; 0 on USB now"]),
])
def test_example_runs_inside_the_fixture(example, options, expected):
    lines = inside(os.path.join(EXAMPLES, example), options=options).splitlines()
    assert all(line in lines for line in expected), lines
