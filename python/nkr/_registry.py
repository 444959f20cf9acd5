"""Opening units through the host layer's one naming rule; the Focusers this
process holds open (closed at exit, so their positions are saved)."""
from __future__ import annotations

import atexit
import json
import threading
from ctypes import byref, c_void_p

from . import _checks, _host
from ._types import FirmwareVersion, UnitInfo
from .errors import NKRError
from .focuser import Focuser

_open_lock = threading.Lock()
_open: dict[int, Focuser] = {}


def remember(focuser: Focuser) -> None:
    with _open_lock:
        _open[focuser.id] = focuser


def forget(focuser: Focuser) -> None:
    with _open_lock:
        if _open.get(focuser.id) is focuser:
            del _open[focuser.id]


@atexit.register
def _close_all() -> None:
    """Closes what the script left open, so its position is saved."""
    with _open_lock:
        left = list(_open.values())
    for focuser in left:
        try:
            focuser.close()
        except NKRError:
            pass


def open_named(name: str, bluetooth: int, scan_seconds: float | None = None) -> Focuser:
    """The unit the host layer finds for a name (0: USB only, 1: USB then
    Bluetooth, 2: Bluetooth only), opened (connected and paired over Bluetooth)."""
    handle = c_void_p()
    scan_ms = int(scan_seconds * 1000) if scan_seconds else 0
    _host.call("nkr_host_open", name.encode("utf-8"), bluetooth, scan_ms, byref(handle))
    focuser = Focuser(handle.value or 0)
    with _open_lock:
        if focuser.id in _open:
            # Two Focusers of one slot would close it under each other.
            _host.load().nkr_host_free(handle, 0)
            raise RuntimeError(f"unit {name!r} is already open in this process as {_open[focuser.id]!r}; use that Focuser")
        _open[focuser.id] = focuser
    focuser.step_range  # noqa: B018  (cached for the argument checks)
    return focuser


def open_unit(target: int | str) -> Focuser:
    """nkr.open(): a slot id, a serial number, an alias, a Bluetooth name,
    address or the unique beginning of a Bluetooth name."""
    if isinstance(target, str):
        if not target.strip():
            raise ValueError("give a slot id, a serial number, an alias or a Bluetooth name, not an empty text")
        return open_named(target, 1)
    return open_named(str(_checks.integer("unit id", target)), 0)


def inventory(ble_seconds: float | None) -> list[UnitInfo]:
    scan_ms = int(ble_seconds * 1000) if ble_seconds else 0
    listed: list[UnitInfo] = []
    for unit in json.loads(_host.text("nkr_host_inventory_json", scan_ms)):
        firmware = None
        if unit["firmware"]:
            major, minor, build = (int(p) for p in unit["firmware"].split("."))
            firmware = FirmwareVersion(major, minor, build)
        if unit["link"] == "ble":
            listed.append(UnitInfo(id=None, name=unit["ble_name"], alias="", serial=None, firmware=None,
                                   model=None, link="ble", address=unit["ble_address"]))
        else:
            listed.append(UnitInfo(id=unit["slot"], name=unit["name"] or "", alias=unit["alias"] or "",
                                   serial=unit["serial"], firmware=firmware, model=unit["model"], link="usb"))
    return listed
