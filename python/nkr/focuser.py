"""The Focuser: one open unit, over USB or Bluetooth."""
from __future__ import annotations

import ctypes
import json
import math
import threading
import time
from ctypes import byref, c_bool, c_float, c_int, c_ubyte, c_void_p
from types import TracebackType
from typing import Any, Callable

from . import _checks, _host, _library
from ._records import (BLE_NAME_BYTES, BLE_NAME_MAX_CHARS, NKR_ALL_INFO,
                       NKR_BATTERY_INFO, NKR_BLE_NAME, NKR_CONTROL_CAPS, NKR_ERROR_MSG, NKR_INFO,
                       NKR_SN, NKR_TYPE, text_of)
from ._types import AllInfo, Approach, Battery, Control, FirmwareVersion, TempComp, direction_of
from .errors import MoveTimeoutError, NKRError, NotSupportedError, check, error_for

#: How often wait() asks the unit whether it still moves, in seconds.
DEFAULT_POLL = 0.05
# Feature ids of the control list that decide what a unit can be asked.
_FEATURE_BLE_NAME = 0
_FEATURE_BATTERY = 4
_FEATURE_ERROR_CODES = 5

ProgressCallback = Callable[[int, int], None]


def _call(name: str, *args: Any) -> None:
    check(getattr(_library.load(), name)(*args), name)


# The type check of each field a focus-model setting may be given as, in a
# record or in a dict of the fields to change.
_TEMP_COMP_CHECKS: dict[str, Callable[[str, Any], Any]] = {
    "enabled": _checks.flag, "coefficient": _checks.real, "deadband": _checks.real}
_APPROACH_CHECKS: dict[str, Callable[[str, Any], Any]] = {
    "enabled": _checks.flag, "direction": lambda _name, value: direction_of(value), "overshoot": _checks.integer}


def _fields(setting: str, value: Any, record: type, checks: dict[str, Callable[[str, Any], Any]]) -> dict[str, Any]:
    """The fields of a record or dict, each type-checked; other names are left to the host to refuse."""
    if isinstance(value, record):
        return dict(value._asdict())
    if not isinstance(value, dict):
        raise TypeError(f"{setting} must be a {record.__name__} or a dict of its fields, not {type(value).__name__}")
    return {key: checks[key](f"{setting}.{key}", field) if key in checks else field for key, field in value.items()}


def alias_from_name(name: str) -> str:
    """The alias inside a unit name "NKR(alias)"; "" for a plain "NKR" (the host's reader)."""
    raw = name.encode("ascii", "replace")
    out = ctypes.create_string_buffer(64)
    _host.load().nkr_host_alias_of(raw, len(raw), out, len(out))
    return out.value.decode("ascii", "replace")


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

    def __init__(self, handle: int) -> None:
        # The host layer's hold on the unit: naming, limits, moves, settings.
        self._handle = c_void_p(handle)
        identity = json.loads(_host.text("nkr_host_identity_json", self._handle))
        self._id = int(identity["slot"])
        self._link = str(identity["link"])
        self._ble_name = identity.get("ble_name")
        self._ble_address = identity.get("ble_address")
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
        """Closes the unit when this program held it (it moved it, synced it or
        changed one of its settings): the SDK stops a running move and saves the
        position and settings (USB), or disconnects (Bluetooth). A unit this
        program only looked at is left as it was, so a move another program
        runs goes on. Closing twice is harmless."""
        from . import _registry
        with self._close_lock:
            if not self._open:
                return
            self._open = False
            _registry.forget(self)
            _host.load().nkr_host_free(self._handle, 1)

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

    def _set(self, setting: str, value: int | bool | str) -> None:
        """Writes a setting through the host layer's catalogue: a value outside
        its range is refused with the range (BadSettingError, a ValueError),
        never clamped. The unit's own settings take hold of the unit first."""
        text = ("on" if value else "off") if isinstance(value, bool) else str(value)
        _host.call("nkr_host_set_setting", self._handle, setting.encode(), text.encode("utf-8", "replace"))

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
        """True while the motor moves (for any reason, hand controller included),
        and while a move this program started is carried on (also in the
        moment between the two legs of a final approach)."""
        if _host.load().nkr_host_move_poll(self._handle, None, None, None, None, None, 0) == 0:
            return True
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

    def move_to(self, position: int, wait: bool = True, timeout: float | None = None,
                poll: float = DEFAULT_POLL) -> int | None:
        """Moves to an absolute position, within 0..max_step (the user's
        maximum every front-end keeps), ending from the final-approach side
        when one is set (see ``approach``). The first move takes hold of the
        unit for this program: while another program (a server, the nkr tool)
        holds it, moves are refused with UnitInUseError and nothing is sent.
        The host library carries the move, final approach included, to its
        end whether or not you wait.

        Args:
            position: target in steps.
            wait: block until the move has ended (True), or return at once.
            timeout: the longest the move may take, in seconds; when it passes
                the motor is stopped (and, waiting, MoveTimeoutError raised).
                None lets the move take as long as it takes.
            poll: seconds between the looks at the move while waiting.

        Returns:
            The position reached when waiting, else None.

        Raises:
            BeyondLimitError: the target is outside 0..max_step (never clamped).
            UnitInUseError: another program holds the unit.
            MovingError: a move is already running.
            MoveNotArrivedError: the move ended short of its target (stopped by
                a person, another program, the hand controller or a limit).
            MoveTimeoutError: the move did not end within timeout.
            KeyboardInterrupt: Ctrl-C once the move has started, after the
                motor was stopped (if the stop itself fails, the error says so
                instead).
        """
        target = _checks.integer("position", position)
        wait = _checks.flag("wait", wait)
        limit = _checks.seconds("timeout", timeout)
        interval = _checks.seconds("poll", poll, allow_none=False) or DEFAULT_POLL
        # 0 tells the host "no time-out": a time-out under a millisecond is one millisecond.
        timeout_ms = 0 if limit is None else max(1, math.ceil(limit * 1000))
        try:
            _host.call("nkr_host_move", self._handle, target, timeout_ms)
            return self._follow(target, limit, interval) if wait else None
        except KeyboardInterrupt:
            # Ctrl-C may land anywhere once the host started the move: the
            # motor is stopped before anything else. A stop that fails is
            # reported as failed, never passed off as a stop.
            self._interrupt()
            raise

    def _interrupt(self) -> None:
        position = c_int(0)
        message = ctypes.create_string_buffer(1024)
        stopped = _host.load().nkr_host_move_interrupt(self._handle, byref(position), message, len(message))
        if stopped != 0:
            raise error_for(stopped, "", message.value.decode("utf-8", "replace") +
                            "; the motor may still be moving") from None

    def _follow(self, target: int, limit: float | None, interval: float) -> int:
        """Looks at the move until it has ended, so that Ctrl-C is seen."""
        host = _host.load()
        position, percent, end, code = c_int(0), c_int(0), c_int(0), c_int(0)
        message = ctypes.create_string_buffer(1024)
        while host.nkr_host_move_poll(self._handle, byref(position), byref(percent), byref(end), byref(code),
                                      message, len(message)) == 0:
            time.sleep(interval)
        if code.value == 0:
            return position.value
        text = message.value.decode("utf-8", "replace")
        if end.value == _host.TIMED_OUT:
            raise MoveTimeoutError(f"the move to {target} did not end within {limit:g} s; the motor was stopped "
                                   f"at {position.value}" if limit else text, position.value, target)
        raise error_for(code.value, "", text or None)

    def move_by(self, steps: int, wait: bool = True, timeout: float | None = None,
                poll: float = DEFAULT_POLL) -> int | None:
        """Moves by a number of steps (negative = inward) from the current
        position; the target must stay in 0..max_step. Otherwise as move_to."""
        delta = _checks.integer("steps", steps)
        _checks.flag("wait", wait)
        _checks.seconds("timeout", timeout)
        _checks.seconds("poll", poll, allow_none=False)
        return self.move_to(self.position + delta, wait=wait, timeout=timeout, poll=poll)

    def stop(self) -> None:
        """Stops the motor. Never refused, whichever program holds the unit
        (that program is told its move was stopped, and by whom)."""
        _host.call("nkr_host_stop", self._handle)

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
        """Declares the current position to be ``position`` (0..max_step) without
        moving. Takes hold of the unit, as move_to does."""
        _host.call("nkr_host_sync", self._handle, _checks.integer("position", position))

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
        self._set("speed", _checks.integer("speed", value))

    @property
    def max_step(self) -> int:
        """The user's maximum position, 0..step_range: every front-end refuses
        moves beyond it. Kept on the unit and in the host settings."""
        value = c_int(0)
        _host.call("nkr_host_maximum", self._handle, byref(value))
        return value.value

    @max_step.setter
    def max_step(self, value: int) -> None:
        self._set("max-step", _checks.integer("max_step", value))

    @property
    def backlash(self) -> int:
        """Backlash compensation, 0..255 steps."""
        return self._int("NKRGetBacklash")

    @backlash.setter
    def backlash(self, value: int) -> None:
        self._set("backlash", _checks.integer("backlash", value))

    @property
    def reverse(self) -> bool:
        """Motor direction reversed."""
        return self._bool("NKRGetReverse")

    @reverse.setter
    def reverse(self, value: bool) -> None:
        self._set("reverse", _checks.flag("reverse", value))

    @property
    def beep(self) -> bool:
        """Beeper on."""
        return self._bool("NKRGetBeep")

    @beep.setter
    def beep(self, value: bool) -> None:
        self._set("beep", _checks.flag("beep", value))

    @property
    def max_force(self) -> int:
        """Motor force, 0..15."""
        return self._int("NKRGetMaxForce")

    @max_force.setter
    def max_force(self, value: int) -> None:
        self._set("force", _checks.integer("max_force", value))

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
        if not isinstance(value, str):
            raise TypeError(f"alias must be a str, not {type(value).__name__}")
        self._set("alias", value)

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
        out = ctypes.create_string_buffer(17)
        _host.load().nkr_host_serial_text(record.SN, out, len(out))
        return out.value.decode("ascii")

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
        if self._link != "ble":
            self._require(_FEATURE_BLE_NAME, "this unit has no Bluetooth radio (its control list offers no Bluetooth name)")
        buffer = ctypes.create_string_buffer(BLE_NAME_BYTES)
        _call("NKRGetBLEName", self._id, buffer)
        return text_of(buffer.raw)

    @ble_name.setter
    def ble_name(self, value: str) -> None:
        raw = _checks.ascii_text("ble_name", value, BLE_NAME_MAX_CHARS, allow_empty=False)
        if self._link != "ble":
            raise NotSupportedError("", None, "the Bluetooth name can be set over Bluetooth only: connect the "
                                              "unit with nkr.ble.connect(name) (over USB it can only be read)")
        _call("NKRSetBLEName", self._id, NKR_BLE_NAME(raw))

    # ---- battery model: status, errors, power ------------------------------------------------
    @property
    def battery(self) -> Battery:
        """Battery block (battery-powered model); NotSupportedError on a unit
        without a battery, BatteryRangeError when its temperature is out of range."""
        self._require(_FEATURE_BATTERY, "this unit has no battery (its control list offers none)")
        record = NKR_BATTERY_INFO()
        _call("NKRGetBatteryInfo", self._id, byref(record))
        return battery_of(record)

    @property
    def led(self) -> bool:
        """LED on (units with an LED)."""
        return self._bool("NKRGetLedState")

    @led.setter
    def led(self, value: bool) -> None:
        self._set("led", _checks.flag("led", value))

    @property
    def error_codes(self) -> tuple[str, str]:
        """The unit's stored (motor, battery) error codes, two characters each."""
        self._require(_FEATURE_ERROR_CODES, "this unit keeps no error codes (its control list offers none)")
        record = NKR_ERROR_MSG()
        _call("NKRGetErrorCode", self._id, byref(record))
        return text_of(record.MotorErrCode), text_of(record.BatteryErrCode)

    @property
    def power_off_reason(self) -> int:
        """Reason of the last power-off (0 normal; battery-powered units only)."""
        self._require(_FEATURE_BATTERY, "only a battery-powered unit records why it powered off")
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

    def _require(self, feature: int, why: str) -> None:
        """NotSupportedError unless the unit's control list offers the feature
        (the rule `nkr info` shows as "not supported")."""
        if not any(c.type == feature and c.supported for c in self.controls):
            raise NotSupportedError("", None, why)

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
        if self._link != "ble":
            raise NotSupportedError("", None, "all_info works over Bluetooth only: connect the unit with "
                                              "nkr.ble.connect(name); over USB read the properties one by one")
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

    # ---- kept by the host programs: the focus model ------------------------------------------
    def _settings(self) -> dict[str, Any]:
        return json.loads(_host.text("nkr_host_settings_json", self._handle))

    def _merge(self, patch: dict[str, Any]) -> None:
        _host.call("nkr_host_settings_merge", self._handle, json.dumps(patch).encode())

    @property
    def temp_comp(self) -> TempComp:
        """Temperature compensation of the unit (kept per unit, shared by every
        front-end): enabled, coefficient (steps per degree C) and dead band
        (degrees C). While enabled, the one program that holds the unit for it
        (the Alpaca server, the INDI driver, ``nkr tempcomp --follow``) moves
        it. Set a TempComp, or a dict of the fields to change."""
        t = self._settings()["temp_comp"]
        return TempComp(enabled=bool(t["enabled"]), coefficient=float(t["coefficient"]), deadband=float(t["deadband"]))

    @temp_comp.setter
    def temp_comp(self, value: TempComp | dict[str, Any]) -> None:
        self._merge({"temp_comp": _fields("temp_comp", value, TempComp, _TEMP_COMP_CHECKS)})

    @property
    def step_size(self) -> float | None:
        """Microns per step, as set for the unit (None until set)."""
        size = self._settings()["step_size_um"]
        return None if size is None else float(size)

    @step_size.setter
    def step_size(self, microns: float | None) -> None:
        self._merge({"step_size_um": None if microns is None else _checks.real("step_size", microns)})

    @property
    def approach(self) -> Approach:
        """Final approach: every move ends coming from one side (direction +1
        outward, -1 inward), past the target by ``overshoot`` steps and back.
        Set an Approach (``nkr.Approach(direction="out", overshoot=200)``), or
        a dict of the fields to change (direction also "out" or "in")."""
        a = self._settings()["approach"]
        return Approach(enabled=bool(a["enabled"]), direction=int(a["direction"]), overshoot=int(a["overshoot"]))

    @approach.setter
    def approach(self, value: Approach | dict[str, Any]) -> None:
        self._merge({"approach": _fields("approach", value, Approach, _APPROACH_CHECKS)})

    @property
    def positions(self) -> dict[str, int]:
        """Named positions of the unit, shared with every front-end."""
        return {str(k): int(v) for k, v in self._settings()["positions"].items()}

    def add_position(self, name: str, position: int | None = None) -> None:
        """Saves a name for a position (the current one when None), within 0..max_step."""
        label = _checks.text("name", name)
        where = self.position if position is None else _checks.integer("position", position)
        _host.call("nkr_host_save_position", self._handle, label.encode(), where)

    def remove_position(self, name: str) -> None:
        _host.call("nkr_host_remove_position", self._handle, _checks.text("name", name).encode())

    def goto(self, name: str, wait: bool = True, timeout: float | None = None) -> int | None:
        """Moves to a named position (as move_to)."""
        label = _checks.text("name", name)
        _checks.flag("wait", wait)
        _checks.seconds("timeout", timeout)
        where = c_int(0)
        _host.call("nkr_host_named_position", self._handle, label.encode(), byref(where))
        return self.move_to(where.value, wait=wait, timeout=timeout)

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

    def _reconnect(self) -> None:
        """One try to get the same unit back (after it restarted or went away);
        raises while it is not back. The slot id may change."""
        from . import _registry
        _host.call("nkr_host_reconnect", self._handle)
        _registry.forget(self)
        self._id = _host.load().nkr_host_slot(self._handle)
        self._open = True
        self._range = None
        _registry.remember(self)
        self._range = self.step_range
