"""The fixture as Python objects: Station, Well, Site, DioModule and unit tracking.

Every call blocks its thread for the pauses the library makes (given in each docstring, on top
of the serial writes' own few microseconds). Calls on different sites, and on the two wells, may
run at the same time from different threads; ``Well.power_all`` and ``Station.each_site`` do so.
"""

from __future__ import annotations

import ctypes
import enum
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from typing import Callable, Iterator, Literal, Optional, Sequence, TypeVar

from . import lib

T = TypeVar("T")
R = TypeVar("R")

APPLE_VENDOR = 0x05AC
UNIT_PRODUCTS = (0x12A8, 0x1281, 0x1227)  # normal, recovery, DFU mode
UART_BRIDGE = (0x0403, 0x6001)


class BrakwellError(RuntimeError):
    """A library call failed: ``call`` is its C name, ``result`` what it returned."""

    def __init__(self, call: str, result: object, detail: str = "") -> None:
        self.call, self.result = call, result
        super().__init__(f"{call} returned {result!r}" + (f": {detail}" if detail else ""))


def _check(call: str, result: object, ok: object = True, detail: str = "") -> None:
    if result != ok:
        raise BrakwellError(call, result, detail)


def _text(raw: Optional[bytes]) -> Optional[str]:
    return None if raw is None else raw.decode("utf-8", "replace")


def in_parallel(fn: Callable[[T], R], items: Sequence[T]) -> list[R]:
    """``fn`` on every item, each in its own thread; the results in order. The first failure
    is raised once all have finished. Takes as long as the slowest item."""
    if len(items) < 2:
        return [fn(i) for i in items]
    with ThreadPoolExecutor(max_workers=len(items)) as pool:
        futures = [pool.submit(fn, i) for i in items]
    return [f.result() for f in futures]


class Led(enum.IntEnum):
    """LED states: OFF and INPROGRESS switch the well's run LED, PASS and FAIL a site's own."""

    OFF = 0
    PASS = 1
    FAIL = 2
    INPROGRESS = 3


BootMode = Literal["dfu", "diags", "iboot"]
_ON, _OFF = 0, 1  # the sequences' state argument: 1 is OFF, anything else ON


def _line(call: str, what: str) -> Callable[["Site", bool], None]:
    fn = getattr(lib, call)

    def switch(self: "Site", on: bool) -> None:
        _check(call, fn(self.uut, on))

    switch.__doc__ = f"Switches {what} ({call}): one line to the site's board, no pause."
    return switch


def _pulse(call: str, what: str, pause: str) -> Callable[["Site"], None]:
    fn = getattr(lib, call)

    def send(self: "Site") -> None:
        _check(call, fn(self.uut))

    send.__doc__ = f"Sends {what} ({call}); blocks {pause}."
    return send


class Site:
    """One unit-under-test site: its board's lines, sequences and LEDs, and its unit on USB.

    ``number`` is the station-wide site 1-8 (as in the board's serial number), ``uut`` the
    0-based index of the station calls, ``site`` the 1-based site within the well.
    """

    def __init__(self, well: "Well", site: int) -> None:
        self.well, self.site = well, site
        self.number: int = well.index * 4 + site
        self.uut: int = self.number - 1

    def __repr__(self) -> str:
        return f"<Site {self.number} ({self.port or 'no port'})>"

    @property
    def port(self) -> str:
        """The board's serial port bound at station start; "" when none."""
        return str(lib.DIO_UUTSerialDevice[self.uut].value.decode())

    @property
    def connected(self) -> bool:
        """Whether the board's port is open."""
        return bool(lib.DIO_fileDescriptor[self.uut] >= 0)

    usb_power = _line("SOC_USBPower", "the unit's USB supply")
    battery_power = _line("SOC_BatteryPower", "the unit's battery supply")
    supercap = _line("SOC_Batt_Supercap", "the battery supply's supercap")
    usb_host = _line("SOC_USBHost", "the DFU host connection")
    force_dfu = _line("SOC_ForceDFU", "the force-DFU line")
    uart = _line("SOC_UART", "the unit's UART lines")
    hi5 = _line("SOC_Hi5", "the Hi5 interface")
    acc_identify = _line("SOC_ACC_IDENTIFY", "the accessory-identify line")
    acc_detect = _line("SOC_ACC_DETECT", "the accessory-detect line")
    gpio1 = _line("SOC_GPIO1_On", "GPIO 1")
    gpio2 = _line("SOC_GPIO2_On", "GPIO 2")
    ntc = _line("SOC_NTC_ON", "the NTC")
    pass_led = _line("SOC_PassLed", "the pass LED")
    fail_led = _line("SOC_FailLed", "the fail LED")
    enter_diag = _pulse("SOC_Hi5EnterDiag", "Hi5 enable and the diagnostics request", "0.01 s")
    enter_recovery = _pulse("SOC_Hi5EnterRecovery", "Hi5 enable and the recovery request", "no time")
    dfu_host_connect = _pulse("SOC_DFU_Host_Conn", "the DFU host connect", "no time")
    reset = _pulse("SOC_ResetUUT", "the board's reset line (vel_dfu_reset)", "no time")

    def set_vbatt(self, millivolts: int) -> None:
        """Sets the battery voltage (SOC_Set_VBatt); no pause."""
        _check("SOC_Set_VBatt", lib.SOC_Set_VBatt(self.uut, millivolts))

    def write(self, text: str) -> None:
        """Writes ``text`` as it stands to the board (SOC_Write); no pause."""
        _check("SOC_Write", lib.SOC_Write(self.uut, text.encode()))

    def read(self) -> bytes:
        """The site's receive area as it is now (SOC_Read); no I/O."""
        return lib.SOC_Read(self.uut) or b""

    def _sequence(self, call: str, state: int) -> None:
        _check(call, getattr(lib, call)(self.well.handle, state, self.site), 0)

    def power(self, on: bool = True) -> None:
        """Powers the unit up through the Hi5 recovery request, or down (set_dut_power);
        blocks 0.04 s on, 1.02 s off."""
        self._sequence("set_dut_power", _ON if on else _OFF)

    def boot(self, mode: BootMode, on: bool = True) -> None:
        """Runs a boot-mode sequence (set_force_dfu, _diags, _iboot); off runs it with every line
        off. Blocks 1.12 s for dfu, 1.10 s for diags, 1.11 s for iboot."""
        self._sequence(f"set_force_{mode}", _ON if on else _OFF)

    def led(self, state: Led) -> None:
        """PASS or FAIL switches the other colour off and this one on (no pause); OFF and
        INPROGRESS switch the well's run LED (0.01 s per site tried) (set_led_state)."""
        _check("set_led_state", lib.set_led_state(self.well.handle, int(state), self.site), 0)

    @property
    def uart_path(self) -> Optional[str]:
        """The unit's console port (get_uart_path); None when the library answers "error"."""
        path = _text(lib.get_uart_path(self.well.handle, self.site))
        return None if path == "error" else path

    @property
    def unit_location(self) -> Optional[str]:
        """Where this site's unit sits on USB ("0x1113000"), from the UART bridges
        (getUSBLocationForUART); None when unknown. Enumerates the USB bus."""
        return self.well.station.unit_locations().get(self.number)

    @property
    def unit_name(self) -> Optional[str]:
        """The name of the unit at this site now ("iPhone", "... (DFU Mode)"); None when none.
        Arms unit tracking on first use: units are listed as the library's USB thread sees
        them, so ask again a moment later. Enumerates the USB bus."""
        track_units()
        location = self.unit_location
        return next((u.name for u in present_units() if f"0x{u.location:x}" == location), None)


class Well:
    """One well: its press and tray, operator buttons, sensors, run LED and four sites."""

    def __init__(self, station: "Station", index: int,
                 handle: "ctypes._Pointer[lib.FixtureController]") -> None:
        self.station, self.index, self.handle = station, index, handle
        self.number = index + 1
        self.sites = [Site(self, s) for s in range(1, 5)]

    def __repr__(self) -> str:
        return f"<Well {self.number}>"

    @property
    def connected_sites(self) -> list[Site]:
        return [s for s in self.sites if s.connected]

    def init(self) -> None:
        """Reset, press up, tray out, every site's LEDs off (init); blocks about 5.1 s."""
        _check("init", lib.init(self.handle), 0)

    def reset(self) -> None:
        """vel_dfu_reset to every site of the well (reset); blocks 0.04 s."""
        _check("reset", lib.reset(self.handle), 0)

    def _move(self, call: str) -> None:
        _check(call, getattr(lib, call)(self.handle), 0)

    def engage(self) -> None:
        """Plate down (fixture_engage); 0.01 s per site port."""
        self._move("fixture_engage")

    def disengage(self) -> None:
        """Plate up (fixture_disengage); 0.01 s per site port."""
        self._move("fixture_disengage")

    def close(self) -> None:
        """Tray in (fixture_close); 0.01 s per site port."""
        self._move("fixture_close")

    def open(self) -> None:
        """Reset, then tray out (fixture_open); blocks about 1.08 s."""
        self._move("fixture_open")

    def press(self, timeout: float = 0.0) -> None:
        """The operator's two-hand press cycle (PneumaticValveOn): returns once the plate is down,
        the tray in and both hands off. About 0.4 s per poll; BrakwellError after ``timeout``
        seconds (0 waits without limit)."""
        _check("PneumaticValveOn", lib.PneumaticValveOn(self.index, timeout), True,
               f"well {self.number}: the operator did not finish the press cycle")

    def auto_press(self) -> None:
        """Tray in and plate down with no operator (PneumaticValveAutoOn); blocks 0.65 s."""
        _check("PneumaticValveAutoOn", lib.PneumaticValveAutoOn(self.index, 0.0))

    def release(self) -> None:
        """Plate up, then tray out (SOC_PneumaticValveOff); blocks 0.01 s."""
        _check("SOC_PneumaticValveOff", lib.SOC_PneumaticValveOff(self.index))

    def status(self) -> Optional[int]:
        """The board's 6-bit status word, active low (buttons A, B, plate down, plate up, tray
        in, tray out from bit 0); None for no answer. Blocks 0.3 s."""
        query = lib.queryFixtureStatusForWell2 if self.index else lib.queryFixtureStatusForWell1
        word = query(4 * self.index)
        return None if word == -1 else word

    def _sensor(self, call: str) -> bool:
        return bool(getattr(lib, call)(self.index))

    engaged = property(lambda self: self._sensor("SOC_IsFixtureEngaged"),
                       doc="Plate down (SOC_IsFixtureEngaged); blocks 0.31 s.")
    disengaged = property(lambda self: self._sensor("SOC_IsFixtureDisengaged"),
                          doc="Plate up (SOC_IsFixtureDisengaged); blocks 0.31 s.")
    closed = property(lambda self: self._sensor("SOC_IsFixtureClosed"),
                      doc="Tray in (SOC_IsFixtureClosed); blocks 0.31 s.")
    opened = property(lambda self: self._sensor("SOC_IsFixtureOpened"),
                      doc="Tray out (SOC_IsFixtureOpened); blocks 0.31 s.")
    both_pressed = property(lambda self: self._sensor("SOC_IsBoth_Pressed"),
                            doc="Both buttons held (SOC_IsBoth_Pressed); blocks 0.3 s.")
    run_pressed = property(lambda self: self._sensor("SOC_IsRun_Pressed"),
                           doc="Run (button A alone, plate up) pressed; posts the well's key "
                               "chord when it is (SOC_IsRun_Pressed); blocks 0.3 s.")

    def run_led(self, on: bool) -> None:
        """The well's run LED (SOC_RunLed); 0.01 s per site tried."""
        _check("SOC_RunLed", lib.SOC_RunLed(self.index, on))

    def leds(self, state: Led) -> None:
        """Every site's PASS or FAIL LED on (0.01 s per site), or the run LED for OFF and
        INPROGRESS (set_led_state_all)."""
        _check("set_led_state_all", lib.set_led_state_all(self.handle, int(state)), 0)

    def each_site(self, fn: Callable[[Site], R]) -> list[R]:
        """``fn`` on every connected site, all at once in threads; as long as the slowest."""
        return in_parallel(fn, self.connected_sites)

    def power_all(self, on: bool = True) -> None:
        """Powers every connected site up or down at once (set_dut_power in one thread per
        site); blocks 0.04 s on, 1.02 s off."""
        self.each_site(lambda s: s.power(on))


@dataclass(frozen=True)
class Unit:
    """A unit under test on USB: its name and location ID."""

    name: str
    location: int


@dataclass(frozen=True)
class UnitEvent:
    """An arrival (``arrived`` True) or a removal of a unit."""

    arrived: bool
    unit: Unit


_armed: set[tuple[int, int]] = set()
_arm_lock = threading.Lock()


def track_units(vendor: int = APPLE_VENDOR, products: Sequence[int] = UNIT_PRODUCTS) -> None:
    """Arms the library's arrival tracking for these ids once per process
    (usbDeviceConnStatus); arrivals then come on the library's USB event thread."""
    with _arm_lock:
        for product in products:
            if (vendor, product) not in _armed:
                lib.usbDeviceConnStatus(vendor, product)
                _armed.add((vendor, product))


def present_units() -> list[Unit]:
    """The units in the library's live list now (g_pListAppleDev)."""
    return [Unit(_text(r.contents.deviceName) or "", r.contents.locationID)
            for r in lib.g_pListAppleDev if r]


def unit_events(poll: float = 0.05, quiet: Optional[float] = None) -> Iterator[UnitEvent]:
    """Arrivals and removals as they happen, the units already present first as arrivals.
    Looks every ``poll`` seconds; ends after ``quiet`` seconds without an event (never when
    None)."""
    track_units()
    known: set[Unit] = set()
    last = time.monotonic()
    while quiet is None or time.monotonic() - last < quiet:
        now = set(present_units())
        for unit in sorted(now - known, key=lambda u: u.location):
            yield UnitEvent(True, unit)
        for unit in sorted(known - now, key=lambda u: u.location):
            yield UnitEvent(False, unit)
        if now != known:
            known, last = now, time.monotonic()
        time.sleep(poll)


class DioModule:
    """A USB DIO module (0 = 0471:df01, 1 = 0471:df02); a context manager that opens it
    (openUSB, dioOpen: registers to rest) and closes it. A transfer takes a few milliseconds
    and times out after 1 s."""

    def __init__(self, module: int) -> None:
        self.module = module

    @property
    def alive(self) -> bool:
        """Whether the module is on the bus (USBDeviceAlive)."""
        return bool(lib.USBDeviceAlive(self.module))

    def open(self) -> "DioModule":
        """Opens the pipes and puts every register to rest (openUSB, dioOpen): 16 transfers."""
        _check("openUSB", lib.openUSB(self.module), 1)
        _check("dioOpen", lib.dioOpen(self.module), 1)
        return self

    def close(self) -> None:
        """dioClose, closeUSB."""
        lib.dioClose(self.module)
        lib.closeUSB(self.module)

    __enter__ = open

    def __exit__(self, *exc: object) -> None:
        self.close()

    def write(self, register: int, value: int | str) -> None:
        """Writes a register: a number, or an 8-character bit pattern ("1x0xxxxx") (dioWrite);
        one transfer."""
        text = value if isinstance(value, str) else f"0x{value & 0xFF:02x}"
        _check("dioWrite", lib.dioWrite(self.module, register, text.encode()), 1)

    def _read(self, call: str, *args: int) -> int:
        out = ctypes.c_uint32()
        _check(call, getattr(lib, call)(self.module, *args, ctypes.byref(out)), 1)
        return out.value

    def read(self, register: int) -> int:
        """A register's value (dioRead); one transfer."""
        return self._read("dioRead", register)

    def status(self) -> int:
        """The status byte (dioStatus); one transfer."""
        return self._read("dioStatus")

    def sensors(self) -> int:
        """The well sensors once stable (dioReadSensor); at least 4 ms."""
        return self._read("dioReadSensor")

    def board_id(self) -> int:
        """The board identifier, once stable (SOC_BoardID); at least 4 ms."""
        return self._read("SOC_BoardID")


class Station:
    """The whole fixture. ``with Station() as st:`` starts it and stops it.

    Start (one station start per well's controller) takes 0.8 s each for the port opens plus the
    USB enumeration; stop takes 1.6 s (vel_hi5_disable to every site, 0.2 s apart).
    """

    def __init__(self) -> None:
        self.wells: list[Well] = []

    def start(self) -> "Station":
        """Starts the station (create_fixture_controller for each well with a board port open:
        a well with a site missing is not counted by the library, yet its other sites work);
        BrakwellError when no board answers."""
        handles = {0: lib.create_fixture_controller(0)}
        wells = [w for w in (0, 1) if any(lib.DIO_fileDescriptor[4 * w + i] >= 0
                                          for i in range(4))]
        if 1 in wells:
            handles[1] = lib.create_fixture_controller(1)
        for w in set(handles) - set(wells):
            lib.release_fixture_controller(handles[w])
        if not wells:
            raise BrakwellError("SOC_Start", False, "no fixture board answers")
        self.wells = [Well(self, w, handles[w]) for w in wells]
        return self

    def stop(self) -> None:
        """Stops the station (SOC_Done): every port closed, the unit list emptied; 1.6 s."""
        lib.SOC_Done()
        for well in self.wells:
            lib.release_fixture_controller(well.handle)
        self.wells = []

    def __enter__(self) -> "Station":
        return self.start()

    def __exit__(self, *exc: object) -> None:
        self.stop()

    @property
    def sites(self) -> list[Site]:
        """Every connected site of every well."""
        return [s for w in self.wells for s in w.connected_sites]

    def each_site(self, fn: Callable[[Site], R]) -> list[R]:
        """``fn`` on every connected site of both wells at once; as long as the slowest."""
        return in_parallel(fn, self.sites)

    def power_all(self, on: bool = True) -> None:
        """Powers every connected site of both wells up or down at once (set_dut_power in one
        thread per site); blocks 0.04 s on, 1.02 s off."""
        self.each_site(lambda s: s.power(on))

    @property
    def version(self) -> str:
        """The library's version text (SOC_LibVersion); no pause."""
        buffer = ctypes.create_string_buffer(32)
        _check("SOC_LibVersion", lib.SOC_LibVersion(buffer, len(buffer)))
        return buffer.value.decode()

    @property
    def vendor(self) -> str:
        """The fixture maker (get_vendor); no pause."""
        return _text(lib.get_vendor()) or ""

    @property
    def serial_number(self) -> str:
        """The fixture's serial number (get_serial_number); "UNKNOWN" when none. Reads a file."""
        return _text(lib.get_serial_number(self.wells[0].handle)) or ""

    def unit_locations(self) -> dict[int, str]:
        """Each site's unit location from the UART bridges, by station site 1-8
        (getUSBLocationForUART); enumerates the USB bus."""
        text = _text(lib.getUSBLocationForUART(*UART_BRIDGE)) or "error"
        if text == "error":
            return {}
        return {n: loc for n, loc in enumerate(text.split(","), start=1) if loc}

    track_units = staticmethod(track_units)
    units = staticmethod(unit_events)
