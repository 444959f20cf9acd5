"""The ctypes records against the C header, and the exceptions against the
error catalogue every front-end shares."""
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


def test_every_code_of_the_header_and_the_catalogue_has_its_class_in_its_family():
    codes = header_codes()
    assert codes.pop("NKR_SUCCESS") == 0
    by_name = {cls.name: code for code, cls in nkr.ERROR_CLASSES.items()}
    assert {name: code for name, code in by_name.items() if name.startswith("NKR_ERROR")} == codes
    assert by_name["NKR_HOST_BEYOND_LIMIT"] == 1003
    families = {"bad argument": nkr.InvalidArgumentError, "not supported": nkr.NotSupportedError,
                "busy": nkr.BusyError, "link lost": nkr.UnitUnavailableError,
                "refused by the unit": nkr.RefusedError, "internal": nkr.CommunicationError}
    for code, cls in nkr.ERROR_CLASSES.items():
        error = nkr.error_for(code, "NKRSomething")
        assert type(error) is cls and error.code == code and isinstance(error, families[cls.kind])
        assert error.operation == "NKRSomething" and f"({code})" in str(error) and cls.name in str(error)
    assert issubclass(nkr.BleConnectError, nkr.BluetoothError) and issubclass(nkr.InvalidValueError, ValueError)
    assert issubclass(nkr.MoveTimeoutError, TimeoutError) and issubclass(nkr.UnitNotFoundError, LookupError)
    unknown = nkr.error_for(99, "NKRMove")
    assert type(unknown) is nkr.NKRError and unknown.code == 99


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


def test_the_bluetooth_family_is_the_codes_from_50_below_100():
    # One except clause catches every radio failure, from a damaged answer (50) on.
    for code, radio in ((11, False), (50, True), (51, True), (62, True), (1001, False)):
        error = nkr.error_for(code, "NKRBLEConnect")
        assert isinstance(error, nkr.BluetoothError) is radio, code
