"""The examples in examples/python run as the README shows, briefly, against
the simulator (with --simulate, their state under this test's HOME)."""
from __future__ import annotations

import csv
import io
import os
import select
import signal
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


def test_focus_sweep_returns_to_the_start_after_ctrl_c():
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, PYTHONDONTWRITEBYTECODE="1")
    environment.pop("NKR_SIMULATE", None)
    environment.pop("NKR_SIM_UNITS", None)
    # Python turns SIGINT into KeyboardInterrupt only if it starts with the default action.
    sweep = subprocess.Popen([sys.executable, str(EXAMPLES / "focus_sweep.py"), "--simulate", "--unit", "1",
                              "--half-width", "2000", "--step", "2000"], env=environment,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
    try:
        # The first row is out: the second move (back through the start) runs now.
        seen = b""
        while seen.count(b"\n") < 2 and select.select([sweep.stdout], [], [], 60)[0]:
            chunk = os.read(sweep.stdout.fileno(), 4096)
            if not chunk:
                break
            seen += chunk
        rows = seen.decode().splitlines()
        assert len(rows) >= 2 and rows[0].startswith("position,"), (seen, sweep.poll())
        start = int(rows[1].split(",")[0]) + 2000
        sweep.send_signal(signal.SIGINT)
        _, errors = sweep.communicate(timeout=60)
    finally:
        sweep.kill()
        sweep.wait()
    text = errors.decode()
    assert sweep.returncode == 130 and "Traceback" not in text, text
    assert text.strip().endswith(f"interrupted; back at {start}"), text


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


@pytest.mark.parametrize("name", ["minimal_move.py", "focus_sweep.py", "temperature_logger.py"])
def test_examples_explain_themselves_and_hint_at_simulate_without_units(name):
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, PYTHONDONTWRITEBYTECODE="1")
    helped = subprocess.run([sys.executable, str(EXAMPLES / name), "--help"], env=environment,
                            capture_output=True, text=True, timeout=60)
    description = helped.stdout.split("\n\n")[1]
    assert helped.returncode == 0 and description.endswith("."), helped.stdout  # never cut mid-sentence
    # No units at all, as on a computer without a focuser.
    environment.update(NKR_SIMULATE="1", NKR_SIM_UNITS="")
    done = subprocess.run([sys.executable, str(EXAMPLES / name)], env=environment, capture_output=True, text=True,
                          timeout=60)
    assert done.returncode == 1 and "Traceback" not in done.stderr, done.stderr
    assert "add --simulate" in done.stderr and done.stdout == ""


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



def test_readme_focus_model_example_runs_as_written(tmp_path):
    readme = (Path(__file__).resolve().parents[2] / "README.md").read_text()
    section = readme[readme.index("\n## Python\n"):readme.index("\n## ", readme.index("\n## Python\n") + 1)]
    blocks = [block.split("```")[0] for block in section.split("```python\n")[1:]]
    script = next(block for block in blocks if "nkr.TempComp(" in block)
    (tmp_path / "focus_model.py").write_text(script)
    environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, PYTHONDONTWRITEBYTECODE="1")
    environment.pop("NKR_SIM_UNITS", None)
    done = subprocess.run([sys.executable, "focus_model.py"], cwd=tmp_path, env=environment, capture_output=True,
                          text=True, timeout=90)
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines() == ["TempComp(enabled=True, coefficient=-3.0, deadband=0.5)",
                                        "Approach(enabled=True, direction=1, overshoot=300) 3.76 31200"]
