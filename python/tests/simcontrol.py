"""The simulator's control API (sim/nkr_sim.h) for the few faults the tests
inject. It is C++, so the functions are bound by their mangled names; the
tests that need one skip when the simulator in use lacks it."""
from __future__ import annotations

from ctypes import c_bool, c_char_p, c_double, c_int, c_size_t

import pytest

from nkr import simulation

_FUNCTIONS = {
    "unplug": ("_ZN6nkrsim6unplugEi", [c_int]),
    "replug": ("_ZN6nkrsim6replugEi", [c_int]),
    "refuse_open": ("_ZN6nkrsim10refuseOpenEib", [c_int, c_bool]),
    "hand_move": ("_ZN6nkrsim8handMoveEii", [c_int, c_int]),
    "ble_drop_connection": ("_ZN6nkrsim17bleDropConnectionEi", [c_int]),
    "ble_new_connection": ("_ZN6nkrsim16bleNewConnectionEii", [c_int, c_int]),
    "ble_flush_callbacks": ("_ZN6nkrsim17bleFlushCallbacksEv", []),
    "ble_refuse_connect": ("_ZN6nkrsim16bleRefuseConnectEib", [c_int, c_bool]),
    "set_ble_supported": ("_ZN6nkrsim15setBleSupportedEb", [c_bool]),
    # unit (serial, name or id), degrees, drift per hour, has-until, until, message buffer, its size
    "set_temperature": ("nkr_sim_set_temperature", [c_char_p, c_double, c_double, c_int, c_double, c_char_p, c_size_t]),
}


def control(name: str):
    """The control function `name`, callable with Python ints and bools."""
    library = simulation._simulator
    if library is None:
        pytest.skip("not running against the simulator")
    symbol, arguments = _FUNCTIONS[name]
    try:
        function = getattr(library, symbol)
    except AttributeError:
        pytest.skip(f"the simulator has no {symbol}")
    function.argtypes = arguments
    function.restype = None
    return function


# Simulator unit numbers, in the order of conftest.SIM_UNITS; the SDK's first
# scan gives the USB units the same slot ids (UNIT and OTHER_UNIT there).
SIM_USB_UNIT = 1
SIM_OTHER_USB_UNIT = 2
SIM_BLE_UNIT = 4
