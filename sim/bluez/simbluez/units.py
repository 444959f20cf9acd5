"""The simulated units' firmware, reached through the simulator library's own
Bluetooth helper entry points (which never block)."""
import ctypes
import os


class ScanRecord(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 256), ("extra", ctypes.c_char * 32),
                ("address", ctypes.c_char * 112), ("rssi", ctypes.c_int16),
                ("bt_address", ctypes.c_int64)]


assert ctypes.sizeof(ScanRecord) == 416


class Firmware:
    """The simulator library, loaded once per process."""

    def __init__(self, path):
        self.lib = ctypes.CDLL(path, mode=ctypes.RTLD_GLOBAL)
        lib = self.lib
        lib.ble_manager_create.restype = ctypes.c_void_p
        lib.ble_manager_destroy.argtypes = [ctypes.c_void_p]
        lib.ble_manager_scan.argtypes = [ctypes.c_void_p, ctypes.c_uint,
                                         ctypes.POINTER(ScanRecord), ctypes.c_int]
        lib.ble_manager_scan.restype = ctypes.c_int32
        lib.ble_manager_connect.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p]
        lib.ble_manager_connect.restype = ctypes.c_int32
        lib.ble_manager_disconnect.argtypes = [ctypes.c_void_p]
        lib.ble_manager_send.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_uint,
                                         ctypes.c_uint, ctypes.c_uint]
        lib.ble_manager_send.restype = ctypes.c_bool
        lib.ble_manager_wait_for_data.argtypes = [ctypes.c_void_p]
        lib.ble_manager_wait_for_data.restype = ctypes.c_bool
        lib.ble_manager_get_received_data.argtypes = [ctypes.c_void_p, ctypes.c_char_p,
                                                      ctypes.c_uint]
        lib.ble_manager_get_received_data.restype = ctypes.c_uint
        lib.ble_set_is_read.argtypes = [ctypes.c_void_p, ctypes.c_int]
        lib.nkr_sim_set_ble_length.argtypes = [ctypes.c_char_p]
        lib.nkr_sim_set_ble_length.restype = ctypes.c_int

    def set_length_byte(self, spec):
        return self.lib.nkr_sim_set_ble_length(spec.encode()) == 1

    def units(self):
        """(name, address) of every simulated Bluetooth unit that is plugged in."""
        mgr = self.lib.ble_manager_create()
        records = (ScanRecord * 64)()
        count = self.lib.ble_manager_scan(mgr, 0, records, 64)
        self.lib.ble_manager_destroy(mgr)
        return [(records[i].name.decode(), records[i].address.decode().upper())
                for i in range(max(count, 0))]

    def link(self, address):
        return UnitLink(self.lib, address)


class UnitLink:
    """One radio link to one unit: whole request frames in, answer frames out."""

    def __init__(self, lib, address):
        self.lib = lib
        self.mgr = lib.ble_manager_create()
        if lib.ble_manager_connect(self.mgr, address.encode(), b"") != 0:
            lib.ble_manager_destroy(self.mgr)
            self.mgr = None
            raise OSError("unit %s does not answer" % address)
        # A unit answers every request; whether the host waits is its own affair.
        lib.ble_set_is_read(self.mgr, 1)
        self.pending = bytearray()

    def close(self):
        if self.mgr is not None:
            self.lib.ble_manager_disconnect(self.mgr)
            self.lib.ble_manager_destroy(self.mgr)
            self.mgr = None

    def write(self, chunk):
        """Feeds written bytes; returns the answer frames of every request completed."""
        self.pending += chunk
        answers = []
        while self.pending:
            frame = self._take_frame()
            if frame is None:
                break
            self.lib.ble_manager_send(self.mgr, bytes(frame), len(frame), 3, 0)
            buf = ctypes.create_string_buffer(4096)
            while self.lib.ble_manager_wait_for_data(self.mgr):
                n = self.lib.ble_manager_get_received_data(self.mgr, buf, len(buf))
                answers.append(buf.raw[:n])
        return answers

    def _take_frame(self):
        """A whole request frame from the front of the written bytes, or None.

        A request carries N payload bytes in N + 9: the low byte of N at
        offset 1 and its high byte after the payload. Bytes that are not a
        request frame go to the unit as they came.
        """
        buf = self.pending
        if buf[0] != 0x00:
            frame, self.pending = bytes(buf), bytearray()
            return frame
        if len(buf) < 9:
            return None
        for high in range(256):
            n = buf[1] | (high << 8)
            if len(buf) < n + 9:
                return None
            if buf[4 + n] == high:
                frame, self.pending = bytes(buf[:n + 9]), bytearray(buf[n + 9:])
                return frame
        return None


def default_library():
    here = os.path.dirname(os.path.abspath(__file__))
    for candidate in (os.environ.get("NKR_SIM_LIBRARY"),
                      os.path.join(here, "..", "..", "libhidapi-hidraw.so.0")):
        if candidate and os.path.exists(candidate):
            return candidate
    return None
