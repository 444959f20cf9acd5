"""Every failure the SDK and the host layer report, as exceptions.

The classes come from one list, ``error_catalogue.json`` (the same the C++
host library is built from), so a code has the same name, text and kind in
every front-end. They are grouped in families by kind, so a script can catch
as narrowly or broadly as it needs::

    try:
        focuser.move_to(12000)
    except nkr.BeyondLimitError as e:   # one code
        print(e)                         # the sentence every front-end gives
    except nkr.BusyError:                # a kind: the motor moves, the unit is held
        ...
    except nkr.NKRError as e:            # anything the SDK or the host reported
        print(e.code, e.name, e.kind)

Families by kind: InvalidArgumentError (also a ValueError), NotSupportedError,
BusyError and RefusedError (both UnitStateError), UnitUnavailableError (the
unit is gone), CommunicationError (a transfer failed); BluetoothError is an
extra base of the Bluetooth codes (50 and up).
"""
from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any, NoReturn


class NKRError(Exception):
    """A result code of the SDK or the host layer.

    Attributes:
        code: the numeric code.
        name: its name, e.g. ``"NKR_ERROR_MOVING"`` or ``"NKR_HOST_BEYOND_LIMIT"``.
        text: what the code means, one line.
        kind: "bad argument", "not supported", "busy", "link lost",
            "refused by the unit" or "internal".
        operation: the call that returned it, e.g. ``"NKRMove"`` ("" when the
            message says it all).
    """

    code: int = -1
    name: str = "NKR_ERROR_UNKNOWN"
    text: str = "a code this program does not know"
    kind: str = "internal"

    def __init__(self, operation: str = "", code: int | None = None, message: str | None = None) -> None:
        if code is not None:
            self.code = code
        self.operation = operation
        if message is None:
            where = f"{operation}: " if operation else ""
            message = f"{where}{self.name} ({self.code}): {self.text}"
        super().__init__(message)


# ---- families, one per kind -----------------------------------------------------------
class InvalidArgumentError(NKRError, ValueError):
    """The request itself is wrong: a value, a name, a limit."""

    kind = "bad argument"


class NotSupportedError(NKRError):
    """The unit or this computer cannot do it."""

    kind = "not supported"


class UnitStateError(NKRError):
    """The unit's state prevents the operation (busy, or refused by the unit)."""


class BusyError(UnitStateError):
    """Not now: the motor moves, or another program holds the unit."""

    kind = "busy"


class RefusedError(UnitStateError):
    """The unit answered and said no."""

    kind = "refused by the unit"


class UnitUnavailableError(NKRError):
    """The unit is gone: unplugged, switched off, out of reach, or not open."""

    kind = "link lost"


class CommunicationError(NKRError):
    """A transfer failed, an answer made no sense, or time ran out."""

    kind = "internal"


class BluetoothError(NKRError):
    """A code of the Bluetooth link (50 and up)."""


_FAMILIES: dict[str, type[NKRError]] = {
    "bad_argument": InvalidArgumentError,
    "not_supported": NotSupportedError,
    "busy": BusyError,
    "link_lost": UnitUnavailableError,
    "refused": RefusedError,
    "internal": CommunicationError,
}

_KIND_TEXT = {"bad_argument": "bad argument", "not_supported": "not supported", "busy": "busy",
              "link_lost": "link lost", "refused": "refused by the unit", "internal": "internal"}


def _class_name(name: str) -> str:
    """NKR_ERROR_BLE_PAIR_REFUSED -> BlePairRefusedError, NKR_HOST_BEYOND_LIMIT -> BeyondLimitError."""
    stem = re.sub(r"^NKR_(ERROR|HOST)_", "", name)
    return "".join(word.capitalize() for word in stem.split("_")) + "Error"


def _load_catalogue() -> list[dict[str, Any]]:
    path = Path(__file__).with_name("error_catalogue.json")
    with open(path, encoding="utf-8") as file:
        return list(json.load(file)["errors"])


#: Every code of the catalogue and its class.
ERROR_CLASSES: dict[int, type[NKRError]] = {}
_generated: list[str] = []

for _entry in _load_catalogue():
    if _entry["code"] == 0:
        continue
    _name = _class_name(_entry["name"])
    _family = _FAMILIES[_entry["kind"]]
    _attributes = {"code": _entry["code"], "name": _entry["name"], "text": _entry["text"],
                   "kind": _KIND_TEXT[_entry["kind"]],
                   "__doc__": f"{_entry['name']} ({_entry['code']}): {_entry['text']}.",
                   "__module__": __name__}
    if _name == _family.__name__:  # the family's own code (NotSupportedError is code 8)
        for _key, _value in _attributes.items():
            setattr(_family, _key, _value)
        ERROR_CLASSES[_entry["code"]] = _family
        continue
    _bases: tuple[type, ...] = (_family,)
    if 50 <= _entry["code"] < 100:
        _bases += (BluetoothError,)
    if _entry["name"] == "NKR_HOST_UNIT_NOT_FOUND":
        _bases += (LookupError,)
    if _entry["name"] == "NKR_HOST_TIMED_OUT":
        _bases += (TimeoutError,)
    _cls = type(_name, _bases, _attributes)
    globals()[_name] = _cls
    _generated.append(_name)
    ERROR_CLASSES[_entry["code"]] = _cls


class MoveTimeoutError(globals()["TimedOutError"]):  # type: ignore[misc]
    """A move did not end within its time-out; the motor was told to stop.

    Attributes:
        position: where the unit stood after the stop (None when unknown).
        target: where it was going.
    """

    def __init__(self, message: str, position: int | None, target: int) -> None:
        super().__init__("", None, message)
        self.position = position
        self.target = target


SUCCESS = 0


def error_for(code: int, operation: str = "", message: str | None = None) -> NKRError:
    """The exception for a result code, with the host's sentence when there is one."""
    cls = ERROR_CLASSES.get(code)
    if cls is None:
        return NKRError(operation, code, message)
    return cls(operation, None, message or None)


def raise_for(code: int, operation: str, message: str | None = None) -> NoReturn:
    raise error_for(code, operation, message)


def check(code: int, operation: str) -> None:
    """Raises the matching NKRError unless code is 0."""
    if code != SUCCESS:
        raise error_for(code, operation)


# ---- failures on the Python side ---------------------------------------------------
class LibraryNotFoundError(OSError):
    """libNKR_focuser.so (or the simulator, or the host library) could not be loaded; the message lists what was tried."""


class SimulationError(RuntimeError):
    """simulate() cannot take effect (the SDK is already loaded, or the simulator is missing)."""


__all__ = [
    "NKRError", "InvalidArgumentError", "NotSupportedError", "UnitStateError", "BusyError", "RefusedError",
    "UnitUnavailableError", "CommunicationError", "BluetoothError", *_generated, "MoveTimeoutError",
    "LibraryNotFoundError", "SimulationError", "ERROR_CLASSES", "check", "error_for",
]
