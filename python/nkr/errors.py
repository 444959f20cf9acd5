"""The SDK's result codes as exceptions.

Every code of ``_NKR_ERROR_CODE`` has a class named after it; the classes are
grouped in families, so a script can catch as narrowly or broadly as it needs::

    try:
        focuser.move_to(12000)
    except nkr.MovingError:          # this one code
        ...
    except nkr.UnitUnavailableError: # unplugged, closed, unknown id
        ...
    except nkr.NKRError as e:        # anything the SDK reported
        print(e.code, e.name, e.text)
"""
from __future__ import annotations

from typing import NoReturn

__all__ = [
    "NKRError",
    "InvalidArgumentError",
    "UnitUnavailableError",
    "UnitStateError",
    "NotSupportedError",
    "CommunicationError",
    "BluetoothError",
    "InvalidIndexError",
    "InvalidIdError",
    "InvalidValueError",
    "RemovedError",
    "MovingError",
    "BadStateError",
    "GeneralError",
    "ClosedError",
    "BatteryRangeError",
    "BadLengthError",
    "BleChecksumError",
    "BleSendError",
    "BleConnectError",
    "BleNotOpenError",
    "BlePairError",
    "BlePairRefusedError",
    "BleNoAnswerError",
    "BleUnsupportedError",
    "NullCallbackError",
    "BleNewConnectionError",
    "BleLengthMismatchError",
    "LibraryNotFoundError",
    "SimulationError",
    "MoveTimeoutError",
    "UnitNotFoundError",
    "ERROR_CLASSES",
    "check",
    "error_for",
]


class NKRError(Exception):
    """An error code returned by the SDK.

    Attributes:
        code: the numeric code (``_NKR_ERROR_CODE``).
        name: the code's name in the header, e.g. ``"NKR_ERROR_MOVING"``.
        text: what the code means, as the SDK's header states it.
        operation: the SDK function that returned it, e.g. ``"NKRMove"``.
    """

    code: int = -1
    name: str = "NKR_ERROR_UNKNOWN"
    text: str = "a code the SDK's header does not list"

    def __init__(self, operation: str = "", code: int | None = None) -> None:
        if code is not None:
            self.code = code
        self.operation = operation
        where = f"{operation}: " if operation else ""
        super().__init__(f"{where}{self.text} ({self.name}, code {self.code})")


# ---- families -----------------------------------------------------------------
class InvalidArgumentError(NKRError):
    """The SDK refused an argument (index, value or data length)."""


class UnitUnavailableError(NKRError):
    """No usable unit behind the id: unknown, not open, unplugged or out of reach."""


class UnitStateError(NKRError):
    """The unit's state prevents the operation (moving, refused, battery out of range)."""


class NotSupportedError(NKRError):
    """The unit's firmware lacks the operation."""

    code = 8
    name = "NKR_ERROR_NOT_SUPPORTED"
    text = "the unit's firmware lacks the operation"


class CommunicationError(NKRError):
    """A transfer to or from the unit failed or gave a bad answer (either link)."""


class BluetoothError(NKRError):
    """A Bluetooth session step failed: connect, pair, adapter, callbacks."""


# ---- one class per code ---------------------------------------------------------
class InvalidIndexError(InvalidArgumentError):
    """NKR_ERROR_INVALID_INDEX (1): scan index out of range / no slot for it."""

    code = 1
    name = "NKR_ERROR_INVALID_INDEX"
    text = "scan index out of range / no slot for it"


class InvalidIdError(UnitUnavailableError):
    """NKR_ERROR_INVALID_ID (2): bad slot id, or the unit's link is not up."""

    code = 2
    name = "NKR_ERROR_INVALID_ID"
    text = "bad slot id, or the unit's link is not up"


class InvalidValueError(InvalidArgumentError):
    """NKR_ERROR_INVALID_VALUE (3): argument out of range (or a null pointer)."""

    code = 3
    name = "NKR_ERROR_INVALID_VALUE"
    text = "argument out of range (or a null pointer)"


class RemovedError(UnitUnavailableError):
    """NKR_ERROR_REMOVED (4): the unit is gone (unplugged, or open failed)."""

    code = 4
    name = "NKR_ERROR_REMOVED"
    text = "the unit is gone (unplugged, or open failed)"


class MovingError(UnitStateError):
    """NKR_ERROR_MOVING (5): refused: the motor is moving."""

    code = 5
    name = "NKR_ERROR_MOVING"
    text = "refused: the motor is moving"


class BadStateError(UnitStateError):
    """NKR_ERROR_BAD_STATE (6): the unit refused to enter the needed state."""

    code = 6
    name = "NKR_ERROR_BAD_STATE"
    text = "the unit refused to enter the needed state"


class GeneralError(CommunicationError):
    """NKR_ERROR_GENERAL (7): any other failure (transfer, bad answer)."""

    code = 7
    name = "NKR_ERROR_GENERAL"
    text = "any other failure (transfer, bad answer)"


class ClosedError(UnitUnavailableError):
    """NKR_ERROR_CLOSED (9): the slot is known but not open."""

    code = 9
    name = "NKR_ERROR_CLOSED"
    text = "the slot is known but not open"


class BatteryRangeError(UnitStateError):
    """NKR_ERROR_BATTERY_RANGE (10): battery temperature out of range; fields are -1."""

    code = 10
    name = "NKR_ERROR_BATTERY_RANGE"
    text = "battery temperature out of range; fields are -1"


class BadLengthError(InvalidArgumentError):
    """NKR_ERROR_BAD_LENGTH (11): a data length is out of bounds."""

    code = 11
    name = "NKR_ERROR_BAD_LENGTH"
    text = "a data length is out of bounds"


class BleChecksumError(CommunicationError):
    """NKR_ERROR_BLE_CHECKSUM (50): a BLE answer failed its checksum."""

    code = 50
    name = "NKR_ERROR_BLE_CHECKSUM"
    text = "a BLE answer failed its checksum"


class BleSendError(CommunicationError):
    """NKR_ERROR_BLE_SEND (51): the Bluetooth helper refused to send."""

    code = 51
    name = "NKR_ERROR_BLE_SEND"
    text = "the Bluetooth helper refused to send"


class BleConnectError(BluetoothError):
    """NKR_ERROR_BLE_CONNECT (52): the BLE connection could not be made."""

    code = 52
    name = "NKR_ERROR_BLE_CONNECT"
    text = "the BLE connection could not be made"


class BleNotOpenError(UnitUnavailableError):
    """NKR_ERROR_BLE_NOT_OPEN (53): no Bluetooth unit in that slot."""

    code = 53
    name = "NKR_ERROR_BLE_NOT_OPEN"
    text = "no Bluetooth unit in that slot"


class BlePairError(BluetoothError):
    """NKR_ERROR_BLE_PAIR (54): pairing failed / no adapter address."""

    code = 54
    name = "NKR_ERROR_BLE_PAIR"
    text = "pairing failed / no adapter address"


class BlePairRefusedError(BluetoothError):
    """NKR_ERROR_BLE_PAIR_REFUSED (56): the unit refused the pairing."""

    code = 56
    name = "NKR_ERROR_BLE_PAIR_REFUSED"
    text = "the unit refused the pairing"


class BleNoAnswerError(CommunicationError):
    """NKR_ERROR_BLE_NO_ANSWER (57): the unit did not answer in time."""

    code = 57
    name = "NKR_ERROR_BLE_NO_ANSWER"
    text = "the unit did not answer in time"


class BleUnsupportedError(BluetoothError):
    """NKR_ERROR_BLE_UNSUPPORTED (58): this computer has no Bluetooth LE."""

    code = 58
    name = "NKR_ERROR_BLE_UNSUPPORTED"
    text = "this computer has no Bluetooth LE"


class NullCallbackError(BluetoothError):
    """NKR_ERROR_NULL_CALLBACK (59): a null callback was registered."""

    code = 59
    name = "NKR_ERROR_NULL_CALLBACK"
    text = "a null callback was registered"


class BleNewConnectionError(BluetoothError):
    """NKR_ERROR_BLE_NEW_CONNECTION (60): (pair-state callback) new, unpaired connection."""

    code = 60
    name = "NKR_ERROR_BLE_NEW_CONNECTION"
    text = "(pair-state callback) new, unpaired connection"


class BleLengthMismatchError(CommunicationError):
    """NKR_ERROR_BLE_LENGTH_MISMATCH (62): the unit took a different block length."""

    code = 62
    name = "NKR_ERROR_BLE_LENGTH_MISMATCH"
    text = "the unit took a different block length"

#: Every failure code of the SDK and its class.
ERROR_CLASSES: dict[int, type[NKRError]] = {
    cls.code: cls
    for cls in (InvalidIndexError, InvalidIdError, InvalidValueError, RemovedError, MovingError,
                BadStateError, GeneralError, NotSupportedError, ClosedError, BatteryRangeError,
                BadLengthError, BleChecksumError, BleSendError, BleConnectError, BleNotOpenError,
                BlePairError, BlePairRefusedError, BleNoAnswerError, BleUnsupportedError,
                NullCallbackError, BleNewConnectionError, BleLengthMismatchError)
}

SUCCESS = 0


def error_for(code: int, operation: str = "") -> NKRError:
    """The exception for an SDK result code (a plain NKRError for a code the header lacks)."""
    cls = ERROR_CLASSES.get(code)
    return cls(operation) if cls is not None else NKRError(operation, code)


def raise_for(code: int, operation: str) -> NoReturn:
    raise error_for(code, operation)


def check(code: int, operation: str) -> None:
    """Raises the matching NKRError unless code is NKR_SUCCESS."""
    if code != SUCCESS:
        raise error_for(code, operation)


# ---- failures on the Python side ---------------------------------------------------
class LibraryNotFoundError(OSError):
    """libNKR_focuser.so (or the simulator) could not be loaded; the message lists what was tried."""


class SimulationError(RuntimeError):
    """simulate() cannot take effect (the SDK is already loaded, or the simulator is missing)."""


class MoveTimeoutError(TimeoutError):
    """A move did not end within its time-out; the motor was stopped.

    Attributes:
        position: where the unit stood after the stop.
        target: where it was going.
    """

    def __init__(self, message: str, position: int | None, target: int) -> None:
        super().__init__(message)
        self.position = position
        self.target = target


class UnitNotFoundError(LookupError):
    """No unit matches the id, serial number, alias or Bluetooth name asked for."""
