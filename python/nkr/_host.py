"""The host layer's C interface (libnkr_host.so.1, nkr_host.h): the one
place where every front-end's rules live (naming a unit, the user's maximum,
following a move, what "gone" means, the settings kept per unit). Loaded on
first use, after the SDK library (and after the simulator when simulated).
"""
from __future__ import annotations

import ctypes
import os
import threading
from ctypes import POINTER, c_char_p, c_double, c_int, c_longlong, c_size_t, c_ubyte, c_void_p
from pathlib import Path
from typing import Any

from . import _library, _paths
from .errors import LibraryNotFoundError, error_for

LIBRARY_SONAME = "libnkr_host.so.1"
_MESSAGE_BYTES = 1024

_P_INT = POINTER(c_int)
_P_DOUBLE = POINTER(c_double)

PROTOTYPES: dict[str, tuple[Any, list[Any]]] = {
    "nkr_host_init": (None, []),
    "nkr_host_serial_text": (None, [POINTER(c_ubyte), c_char_p, c_size_t]),
    "nkr_host_alias_of": (None, [c_char_p, c_size_t, c_char_p, c_size_t]),
    "nkr_host_open": (c_int, [c_char_p, c_int, c_int, POINTER(c_void_p), c_char_p, c_size_t]),
    "nkr_host_adopt": (c_void_p, [c_int, c_int]),
    "nkr_host_free": (None, [c_void_p, c_int]),
    "nkr_host_reconnect": (c_int, [c_void_p, c_char_p, c_size_t]),
    "nkr_host_slot": (c_int, [c_void_p]),
    "nkr_host_identity_json": (c_int, [c_void_p, c_char_p, c_size_t]),
    "nkr_host_inventory_json": (c_int, [c_int, c_char_p, c_size_t]),
    "nkr_host_maximum": (c_int, [c_void_p, _P_INT, c_char_p, c_size_t]),
    "nkr_host_stop": (c_int, [c_void_p, c_char_p, c_size_t]),
    "nkr_host_sync": (c_int, [c_void_p, c_longlong, c_char_p, c_size_t]),
    "nkr_host_set_setting": (c_int, [c_void_p, c_char_p, c_char_p, c_char_p, c_size_t]),
    "nkr_host_move": (c_int, [c_void_p, c_longlong, c_int, c_char_p, c_size_t]),
    "nkr_host_move_poll": (c_int, [c_void_p, _P_INT, _P_INT, _P_INT, _P_INT, c_char_p, c_size_t]),
    "nkr_host_move_interrupt": (c_int, [c_void_p, _P_INT, c_char_p, c_size_t]),
    "nkr_host_settings_json": (c_int, [c_void_p, c_char_p, c_size_t]),
    "nkr_host_settings_merge": (c_int, [c_void_p, c_char_p, c_char_p, c_size_t]),
    "nkr_host_save_position": (c_int, [c_void_p, c_char_p, c_longlong, c_char_p, c_size_t]),
    "nkr_host_remove_position": (c_int, [c_void_p, c_char_p, c_char_p, c_size_t]),
    "nkr_host_named_position": (c_int, [c_void_p, c_char_p, _P_INT, c_char_p, c_size_t]),
    "nkr_host_fit_temperature": (c_int, [_P_DOUBLE, _P_DOUBLE, c_int, _P_DOUBLE, _P_DOUBLE, _P_INT, _P_INT,
                                         POINTER(c_ubyte), c_char_p, c_size_t]),
}

# How a followed move ended (nkr_host.h).
REACHED, STOPPED, INTERRUPTED, GONE, TIMED_OUT, STALLED = range(6)

_lock = threading.Lock()
_host: ctypes.CDLL | None = None


def _sdk_path() -> str | None:
    """The file the SDK library was loaded from (the loader may have found it by name)."""
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            for line in maps:
                if "libNKR_focuser.so" in line:
                    return line.split()[-1]
    except OSError:
        pass
    return None


def candidates() -> list[str]:
    """Where the host library is looked for: NKR_HOST_LIBRARY, the installed
    path, beside the SDK library (installed: <libdir>/nkr/; build tree: host/),
    then the loader's search by name."""
    found: list[str] = []
    for path in (os.environ.get("NKR_HOST_LIBRARY"), getattr(_paths, "HOST_LIBRARY", None)):
        if path:
            found.append(path)
    sdk = _sdk_path()
    if sdk:
        folder = Path(sdk).parent
        for sub in ("nkr", "host"):
            found.append(str(folder / sub / LIBRARY_SONAME))
    found.append(LIBRARY_SONAME)
    return found


def load() -> ctypes.CDLL:
    """The loaded host library (after the SDK), loading it on the first call."""
    global _host
    if _host is not None:
        return _host
    _library.load()
    with _lock:
        if _host is not None:
            return _host
        tried: list[str] = []
        for candidate in candidates():
            if os.sep in candidate and not os.path.exists(candidate):
                tried.append(f"{candidate} (missing)")
                continue
            try:
                library = ctypes.CDLL(candidate)
                for name, (result, arguments) in PROTOTYPES.items():
                    function = getattr(library, name)
                    function.restype = result
                    function.argtypes = arguments
            except (OSError, AttributeError) as error:
                tried.append(f"{candidate} ({error})")
                continue
            library.nkr_host_init()
            _host = library
            return library
        raise LibraryNotFoundError(
            "cannot load the NKR host library " + LIBRARY_SONAME + "; tried:\n  " + "\n  ".join(tried) +
            "\nSet NKR_HOST_LIBRARY to its path (build/host/ in a build tree, <libdir>/nkr/ when installed).")


def call(function: str, *args: Any) -> None:
    """Calls a host function whose last two arguments are the message buffer;
    raises the catalogue's exception, with the host's sentence, on failure."""
    message = ctypes.create_string_buffer(_MESSAGE_BYTES)
    code = getattr(load(), function)(*args, message, _MESSAGE_BYTES)
    if code != 0:
        raise error_for(code, "", message.value.decode("utf-8", "replace") or None)


def text(function: str, *args: Any) -> str:
    """Calls a host function that fills a text buffer and returns its length."""
    size = 4096
    while True:
        buffer = ctypes.create_string_buffer(size)
        length = getattr(load(), function)(*args, buffer, size)
        if length < 0:
            raise error_for(7, function, f"{function} failed")
        if length < size:
            return buffer.value.decode("utf-8", "replace")
        size = length + 1
