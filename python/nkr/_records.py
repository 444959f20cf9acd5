"""ctypes mirrors of the records in NKR_focuser.h.

Field order, types and array lengths follow the header exactly; the sizes are
checked at import so that a header change cannot silently shift a field.
"""
from __future__ import annotations

import ctypes
from ctypes import c_char, c_float, c_int, c_longlong, c_short, c_ubyte

BLE_FIRST_ID = 50
MAX_SLOTS = 128
USB_VID = 0x1209
USB_PID = 0x4E4B

HID_BLOCK_BYTES = 55
BLE_BLOCK_BYTES = 480
ALIAS_BYTES = 8
BLE_NAME_BYTES = 16
BLE_NAME_MAX_CHARS = 11


class NKR_INFO(ctypes.Structure):
    _fields_ = [("ID", c_int), ("Name", c_char * 64), ("MaxStep", c_int)]


class NKR_TYPE(ctypes.Structure):
    _fields_ = [("Type", c_char * 16)]


class NKR_BATTERY_INFO(ctypes.Structure):
    _fields_ = [
        ("battery_temp", c_int),
        ("battery_vol", c_int),
        ("battery_charge_curr", c_int),
        ("battery_percentage", c_int),
        ("battery_discharge_curr", c_int),
        ("battery_health", c_int),
        ("battery_charge_vol", c_int),
        ("reserved", c_int),
    ]


class NKR_CONTROL_CAPS(ctypes.Structure):
    _fields_ = [
        ("Name", c_char * 32),
        ("Description", c_char * 128),
        ("Supported", c_ubyte),
        ("Writable", c_ubyte),
        ("Reserved1", c_int * 3),
        ("ControlType", c_int),
        ("Reserved2", c_ubyte * 32),
    ]


class NKR_ERROR_MSG(ctypes.Structure):
    _fields_ = [("MotorErrCode", c_char * 3), ("BatteryErrCode", c_char * 3)]


class NKR_ALL_INFO(ctypes.Structure):
    _fields_ = [
        ("MoveState", c_int),
        ("Backlash", c_int),
        ("Step", c_int),
        ("Temperature", c_float),
        ("Beep", c_int),
        ("Reverse", c_int),
        ("HandMoving", c_int),
        ("HandControl", c_int),
        ("MaxStep", c_int),
        ("BleControl", c_int),
        ("MotorErrCode", c_char * 2),
        ("BatteryErrCode", c_char * 2),
        ("Battery", NKR_BATTERY_INFO),
    ]


class BLE_DEVICE_INFO(ctypes.Structure):
    _fields_ = [
        ("Name", c_char * 64),
        ("Address", c_char * 64),
        ("SignalStrength", c_short),
        ("BluetoothAddress", c_longlong),
    ]


class NKR_HID_FILE_BUF(ctypes.Structure):
    _fields_ = [("len", c_int), ("buf", c_ubyte * HID_BLOCK_BYTES)]


class NKR_BLE_FILE_BUF(ctypes.Structure):
    _fields_ = [("length", c_int), ("data", c_ubyte * BLE_BLOCK_BYTES)]


class NKR_SN(ctypes.Structure):
    _fields_ = [("SN", c_ubyte * 8)]


class NKR_ID(ctypes.Structure):
    _fields_ = [("id", c_ubyte * ALIAS_BYTES)]


class NKR_BLE_NAME(ctypes.Structure):
    _fields_ = [("name", c_char * BLE_NAME_BYTES)]


# Sizes on x86-64 and aarch64 Linux; the first four are static asserts in the header.
RECORD_SIZES: dict[str, int] = {
    "_NKR_CONTROL_CAPS": 212,
    "_NKR_BATTERY_INFO": 32,
    "_NKR_BLE_FILE_BUF": 484,
    "_NKR_TYPE": 16,
    "_NKR_INFO": 72,
    "_NKR_ERROR_MSG": 6,
    "_NKR_ALL_INFO": 76,
    "_BLE_DEVICE_INFO": 144,
    "_NKR_HID_FILE_BUF": 60,
    "_NKR_SN": 8,
    "_NKR_ID": 8,
    "_NKR_BLE_NAME": 16,
}

RECORDS: dict[str, type[ctypes.Structure]] = {
    "_NKR_CONTROL_CAPS": NKR_CONTROL_CAPS,
    "_NKR_BATTERY_INFO": NKR_BATTERY_INFO,
    "_NKR_BLE_FILE_BUF": NKR_BLE_FILE_BUF,
    "_NKR_TYPE": NKR_TYPE,
    "_NKR_INFO": NKR_INFO,
    "_NKR_ERROR_MSG": NKR_ERROR_MSG,
    "_NKR_ALL_INFO": NKR_ALL_INFO,
    "_BLE_DEVICE_INFO": BLE_DEVICE_INFO,
    "_NKR_HID_FILE_BUF": NKR_HID_FILE_BUF,
    "_NKR_SN": NKR_SN,
    "_NKR_ID": NKR_ID,
    "_NKR_BLE_NAME": NKR_BLE_NAME,
}

for _name, _record in RECORDS.items():
    if ctypes.sizeof(_record) != RECORD_SIZES[_name]:
        raise ImportError(
            f"nkr: {_name} mirrors {ctypes.sizeof(_record)} bytes, "
            f"the SDK's record has {RECORD_SIZES[_name]}"
        )


def text_of(raw: bytes) -> str:
    """A fixed-size C text field as str: up to the first NUL, undecodable bytes replaced."""
    return raw.split(b"\0", 1)[0].decode("utf-8", errors="replace")
