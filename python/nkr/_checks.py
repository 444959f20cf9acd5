"""Argument checks done in Python before any SDK call."""
from __future__ import annotations

import numbers
from typing import Any


def integer(name: str, value: Any, low: int | None = None, high: int | None = None) -> int:
    """value as int; TypeError for a non-integer (bool included), ValueError outside low..high."""
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    number = int(value)
    if (low is not None and number < low) or (high is not None and number > high):
        raise ValueError(f"{name} must be in {low}..{high}, not {number}")
    return number


def flag(name: str, value: Any) -> bool:
    """value as bool; TypeError for anything but a bool (or the ints 0 and 1)."""
    if isinstance(value, bool):
        return value
    if isinstance(value, numbers.Integral) and int(value) in (0, 1):
        return bool(value)
    raise TypeError(f"{name} must be a bool, not {type(value).__name__}")


def real(name: str, value: Any) -> float:
    """value as float; TypeError for anything but a number (bool excluded), ValueError for NaN or infinity."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number, not {type(value).__name__}")
    number = float(value)
    if number != number or number in (float("inf"), float("-inf")):
        raise ValueError(f"{name} must be a finite number, not {value}")
    return number


def text(name: str, value: Any) -> str:
    """value as str; TypeError for anything else."""
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str, not {type(value).__name__}")
    return value


def seconds(name: str, value: Any, allow_none: bool = True) -> float | None:
    """A duration in seconds (>= 0); None when allowed."""
    if value is None and allow_none:
        return None
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number of seconds, not {type(value).__name__}")
    number = float(value)
    if number < 0 or number != number:
        raise ValueError(f"{name} must be 0 or more seconds, not {value}")
    return number


def ascii_text(name: str, value: Any, max_bytes: int, allow_empty: bool = True) -> bytes:
    """A short ASCII text as bytes; TypeError/ValueError for anything else."""
    if isinstance(value, str):
        try:
            raw = value.encode("ascii")
        except UnicodeEncodeError:
            raise ValueError(f"{name} must be ASCII text, not {value!r}") from None
    elif isinstance(value, (bytes, bytearray)):
        raw = bytes(value)
    else:
        raise TypeError(f"{name} must be a str, not {type(value).__name__}")
    if b"\0" in raw:
        raise ValueError(f"{name} must not contain NUL characters")
    if len(raw) > max_bytes:
        raise ValueError(f"{name} has at most {max_bytes} characters, {value!r} has {len(raw)}")
    if not raw and not allow_empty:
        raise ValueError(f"{name} must not be empty")
    return raw
