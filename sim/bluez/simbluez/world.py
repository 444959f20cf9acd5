"""The simulated bluetoothd: owns the org.bluez name, the object tree and the
fault switches, and can vanish and come back like the real daemon."""
import dbus
import dbus.service
from gi.repository import GLib

from . import tree

CONTROL = "org.nkr.SimControl1"
CONTROL_NAME = "org.nkr.SimBlueZ"
CONTROL_PATH = "/org/nkr/sim"
ADAPTER_PATH = "/org/bluez/hci0"
ADAPTER_ADDRESS = "00:1A:7D:DA:71:13"
DECOY_NAME = "Weather Station"
DECOY_ADDRESS = "D4:36:39:0A:0B:01"


class Faults:
    def __init__(self, args):
        self.mtu = args.mtu
        self.chunk = args.chunk             # notification size (at most ATT MTU - 3)
        self.resolve_delay_ms = args.resolve_delay_ms
        self.refuse_connect = False
        self.refuse_writes = 0
        self.drop_next = False


class Dummy:
    def close(self):
        pass


class World:
    def __init__(self, bus, firmware, args):
        self.bus = bus
        self.firmware = firmware
        self.args = args
        self.faults = Faults(args)
        self.requests = 0
        self.devices = {}
        self.present = False
        self.root = None
        self.adapter = None
        Control(bus, self)

    def mtu(self):
        return self.faults.mtu

    # ---- the daemon comes and goes ------------------------------------------
    def appear(self):
        self.root = tree.Root(self.bus, self)
        self.adapter = tree.Adapter(self.bus, self, ADAPTER_PATH, ADAPTER_ADDRESS)
        self.devices = {}
        self.present = True
        if self.args.known:
            self._add_devices(announce=False)
        self.bus.request_name("org.bluez", dbus.bus.NAME_FLAG_DO_NOT_QUEUE)

    def vanish(self):
        if not self.present:
            return
        self.bus.release_name("org.bluez")
        for d in list(self.devices.values()):
            d.remove()
        self.devices = {}
        self.adapter.remove_from_connection()
        self.root.remove_from_connection()
        self.present = False

    def objects(self):
        objs = [self.adapter]
        for d in self.devices.values():
            objs.append(d)
            objs.extend(d.gatt_objects)
        return objs

    # ---- radio ---------------------------------------------------------------
    def discovery_started(self):
        # Advertisements arrive a moment after discovery starts.
        GLib.timeout_add(50, lambda: (self._add_devices(announce=True), False)[1])

    def _add_devices(self, announce):
        if not self.present or not self.adapter.powered():
            return
        nearby = [(DECOY_NAME, DECOY_ADDRESS, lambda d: tree.decoy_gatt(self.bus, d))]
        if self.args.decoy_first is False:
            nearby = []
        for name, address in self.firmware.units():
            nearby.append((name, address, lambda d: tree.focuser_gatt(
                self.bus, d, self.args.single_characteristic)))
        if self.args.decoy_first is None:
            nearby.append(nearby.pop(0))
        for name, address, gatt in nearby:
            path = tree.dev_path(ADAPTER_PATH, address)
            if path in self.devices:
                continue
            d = tree.Device(self.bus, self, self.adapter, name, address, gatt)
            self.devices[path] = d
            if announce:
                self.root.InterfacesAdded(dbus.ObjectPath(path), d.managed())

    def remove_device(self, path):
        d = self.devices.pop(path, None)
        if d is None:
            raise tree.bluez_error("DoesNotExist", "Does Not Exist")
        d.remove()
        self.root.InterfacesRemoved(dbus.ObjectPath(path),
                                    dbus.Array([tree.DEVICE], signature="s"))

    def open_link(self, device):
        if device.props[tree.DEVICE]["Name"] == DECOY_NAME:
            return Dummy()
        return self.firmware.link(device.props[tree.DEVICE]["Address"])

    def set_powered(self, on):
        if not on:
            for d in self.devices.values():
                d.drop()
            if self.adapter.props[tree.ADAPTER]["Discovering"]:
                self.adapter.set_prop(tree.ADAPTER, "Discovering", dbus.Boolean(False))
        self.adapter.set_prop(tree.ADAPTER, "Powered", dbus.Boolean(on))


class Control(dbus.service.Object):
    """Fault switches for tests, on the same private bus."""

    def __init__(self, bus, world):
        self.world = world
        super().__init__(bus, CONTROL_PATH)

    @dbus.service.method(CONTROL, in_signature="u")
    def SetChunkSize(self, size):
        self.world.faults.chunk = max(1, int(size))

    @dbus.service.method(CONTROL, in_signature="u")
    def SetMtu(self, mtu):
        """A newly negotiated MTU: the characteristics report it, notifications grow."""
        mtu = min(max(int(mtu), 23), 517)
        self.world.faults.mtu = mtu
        self.world.faults.chunk = mtu - 3
        for d in self.world.devices.values():
            for o in d.gatt_objects:
                if tree.CHAR in o.props:
                    o.set_prop(tree.CHAR, "MTU", dbus.UInt16(mtu))

    @dbus.service.method(CONTROL, in_signature="s")
    def SetLengthByte(self, spec):
        if not self.world.firmware.set_length_byte(str(spec)):
            raise dbus.exceptions.DBusException("not header, payload or fixed:N: %s" % spec,
                                                name="org.nkr.SimControl1.Error.InvalidArgs")

    @dbus.service.method(CONTROL, in_signature="u")
    def SetResolveDelay(self, ms):
        self.world.faults.resolve_delay_ms = int(ms)

    @dbus.service.method(CONTROL)
    def DropNextExchange(self):
        self.world.faults.drop_next = True

    @dbus.service.method(CONTROL, in_signature="u")
    def RefuseWrites(self, count):
        self.world.faults.refuse_writes = int(count)

    @dbus.service.method(CONTROL, in_signature="b")
    def RefuseConnect(self, refuse):
        self.world.faults.refuse_connect = bool(refuse)

    @dbus.service.method(CONTROL, in_signature="b")
    def SetPowered(self, on):
        self.world.set_powered(bool(on))

    @dbus.service.method(CONTROL, in_signature="u")
    def Vanish(self, ms):
        """bluetoothd goes away, and comes back after ms (0: stays away)."""
        self.world.vanish()
        if ms > 0:
            GLib.timeout_add(int(ms), lambda: (self.world.appear(), False)[1])

    @dbus.service.method(CONTROL)
    def Appear(self):
        if not self.world.present:
            self.world.appear()

    @dbus.service.method(CONTROL, out_signature="u")
    def Requests(self):
        """Writes that reached a unit's serial service so far."""
        return self.world.requests
