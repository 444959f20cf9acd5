"""Firmware updates with a progress callback, over USB and Bluetooth."""
from __future__ import annotations

import pytest

import nkr
from conftest import BLE_NAME, UPDATE_UNIT
from simcontrol import SIM_USB_UNIT, control

IMAGE = bytes((i * 7 + 3) & 0xFF for i in range(1000))


class Stop(Exception):
    pass


def test_usb_update_reports_progress_and_reopens_on_the_new_firmware():
    calls: list[tuple[int, int]] = []
    with nkr.open(UPDATE_UNIT) as unit:
        assert str(unit.firmware) == "3.8.2"
        new = unit.update_firmware(IMAGE, progress=lambda done, total: calls.append((done, total)))
        assert new == (3, 9, 0) and unit.is_open and unit.firmware == new
        assert unit.position >= 0  # the reopened session works
    assert len(calls) == -(-len(IMAGE) // 55)
    assert [done for done, _ in calls] == sorted({done for done, _ in calls})
    assert calls[0] == (55, 1000) and calls[-1] == (1000, 1000)


def test_progress_exception_ends_the_update():
    calls: list[int] = []

    def progress(done: int, total: int) -> None:
        calls.append(done)
        if len(calls) == 2:
            raise Stop

    with nkr.open(UPDATE_UNIT) as unit:
        with pytest.raises(Stop):
            unit.update_firmware(IMAGE, progress=progress)
        assert calls == [55, 110]
        assert unit.update_firmware(IMAGE[:100], reopen=False) is None  # start over, no reopen


def test_ble_update_in_480_byte_blocks():
    calls: list[tuple[int, int]] = []
    with nkr.ble.connect(BLE_NAME) as unit:
        new = unit.update_firmware(IMAGE, progress=lambda done, total: calls.append((done, total)))
        assert str(new) == "3.9.0" and unit.is_open and unit.link == "ble"
    assert calls == [(480, 1000), (960, 1000), (1000, 1000)]


def test_update_of_an_unplugged_unit_fails_with_its_code():
    with nkr.open(SIM_USB_UNIT) as unit:
        control("unplug")(SIM_USB_UNIT)
        try:
            with pytest.raises(nkr.UnitUnavailableError):
                unit.update_firmware(IMAGE, reopen=False)
        finally:
            control("replug")(SIM_USB_UNIT)
