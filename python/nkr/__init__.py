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
from typing import Any

from . import _host, _library, _registry, ble
from ._types import AllInfo, Approach, Battery, BleUnit, Control, FirmwareVersion, Fit, TempComp, UnitInfo
from .errors import *  # noqa: F401,F403  (every error class is part of the package's surface)
from .errors import __all__ as _error_names
from .focuser import Focuser
from .simulation import simulate, simulated

__version__ = "1.7.7"

__all__ = [
    "AllInfo", "Approach", "Battery", "BleUnit", "Control", "FirmwareVersion", "Fit", "Focuser", "TempComp",
    "UnitInfo", "ble", "fit_temp_coefficient", "is_focuser", "library_path", "open", "product_id",
    "sdk_version", "simulate", "simulated", "units", *_error_names,
]


def units(ble_seconds: float | None = None) -> list[UnitInfo]:
    """Lists the units present: id, name, alias, serial, firmware, model, link.

    USB units are identified (each one is opened to be read, and left open:
    closing would stop a move another program runs). With ble_seconds,
    Bluetooth units in range are scanned for that long and listed too, with
    id None (connect one with ``nkr.ble.connect(name)``) and their address.
    """
    return _registry.inventory(ble_seconds)


def open(unit: int | str = 0) -> Focuser:  # noqa: A001  (nkr.open reads like the builtin on purpose)
    """Opens a unit and returns it as a Focuser (a context manager).

    Args:
        unit: the slot id from ``units()``, the unit's serial number (16 hex
            digits; case and separators ignored), its alias, or a Bluetooth
            unit's name, address or the unique beginning of its name (then it
            is found by a scan, connected and paired). The same naming rule as
            every front-end.

    Raises:
        UnitNotFoundError: no unit answers to the name (the message lists what
            was seen); UnitAmbiguousError: several do.
        RemovedError: the unit is listed but could not be opened (permissions,
            unplugged).
        RuntimeError: this process has that unit open already.
    """
    return _registry.open_unit(unit)


def fit_temp_coefficient(rows: Any) -> Fit:
    """Fits the temperature coefficient (steps per degree C) to focus runs,
    with a fit that wild runs do not drag (they are rejected).

    Args:
        rows: an iterable of (temperature_c, position) pairs, or of mappings
            with the keys ``temperature_c`` and ``position`` (the rows of a CSV
            file written by ``examples/python/temperature_logger.py`` read with
            ``csv.DictReader``).
    """
    import ctypes
    temperatures: list[float] = []
    positions: list[float] = []
    for row in rows:
        if isinstance(row, dict):
            temperatures.append(float(row["temperature_c"]))
            positions.append(float(row["position"]))
        else:
            t, p = row
            temperatures.append(float(t))
            positions.append(float(p))
    n = len(temperatures)
    ts = (ctypes.c_double * max(n, 1))(*temperatures)
    ps = (ctypes.c_double * max(n, 1))(*positions)
    kept = (ctypes.c_ubyte * max(n, 1))()
    coefficient, r2 = ctypes.c_double(), ctypes.c_double()
    used, rejected = ctypes.c_int(), ctypes.c_int()
    _host.call("nkr_host_fit_temperature", ts, ps, n, ctypes.byref(coefficient), ctypes.byref(r2),
               ctypes.byref(used), ctypes.byref(rejected), kept)
    return Fit(coefficient.value, r2.value, used.value, rejected.value, tuple(bool(k) for k in kept[:n]))


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
