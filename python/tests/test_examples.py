"""The examples in examples/python run as the README shows, briefly, against
the simulator (with --simulate, their state under this test's HOME)."""
from __future__ import annotations

import csv
import io
import os
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import saved_record

EXAMPLES = Path(os.environ.get("NKR_PYTHON_EXAMPLES", Path(__file__).resolve().parents[2] / "examples" / "python"))
PACKAGE_DIR = str(Path(__file__).resolve().parents[1])


def run_example(name: str, *args: str) -> subprocess.CompletedProcess[str]:
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, PYTHONDONTWRITEBYTECODE="1")
    environment.pop("NKR_SIMULATE", None)
    environment.pop("NKR_SIM_UNITS", None)  # the simulator's default units, as a user gets them
    done = subprocess.run([sys.executable, str(EXAMPLES / name), "--simulate", *args], env=environment,
                          capture_output=True, text=True, timeout=90)
    assert done.returncode == 0, done.stderr
    return done


def test_minimal_move_goes_out_and_back(home):
    lines = run_example("minimal_move.py").stdout.splitlines()
    start = int(lines[0].split(" at ")[1].split(",")[0])
    assert lines[1] == f"moved to {start + 500}" and lines[2] == f"back at {start}"
    # --simulate keeps the record in the simulator's own folder, the unit's own record.
    assert saved_record(home, "123456789ABCDEF0")["Position"] == start


def test_focus_sweep_writes_csv_and_returns_to_start(tmp_path):
    out = tmp_path / "sweep.csv"
    done = run_example("focus_sweep.py", "--unit", "1", "--half-width", "300", "--step", "150",
                       "--output", str(out))
    rows = list(csv.DictReader(out.open()))
    positions = [int(row["position"]) for row in rows]
    assert len(positions) == 5 and positions == sorted(positions)
    assert [b - a for a, b in zip(positions, positions[1:])] == [150] * 4
    assert all(float(row["temperature_c"]) == pytest.approx(25.0) and float(row["seconds"]) > 0 for row in rows)
    assert f"back at {positions[2]}" in done.stderr


def test_temperature_logger_takes_the_readings_asked_for():
    done = run_example("temperature_logger.py", "--interval", "0.05", "--count", "3")
    rows = list(csv.DictReader(io.StringIO(done.stdout)))
    assert len(rows) == 3
    assert all(row["time_utc"].endswith("+00:00") and float(row["temperature_c"]) == pytest.approx(25.0)
               for row in rows)


def test_examples_reject_bad_options():
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR)
    done = subprocess.run([sys.executable, str(EXAMPLES / "focus_sweep.py"), "--step", "0"], env=environment,
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 2 and "--step must be positive" in done.stderr


def test_readme_python_example_runs_as_written(tmp_path):
    readme = (Path(__file__).resolve().parents[2] / "README.md").read_text()
    section = readme[readme.index("\n## Python\n"):]
    script = section[section.index("```python\n") + 10:section.index("```\n", section.index("```python\n"))]
    (tmp_path / "try_nkr.py").write_text(script)
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, PYTHONDONTWRITEBYTECODE="1")
    environment.pop("NKR_SIM_UNITS", None)
    done = subprocess.run([sys.executable, "try_nkr.py"], cwd=tmp_path, env=environment, capture_output=True,
                          text=True, timeout=90)
    assert done.returncode == 0, done.stderr
    lines = done.stdout.splitlines()
    assert lines[0].startswith("0 NKR") and lines[0].endswith(" usb") and len(lines) == 3
    assert lines[-1].startswith("at ") and lines[-1].endswith(" steps, 25.0 °C")

