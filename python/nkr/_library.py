"""Finding and loading libNKR_focuser.so, and the C prototypes of its functions.

The library is loaded on first use, not at import, so that simulate() can put
the simulator in place first.
"""
from __future__ import annotations

import ctypes
import ctypes.util
import os
import threading
from ctypes import POINTER, c_bool, c_char_p, c_float, c_int, c_ubyte, c_void_p
from typing import Any

from . import _paths
from ._records import (BLE_DEVICE_INFO, NKR_ALL_INFO, NKR_BATTERY_INFO, NKR_BLE_FILE_BUF, NKR_BLE_NAME,
                       NKR_CONTROL_CAPS, NKR_ERROR_MSG, NKR_HID_FILE_BUF, NKR_ID, NKR_INFO, NKR_SN, NKR_TYPE)
from .errors import LibraryNotFoundError

LIBRARY_SONAME = "libNKR_focuser.so.1"

PAIR_STATE_CALLBACK = ctypes.CFUNCTYPE(None, c_int)
CONN_STATE_CALLBACK = ctypes.CFUNCTYPE(None, c_bool)

_P_INT = POINTER(c_int)
_P_BOOL = POINTER(c_bool)
_P_UBYTE = POINTER(c_ubyte)

# name: (result type, argument types), as declared in NKR_focuser.h.
PROTOTYPES: dict[str, tuple[Any, list[Any]]] = {
    "get_NKR_SDK_Ver": (c_char_p, []),
    "NKRGetSDKVersion": (c_char_p, []),
    "NKRCheck": (c_int, [c_int, c_int]),
    "NKRGetProductIDs": (c_int, [_P_INT]),
    "NKRGetNum": (c_int, []),
    "NKRGetID": (c_int, [c_int, _P_INT]),
    "NKROpen": (c_int, [c_int]),
    "NKRClose": (c_int, [c_int]),
    "NKRGetProperty": (c_int, [c_int, POINTER(NKR_INFO)]),
    "NKRSetRepeatTime": (c_int, [c_int, c_int]),
    "NKRSetClearErr": (c_int, [c_int, c_bool]),
    "NKRMove": (c_int, [c_int, c_int]),
    "NKRStop": (c_int, [c_int]),
    "NKRIsMoving": (c_int, [c_int, _P_BOOL, _P_BOOL]),
    "NKRSetSpeed": (c_int, [c_int, c_int]),
    "NKRGetSpeed": (c_int, [c_int, _P_INT]),
    "NKRGetPosition": (c_int, [c_int, _P_INT]),
    "NKRResetPostion": (c_int, [c_int, c_int]),
    "NKRGetTemp": (c_int, [c_int, POINTER(c_float)]),
    "NKRSetBeep": (c_int, [c_int, c_bool]),
    "NKRGetBeep": (c_int, [c_int, _P_BOOL]),
    "NKRSetMaxStep": (c_int, [c_int, c_int]),
    "NKRGetMaxStep": (c_int, [c_int, _P_INT]),
    "NKRStepRange": (c_int, [c_int, _P_INT]),
    "NKRSetBacklash": (c_int, [c_int, c_int]),
    "NKRGetBacklash": (c_int, [c_int, _P_INT]),
    "NKRSetReverse": (c_int, [c_int, c_bool]),
    "NKRGetReverse": (c_int, [c_int, _P_BOOL]),
    "NKRSetMaxForce": (c_int, [c_int, c_int]),
    "NKRGetMaxForce": (c_int, [c_int, _P_INT]),
    "NKRGetFirmwareVersion": (c_int, [c_int, _P_UBYTE, _P_UBYTE, _P_UBYTE]),
    "NKRGetSerialNumber": (c_int, [c_int, POINTER(NKR_SN)]),
    "NKRSetID": (c_int, [c_int, NKR_ID]),
    "NKRGetType": (c_int, [c_int, POINTER(NKR_TYPE)]),
    "NKRGetBLEName": (c_int, [c_int, c_void_p]),
    "NKRSetBLEName": (c_int, [c_int, NKR_BLE_NAME]),
    "NKRGetBatteryInfo": (c_int, [c_int, POINTER(NKR_BATTERY_INFO)]),
    "NKRSetShippingMode": (c_int, [c_int]),
    "NKRGetLedState": (c_int, [c_int, _P_BOOL]),
    "NKRSetLedState": (c_int, [c_int, c_bool]),
    "NKRGetErrorCode": (c_int, [c_int, POINTER(NKR_ERROR_MSG)]),
    "NKRGetReason": (c_int, [c_int, _P_INT]),
    "NKRGetNumOfControls": (c_int, [c_int, _P_INT]),
    "NKRGetControlCaps": (c_int, [c_int, c_int, POINTER(NKR_CONTROL_CAPS)]),
    "NKRHidStartUpdate": (c_int, [c_int]),
    "NKRHidWriteUpdateFile": (c_int, [c_int, NKR_HID_FILE_BUF]),
    "NKRHidEndUpdate": (c_int, [c_int]),
    "NKRBLEStartUpdate": (c_int, [c_int, c_int]),
    "NKRBLEWriteUpdateFile": (c_int, [c_int, NKR_BLE_FILE_BUF]),
    "NKRBLEScan": (c_int, [c_int, POINTER(BLE_DEVICE_INFO), c_int, _P_INT]),
    "NKRBLEConnect": (c_int, [c_char_p, c_char_p, _P_INT]),
    "NKRBLEDisconnect": (c_int, [c_int]),
    "NKRBLEPair": (c_int, [c_int]),
    "NKRBLEClearPair": (c_int, [c_int]),
    "NKRBLERegPairStateCallback": (c_int, [c_int, PAIR_STATE_CALLBACK]),
    "NKRBLERegConnStateCallback": (c_int, [c_int, CONN_STATE_CALLBACK]),
    "NKRBLEgetAllInfo": (c_int, [c_int, POINTER(NKR_ALL_INFO)]),
}

_lock = threading.Lock()
_library: ctypes.CDLL | None = None
_library_path: str | None = None


def candidates() -> list[str]:
    """Where the SDK library is looked for, in order: NKR_LIBRARY, the installed
    path, then the loader's own search by name."""
    found: list[str] = []
    env = os.environ.get("NKR_LIBRARY")
    if env:
        found.append(env)
    if _paths.LIBRARY:
        found.append(_paths.LIBRARY)
    found.append(LIBRARY_SONAME)
    by_name = ctypes.util.find_library("NKR_focuser")
    if by_name and by_name not in found:
        found.append(by_name)
    return found


def _bind(library: ctypes.CDLL) -> None:
    for name, (result, arguments) in PROTOTYPES.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments


def load() -> ctypes.CDLL:
    """The loaded SDK library, loading it on the first call."""
    global _library, _library_path
    if _library is not None:
        return _library
    with _lock:
        if _library is not None:
            return _library
        tried: list[str] = []
        for candidate in candidates():
            try:
                library = ctypes.CDLL(candidate)
            except OSError as error:
                tried.append(f"{candidate} ({error})")
                continue
            try:
                _bind(library)
            except AttributeError as error:
                tried.append(f"{candidate} (not the NKR focuser SDK: {error})")
                continue
            _library_path = candidate
            _library = library
            return library
        raise LibraryNotFoundError(
            "cannot load the NKR focuser SDK library; tried:\n  " + "\n  ".join(tried) +
            "\nInstall the SDK (cmake --install), or set NKR_LIBRARY to the path of libNKR_focuser.so.1")


def is_loaded() -> bool:
    return _library is not None


def loaded_path() -> str | None:
    """The name or path the SDK library was loaded from, or None before the first call."""
    return _library_path
