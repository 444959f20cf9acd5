"""The org.bluez object tree: one adapter, its devices and their GATT services."""
import dbus
import dbus.service
from gi.repository import GLib

from .dbusobject import PropertyObject, bluez_error

ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"
SERVICE = "org.bluez.GattService1"
CHAR = "org.bluez.GattCharacteristic1"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"

# The units' serial service and its two characteristics (vendor UUIDs).
SERIAL_SERVICE = "6e4b0001-8a3c-4f1e-9b2d-5c7e1f0a4d21"
SERIAL_WRITE = "6e4b0002-8a3c-4f1e-9b2d-5c7e1f0a4d21"
SERIAL_NOTIFY = "6e4b0003-8a3c-4f1e-9b2d-5c7e1f0a4d21"
# A vendor service a unit also has, with nothing that writes or notifies.
VENDOR_INFO = "6e4b0100-8a3c-4f1e-9b2d-5c7e1f0a4d21"
# The decoy's own serial-like service.
DECOY_SERVICE = "d3c0a001-1111-4222-8333-944455556666"


def sig(short):
    return "0000%04x-0000-1000-8000-00805f9b34fb" % short


def dev_path(adapter_path, address):
    return "%s/dev_%s" % (adapter_path, address.replace(":", "_"))


class Root(dbus.service.Object):
    """ObjectManager at "/", as bluetoothd has it."""

    def __init__(self, bus, world):
        self.world = world
        super().__init__(bus, "/")

    @dbus.service.method(OBJECT_MANAGER, out_signature="a{oa{sa{sv}}}")
    def GetManagedObjects(self):
        return dbus.Dictionary({dbus.ObjectPath(o.path): o.managed() for o in self.world.objects()},
                               signature="oa{sa{sv}}")

    @dbus.service.signal(OBJECT_MANAGER, signature="oa{sa{sv}}")
    def InterfacesAdded(self, path, interfaces):
        pass

    @dbus.service.signal(OBJECT_MANAGER, signature="oas")
    def InterfacesRemoved(self, path, interfaces):
        pass


class Adapter(PropertyObject):
    def __init__(self, bus, world, path, address):
        super().__init__(bus, path)
        self.world = world
        self.props[ADAPTER] = {
            "Address": address, "AddressType": "public", "Name": "nkr-sim", "Alias": "nkr-sim",
            "Powered": dbus.Boolean(True), "Discovering": dbus.Boolean(False),
            "Discoverable": dbus.Boolean(False), "Pairable": dbus.Boolean(True),
            "UUIDs": dbus.Array([], signature="s"),
        }
        self.writable = {(ADAPTER, "Powered")}
        self.on_set = lambda iface, name, value: world.set_powered(bool(value))
        self.filter = {}

    def powered(self):
        return bool(self.props[ADAPTER]["Powered"])

    @dbus.service.method(ADAPTER, in_signature="a{sv}")
    def SetDiscoveryFilter(self, flt):
        if not self.powered():
            raise bluez_error("NotReady", "Resource Not Ready")
        self.filter = dict(flt)

    @dbus.service.method(ADAPTER)
    def StartDiscovery(self):
        if not self.powered():
            raise bluez_error("NotReady", "Resource Not Ready")
        if self.props[ADAPTER]["Discovering"]:
            raise bluez_error("InProgress", "Operation already in progress")
        self.set_prop(ADAPTER, "Discovering", dbus.Boolean(True))
        self.world.discovery_started()

    @dbus.service.method(ADAPTER)
    def StopDiscovery(self):
        if not self.props[ADAPTER]["Discovering"]:
            raise bluez_error("Failed", "No discovery started")
        self.set_prop(ADAPTER, "Discovering", dbus.Boolean(False))

    @dbus.service.method(ADAPTER, in_signature="o")
    def RemoveDevice(self, path):
        self.world.remove_device(str(path))


class Characteristic(PropertyObject):
    def __init__(self, bus, device, service_path, index, uuid, flags, on_write=None):
        path = "%s/char%04x" % (service_path, index)
        super().__init__(bus, path)
        self.device = device
        self.on_write = on_write
        self.props[CHAR] = {
            "UUID": uuid, "Service": dbus.ObjectPath(service_path),
            "Value": dbus.Array([], signature="y"), "Notifying": dbus.Boolean(False),
            "Flags": dbus.Array(flags, signature="s"), "MTU": dbus.UInt16(device.world.mtu()),
        }

    @dbus.service.method(CHAR, in_signature="a{sv}", out_signature="ay")
    def ReadValue(self, options):
        self.device.require_connected()
        return dbus.Array(self.props[CHAR]["Value"], signature="y")

    @dbus.service.method(CHAR, in_signature="aya{sv}")
    def WriteValue(self, value, options):
        self.device.require_connected()
        flags = self.props[CHAR]["Flags"]
        if "write" not in flags and "write-without-response" not in flags:
            raise bluez_error("NotPermitted", "Write not permitted")
        if self.on_write is None:
            self.set_prop(CHAR, "Value", dbus.Array(value, signature="y"))
            return
        self.on_write(bytes(value))

    @dbus.service.method(CHAR)
    def StartNotify(self):
        self.device.require_connected()
        flags = self.props[CHAR]["Flags"]
        if "notify" not in flags and "indicate" not in flags:
            raise bluez_error("NotSupported", "Operation is not supported")
        self.set_prop(CHAR, "Notifying", dbus.Boolean(True))

    @dbus.service.method(CHAR)
    def StopNotify(self):
        self.set_prop(CHAR, "Notifying", dbus.Boolean(False))

    def notify(self, data):
        if self.props[CHAR]["Notifying"]:
            # Every notification changes Value, even to the same bytes.
            self.props[CHAR]["Value"] = None
            self.set_prop(CHAR, "Value", dbus.Array(data, signature="y"))


class Service(PropertyObject):
    def __init__(self, bus, device, index, uuid, primary=True):
        path = "%s/service%04x" % (device.path, index)
        super().__init__(bus, path)
        self.props[SERVICE] = {"UUID": uuid, "Primary": dbus.Boolean(primary),
                               "Device": dbus.ObjectPath(device.path)}


class Device(PropertyObject):
    """A nearby device. A focuser's writes go to its simulated firmware."""

    def __init__(self, bus, world, adapter, name, address, gatt):
        super().__init__(bus, dev_path(adapter.path, address))
        self.world = world
        self.gatt = gatt            # callable(device) -> list of objects, made at resolution
        self.gatt_objects = []
        self.notify_char = None
        self.link = None
        self.props[DEVICE] = {
            "Address": address, "AddressType": "random", "Name": name, "Alias": name,
            "Adapter": dbus.ObjectPath(adapter.path), "Paired": dbus.Boolean(False),
            "Trusted": dbus.Boolean(False), "Blocked": dbus.Boolean(False),
            "Connected": dbus.Boolean(False), "ServicesResolved": dbus.Boolean(False),
            "RSSI": dbus.Int16(-58), "LegacyPairing": dbus.Boolean(False),
            "UUIDs": dbus.Array([], signature="s"),
        }

    def connected(self):
        return bool(self.props[DEVICE]["Connected"])

    def require_connected(self):
        if not self.connected():
            raise bluez_error("Failed", "Not connected")

    @dbus.service.method(DEVICE)
    def Connect(self):
        if not self.world.adapter.powered():
            raise bluez_error("NotReady", "Resource Not Ready")
        if self.world.faults.refuse_connect:
            raise bluez_error("Failed", "le-connection-abort-by-local")
        if self.connected():
            return
        try:
            self.link = self.world.open_link(self)
        except OSError as e:
            raise bluez_error("Failed", str(e))
        self.set_prop(DEVICE, "Connected", dbus.Boolean(True))
        delay = self.world.faults.resolve_delay_ms
        if delay > 0:
            GLib.timeout_add(delay, self._resolve)
        else:
            self._resolve()

    def _resolve(self):
        if self.connected():
            if not self.gatt_objects:
                self.gatt_objects = self.gatt(self)
                for o in self.gatt_objects:
                    self.world.root.InterfacesAdded(dbus.ObjectPath(o.path), o.managed())
                self.set_prop(DEVICE, "UUIDs", dbus.Array(
                    [o.props[SERVICE]["UUID"] for o in self.gatt_objects if SERVICE in o.props],
                    signature="s"))
            self.set_prop(DEVICE, "ServicesResolved", dbus.Boolean(True))
        return False

    @dbus.service.method(DEVICE)
    def Disconnect(self):
        self.drop()

    def drop(self):
        """The link goes down, by request or by radio."""
        if self.link is not None:
            self.link.close()
            self.link = None
        for o in self.gatt_objects:
            if CHAR in o.props:
                o.set_prop(CHAR, "Notifying", dbus.Boolean(False))
        self.set_prop(DEVICE, "ServicesResolved", dbus.Boolean(False))
        self.set_prop(DEVICE, "Connected", dbus.Boolean(False))

    def written(self, data):
        """Bytes written to the serial characteristic."""
        faults = self.world.faults
        if faults.refuse_writes > 0:
            faults.refuse_writes -= 1
            raise bluez_error("Failed", "Operation failed with ATT error: 0x0e")
        if self.link is None:
            raise bluez_error("Failed", "Not connected")
        self.world.requests += 1
        for answer in self.link.write(data):
            size = faults.chunk
            pieces = [answer[i:i + size] for i in range(0, len(answer), size)] or [b""]
            if faults.drop_next:
                # The radio goes half-way through the answer.
                faults.drop_next = False
                self.notify_char.notify(answer[:max(1, len(answer) // 2)])
                GLib.idle_add(lambda: (self.drop(), False)[1])
                return
            for piece in pieces:
                self.notify_char.notify(piece)

    def remove(self):
        self.drop()
        for o in self.gatt_objects:
            o.remove_from_connection()
        self.gatt_objects = []
        self.remove_from_connection()


def focuser_gatt(bus, device, single_characteristic):
    """Device information, a vendor service that is not the serial one, then
    the serial service."""
    objs = []
    info = Service(bus, device, 0x0008, sig(0x180A))
    objs += [info, Characteristic(bus, device, info.path, 0x0009, sig(0x2A29), ["read"])]
    battery = Service(bus, device, 0x000c, sig(0x180F))
    objs += [battery, Characteristic(bus, device, battery.path, 0x000d, sig(0x2A19),
                                     ["read", "notify"])]
    vendor = Service(bus, device, 0x0010, VENDOR_INFO)
    objs += [vendor, Characteristic(bus, device, vendor.path, 0x0011, VENDOR_INFO[:4] + "0101" +
                                    VENDOR_INFO[8:], ["read"])]
    serial = Service(bus, device, 0x0014, SERIAL_SERVICE)
    objs.append(serial)
    if single_characteristic:
        both = Characteristic(bus, device, serial.path, 0x0015, SERIAL_WRITE,
                              ["write-without-response", "write", "notify"], device.written)
        objs.append(both)
        device.notify_char = both
    else:
        write = Characteristic(bus, device, serial.path, 0x0015, SERIAL_WRITE,
                               ["write-without-response", "write"], device.written)
        notify = Characteristic(bus, device, serial.path, 0x0017, SERIAL_NOTIFY, ["notify"])
        objs += [write, notify]
        device.notify_char = notify
    return objs


def decoy_gatt(bus, device):
    """A nearby sensor with a serial-like service of its own."""
    svc = Service(bus, device, 0x0020, DECOY_SERVICE)
    return [svc,
            Characteristic(bus, device, svc.path, 0x0021, DECOY_SERVICE[:4] + "0002" +
                           DECOY_SERVICE[8:], ["write"]),
            Characteristic(bus, device, svc.path, 0x0023, DECOY_SERVICE[:4] + "0003" +
                           DECOY_SERVICE[8:], ["notify"])]
