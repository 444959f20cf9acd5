"""The package installs without network and without a compiler, and an
installed copy finds the library that was installed with it."""
from __future__ import annotations

import importlib.util
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[1]
CHECK = "import nkr; nkr.simulate(); print(nkr.__file__); print(nkr.library_path()); print(len(nkr.units()))"


def clean_environment(**extra: str) -> dict[str, str]:
    """No hint where the libraries are: the installed package has to know."""
    environment = {k: v for k, v in os.environ.items()
                   if k not in ("NKR_LIBRARY", "NKR_SIM_LIBRARY", "LD_LIBRARY_PATH", "PYTHONPATH", "NKR_SIMULATE")}
    environment.update(NKR_SIM_UNITS="usb:382,usb:335", PYTHONDONTWRITEBYTECODE="1", **extra)
    return environment


def tool_environment() -> dict[str, str]:
    """For pip and cmake: without the sanitizer runtimes a sanitizer build preloads for the SDK."""
    return {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS")}


def test_pip_installs_offline_with_nothing_but_the_standard_library(tmp_path):
    # pip's isolated build environment gets nothing installed (no network, no
    # setuptools or wheel): the package's own back end has to build the wheel.
    if importlib.util.find_spec("pip") is None:
        pytest.skip("pip is not installed (python3-pip)")
    source = tmp_path / "source"  # pip writes build files next to the sources
    source.mkdir()
    for name in ("pyproject.toml", "README.md"):
        shutil.copy(SOURCE / name, source)
    for folder in ("nkr", "_build"):
        shutil.copytree(SOURCE / folder, source / folder, ignore=shutil.ignore_patterns("__pycache__"))
    target = tmp_path / "site"
    done = subprocess.run([sys.executable, "-m", "pip", "install", "--no-index", "--no-deps",
                           "--disable-pip-version-check", "--target", str(target), str(source)],
                          capture_output=True, text=True, timeout=120, env=tool_environment())
    assert done.returncode == 0, done.stdout + done.stderr
    installed = target / "nkr"
    assert (installed / "py.typed").exists() and (installed / "focuser.py").exists()
    assert not (installed / "error_catalogue.json").is_symlink()  # the catalogue itself, read through
    # Not installed by CMake: the library is found through NKR_LIBRARY.
    done = subprocess.run([sys.executable, "-c", CHECK], capture_output=True, text=True, timeout=60,
                          env=clean_environment(PYTHONPATH=str(target), NKR_LIBRARY=os.environ["NKR_LIBRARY"]))
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines()[0].startswith(str(installed)) and done.stdout.splitlines()[2] == "2"


def test_cmake_install_into_a_staging_prefix(tmp_path):
    build = os.environ.get("NKR_BUILD_DIR")
    cmake = os.environ.get("NKR_CMAKE_COMMAND", "cmake")
    site = os.environ.get("NKR_PYTHON_INSTALL_DIR")
    if not build or not site:
        pytest.skip("NKR_BUILD_DIR and NKR_PYTHON_INSTALL_DIR (set by ctest) name the build to install")
    stage = tmp_path / "stage"
    done = subprocess.run([cmake, "--install", build, "--prefix", str(stage)], capture_output=True, text=True,
                          timeout=120, env=tool_environment())
    assert done.returncode == 0, done.stdout + done.stderr
    done = subprocess.run([sys.executable, "-c", CHECK], capture_output=True, text=True, timeout=60,
                          env=clean_environment(PYTHONPATH=str(stage / site)))
    assert done.returncode == 0, done.stderr
    package, library, count = done.stdout.splitlines()
    assert package.startswith(str(stage / site / "nkr"))
    assert library.startswith(str(stage)) and library.endswith("libNKR_focuser.so.1")
    assert count == "2"
