"""D-Bus objects with properties: org.freedesktop.DBus.Properties done once."""
import dbus
import dbus.service

PROPS = "org.freedesktop.DBus.Properties"


class PropertyObject(dbus.service.Object):
    """An exported object whose interfaces are dicts of properties.

    Subclasses fill self.props[interface] and call set_prop() to change a
    value, which emits PropertiesChanged as bluetoothd does.
    """

    def __init__(self, bus, path):
        self.path = path
        self.props = {}
        self.writable = set()  # (interface, name) pairs a client may Set
        self.on_set = None     # callable(interface, name, value) -> None
        super().__init__(bus, path)

    def managed(self):
        return dbus.Dictionary(
            {iface: dbus.Dictionary(vals, signature="sv") for iface, vals in self.props.items()},
            signature="sa{sv}")

    def set_prop(self, iface, name, value):
        if self.props[iface].get(name) == value:
            return
        self.props[iface][name] = value
        self.PropertiesChanged(iface, dbus.Dictionary({name: value}, signature="sv"),
                               dbus.Array([], signature="s"))

    @dbus.service.method(PROPS, in_signature="ss", out_signature="v")
    def Get(self, iface, name):
        try:
            return self.props[iface][name]
        except KeyError:
            raise dbus.exceptions.DBusException(
                "No such property '%s'" % name, name="org.freedesktop.DBus.Error.InvalidArgs")

    @dbus.service.method(PROPS, in_signature="s", out_signature="a{sv}")
    def GetAll(self, iface):
        return dbus.Dictionary(self.props.get(iface, {}), signature="sv")

    @dbus.service.method(PROPS, in_signature="ssv")
    def Set(self, iface, name, value):
        if (iface, name) not in self.writable:
            raise dbus.exceptions.DBusException(
                "Property '%s' is not writable" % name,
                name="org.freedesktop.DBus.Error.PropertyReadOnly")
        if self.on_set is not None:
            self.on_set(iface, name, value)
        else:
            self.set_prop(iface, name, value)

    @dbus.service.signal(PROPS, signature="sa{sv}as")
    def PropertiesChanged(self, iface, changed, invalidated):
        pass


def bluez_error(name, text):
    return dbus.exceptions.DBusException(text, name="org.bluez.Error." + name)
