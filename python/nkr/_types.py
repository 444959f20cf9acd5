"""Plain records that the package hands out."""
from __future__ import annotations

from dataclasses import dataclass
from typing import Any, NamedTuple

from . import _checks


class FirmwareVersion(NamedTuple):
    """A firmware version; ``str()`` gives "3.8.2"."""

    major: int
    minor: int
    build: int

    def __str__(self) -> str:
        return f"{self.major}.{self.minor}.{self.build}"


@dataclass(frozen=True)
class UnitInfo:
    """One unit present, as listed by ``nkr.units()``.

    ``id`` is the USB slot id to pass to ``nkr.open()`` (None for a Bluetooth
    unit, which gets its id when connected). Fields the unit does not report
    (older firmware) or that could not be read are None.
    """

    id: int | None
    name: str
    alias: str
    serial: str | None
    firmware: FirmwareVersion | None
    model: str | None
    link: str  # "usb" or "ble"
    address: str | None = None  # Bluetooth address


@dataclass(frozen=True)
class Battery:
    """Battery block of the battery-powered model, in the firmware's units."""

    temperature: int  # degrees Celsius
    voltage: int
    charge_current: int
    percentage: int
    discharge_current: int
    health: int
    charge_voltage: int


@dataclass(frozen=True)
class Control:
    """One optional feature of a unit (``Focuser.controls``)."""

    type: int  # feature id, 0..7
    name: str
    description: str
    supported: bool
    writable: bool


@dataclass(frozen=True)
class AllInfo:
    """Everything a Bluetooth unit reports in one request (``Focuser.all_info``)."""

    moving: bool
    backlash: int
    position: int
    temperature: float
    beep: bool
    reverse: bool
    hand_moving: bool
    hand_control: bool
    max_step: int
    ble_control: bool
    motor_error: str
    battery_error: str
    battery: Battery


_MISSING: Any = object()


def _keywords_only(example: str, args: tuple[Any, ...], **required: Any) -> None:
    """The settings records take keywords only: their field order is easy to mix up."""
    name = example.split("(")[0]
    if args:
        raise TypeError(f"{name} takes keywords only, as in {example}")
    missing = [key for key, value in required.items() if value is _MISSING]
    if missing:
        raise TypeError(f"{name} needs {' and '.join(missing)}, as in {example}")


class _TempCompFields(NamedTuple):
    enabled: bool
    coefficient: float  # steps per degree Celsius, signed
    deadband: float     # degrees Celsius


class TempComp(_TempCompFields):
    """Temperature compensation settings of a unit (``Focuser.temp_comp``).

    Built with keywords only, so no order can be mixed up:
    ``TempComp(enabled=True, coefficient=-3.0, deadband=0.5)``.
    """

    __slots__ = ()

    def __new__(cls, *args: Any, enabled: bool = True, coefficient: Any = _MISSING,
                deadband: Any = _MISSING) -> TempComp:
        _keywords_only("TempComp(enabled=True, coefficient=-3.0, deadband=0.5)", args,
                       coefficient=coefficient, deadband=deadband)
        return super().__new__(cls, _checks.flag("enabled", enabled), _checks.real("coefficient", coefficient),
                               _checks.real("deadband", deadband))

    def __getnewargs_ex__(self) -> tuple[tuple[()], dict[str, Any]]:  # copy and pickle by keyword
        return (), dict(self._asdict())


class _ApproachFields(NamedTuple):
    enabled: bool
    direction: int  # +1: every move ends moving outward; -1: inward
    overshoot: int  # steps past the target before coming back


class Approach(_ApproachFields):
    """Final approach of a unit (``Focuser.approach``).

    Built with keywords only: ``Approach(direction="out", overshoot=200)``;
    direction is "out" or "in" (or +1 / -1, as it reads back).
    """

    __slots__ = ()

    def __new__(cls, *args: Any, enabled: bool = True, direction: Any = _MISSING, overshoot: Any = _MISSING) -> Approach:
        _keywords_only('Approach(direction="out", overshoot=200)', args, direction=direction, overshoot=overshoot)
        return super().__new__(cls, _checks.flag("enabled", enabled), direction_of(direction),
                               _checks.integer("overshoot", overshoot))

    def __getnewargs_ex__(self) -> tuple[tuple[()], dict[str, Any]]:
        return (), dict(self._asdict())


def direction_of(value: Any) -> int:
    """A final-approach direction as +1 (out) or -1 (in), from "out"/"in" or +1/-1."""
    if isinstance(value, str):
        if value.lower() in ("out", "in"):
            return 1 if value.lower() == "out" else -1
        raise ValueError(f'direction must be "out" or "in", not {value!r}')
    if _checks.integer("direction", value) not in (1, -1):
        raise ValueError(f'direction must be "out" (+1) or "in" (-1), not {value}')
    return int(value)


class Fit(NamedTuple):
    """The temperature coefficient fitted to focus runs (``nkr.fit_temp_coefficient``)."""

    coefficient: float  # steps per degree Celsius
    r2: float
    used: int
    rejected: int
    kept: tuple[bool, ...]  # per row: used (True) or rejected


@dataclass(frozen=True)
class BleUnit:
    """A Bluetooth unit found by ``nkr.ble.scan()``."""

    name: str
    address: str
