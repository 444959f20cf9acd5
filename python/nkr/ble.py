"""Bluetooth LE units (the battery-powered model).

Calling order: ``scan()`` to see what is in range, ``connect(name)`` to get a
Focuser (it pairs on the way unless told not to), use it, close it (which
disconnects)::

    for unit in nkr.ble.scan(3):
        print(unit.name, unit.address)
    with nkr.ble.connect("NKR Pro_A1B2") as focuser:
        print(focuser.battery.percentage)
"""
from __future__ import annotations

from ctypes import byref, c_int

from . import _checks, _host, _library, _registry
from ._records import BLE_DEVICE_INFO, text_of
from ._types import BleUnit
from .errors import UnitNotFoundError, check
from .focuser import Focuser

# The Bluetooth helper takes the scan time in milliseconds.
_SCAN_UNITS_PER_SECOND = 1000
_SCAN_CAPACITY = 32

__all__ = ["BleUnit", "scan", "connect"]


def scan(seconds: float = 4.0) -> list[BleUnit]:
    """Scans for Bluetooth units for about ``seconds`` (0.001..60).

    Raises:
        BleUnsupportedError: this computer has no Bluetooth LE, or the
            Bluetooth helper library (NKR_BLE_HELPER) is missing.
    """
    duration = _checks.seconds("seconds", seconds, allow_none=False)
    assert duration is not None
    if not 0.001 <= duration <= 60:
        raise ValueError(f"seconds must be in 0.001..60, not {seconds}")
    found = (BLE_DEVICE_INFO * _SCAN_CAPACITY)()
    count = c_int(0)
    check(_library.load().NKRBLEScan(int(duration * _SCAN_UNITS_PER_SECOND), found, _SCAN_CAPACITY,
                                     byref(count)), "NKRBLEScan")
    return [BleUnit(text_of(found[k].Name), text_of(found[k].Address))
            for k in range(min(count.value, _SCAN_CAPACITY))]


def connect(name: str, *, pair: bool = True, scan_seconds: float = 4.0) -> Focuser:
    """Connects a Bluetooth unit and returns it as a Focuser.

    Args:
        name: the unit's advertised name (e.g. "NKR Pro_A1B2"), the unique
            beginning of one ("NKR Pro" when only one unit's name starts so),
            or its address (case ignored): the naming rule of every front-end.
        pair: pair with this computer after connecting (needed on first use).
            When pairing fails the unit is disconnected and BlePairError or
            BlePairRefusedError raised. Without pairing only an exact name or
            address is taken.
        scan_seconds: how long to scan for the unit first.

    Raises:
        UnitNotFoundError: no unit of that name or address in range (the
            message lists what was seen); UnitAmbiguousError: several.
        BleConnectError: the connection could not be made.
    """
    wanted = _checks.ascii_text("name", name, 63, allow_empty=False).decode("ascii")
    pair = _checks.flag("pair", pair)
    seconds = _checks.seconds("scan_seconds", scan_seconds, allow_none=False)
    if pair:
        return _registry.open_named(wanted, 2, seconds)
    units = scan(seconds or 4.0)
    match = next((u for u in units if u.name == wanted or u.address.lower() == wanted.lower()), None)
    if match is None:
        seen = ", ".join(f"{u.name} [{u.address}]" for u in units) or "none"
        raise UnitNotFoundError("", None, f"no focuser answers to {wanted!r} (seen: {seen})")
    unit_id = c_int(-1)
    check(_library.load().NKRBLEConnect(match.name.encode(), match.address.encode(), byref(unit_id)),
          "NKRBLEConnect")
    focuser = Focuser(_host.load().nkr_host_adopt(unit_id.value, 1) or 0)
    _registry.remember(focuser)
    focuser.step_range  # noqa: B018  (cached for the argument checks)
    return focuser
