"""The ctypes records and the exception table against the C header itself."""
from __future__ import annotations

import ctypes
import os
import re
import subprocess
from pathlib import Path

import pytest

import nkr
from nkr import _records

HEADER = Path(__file__).resolve().parents[2] / "include" / "NKR_focuser.h"


def header_codes() -> dict[str, int]:
    text = HEADER.read_text()
    enum = text[text.index("typedef enum _NKR_ERROR_CODE"):text.index("} _NKR_ERROR_CODE;")]
    return {name: int(value) for name, value in re.findall(r"(NKR_\w+)\s*=\s*(\d+)", enum)}


def test_every_header_code_has_its_class():
    codes = header_codes()
    assert codes.pop("NKR_SUCCESS") == 0
    assert {cls.name: code for code, cls in nkr.ERROR_CLASSES.items()} == codes
    for code, cls in nkr.ERROR_CLASSES.items():
        error = nkr.error_for(code, "NKRSomething")
        assert type(error) is cls and error.code == code and error.text
        assert error.operation == "NKRSomething"
        assert f"code {code}" in str(error) and cls.name in str(error)


@pytest.mark.parametrize("cls, family", [
    (nkr.InvalidIndexError, nkr.InvalidArgumentError), (nkr.InvalidValueError, nkr.InvalidArgumentError),
    (nkr.BadLengthError, nkr.InvalidArgumentError), (nkr.InvalidIdError, nkr.UnitUnavailableError),
    (nkr.RemovedError, nkr.UnitUnavailableError), (nkr.ClosedError, nkr.UnitUnavailableError),
    (nkr.BleNotOpenError, nkr.UnitUnavailableError), (nkr.MovingError, nkr.UnitStateError),
    (nkr.BadStateError, nkr.UnitStateError), (nkr.BatteryRangeError, nkr.UnitStateError),
    (nkr.GeneralError, nkr.CommunicationError), (nkr.BleChecksumError, nkr.CommunicationError),
    (nkr.BleNoAnswerError, nkr.CommunicationError), (nkr.BleLengthMismatchError, nkr.CommunicationError),
    (nkr.BleConnectError, nkr.BluetoothError), (nkr.BlePairRefusedError, nkr.BluetoothError),
    (nkr.BleUnsupportedError, nkr.BluetoothError),
])
def test_codes_sit_in_their_family(cls, family):
    assert issubclass(cls, family) and issubclass(family, nkr.NKRError)


def test_unknown_code_is_still_an_nkr_error():
    error = nkr.error_for(99, "NKRMove")
    assert type(error) is nkr.NKRError and error.code == 99 and "code 99" in str(error)
    nkr.check(0, "NKRMove")
    with pytest.raises(nkr.MovingError):
        nkr.check(5, "NKRMove")


def test_record_sizes_match_the_compiled_header():
    probe = os.environ.get("NKR_RECORD_SIZES")
    if not probe:
        pytest.skip("NKR_RECORD_SIZES (the record-size probe built by CMake) is not set")
    sizes = dict(line.split() for line in subprocess.run([probe], check=True, capture_output=True,
                                                            text=True).stdout.splitlines())
    assert {name: int(size) for name, size in sizes.items()} == _records.RECORD_SIZES
    for name, record in _records.RECORDS.items():
        assert ctypes.sizeof(record) == int(sizes[name]), name


def test_record_field_offsets_that_hosts_rely_on():
    # The ints after the 160 text bytes and the 64-bit address after the 16-bit signal.
    assert _records.NKR_CONTROL_CAPS.ControlType.offset == 176
    assert _records.BLE_DEVICE_INFO.BluetoothAddress.offset == 136
    assert _records.NKR_ALL_INFO.Battery.offset == 44
