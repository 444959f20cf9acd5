"""The Focuser: one open unit, over USB or Bluetooth."""
from __future__ import annotations

import ctypes
import threading
import time
from ctypes import byref, c_bool, c_float, c_int, c_ubyte
from types import TracebackType
from typing import Any, Callable

from . import _checks, _library
from ._records import (ALIAS_BYTES, BLE_NAME_BYTES, BLE_NAME_MAX_CHARS, NKR_ALL_INFO,
                       NKR_BATTERY_INFO, NKR_BLE_NAME, NKR_CONTROL_CAPS, NKR_ERROR_MSG, NKR_ID, NKR_INFO,
                       NKR_SN, NKR_TYPE, text_of)
from ._types import AllInfo, Battery, Control, FirmwareVersion
from .errors import MoveTimeoutError, NKRError, check

#: How often wait() asks the unit whether it still moves, in seconds.
DEFAULT_POLL = 0.05
# After a timed-out move is stopped: how long to wait for the motor to stand.
_STOP_SETTLE_SECONDS = 2.0

ProgressCallback = Callable[[int, int], None]


def _call(name: str, *args: Any) -> None:
    check(getattr(_library.load(), name)(*args), name)


def alias_from_name(name: str) -> str:
    """The alias inside a property name "NKR(alias)"; "" for a plain "NKR"."""
    start = name.find("(")
    if start >= 0 and name.endswith(")"):
        return name[start + 1:-1]
    return ""


def battery_of(record: NKR_BATTERY_INFO) -> Battery:
    return Battery(temperature=record.battery_temp, voltage=record.battery_vol,
                   charge_current=record.battery_charge_curr, percentage=record.battery_percentage,
                   discharge_current=record.battery_discharge_curr, health=record.battery_health,
                   charge_voltage=record.battery_charge_vol)


class Focuser:
    """One open focuser unit.

    Get one from ``nkr.open()`` (USB) or ``nkr.ble.connect()`` (Bluetooth) and
    use it as a context manager, so that the unit is closed, and its position
    and settings saved, however the block ends::

        with nkr.open(0) as focuser:
            focuser.move_to(12000)
            print(focuser.position, focuser.temperature)

    Every property and method is one or a few SDK calls; a failure raises the
    NKRError subclass of the SDK's code. Calls block while the SDK talks to the
    unit and release the GIL meanwhile, so other threads run on (one Focuser
    may be used from several threads).
    """

    def __init__(self, unit_id: int, link: str, ble_name: str | None = None,
                 ble_address: str | None = None) -> None:
        self._id = unit_id
        self._link = link
        self._ble_name = ble_name
        self._ble_address = ble_address
        self._open = True
        self._close_lock = threading.Lock()
        # Callbacks handed to the SDK must outlive the registration.
        self._callbacks: list[Any] = []
        # The step range, read once (it changes only with the firmware), so
        # that position arguments are checked without a library call.
        self._range: int | None = None

    # ---- identity of the session ----------------------------------------------
    @property
    def id(self) -> int:
        """The SDK slot id: 0..49 over USB, 50 and up over Bluetooth."""
        return self._id

    @property
    def link(self) -> str:
        """"usb" or "ble"."""
        return self._link

    @property
    def is_open(self) -> bool:
        return self._open

    def __repr__(self) -> str:
        state = "open" if self._open else "closed"
        label = f" {self._ble_name!r}" if self._ble_name else ""
        return f"<nkr.Focuser {self._link} id={self._id}{label} {state}>"

    # ---- closing -------------------------------------------------------------------
    def close(self) -> None:
        """Closes the unit: the SDK stops a running move and saves the position
        and settings (USB), or disconnects (Bluetooth). Closing twice is harmless."""
        from . import _registry
        with self._close_lock:
            if not self._open:
                return
            self._open = False
            _registry.forget(self)
            if self._link == "ble":
                _call("NKRBLEDisconnect", self._id)
            else:
                _call("NKRClose", self._id)

    def __enter__(self) -> Focuser:
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None,
                 traceback: TracebackType | None) -> None:
        if value is None:
            self.close()
            return
        try:  # the exception in flight is the news, not a failing close after it
            self.close()
        except NKRError:
            pass

    # ---- small read helpers --------------------------------------------------------------
    def _int(self, function: str) -> int:
        value = c_int(0)
        _call(function, self._id, byref(value))
        return value.value

    def _bool(self, function: str) -> bool:
        value = c_bool(False)
        _call(function, self._id, byref(value))
        return bool(value.value)

    # ---- motion --------------------------------------------------------------------------
    @property
    def position(self) -> int:
        """Current position in steps."""
        return self._int("NKRGetPosition")

    @property
    def moving(self) -> bool:
        """True while the motor moves (for any reason, hand controller included)."""
        moving, hand = self._moving_flags()
        return moving or hand

    @property
    def hand_moving(self) -> bool:
        """True while a move started on the hand controller runs."""
        return self._moving_flags()[1]

    def _moving_flags(self) -> tuple[bool, bool]:
        moving, hand = c_bool(False), c_bool(False)
        _call("NKRIsMoving", self._id, byref(moving), byref(hand))
        return bool(moving.value), bool(hand.value)

    @property
    def step_range(self) -> int:
        """The largest position the unit's firmware accepts (read without traffic)."""
        self._range = self._int("NKRStepRange")
        return self._range

    def _position_arg(self, name: str, value: Any) -> int:
        number = _checks.integer(name, value)
        high = self._range if self._range is not None else self.step_range
        if not 0 <= number <= high:
            raise ValueError(f"{name} must be in 0..{high} (the unit's step range), not {number}")
        return number

    def move_to(self, position: int, wait: bool = True, timeout: float | None = None,
                poll: float = DEFAULT_POLL) -> int | None:
        """Moves to an absolute position (0..step_range).

        Args:
            position: target in steps.
            wait: block until the motor stands (True), or return at once.
            timeout: with wait, the longest wait in seconds; when it passes the
                motor is stopped and MoveTimeoutError raised. None waits as long
                as the move takes.
            poll: seconds between the checks whether the motor still moves.

        Returns:
            The position reached when waiting, else None.

        Raises:
            MovingError: a move is already running.
            MoveTimeoutError: the move did not end within timeout.
        """
        target = self._position_arg("position", position)
        wait = _checks.flag("wait", wait)
        limit = _checks.seconds("timeout", timeout)
        interval = _checks.seconds("poll", poll, allow_none=False)
        _call("NKRMove", self._id, target)
        if not wait:
            return None
        if not self.wait(limit, interval):
            self.stop()
            self.wait(_STOP_SETTLE_SECONDS, interval)
            try:
                where: int | None = self.position
            except NKRError:  # the unit may be gone; the time-out is the news
                where = None
            raise MoveTimeoutError(
                f"the move to {target} did not end within {limit} s; stopped at {where}", where, target)
        return self.position

    def move_by(self, steps: int, wait: bool = True, timeout: float | None = None,
                poll: float = DEFAULT_POLL) -> int | None:
        """Moves by a number of steps (negative = inward) from the current
        position; the result must stay in 0..step_range. Otherwise as move_to."""
        delta = _checks.integer("steps", steps)
        _checks.flag("wait", wait)
        _checks.seconds("timeout", timeout)
        _checks.seconds("poll", poll, allow_none=False)
        here = self.position
        target = here + delta
        high = self._range if self._range is not None else self.step_range
        if not 0 <= target <= high:
            raise ValueError(f"moving {delta:+d} from {here} leaves the step range 0..{high}")
        return self.move_to(target, wait=wait, timeout=timeout, poll=poll)

    def stop(self) -> None:
        """Stops the motor."""
        _call("NKRStop", self._id)

    def wait(self, timeout: float | None = None, poll: float = DEFAULT_POLL) -> bool:
        """Waits until the motor stands.

        Returns:
            True once it stands; False when timeout seconds passed first (the
            motor keeps moving).
        """
        limit = _checks.seconds("timeout", timeout)
        interval = _checks.seconds("poll", poll, allow_none=False) or DEFAULT_POLL
        deadline = None if limit is None else time.monotonic() + limit
        while self.moving:
            if deadline is not None:
                left = deadline - time.monotonic()
                if left <= 0:
                    return False
                time.sleep(min(interval, left))
            else:
                time.sleep(interval)
        return True

    def sync(self, position: int) -> None:
        """Declares the current position to be ``position`` without moving."""
        _call("NKRResetPostion", self._id, self._position_arg("position", position))

    # ---- motor settings --------------------------------------------------------------------
    @property
    def temperature(self) -> float:
        """Temperature in degrees Celsius (rounded to 0.01).

        Raises GeneralError on an implausible reading."""
        value = c_float(0.0)
        _call("NKRGetTemp", self._id, byref(value))
        return round(float(value.value), 2)

    @property
    def speed(self) -> int:
        """Motor speed (set over USB only; firmware 3.3.6 and later ignores it)."""
        return self._int("NKRGetSpeed")

    @speed.setter
    def speed(self, value: int) -> None:
        _call("NKRSetSpeed", self._id, _checks.integer("speed", value, 0, 0x7FFFFFFF))

    @property
    def max_step(self) -> int:
        """The user's maximum position, 0..step_range."""
        return self._int("NKRGetMaxStep")

    @max_step.setter
    def max_step(self, value: int) -> None:
        _call("NKRSetMaxStep", self._id, self._position_arg("max_step", value))

    @property
    def backlash(self) -> int:
        """Backlash compensation, 0..255 steps."""
        return self._int("NKRGetBacklash")

    @backlash.setter
    def backlash(self, value: int) -> None:
        _call("NKRSetBacklash", self._id, _checks.integer("backlash", value, 0, 255))

    @property
    def reverse(self) -> bool:
        """Motor direction reversed."""
        return self._bool("NKRGetReverse")

    @reverse.setter
    def reverse(self, value: bool) -> None:
        _call("NKRSetReverse", self._id, _checks.flag("reverse", value))

    @property
    def beep(self) -> bool:
        """Beeper on."""
        return self._bool("NKRGetBeep")

    @beep.setter
    def beep(self, value: bool) -> None:
        _call("NKRSetBeep", self._id, _checks.flag("beep", value))

    @property
    def max_force(self) -> int:
        """Motor force, 0..15."""
        return self._int("NKRGetMaxForce")

    @max_force.setter
    def max_force(self, value: int) -> None:
        _call("NKRSetMaxForce", self._id, _checks.integer("max_force", value, 0, 15))

    # ---- identity ---------------------------------------------------------------------------
    @property
    def name(self) -> str:
        """The SDK's name of the unit: "NKR", or "NKR(alias)"."""
        record = NKR_INFO()
        _call("NKRGetProperty", self._id, byref(record))
        return text_of(record.Name)

    @property
    def alias(self) -> str:
        """The unit's alias, up to 8 ASCII characters ("" when none)."""
        return alias_from_name(self.name)

    @alias.setter
    def alias(self, value: str) -> None:
        raw = _checks.ascii_text("alias", value, ALIAS_BYTES)
        record = NKR_ID()
        ctypes.memmove(record.id, raw, len(raw))
        _call("NKRSetID", self._id, record)

    @property
    def firmware(self) -> FirmwareVersion:
        """Firmware version; ``str(focuser.firmware)`` gives "3.8.2"."""
        major, minor, build = c_ubyte(0), c_ubyte(0), c_ubyte(0)
        _call("NKRGetFirmwareVersion", self._id, byref(major), byref(minor), byref(build))
        return FirmwareVersion(major.value, minor.value, build.value)

    @property
    def serial(self) -> str:
        """Serial number, 16 upper-case hex digits (NotSupportedError before firmware 3.2.2)."""
        record = NKR_SN()
        _call("NKRGetSerialNumber", self._id, byref(record))
        return bytes(record.SN).hex().upper()

    @property
    def model(self) -> str:
        """Model type text, such as "NKR Pro"."""
        record = NKR_TYPE()
        _call("NKRGetType", self._id, byref(record))
        return text_of(record.Type)

    @property
    def ble_name(self) -> str:
        """The Bluetooth advertising name. Read over USB; written over Bluetooth
        only (at most 11 ASCII characters; a USB unit refuses with InvalidValueError)."""
        buffer = ctypes.create_string_buffer(BLE_NAME_BYTES)
        _call("NKRGetBLEName", self._id, buffer)
        return text_of(buffer.raw)

    @ble_name.setter
    def ble_name(self, value: str) -> None:
        raw = _checks.ascii_text("ble_name", value, BLE_NAME_MAX_CHARS, allow_empty=False)
        _call("NKRSetBLEName", self._id, NKR_BLE_NAME(raw))

    # ---- battery model: status, errors, power ------------------------------------------------
    @property
    def battery(self) -> Battery:
        """Battery block (battery-powered model); BatteryRangeError when its
        temperature is out of range."""
        record = NKR_BATTERY_INFO()
        _call("NKRGetBatteryInfo", self._id, byref(record))
        return battery_of(record)

    @property
    def led(self) -> bool:
        """LED on (units with an LED)."""
        return self._bool("NKRGetLedState")

    @led.setter
    def led(self, value: bool) -> None:
        _call("NKRSetLedState", self._id, _checks.flag("led", value))

    @property
    def error_codes(self) -> tuple[str, str]:
        """The unit's stored (motor, battery) error codes, two characters each."""
        record = NKR_ERROR_MSG()
        _call("NKRGetErrorCode", self._id, byref(record))
        return text_of(record.MotorErrCode), text_of(record.BatteryErrCode)

    @property
    def power_off_reason(self) -> int:
        """Reason of the last power-off (0 normal)."""
        return self._int("NKRGetReason")

    def enter_shipping_mode(self) -> None:
        """Puts the unit in shipping mode: it powers off."""
        _call("NKRSetShippingMode", self._id)

    def set_repeat_count(self, count: int) -> None:
        """Sets how often the SDK repeats a failed USB transfer (USB only)."""
        _call("NKRSetRepeatTime", self._id, _checks.integer("count", count, 0, 0x7FFFFFFF))

    def set_auto_clear_errors(self, on: bool) -> None:
        """Lets the SDK clear the unit's error state on its own (USB only)."""
        _call("NKRSetClearErr", self._id, _checks.flag("on", on))

    @property
    def controls(self) -> list[Control]:
        """The unit's list of optional features."""
        count = self._int("NKRGetNumOfControls")
        found: list[Control] = []
        for index in range(count):
            caps = NKR_CONTROL_CAPS()
            _call("NKRGetControlCaps", self._id, index, byref(caps))
            found.append(Control(type=caps.ControlType, name=text_of(caps.Name),
                                 description=text_of(caps.Description),
                                 supported=caps.Supported != 0, writable=caps.Writable != 0))
        return found

    # ---- Bluetooth -------------------------------------------------------------------------------
    @property
    def all_info(self) -> AllInfo:
        """Status, settings, errors and battery in one request (Bluetooth only)."""
        record = NKR_ALL_INFO()
        _call("NKRBLEgetAllInfo", self._id, byref(record))
        return AllInfo(moving=record.MoveState == 1, backlash=record.Backlash, position=record.Step,
                       temperature=round(float(record.Temperature), 2), beep=record.Beep != 0,
                       reverse=record.Reverse != 0, hand_moving=record.HandMoving != 0,
                       hand_control=record.HandControl != 0, max_step=record.MaxStep,
                       ble_control=record.BleControl != 0,
                       motor_error=record.MotorErrCode.decode("ascii", "replace"),
                       battery_error=record.BatteryErrCode.decode("ascii", "replace"),
                       battery=battery_of(record.Battery))

    def pair(self) -> None:
        """Pairs the Bluetooth unit with this computer (the SDK disconnects it when that fails)."""
        _call("NKRBLEPair", self._id)

    def clear_pair(self) -> None:
        """Clears the Bluetooth unit's pairing with this computer."""
        _call("NKRBLEClearPair", self._id)

    def on_pair_state(self, callback: Callable[[int], None]) -> None:
        """Calls callback(code) on pairing events: 0 paired, 56 refused, 60 a new
        unpaired connection. Runs on the thread that talks to the unit; an
        exception in it is printed and dropped."""
        self._register("NKRBLERegPairStateCallback", _library.PAIR_STATE_CALLBACK, callback, int)

    def on_connection_change(self, callback: Callable[[bool], None]) -> None:
        """Calls callback(connected) when the Bluetooth link comes or goes. Runs
        on the Bluetooth helper's own thread; an exception in it is printed and dropped."""
        self._register("NKRBLERegConnStateCallback", _library.CONN_STATE_CALLBACK, callback, bool)

    def _register(self, function: str, prototype: Any, callback: Callable[[Any], None],
                  convert: Callable[[Any], Any]) -> None:
        if not callable(callback):
            raise TypeError(f"callback must be callable, not {type(callback).__name__}")

        def trampoline(value: Any) -> None:
            try:
                callback(convert(value))
            except Exception:  # never let an exception unwind into the SDK's thread
                import traceback
                traceback.print_exc()

        native = prototype(trampoline)
        self._callbacks.append(native)
        _call(function, self._id, native)

    # ---- firmware -------------------------------------------------------------------------------
    def update_firmware(self, image: bytes | bytearray | memoryview,
                        progress: ProgressCallback | None = None, reopen: bool = True,
                        restart_timeout: float = 15.0) -> FirmwareVersion | None:
        """Writes a firmware image to the unit.

        USB: the unit enters update mode, takes the image in blocks of 55 bytes
        and restarts (firmware 3.7.0 or later). Bluetooth: blocks of 480 bytes
        after announcing the size (firmware after 3.8.1).

        Args:
            image: the whole image file's bytes.
            progress: called as progress(bytes_written, total) after every block.
                An exception from it ends the update (the unit stays in update
                mode; run the update again).
            reopen: afterwards close the unit and open it again (retrying up to
                restart_timeout seconds while it restarts), so that this
                Focuser speaks to the new firmware. The Bluetooth id may change.

        Returns:
            The new firmware version when reopen, else None.
        """
        from . import _firmware
        return _firmware.update(self, image, progress, reopen, restart_timeout)

    def _replace_session(self, unit_id: int) -> None:
        """After a reopen: the same unit under a (possibly) new id."""
        from . import _registry
        self._id = unit_id
        self._open = True
        self._range = None
        _registry.remember(self)
        self._range = self.step_range
