"""Plain records that the package hands out."""
from __future__ import annotations

from dataclasses import dataclass
from typing import NamedTuple


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


class TempComp(NamedTuple):
    """Temperature compensation settings of a unit (``Focuser.temp_comp``)."""

    enabled: bool
    coefficient: float  # steps per degree Celsius, signed
    deadband: float     # degrees Celsius


class Approach(NamedTuple):
    """Final approach of a unit (``Focuser.approach``)."""

    enabled: bool
    direction: int  # +1: every move ends moving outward; -1: inward
    overshoot: int  # steps past the target before coming back


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
