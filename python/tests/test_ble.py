"""The Bluetooth unit: scan, connect, pair, calls over the radio link, events."""
from __future__ import annotations

import threading

import pytest

import nkr
from conftest import BLE_NAME
from simcontrol import SIM_BLE_UNIT, control


@pytest.fixture
def pro():
    with nkr.ble.connect(BLE_NAME) as unit:
        yield unit


def test_scan_lists_the_unit_with_its_address():
    found = nkr.ble.scan(0.2)
    assert [u.name for u in found] == [BLE_NAME]
    assert found[0].address.count(":") == 5


def test_connect_by_name_pairs_and_drives_the_unit(pro):
    assert pro.link == "ble" and pro.id >= 50
    assert pro.model == "NKR Pro" and str(pro.firmware) == "3.8.2"
    start = pro.position
    assert pro.move_to(start + 200, timeout=20) == start + 200
    pro.backlash = 12
    info = pro.all_info
    assert (info.position, info.backlash, info.moving, info.ble_control) == (start + 200, 12, False, True)
    assert info.battery == pro.battery and info.motor_error == "E0"
    assert pro.temperature == pytest.approx(info.temperature)
    pro.move_to(start, timeout=20)


def test_connect_by_address_without_pairing_then_pair_and_clear():
    address = nkr.ble.scan(0.1)[0].address
    with nkr.ble.connect(address.lower(), pair=False) as unit:
        unit.pair()
        unit.clear_pair()
        unit.pair()
    assert not unit.is_open


def test_rename_over_bluetooth(pro):
    pro.ble_name = "Scope"
    assert [u.name for u in nkr.ble.scan(0.1)] == ["NKR Pro_Scope"]
    pro.ble_name = "A1B2"
    assert [u.name for u in nkr.ble.scan(0.1)] == [BLE_NAME]


def test_events_arrive_through_the_callbacks(pro):
    pair_events: list[int] = []
    links: list[bool] = []
    dropped = threading.Event()
    pro.on_pair_state(pair_events.append)

    def on_link(connected: bool) -> None:
        links.append(connected)
        dropped.set()

    pro.on_connection_change(on_link)
    control("ble_new_connection")(SIM_BLE_UNIT, 0)
    pro.position  # the answer to this read brings the new-connection event
    assert pair_events == [60]
    control("ble_drop_connection")(SIM_BLE_UNIT)
    control("ble_flush_callbacks")()
    assert dropped.wait(10) and links == [False]
    with pytest.raises(nkr.UnitUnavailableError):  # the link is down
        pro.position


def test_connection_failures():
    with pytest.raises(nkr.UnitNotFoundError, match="NKR Pro_A1B2"):  # lists what it saw
        nkr.ble.connect("NKR Pro_ZZZZ", scan_seconds=0.1)
    control("ble_refuse_connect")(SIM_BLE_UNIT, True)
    try:
        with pytest.raises(nkr.BleConnectError) as refused:
            nkr.ble.connect(BLE_NAME, scan_seconds=0.1)
        assert refused.value.code == 52
    finally:
        control("ble_refuse_connect")(SIM_BLE_UNIT, False)
    control("set_ble_supported")(False)
    try:
        with pytest.raises(nkr.BleUnsupportedError):
            nkr.ble.scan(0.1)
    finally:
        control("set_ble_supported")(True)


def test_usb_only_calls_refused_on_a_bluetooth_slot(pro):
    with pytest.raises(nkr.NKRError):
        pro.set_repeat_count(2)
