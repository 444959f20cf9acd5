"""Writing a firmware image over USB or Bluetooth (Focuser.update_firmware)."""
from __future__ import annotations

import ctypes
import time
from typing import TYPE_CHECKING

from . import _checks, _library
from ._records import BLE_BLOCK_BYTES, HID_BLOCK_BYTES, NKR_BLE_FILE_BUF, NKR_HID_FILE_BUF
from ._types import FirmwareVersion
from .errors import NKRError, check

if TYPE_CHECKING:
    from .focuser import Focuser, ProgressCallback

# The SDK passes the image size as a C int.
_MAX_IMAGE_BYTES = 16 << 20
_RETRY_SECONDS = 0.25


def _blocks(image: bytes, size: int) -> list[bytes]:
    return [image[offset:offset + size] for offset in range(0, len(image), size)]


def update(focuser: Focuser, image: bytes | bytearray | memoryview, progress: ProgressCallback | None,
           reopen: bool, restart_timeout: float) -> FirmwareVersion | None:
    if not isinstance(image, (bytes, bytearray, memoryview)):
        raise TypeError(f"image must be bytes (the file's content), not {type(image).__name__}")
    data = bytes(image)
    if not data:
        raise ValueError("the firmware image is empty")
    if len(data) > _MAX_IMAGE_BYTES:
        raise ValueError(f"the firmware image has {len(data)} bytes, more than 16 MiB; is it the right file?")
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable, not {type(progress).__name__}")
    reopen = _checks.flag("reopen", reopen)
    wait = _checks.seconds("restart_timeout", restart_timeout, allow_none=False)
    if not focuser.is_open:
        raise RuntimeError(f"{focuser!r} is closed")

    library = _library.load()
    total = len(data)
    done = 0
    if focuser.link == "ble":
        check(library.NKRBLEStartUpdate(focuser.id, total), "NKRBLEStartUpdate")
        for chunk in _blocks(data, BLE_BLOCK_BYTES):
            block = NKR_BLE_FILE_BUF()
            block.length = len(chunk)
            ctypes.memmove(block.data, chunk, len(chunk))
            check(library.NKRBLEWriteUpdateFile(focuser.id, block), "NKRBLEWriteUpdateFile")
            done += len(chunk)
            if progress is not None:
                progress(done, total)
    else:
        check(library.NKRHidStartUpdate(focuser.id), "NKRHidStartUpdate")
        for chunk in _blocks(data, HID_BLOCK_BYTES):
            block = NKR_HID_FILE_BUF()
            block.len = len(chunk)
            ctypes.memmove(block.buf, chunk, len(chunk))
            check(library.NKRHidWriteUpdateFile(focuser.id, block), "NKRHidWriteUpdateFile")
            done += len(chunk)
            if progress is not None:
                progress(done, total)
        check(library.NKRHidEndUpdate(focuser.id), "NKRHidEndUpdate")

    if not reopen:
        return None
    assert wait is not None
    _reopen(focuser, wait)
    return focuser.firmware


def _reopen(focuser: Focuser, wait: float) -> None:
    """Gets the same unit back while it restarts (the host layer finds it by
    serial number or Bluetooth address), retrying until wait seconds pass."""
    deadline = time.monotonic() + wait
    while True:
        try:
            focuser._reconnect()
            return
        except NKRError:
            if time.monotonic() >= deadline:
                raise
            time.sleep(_RETRY_SECONDS)
