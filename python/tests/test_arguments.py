"""Wrong arguments raise ValueError or TypeError before the SDK is called."""
from __future__ import annotations

import pytest

import nkr
from nkr import _library


class NoLibrary:
    """Stands in for the SDK library: any function looked up fails the test."""

    def __getattr__(self, name):
        raise AssertionError(f"the SDK function {name} was called")


@pytest.fixture
def no_library(monkeypatch):
    monkeypatch.setattr(_library, "load", lambda: NoLibrary())


@pytest.fixture
def unit():
    with nkr.open(1) as focuser:
        yield focuser


@pytest.mark.parametrize("action, error", [
    (lambda f: f.move_to(-1), ValueError),
    (lambda f: f.move_to(600001), ValueError),
    (lambda f: f.move_to(12.5), TypeError),
    (lambda f: f.move_to("100"), TypeError),
    (lambda f: f.move_to(True), TypeError),
    (lambda f: f.move_to(100, timeout=-1), ValueError),
    (lambda f: f.move_to(100, timeout="1"), TypeError),
    (lambda f: f.move_to(100, wait="yes"), TypeError),
    (lambda f: f.move_by(1.0), TypeError),
    (lambda f: f.move_by(1, timeout=-2), ValueError),
    (lambda f: f.sync(-5), ValueError),
    (lambda f: f.wait(timeout=-1), ValueError),
    (lambda f: setattr(f, "backlash", 256), ValueError),
    (lambda f: setattr(f, "backlash", -1), ValueError),
    (lambda f: setattr(f, "backlash", "20"), TypeError),
    (lambda f: setattr(f, "max_force", 16), ValueError),
    (lambda f: setattr(f, "max_step", 700000), ValueError),
    (lambda f: setattr(f, "speed", -1), ValueError),
    (lambda f: setattr(f, "beep", "on"), TypeError),
    (lambda f: setattr(f, "reverse", 2), TypeError),
    (lambda f: setattr(f, "led", None), TypeError),
    (lambda f: setattr(f, "alias", "NineChars"), ValueError),
    (lambda f: setattr(f, "alias", "Läuft"), ValueError),
    (lambda f: setattr(f, "alias", 7), TypeError),
    (lambda f: setattr(f, "ble_name", "TwelveCharss"), ValueError),
    (lambda f: setattr(f, "ble_name", ""), ValueError),
    (lambda f: f.set_repeat_count(-1), ValueError),
    (lambda f: f.set_auto_clear_errors("yes"), TypeError),
    (lambda f: f.on_pair_state(None), TypeError),
    (lambda f: f.update_firmware("firmware.bin"), TypeError),
    (lambda f: f.update_firmware(b""), ValueError),
    (lambda f: f.update_firmware(b"\x01", progress=5), TypeError),
    (lambda f: f.add_position(5, 5), TypeError),
    (lambda f: f.remove_position(None), TypeError),
    (lambda f: f.goto(b"Ha"), TypeError),
    (lambda f: setattr(f, "step_size", "3"), TypeError),
    (lambda f: setattr(f, "temp_comp", {"coefficient": "-3"}), TypeError),
    (lambda f: setattr(f, "temp_comp", (True, -3.0, 0.5)), TypeError),
    (lambda f: setattr(f, "approach", {"overshoot": 2.5}), TypeError),
    (lambda f: setattr(f, "approach", {"direction": "up"}), ValueError),
])
def test_focuser_arguments(unit, no_library, action, error):
    with pytest.raises(error):
        action(unit)


@pytest.mark.parametrize("action, error", [
    (lambda: nkr.open(50), ValueError),
    (lambda: nkr.open(-1), ValueError),
    (lambda: nkr.open(2.0), TypeError),
    (lambda: nkr.open(None), TypeError),
    (lambda: nkr.open(""), ValueError),
    (lambda: nkr.ble.scan(0), ValueError),
    (lambda: nkr.ble.scan("3"), TypeError),
    (lambda: nkr.ble.connect(""), ValueError),
    (lambda: nkr.ble.connect(b"\xff\xfe", pair=True), ValueError),
    (lambda: nkr.ble.connect("NKR Pro_A1B2", pair="no"), TypeError),
    (lambda: nkr.is_focuser(0x10000, 1), ValueError),
    (lambda: nkr.simulate(units=5), TypeError),
    (lambda: nkr.simulate(units="usb:38"), ValueError),
    (lambda: nkr.simulate(units="serial:382"), ValueError),
])
def test_module_arguments(no_library, action, error):
    with pytest.raises(error):
        action()
