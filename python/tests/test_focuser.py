"""Every Focuser call against simulated units, and how SDK failures surface."""
from __future__ import annotations

import copy
import pickle

import os
import subprocess
import sys
import threading
import time

import pytest

import nkr
from conftest import OLD_UNIT, OTHER_UNIT, UNIT, saved_record
from simcontrol import SIM_OTHER_USB_UNIT, SIM_USB_UNIT, control


def test_units_lists_identity_of_every_usb_unit():
    listed = {u.id: u for u in nkr.units()}
    assert sorted(listed) == [0, 1, 2, 3]
    new = listed[UNIT]
    assert new.link == "usb" and new.model == "NKRN" and str(new.firmware) == "3.8.2"
    assert new.serial is not None and len(new.serial) == 16 and new.name.startswith("NKR")
    assert str(listed[OLD_UNIT].firmware) == "3.3.5"


def test_units_with_ble_scan_adds_the_bluetooth_unit():
    ble = [u for u in nkr.units(ble_seconds=0.1) if u.link == "ble"]
    assert [(u.id, u.name) for u in ble] == [(None, "NKR Pro_A1B2")] and ble[0].address


def test_units_reads_an_open_unit_without_closing_it(focuser):
    nkr.units()
    assert focuser.is_open
    assert focuser.position >= 0  # still usable: the listing did not close its slot


def test_settings_round_trip(focuser):
    focuser.backlash = 25
    focuser.beep = True
    focuser.reverse = True
    focuser.max_force = 9
    focuser.max_step = 50000
    assert (focuser.backlash, focuser.beep, focuser.reverse, focuser.max_force, focuser.max_step) == \
        (25, True, True, 9, 50000)
    focuser.beep = False
    focuser.reverse = False
    assert (focuser.beep, focuser.reverse) == (False, False)
    focuser.speed = 5  # stored by the SDK, ignored by this firmware
    assert isinstance(focuser.speed, int)


def test_identity_and_alias(focuser):
    assert str(focuser.firmware) == "3.8.2" and focuser.firmware == (3, 8, 2)
    assert focuser.model == "NKRN"
    assert focuser.serial == "123456789ABCDEF1"
    focuser.alias = "Main"
    assert focuser.alias == "Main" and focuser.name == "NKR(Main)"
    focuser.alias = ""
    assert focuser.alias == "" and focuser.name == "NKR"
    with pytest.raises(nkr.NotSupportedError, match="no Bluetooth radio"):  # as the tool's info says
        focuser.ble_name
    with pytest.raises(nkr.NotSupportedError, match="over Bluetooth only"):
        focuser.ble_name = "Scope"
    with pytest.raises(nkr.NotSupportedError, match="over Bluetooth only"):
        focuser.all_info


def test_status_reads(focuser):
    assert focuser.temperature == pytest.approx(25.0, abs=0.01)
    control("set_temperature")(b"123456789ABCDEF1", 21.37, 0.0, 0, 0.0, None, 0)
    assert focuser.temperature == 21.37  # hundredths kept, not 21.4
    assert focuser.moving is False and focuser.hand_moving is False
    assert focuser.step_range == 600000
    assert focuser.error_codes == ("E0", "E0")
    with pytest.raises(nkr.NotSupportedError, match="no battery"):  # as the tool's info says
        focuser.battery
    with pytest.raises(nkr.NotSupportedError, match="battery-powered"):
        focuser.power_off_reason
    focuser.led = True
    assert focuser.led is True
    focuser.led = False
    assert focuser.led is False
    features = {c.name: c for c in focuser.controls}
    assert features["LED"].supported and features["LED"].writable
    focuser.set_repeat_count(3)
    focuser.set_auto_clear_errors(True)


def test_move_to_waits_and_returns_the_position(focuser):
    start = focuser.position
    assert focuser.move_to(start + 300, timeout=20) == start + 300
    assert focuser.move_by(-300, timeout=20) == start
    assert focuser.position == start and not focuser.moving


def test_move_without_wait_then_wait_and_stop(focuser):
    start = focuser.position
    assert focuser.move_to(start + 20000, wait=False) is None
    assert focuser.moving
    with pytest.raises(nkr.MovingError) as refused:  # the SDK refuses a second move
        focuser.move_to(start)
    assert refused.value.code == 5 and "already moving" in str(refused.value)
    assert focuser.wait(timeout=0.05) is False  # still going
    focuser.stop()
    assert focuser.wait(timeout=10) is True
    assert start < focuser.position < start + 20000
    focuser.move_to(start, timeout=30)


def test_move_with_timeout_stops_the_motor(focuser):
    focuser.max_step = focuser.step_range
    start = focuser.position
    with pytest.raises(nkr.MoveTimeoutError) as late:
        focuser.move_to(start + 40000, timeout=0.3)
    assert isinstance(late.value, TimeoutError) and late.value.target == start + 40000
    assert "did not end within 0.3 s" in str(late.value), str(late.value)
    assert not focuser.moving
    assert start < late.value.position < start + 40000 and focuser.position == late.value.position
    focuser.move_to(start, timeout=60)


def _ctrl_c_after_the_move_starts(monkeypatch):
    """Ctrl-C landing the moment the host has started the move, before any look at it."""
    real_call = nkr._host.call

    def call(function, *args):
        real_call(function, *args)
        if function == "nkr_host_move":
            raise KeyboardInterrupt

    monkeypatch.setattr(nkr._host, "call", call)


def _ctrl_c_while_following(monkeypatch):
    def sleep(_seconds):
        raise KeyboardInterrupt

    monkeypatch.setattr(nkr.focuser.time, "sleep", sleep)


@pytest.mark.parametrize("interrupt", [_ctrl_c_after_the_move_starts, _ctrl_c_while_following])
def test_ctrl_c_during_move_to_stops_the_motor_first(focuser, monkeypatch, interrupt):
    start = focuser.position
    with monkeypatch.context() as patched:
        interrupt(patched)
        with pytest.raises(KeyboardInterrupt):
            focuser.move_to(start + 20000, timeout=30)
    assert not focuser.moving
    assert start <= focuser.position < start + 20000
    assert focuser.move_to(start, timeout=30) == start  # not refused as still moving


def test_sync_declares_the_position(focuser):
    here = focuser.position
    focuser.sync(here + 1234)
    assert focuser.position == here + 1234
    focuser.sync(here)


def test_context_manager_closes_and_saves_on_an_exception(home):
    with pytest.raises(RuntimeError, match="script failed"):
        with nkr.open(OTHER_UNIT) as unit:
            unit.wait(timeout=30)
            target = unit.position + 250
            unit.move_to(target, timeout=20)
            unit.backlash = 17
            raise RuntimeError("script failed")
    assert not unit.is_open
    saved = saved_record(home, "123456789ABCDEF2")
    assert saved["Position"] == target and saved["Backlash"] == 17
    with pytest.raises(nkr.UnitUnavailableError):  # its slot is closed now
        unit.position
    unit.close()  # closing again is harmless
    with nkr.open(OTHER_UNIT) as again:
        assert again.position == target


def test_open_by_serial_and_alias():
    with nkr.open(UNIT) as unit:
        unit.alias = "Guide"
    with nkr.open("Guide") as by_alias:
        assert by_alias.id == UNIT
        by_alias.alias = ""
    with nkr.open("12:34:56:78:9a:bc:de:f0") as by_serial:  # every unit here shares it: the first wins
        assert by_serial.serial == "123456789ABCDEF0"
    with pytest.raises(nkr.UnitNotFoundError, match="nobody"):
        nkr.open("nobody")


def test_open_failures_map_to_sdk_errors(focuser):
    with pytest.raises(nkr.UnitNotFoundError, match="no focuser answers to '42'"):
        nkr.open(42)
    with pytest.raises(RuntimeError, match="already open"):
        nkr.open(UNIT)


def test_a_unit_that_cannot_be_opened_is_listed_and_refused():
    with nkr.open(OTHER_UNIT) as held:
        held.sync(held.position)  # held, so closed at the end: the next open really opens it
    control("refuse_open")(SIM_OTHER_USB_UNIT, True)
    try:
        listed = {u.id: u for u in nkr.units()}
        assert listed[OTHER_UNIT].firmware is None and listed[OTHER_UNIT].serial is None
        assert listed[UNIT].firmware is not None
        with pytest.raises(nkr.RemovedError) as refused:
            nkr.open(OTHER_UNIT)
        assert refused.value.code == 4
    finally:
        control("refuse_open")(SIM_OTHER_USB_UNIT, False)
    with nkr.open(OTHER_UNIT) as unit:
        assert unit.position >= 0


def test_unplugged_unit_and_hand_controller(focuser):
    control("hand_move")(SIM_USB_UNIT, focuser.position + 400)
    assert focuser.hand_moving and focuser.moving
    assert focuser.wait(timeout=30)
    control("unplug")(SIM_USB_UNIT)
    try:
        with pytest.raises(nkr.RemovedError):
            focuser.position
    finally:
        control("replug")(SIM_USB_UNIT)


def test_old_firmware_refuses_what_it_lacks():
    with nkr.open(OLD_UNIT) as old:
        with pytest.raises(nkr.NotSupportedError) as lacking:
            old.update_firmware(b"\x00" * 10)
        assert lacking.value.code == 8
        with pytest.raises(nkr.NotSupportedError, match="over Bluetooth only"):
            old.all_info


def test_version_and_ids():
    assert nkr.sdk_version() == "1, 7, 7, 0"
    assert nkr.is_focuser(0x1209, 0x4E4B) and not nkr.is_focuser(0x1209, 0x0001)
    assert nkr.product_id() == 0x4E4B
    assert nkr.library_path()
    assert nkr.simulated()


def test_focus_model_settings_take_keywords_and_out_or_in(focuser):
    focuser.temp_comp = nkr.TempComp(coefficient=-3.0, deadband=0.5)
    assert focuser.temp_comp == nkr.TempComp(enabled=True, coefficient=-3.0, deadband=0.5)
    focuser.temp_comp = {"enabled": False}
    assert focuser.temp_comp == (False, -3.0, 0.5)
    focuser.approach = nkr.Approach(direction="in", overshoot=150)
    assert focuser.approach == nkr.Approach(direction=-1, overshoot=150)
    focuser.approach = {"direction": "out"}
    assert focuser.approach.direction == 1 and focuser.approach.overshoot == 150
    # Read back, a record prints as it is built, and copies keep it whole.
    assert eval(repr(focuser.approach), {"Approach": nkr.Approach}) == focuser.approach
    assert copy.deepcopy(focuser.temp_comp) == focuser.temp_comp
    assert pickle.loads(pickle.dumps(focuser.approach)) == focuser.approach
    # The order the fields are easy to mix up in is refused, not misread.
    for wrong in (lambda: nkr.TempComp(-3.0, 0.5, True), lambda: nkr.Approach("out", 200),
                  lambda: nkr.Approach(direction="out")):
        with pytest.raises(TypeError, match="keywords only|needs overshoot"):
            wrong()
    with pytest.raises(ValueError, match='"out" or "in"'):
        nkr.Approach(direction="sideways", overshoot=1)


def test_another_program_is_refused_and_a_move_stopped_short_raises(focuser):
    start = focuser.position
    outcome = {}

    def move():
        try:
            focuser.move_to(start + 20000, timeout=30)
        except nkr.NKRError as error:
            outcome["error"] = error

    mover = threading.Thread(target=move)
    mover.start()
    while not focuser.moving:
        time.sleep(0.02)
    # Another program: refused a move, naming this one, and allowed to stop.
    other = subprocess.run([sys.executable, "-c", f"""
import nkr
nkr.simulate()
unit = nkr.open({UNIT!r})
try:
    unit.move_to({start})
except nkr.UnitInUseError as error:
    print("refused:", error)
"""], capture_output=True, text=True, timeout=60, env=os.environ)
    assert "refused:" in other.stdout and "is held by Python nkr" in other.stdout, other.stdout + other.stderr
    control("hand_move")(SIM_USB_UNIT, focuser.position + 100)  # the hand controller takes over
    mover.join(30)
    error = outcome.get("error")
    assert isinstance(error, nkr.MoveNotArrivedError) and isinstance(error, nkr.BusyError), error
    assert "did not arrive" in str(error) and "short of" in str(error)
    assert not focuser.moving
    focuser.move_to(start, timeout=30)



def test_a_move_not_waited_for_is_carried_to_its_end_final_approach_included(focuser):
    start = focuser.position
    focuser.approach = nkr.Approach(direction="out", overshoot=300)
    try:
        assert focuser.move_to(start - 1000, wait=False) is None
        assert focuser.wait(timeout=30)  # not fooled by the stand between the two legs
        assert focuser.position == start - 1000
    finally:
        focuser.approach = {"enabled": False}
    focuser.move_to(start, timeout=30)
