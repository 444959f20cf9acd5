"""Electronic focusers from Python: the NKR focuser SDK over ctypes.

    import nkr

    nkr.simulate()                 # optional: simulated units instead of hardware
    for unit in nkr.units():
        print(unit.id, unit.name, unit.serial, unit.firmware, unit.model)
    with nkr.open(0) as focuser:   # closing saves the position, even on an exception
        focuser.move_to(12000, timeout=30)
        print(focuser.position, focuser.temperature)

The SDK library ``libNKR_focuser.so.1`` is loaded on the first call that needs
it, from NKR_LIBRARY, the path ``cmake --install`` recorded, or the dynamic
loader's search. ``NKR_SIMULATE=1`` in the environment runs against the
simulator as if ``simulate()`` had been called at import. Failures the SDK
reports raise NKRError subclasses; bad arguments raise ValueError or TypeError
before the SDK is called.
"""
from __future__ import annotations

from ctypes import byref, c_int

from . import _library, _registry, ble
from ._types import AllInfo, Battery, BleUnit, Control, FirmwareVersion, UnitInfo
from .errors import *  # noqa: F401,F403  (every error class is part of the package's surface)
from .errors import __all__ as _error_names
from .focuser import Focuser
from .simulation import simulate, simulated

__version__ = "1.7.7"

__all__ = [
    "AllInfo", "Battery", "BleUnit", "Control", "FirmwareVersion", "Focuser", "UnitInfo",
    "ble", "is_focuser", "library_path", "open", "product_id", "sdk_version", "simulate",
    "simulated", "units", *_error_names,
]


def units(ble_seconds: float | None = None) -> list[UnitInfo]:
    """Lists the units present: id, name, alias, serial, firmware, model, link.

    USB units are scanned, and each one that this process has not open is
    opened briefly to read its identity and closed again (like every close,
    that writes the SDK's saved record in ``$HOME/.HTX``). With ble_seconds,
    Bluetooth units in range are scanned for that long and listed too, with
    id None (connect one with ``nkr.ble.connect(name)``) and their address.
    """
    listed: list[UnitInfo] = []
    with _registry._scan_lock:
        for slot in _registry.scan_usb():
            listed.append(_registry.describe_usb(slot))
    if ble_seconds is not None:
        for found in ble.scan(ble_seconds):
            listed.append(UnitInfo(id=None, name=found.name, alias="", serial=None, firmware=None,
                                   model=None, link="ble", address=found.address))
    return listed


def open(unit: int | str = 0) -> Focuser:  # noqa: A001  (nkr.open reads like the builtin on purpose)
    """Opens a USB unit and returns it as a Focuser (a context manager).

    Args:
        unit: the slot id from ``units()``, or the unit's serial number
            (16 hex digits; case and separators ignored) or alias.

    Raises:
        InvalidIdError: no unit with that slot id.
        RemovedError: the unit is listed but could not be opened (permissions,
            unplugged).
        UnitNotFoundError: no unit with that serial number or alias.
        RuntimeError: this process has that unit open already.
    """
    return _registry.open_unit(unit)


def sdk_version() -> str:
    """The SDK's version text, "1, 7, 7, 0"."""
    raw = _library.load().NKRGetSDKVersion()
    return raw.decode("ascii", "replace") if raw else ""


def is_focuser(vid: int, pid: int) -> bool:
    """True when a USB vendor and product id are the focuser's."""
    from . import _checks
    vendor = _checks.integer("vid", vid, 0, 0xFFFF)
    product = _checks.integer("pid", pid, 0, 0xFFFF)
    return _library.load().NKRCheck(vendor, product) == 1


def product_id() -> int:
    """The focuser's USB product id."""
    pid = c_int(0)
    _library.load().NKRGetProductIDs(byref(pid))
    return pid.value


def library_path() -> str:
    """Where the SDK library was loaded from (loading it if needed)."""
    _library.load()
    return _library.loaded_path() or ""


from .simulation import simulate_from_environment as _simulate_from_environment  # noqa: E402

_simulate_from_environment()
