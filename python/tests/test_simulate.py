"""simulate() and NKR_SIMULATE, and what the package says when a library is
missing. Each case runs in a fresh interpreter: the order of loading matters."""
from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

import nkr
from conftest import SIM_UNITS, saved_record

PACKAGE_DIR = str(Path(__file__).resolve().parents[1])


def run(code: str, **env: str) -> subprocess.CompletedProcess[str]:
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, **env)
    environment.pop("NKR_SIMULATE", None)
    environment.update(env)
    return subprocess.run([sys.executable, "-c", code], env=environment, capture_output=True, text=True,
                          timeout=60)


def test_nkr_simulate_environment_simulates_at_import():
    done = run("import nkr; print(nkr.simulated(), [str(u.firmware) for u in nkr.units()])",
               NKR_SIMULATE="1", NKR_SIM_UNITS="usb:382:E:NKRN,usb:369")
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip() == "True ['3.8.2', '3.6.9']"


def test_bad_units_are_refused_by_the_simulators_own_reading_and_a_good_retry_works():
    done = run("import nkr\n"
               "try:\n    nkr.simulate(units='usb:3x5', shared=False)\nexcept ValueError as e:\n    print('refused:', e)\n"
               "nkr.simulate(units='usb:369', shared=False)\nprint([str(u.firmware) for u in nkr.units()])\n")
    assert done.returncode == 0, done.stderr
    assert "refused: NKR_SIM_UNITS entry 1 'usb:3x5'" in done.stdout and "['3.6.9']" in done.stdout, done.stdout


def test_state_dir_keeps_the_saved_record_apart(tmp_path):
    state = tmp_path / "sim-state"
    done = run("import nkr\n"
               f"nkr.simulate(units='usb:382', state_dir={str(state)!r})\n"
               "with nkr.open(0) as f:\n"
               "    f.move_to(30100, timeout=30)\n")
    assert done.returncode == 0, done.stderr
    assert saved_record(state, "123456789ABCDEF0")["Position"] == 30100


def test_simulate_after_the_sdk_is_loaded_is_refused():
    done = run("import nkr\nnkr.sdk_version()\n"
               "try:\n    nkr.simulate()\nexcept nkr.SimulationError as e:\n    print('refused:', e)\n")
    assert done.returncode == 0, done.stderr
    assert done.stdout.startswith("refused: simulate() must be called before the first SDK call")


def test_simulate_again_with_other_units_is_refused():
    assert nkr.simulate(units=SIM_UNITS)  # same units: nothing to do
    with pytest.raises(nkr.SimulationError, match="one simulated world"):
        nkr.simulate(units="usb:335")


def test_missing_library_lists_what_was_tried():
    done = run("import nkr\ntry:\n    nkr.units()\nexcept nkr.LibraryNotFoundError as e:\n    print(e)\n",
               NKR_LIBRARY="/nonexistent/libNKR_focuser.so.1", LD_LIBRARY_PATH="/nonexistent")
    assert done.returncode == 0, done.stderr
    assert "/nonexistent/libNKR_focuser.so.1" in done.stdout and "NKR_LIBRARY" in done.stdout


def test_missing_simulator_lists_what_was_tried():
    done = run("import nkr\ntry:\n    nkr.simulate()\nexcept nkr.LibraryNotFoundError as e:\n    print(e)\n",
               NKR_SIM_LIBRARY="/nonexistent/libhidapi-hidraw.so.0", NKR_LIBRARY="/nowhere/libNKR_focuser.so.1")
    assert done.returncode == 0, done.stderr
    assert "/nonexistent/libhidapi-hidraw.so.0 (missing)" in done.stdout
    assert "/nowhere/nkr-sim/libhidapi-hidraw.so.0 (missing)" in done.stdout
