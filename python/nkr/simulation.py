"""Running against simulated units instead of hardware.

The simulator is one shared library (``libhidapi-hidraw.so.0``, installed as
``<libdir>/nkr-sim/libhidapi-hidraw.so.0``) that stands in for hidapi and for
the Bluetooth helper library. Loaded before the SDK, it satisfies the SDK's
dependency on ``libhidapi-hidraw.so.0`` by its soname, so every SDK call in
this process then talks to simulated units.
"""
from __future__ import annotations

import ctypes
import os
import threading
from pathlib import Path

from . import _library, _paths
from .errors import LibraryNotFoundError, SimulationError

SIM_LIBRARY_NAME = "libhidapi-hidraw.so.0"

_lock = threading.Lock()
_simulator: ctypes.CDLL | None = None
_simulator_path: str | None = None
_units: str | None = None


def simulator_candidates() -> list[str]:
    """Where the simulator library is looked for, in order: NKR_SIM_LIBRARY,
    the installed path, then an nkr-sim/ (installed) or simlib/ (build tree)
    folder beside every path the SDK library is looked for at."""
    found: list[str] = []
    env = os.environ.get("NKR_SIM_LIBRARY")
    if env:
        found.append(env)
    if _paths.SIM_LIBRARY:
        found.append(_paths.SIM_LIBRARY)
    for library in _library.candidates():
        if os.sep not in library:
            continue
        folder = Path(library).parent
        for sub in ("nkr-sim", "simlib"):
            candidate = str(folder / sub / SIM_LIBRARY_NAME)
            if candidate not in found:
                found.append(candidate)
    return found


def check_units(units: str) -> None:
    """Raises TypeError unless units is a text; the simulator itself reads it
    (and refuses a bad one, see simulate)."""
    if not isinstance(units, str):
        raise TypeError(f"units must be a str such as 'usb:335,ble:382:E:NKR Pro', not {type(units).__name__}")


def _restore_units(before: str | None) -> None:
    """Puts NKR_SIM_UNITS back as it was (absent when it was)."""
    if before is None:
        os.environ.pop("NKR_SIM_UNITS", None)
    else:
        os.environ["NKR_SIM_UNITS"] = before


def _check_units_with(loaded: ctypes.CDLL, units: str) -> None:
    """The simulator's reading of a units text, the environment left as it was."""
    before = os.environ.get("NKR_SIM_UNITS")
    os.environ["NKR_SIM_UNITS"] = units
    try:
        _check_environment(loaded)
    finally:
        _restore_units(before)


def _check_environment(loaded: ctypes.CDLL) -> None:
    """The simulator's own reading of NKR_SIM_UNITS and NKR_SIM_UNPLUG: one
    parser for every program; ValueError with its sentence for a bad one."""
    validate = getattr(loaded, "nkr_sim_validate_environment", None)
    if validate is None:
        return
    validate.argtypes = [ctypes.c_char_p, ctypes.c_size_t]
    validate.restype = ctypes.c_int
    message = ctypes.create_string_buffer(512)
    if validate(message, len(message)) != 1:
        raise ValueError(message.value.decode("utf-8", "replace"))


# What the simulator sets for a shared world, mirrored into os.environ.
_SHARED_VARIABLES = ("NKR_BLE_HELPER", "NKR_SIM_STATE", "NKR_SIM_HOME", "HOME", "XDG_CONFIG_HOME")


def _enter_world(loaded: ctypes.CDLL, shared: bool, real_home: bool) -> None:
    enter = getattr(loaded, "nkr_sim_enter_world", None)
    if enter is None:
        raise SimulationError("this simulator library cannot share its world (too old); rebuild it")
    enter.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_char_p, ctypes.c_size_t]
    enter.restype = ctypes.c_int
    message = ctypes.create_string_buffer(512)
    if enter(1 if shared else 0, 1 if real_home else 0, message, len(message)) != 1:
        raise SimulationError(message.value.decode("utf-8", "replace"))
    libc = ctypes.CDLL(None)
    libc.getenv.restype = ctypes.c_char_p
    libc.getenv.argtypes = [ctypes.c_char_p]
    for name in _SHARED_VARIABLES:
        value = libc.getenv(name.encode())
        if value is not None:
            os.environ[name] = value.decode("utf-8", "surrogateescape")


def simulate(units: str | None = None, *, real_home: bool = False, shared: bool = True,
             state_dir: str | os.PathLike[str] | None = None,
             library: str | os.PathLike[str] | None = None) -> str:
    """Runs this process against simulated focusers instead of hardware.

    Call it before the first SDK call (``units()``, ``open()``, ...): the
    simulator has to be in the process before the SDK library is loaded.
    Calling it again with the same units does nothing.

    Args:
        units: the simulated units, as in ``NKR_SIM_UNITS``: comma-separated
            ``link:fw[:letter[:type]]`` entries, e.g.
            ``"usb:335,ble:382:E:NKR Pro"``. None keeps ``NKR_SIM_UNITS`` or the
            simulator's default set (two USB units and the Bluetooth unit
            ``NKR Pro_A1B2``).
        real_home: keep your HOME and settings folders, so the simulated units
            use your own settings files. By default HOME and XDG_CONFIG_HOME
            become the simulator's private folder (``$XDG_STATE_HOME/nkr-sim``),
            as with ``nkr --simulate``.
        shared: join the one simulated world every simulated front-end shares
            (``nkr --simulate``, ``nkr-alpaca --simulate``, the INDI driver with
            NKR_SIMULATE=1): a move started by one is seen by the others. False
            gives this process a world of its own (as tests want).
        state_dir: the private folder to use instead of ``$XDG_STATE_HOME/nkr-sim``.
        library: path of the simulator library; by default NKR_SIM_LIBRARY,
            the installed simulator or the one beside the SDK library.

    Returns:
        The path of the simulator library in use.

    Raises:
        SimulationError: the SDK library is already loaded without the simulator.
        LibraryNotFoundError: the simulator library was not found (the message
            lists every place tried).
        ValueError, TypeError: bad units text or state_dir.
    """
    global _simulator, _simulator_path, _units
    if units is not None:
        check_units(units)
    if state_dir is not None and not isinstance(state_dir, (str, os.PathLike)):
        raise TypeError(f"state_dir must be a path, not {type(state_dir).__name__}")
    with _lock:
        if _simulator is not None:
            if units is None or units == _units:
                return _simulator_path or ""
            _check_units_with(_simulator, units)  # a bad text is a ValueError before anything else
            raise SimulationError(
                f"the simulator already runs with units {_units!r}; one process has one simulated world")
        if _library.is_loaded():
            raise SimulationError(
                "simulate() must be called before the first SDK call: the SDK library is already "
                f"loaded from {_library.loaded_path()} without the simulator")

        paths = [os.fspath(library)] if library is not None else simulator_candidates()
        tried: list[str] = []
        loaded: ctypes.CDLL | None = None
        for path in paths:
            if not os.path.exists(path):
                tried.append(f"{path} (missing)")
                continue
            before = os.environ.get("NKR_SIM_UNITS")
            if units is not None:
                os.environ["NKR_SIM_UNITS"] = units
            try:
                loaded = ctypes.CDLL(os.path.abspath(path), mode=ctypes.RTLD_GLOBAL)
            except OSError as error:
                tried.append(f"{path} ({error})")
                continue
            try:
                _check_environment(loaded)
            except ValueError:
                _restore_units(before)
                raise
            path = os.path.abspath(path)
            break
        if loaded is None:
            raise LibraryNotFoundError(
                "cannot load the focuser simulator " + SIM_LIBRARY_NAME + "; tried:\n  " +
                ("\n  ".join(tried) or "(no place: set NKR_SIM_LIBRARY or NKR_LIBRARY)") +
                "\nSet NKR_SIM_LIBRARY to its path (build/simlib/ in a build tree, <libdir>/nkr-sim/ "
                "when installed).")

        # The SDK loads the Bluetooth helper by path: the simulator plays it too.
        os.environ["NKR_BLE_HELPER"] = path
        if state_dir is not None:
            home = Path(state_dir).expanduser()
            home.mkdir(parents=True, exist_ok=True)
            os.environ["NKR_SIM_HOME"] = str(home.resolve())
        _enter_world(loaded, shared, real_home)
        _simulator = loaded
        _simulator_path = path
        _units = units if units is not None else os.environ.get("NKR_SIM_UNITS")
        return path


def simulated() -> bool:
    """True when simulate() has put the simulator in this process."""
    return _simulator is not None


def simulate_from_environment() -> None:
    """NKR_SIMULATE=1 (or true, yes) in the environment: simulate() at import, with NKR_SIM_UNITS."""
    if os.environ.get("NKR_SIMULATE", "").lower() in ("1", "true", "yes") and not simulated():
        simulate()
