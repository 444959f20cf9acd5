// Thin layer over sd-bus for the BlueZ calls the helper makes: method calls
// with a bounded time and a readable error, and GetManagedObjects parsed
// into plain maps.
#pragma once
#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace blueshim {

inline constexpr const char* kBluez = "org.bluez";
inline constexpr const char* kAdapterIface = "org.bluez.Adapter1";
inline constexpr const char* kDeviceIface = "org.bluez.Device1";
inline constexpr const char* kServiceIface = "org.bluez.GattService1";
inline constexpr const char* kCharIface = "org.bluez.GattCharacteristic1";
inline constexpr const char* kPropertiesIface = "org.freedesktop.DBus.Properties";

// One property value; only the fields its signature uses are set.
struct Value {
    std::string signature;
    bool boolean = false;
    int64_t number = 0;
    std::string text;               // s, o
    std::vector<std::string> texts; // as, ao
    std::vector<uint8_t> bytes;     // ay
};
using Properties = std::map<std::string, Value>;
using Interfaces = std::map<std::string, Properties>;
using ObjectTree = std::map<std::string, Interfaces>;

// Reads an a{sv} at the message's current position.
int readProperties(sd_bus_message* m, Properties& out);

struct CallError {
    int code = 0;      // negative errno from sd-bus
    std::string name;  // D-Bus error name, empty when the call never went out
    std::string text;  // "name: message" for logs

    bool is(const char* errorName) const { return name == errorName; }
    bool timedOut() const;
};

struct BusUnref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

// Opens a connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured).
sd_bus* openSystemBus(std::string& error);

using Appender = std::function<int(sd_bus_message*)>;
using Reader = std::function<int(sd_bus_message*)>;

// Calls org.bluez `member` on `path`; `append` adds the arguments, `read`
// parses the reply. False with `error` filled on any failure.
bool callBluez(sd_bus* bus, const std::string& path, const char* iface, const char* member,
               uint64_t timeoutUsec, const Appender& append, const Reader& read, CallError& error);

bool getManagedObjects(sd_bus* bus, ObjectTree& tree, CallError& error);
bool getProperty(sd_bus* bus, const std::string& path, const char* iface, const char* name,
                 Value& value, CallError& error);

// Parses a PropertiesChanged signal: interface and changed properties.
bool readPropertiesChanged(sd_bus_message* m, std::string& iface, Properties& changed);

}  // namespace blueshim
