"""Every test runs against the simulator, with HOME and the XDG folders in a
temporary directory, so the SDK's saved record never touches the real one.

The environment names the libraries under test (ctest sets these to the
build tree): NKR_LIBRARY, NKR_SIM_LIBRARY, and NKR_RECORD_SIZES for the
record-size probe.
"""
from __future__ import annotations

import atexit
import os
import shutil
import sys
import tempfile
from pathlib import Path

_home = tempfile.mkdtemp(prefix="nkr-pytest-home-")
atexit.register(shutil.rmtree, _home, ignore_errors=True)
os.environ["HOME"] = _home
for _xdg in ("XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR"):
    os.environ[_xdg] = os.path.join(_home, _xdg.lower())
os.makedirs(os.environ["XDG_RUNTIME_DIR"], mode=0o700)
os.environ.pop("NKR_SIMULATE", None)

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import pytest  # noqa: E402

import nkr  # noqa: E402

# Unit 0: old firmware (no serial-era features past 3.3.5, no USB update);
# units 1 and 2: the newer model, for moves and threads; unit 3: firmware
# updates; one Bluetooth unit.
SIM_UNITS = "usb:335,usb:382:E:NKRN,usb:382:E:NKRN,usb:382:E:NKRN,ble:382:E:NKR Pro"
OLD_UNIT, UNIT, OTHER_UNIT, UPDATE_UNIT = 0, 1, 2, 3
BLE_NAME = "NKR Pro_A1B2"

# A world of this test process's own; HOME becomes the simulator's private
# folder inside the temporary one.
nkr.simulate(units=SIM_UNITS, shared=False)


@pytest.fixture
def home() -> Path:
    return Path(os.environ["HOME"])


@pytest.fixture
def focuser():
    """Unit 1, open, standing still; closed afterwards."""
    with nkr.open(UNIT) as unit:
        unit.wait(timeout=30)
        yield unit


def saved_record(home: Path, serial: str) -> dict[str, int]:
    """A unit's saved record in $HOME/.HTX/NKRconfig.xml (one per unit): value name -> number."""
    import xml.etree.ElementTree as ElementTree
    root = ElementTree.parse(home / ".HTX" / "NKRconfig.xml").getroot()
    record = root.find(f"HTX_Drevomat_units/SN{serial}")
    assert record is not None
    return {child.tag: int.from_bytes(bytes.fromhex(child.text or ""), "little", signed=True)
            for child in record}
