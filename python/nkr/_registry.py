"""Finding and opening USB units; the Focusers this process holds open.

NKRGetNum, NKRGetID and NKROpen must run on one thread at a time: every path
to them here takes _scan_lock.
"""
from __future__ import annotations

import atexit
import re
import threading
from ctypes import byref, c_int
from typing import Any

from . import _checks, _library
from ._records import BLE_FIRST_ID
from ._types import UnitInfo
from .errors import NKRError, NotSupportedError, UnitNotFoundError, check
from .focuser import Focuser, alias_from_name

_scan_lock = threading.RLock()
_open_lock = threading.Lock()
_open: dict[int, Focuser] = {}


def remember(focuser: Focuser) -> None:
    with _open_lock:
        _open[focuser.id] = focuser


def forget(focuser: Focuser) -> None:
    with _open_lock:
        if _open.get(focuser.id) is focuser:
            del _open[focuser.id]


def open_focuser(unit_id: int) -> Focuser | None:
    with _open_lock:
        return _open.get(unit_id)


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


def scan_usb() -> list[int]:
    """Scans the USB bus; the slot ids of the units found."""
    library = _library.load()
    ids: list[int] = []
    with _scan_lock:
        count = library.NKRGetNum()
        for index in range(count):
            slot = c_int(-1)
            if library.NKRGetID(index, byref(slot)) == 0 and slot.value >= 0:
                ids.append(slot.value)
    return ids


def open_usb_slot(unit_id: int) -> Focuser:
    with _scan_lock:
        if open_focuser(unit_id) is not None:
            raise RuntimeError(f"USB unit {unit_id} is already open in this process; use that Focuser")
        check(_library.load().NKROpen(unit_id), "NKROpen")
        focuser = Focuser(unit_id, "usb")
        remember(focuser)
    focuser.step_range  # noqa: B018  (cached for the argument checks)
    return focuser


def _optional(read: Any) -> Any:
    try:
        return read()
    except NotSupportedError:
        return None


def describe(focuser: Focuser) -> UnitInfo:
    name = focuser.name
    return UnitInfo(id=focuser.id, name=name, alias=alias_from_name(name),
                    serial=_optional(lambda: focuser.serial), firmware=focuser.firmware,
                    model=_optional(lambda: focuser.model), link=focuser.link)


def describe_usb(unit_id: int) -> UnitInfo:
    held = open_focuser(unit_id)
    if held is not None:
        return describe(held)
    unknown = UnitInfo(id=unit_id, name="", alias="", serial=None, firmware=None, model=None, link="usb")
    try:
        focuser = open_usb_slot(unit_id)
    except NKRError:  # listed but not openable (permissions, just unplugged): still listed
        return unknown
    try:
        return describe(focuser)
    except NKRError:
        return unknown
    finally:
        try:
            focuser.close()
        except NKRError:
            pass


def _serial_key(text: str) -> str:
    return re.sub(r"[^0-9a-f]", "", text.lower())


def open_unit(target: int | str) -> Focuser:
    """nkr.open(): a USB slot id, or a serial number or alias."""
    if isinstance(target, str):
        if not target:
            raise ValueError("give a slot id, a serial number or an alias, not an empty text")
        with _scan_lock:
            listed = [describe_usb(slot) for slot in scan_usb()]
            wanted = _serial_key(target)
            for info in listed:
                if info.alias == target or (info.serial and wanted and _serial_key(info.serial) == wanted):
                    assert info.id is not None
                    return open_usb_slot(info.id)
        seen = ", ".join(f"{u.id}: serial {u.serial}, alias {u.alias!r}" for u in listed) or "no units"
        raise UnitNotFoundError(f"no USB focuser has the serial number or alias {target!r} (found {seen})")
    unit_id = _checks.integer("unit id", target)
    if unit_id >= BLE_FIRST_ID:
        raise ValueError(f"{unit_id} is a Bluetooth slot id; connect Bluetooth units with nkr.ble.connect(name)")
    _checks.integer("unit id", unit_id, 0, BLE_FIRST_ID - 1)
    with _scan_lock:
        scan_usb()  # the SDK learns of units only by a scan
        return open_usb_slot(unit_id)
