"""Raw access to libBrakwell: every exported function and data object of Brakwell.h.

Each function is an attribute of this module with its ``argtypes`` and ``restype`` set from
the header (``lib.SOC_USBPower(2, True)``); each exported table is a ctypes object living in
the library (``lib.DIO_UUTSerialDevice[0].value``, ``lib.g_WellNumber.value``).

The library is found, in this order, at ``$BRAKWELL_LIBRARY``, next to this package
(``libBrakwell.so*`` in its directory, where ``cmake --install`` links it), then by the
system's usual library search (``libBrakwell.so.4``, ``libBrakwell.so``).
"""

from __future__ import annotations

import ctypes
import ctypes.util
import os
from ctypes import (POINTER, Structure, c_bool, c_char, c_char_p, c_float, c_int, c_int32,
                    c_long, c_ubyte, c_uint16, c_uint32, c_void_p)
from pathlib import Path
from typing import Any

UUT_COUNT = 8
PATH_SLOT = 41
RX_AREA = 25000
APPLE_DEV_MAX = 12


class FixtureController(Structure):
    """The opaque per-well handle; only pointers to it are used."""


class AppleDevRecord(Structure):
    _fields_ = [("notification", c_uint32), ("deviceName", c_char_p), ("locationID", c_uint32)]


Handle = POINTER(FixtureController)
Uint32Out = POINTER(c_uint32)
Bytes = POINTER(c_ubyte)

# (result, arguments, names): one row per signature shape.
_SIGNATURES: list[tuple[Any, list[Any], str]] = [
    (Handle, [c_int], "create_fixture_controller"),
    (None, [Handle], "release_fixture_controller"),
    (c_char_p, [], "get_vendor getUSBDeviceName"),
    (c_char_p, [Handle], "get_serial_number get_version"),
    (c_char_p, [c_int], "get_error_message SOC_Read getDIORdBuff"),
    (c_int, [Handle], "get_site_count get_actuator_count init reset fixture_engage "
                      "fixture_disengage fixture_close fixture_open"),
    (c_char_p, [Handle, c_int], "get_usb_location get_uart_path"),
    (c_int, [Handle, c_int], "actuator_for_site set_led_state_all set_dut_power_all usb_power "
                             "battery_power force_dfu usb_signal uart_signal apple_id "
                             "conn_det_grounded hi5_bs_grounded dut_power"),
    (c_bool, [Handle], "is_fixture_engaged is_fixture_disengaged is_fixture_closed "
                       "is_fixture_open"),
    (c_bool, [Handle, c_int], "is_board_detected"),
    (c_int, [Handle, c_int, c_int], "set_led_state set_usb_power set_battery_power "
                                    "set_force_dfu set_force_diags set_force_iboot "
                                    "set_dut_power set_conn_acc_apple_id set_usb_signal "
                                    "set_uart_signal set_apple_id set_conn_det_grounded "
                                    "set_hi5_bs_grounded"),
    (c_bool, [c_int, c_float], "PneumaticValveOn PneumaticValveAutoOn SOC_PneumaticValveOn "
                               "SOC_PneumaticValveAutoOn"),
    (c_bool, [c_char_p, c_int], "SOC_LibVersion"),
    (c_bool, [], "SOC_Start"),
    (None, [], "SOC_Done SOC_SendCtrlAltZ SOC_SendCtrlAltY matchDIO_UART usbDeviceRemoveAll"),
    (c_uint32, [], "SOC_GetWellNumber SOC_GetSlotNumber"),
    (c_int, [], "listSerialPorts"),
    (c_int, [c_int], "SOC_GetWellIndex queryFixtureStatusForWell1 queryFixtureStatusForWell2 "
                     "openUSB USBDeviceAlive closeUSB dioReset dioOpen resetAllRegisters"),
    (c_bool, [c_int], "SOC_Reset SOC_PowerOff SOC_Hi5EnterDiag SOC_Hi5EnterRecovery "
                      "SOC_PowerOffUUT SOC_DFU_Host_Conn SOC_ResetUUT SOC_PneumaticValveOff "
                      "SOC_IsValveOn SOC_IsRun_Pressed SOC_IsAbort_Pressed SOC_IsBoth_Pressed "
                      "SOC_IsFixtureEngaged SOC_IsFixtureDisengaged SOC_IsFixtureClosed "
                      "SOC_IsFixtureOpened openDIO_UARTForWell1 openDIO_UARTForWell2 "
                      "turnOnRunLed turnOffRunLed"),
    (c_bool, [c_int, c_bool], "SOC_RunLed SOC_ResultLed SOC_NTC_ON SOC_USBPower "
                              "SOC_BatteryPower SOC_USBHost SOC_ForceDFU SOC_GPIO1_On "
                              "SOC_GPIO2_On SOC_UART SOC_ACC_IDENTIFY SOC_Hi5 SOC_ACC_DETECT "
                              "SOC_PassLed SOC_FailLed SOC_Batt_Supercap"),
    (c_bool, [c_int, c_int], "SOC_Set_VBatt"),
    (c_bool, [c_int, c_char_p], "SOC_Write"),
    (c_bool, [c_int, c_char_p, c_int], "DIORS232Write"),
    (None, [c_int], "CloseDIOSerialPort ClearDIORS232Buff fixtureDown fixtureUp fixtureIn "
                    "fixtureOut resetAllRegisters2 dioClose"),
    (c_int, [POINTER(c_void_p)], "createSerialIterator"),
    (c_char_p, [c_void_p, c_char_p], "getRegistryString"),
    (c_int, [c_long, c_long], "enumUsbForLocationID usbDeviceConnStatus"),
    (c_char_p, [c_long, c_long], "getUSBLocationForUART getUSBLocationForMCU"),
    (c_uint32, [c_uint32], "removeHexTrailingZeros"),
    (None, [c_void_p, POINTER(c_void_p)], "usbDeviceArrival"),
    (c_int, [POINTER(AppleDevRecord)], "addSelfToAppleDevList"),
    (None, [c_void_p, c_void_p, c_uint32, c_void_p], "usbDeviceRemoval"),
    (None, [c_uint32], "removeSelfFromAppleDevList"),
    (c_int, [c_char_p, c_char_p], "getDifferentLocationIndex"),
    (None, [c_char_p, c_uint32], "addToUartLocationIDList"),
    (c_uint32, [c_int], "usbUartSiblingLocationID"),
    (None, [c_int, c_void_p], "dealWithDevice dealWithInterface"),
    (c_int, [c_int, c_int, Bytes, c_int], "readFromEndpt writeToEndpt"),
    (c_int, [c_int, c_uint32], "vendorRequest"),
    (None, [c_void_p, c_int], "readCompletion"),
    (None, [c_void_p, POINTER(c_int)], "readTimerHandler"),
    (c_long, [c_char_p], "strToInt"),
    (c_int, [c_int, c_int, c_char_p], "dioWrite"),
    (c_int, [c_int, c_int, Uint32Out], "dioRead"),
    (c_int, [c_int, Uint32Out], "dioStatus dioReadSensor"),
    (c_bool, [c_int, Uint32Out], "SOC_BoardID"),
]

_PATHS = (c_char * PATH_SLOT) * UUT_COUNT
# The exported data objects and their C types.
VARIABLES: dict[str, Any] = {
    "USBLocation": c_char_p * UUT_COUNT,
    **{f"action_{n}": c_uint16 for n in (
        "usb_signal usb_power uart_signal battery_power force_dfu apple_id conn_det_grounded "
        "hi5_bs_grounded conn_acc_apple_id").split()},
    "g_WellNumber": c_uint32,
    "g_SlotNumber": c_uint32,
    "dioOn1": c_bool,
    "dioOn2": c_bool,
    "DIO_SerialDevice": _PATHS,
    "DIO_UUTSerialDevice": _PATHS,
    "DIO_fileDescriptor": c_int32 * UUT_COUNT,
    "portList": _PATHS,
    "portConnected": c_int32 * UUT_COUNT,
    "DIORS232Buff": (c_char * RX_AREA) * UUT_COUNT,
    "mutableUSBDeviceName": c_char_p,
    "g_pListAppleDev": POINTER(AppleDevRecord) * APPLE_DEV_MAX,
    "g_ListUutLocationID": c_uint32 * APPLE_DEV_MAX,
    "g_ListUartLocationID": c_uint32 * APPLE_DEV_MAX,
}

FUNCTIONS: dict[str, tuple[Any, list[Any]]] = {
    name: (restype, argtypes) for restype, argtypes, names in _SIGNATURES for name in names.split()
}


def _candidates() -> list[str]:
    found = [os.environ.get("BRAKWELL_LIBRARY", "")]
    found += sorted(str(p) for p in Path(__file__).parent.glob("libBrakwell.so*"))
    found += ["libBrakwell.so.4", "libBrakwell.so", ctypes.util.find_library("Brakwell") or ""]
    return [c for c in found if c]


def _load() -> ctypes.CDLL:
    errors = []
    for candidate in _candidates():
        try:
            return ctypes.CDLL(candidate)
        except OSError as e:
            errors.append(str(e))
    raise OSError("libBrakwell not found (set BRAKWELL_LIBRARY to its path): " + "; ".join(errors))


dll = _load()
for _name, (_restype, _argtypes) in FUNCTIONS.items():
    _fn = getattr(dll, _name)
    _fn.restype, _fn.argtypes = _restype, _argtypes
    globals()[_name] = _fn
for _name, _ctype in VARIABLES.items():
    globals()[_name] = _ctype.in_dll(dll, _name)


def __getattr__(name: str) -> Any:  # for type checkers: every name above is set at import
    raise AttributeError(f"libBrakwell exports no {name!r}")
