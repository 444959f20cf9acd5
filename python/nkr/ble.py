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

from . import _checks, _library, _registry
from ._records import BLE_DEVICE_INFO, text_of
from ._types import BleUnit
from .errors import NKRError, UnitNotFoundError, check
from .focuser import Focuser

# The Bluetooth helper takes the scan time in milliseconds.
_SCAN_UNITS_PER_SECOND = 1000
_SCAN_CAPACITY = 32

__all__ = ["BleUnit", "scan", "connect"]


def scan(seconds: float = 3.0) -> list[BleUnit]:
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


def connect(name: str, *, pair: bool = True, scan_seconds: float = 3.0) -> Focuser:
    """Connects a Bluetooth unit and returns it as a Focuser.

    Args:
        name: the unit's advertised name (e.g. "NKR Pro_A1B2") or its address
            (case ignored), as ``scan()`` lists them.
        pair: pair with this computer after connecting (needed on first use).
            When pairing fails the unit is disconnected and BlePairError or
            BlePairRefusedError raised.
        scan_seconds: how long to scan for the unit first.

    Raises:
        UnitNotFoundError: no unit of that name or address in range.
        BleConnectError: the connection could not be made.
    """
    wanted = _checks.ascii_text("name", name, 63, allow_empty=False).decode("ascii")
    pair = _checks.flag("pair", pair)
    units = scan(scan_seconds)
    match = next((u for u in units if u.name == wanted or u.address.lower() == wanted.lower()), None)
    if match is None:
        seen = ", ".join(f"{u.name} [{u.address}]" for u in units) or "none"
        raise UnitNotFoundError(f"no Bluetooth focuser named {wanted!r} in range (seen: {seen})")
    unit_id = connect_unit(match)
    focuser = Focuser(unit_id, "ble", ble_name=match.name, ble_address=match.address)
    _registry.remember(focuser)
    if pair:
        try:
            focuser.pair()
        except NKRError:
            _registry.forget(focuser)
            focuser._open = False  # the SDK has disconnected it
            _library.load().NKRBLEDisconnect(unit_id)  # frees the slot; its result adds nothing
            raise
    focuser.step_range  # noqa: B018  (cached for the argument checks)
    return focuser


def connect_unit(unit: BleUnit) -> int:
    """NKRBLEConnect for a scanned unit; its new slot id."""
    unit_id = c_int(-1)
    check(_library.load().NKRBLEConnect(unit.name.encode(), unit.address.encode(), byref(unit_id)),
          "NKRBLEConnect")
    return unit_id.value
