#include "DeviceLink.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "Adapter.h"
#include "BlueShimErrors.h"
#include "Uuid.h"

namespace blueshim {
namespace {

constexpr uint64_t kConnectCallUsec = 20'000'000;
constexpr uint64_t kWriteCallUsec = 5'000'000;
constexpr auto kResolveScan = std::chrono::milliseconds(5000);

std::string envText(const char* name)
{
    const char* v = std::getenv(name);
    return v != nullptr ? lowerCase(v) : std::string();
}

bool hasFlag(const Properties& props, const char* flag)
{
    auto it = props.find("Flags");
    return it != props.end() &&
           std::find(it->second.texts.begin(), it->second.texts.end(), flag) != it->second.texts.end();
}

std::string textOf(const Properties& props, const char* name)
{
    auto it = props.find(name);
    return it != props.end() ? it->second.text : std::string();
}

bool canWrite(const Properties& c) { return hasFlag(c, "write") || hasFlag(c, "write-without-response"); }
bool canNotify(const Properties& c) { return hasFlag(c, "notify") || hasFlag(c, "indicate"); }

// Looks for the write and notify characteristics of one service.
bool pickCharacteristics(const ObjectTree& tree, const std::string& servicePath,
                         const ServiceOverrides& overrides, SerialService& out)
{
    SerialService found;
    for (const auto& [path, ifaces] : tree) {
        auto c = ifaces.find(kCharIface);
        if (c == ifaces.end() || textOf(c->second, "Service") != servicePath) {
            continue;
        }
        const Properties& props = c->second;
        const std::string uuid = lowerCase(textOf(props, "UUID"));
        bool writeMatch = overrides.write.empty() ? canWrite(props) : uuid == overrides.write;
        bool notifyMatch = overrides.notify.empty() ? canNotify(props) : uuid == overrides.notify;
        if (found.writePath.empty() && writeMatch) {
            found.writePath = path;
            found.writeWithoutResponse = hasFlag(props, "write-without-response");
            if (auto m = props.find("MTU"); m != props.end() && m->second.number > 3) {
                found.mtu = static_cast<unsigned>(m->second.number);
            }
        }
        if (found.notifyPath.empty() && notifyMatch) {
            found.notifyPath = path;
        }
    }
    if (found.writePath.empty() || found.notifyPath.empty()) {
        return false;
    }
    found.servicePath = servicePath;
    out = found;
    return true;
}

bool callDevice(Manager& mgr, const std::string& path, const char* iface, const char* member,
                uint64_t timeoutUsec, CallError& error)
{
    return mgr.withBus([&](sd_bus* bus) {
        return callBluez(bus, path, iface, member, timeoutUsec, nullptr, nullptr, error);
    });
}

// Drops a half-made connection again; errors do not matter here.
int abandon(Manager& mgr, const std::string& devicePath, int result)
{
    CallError ignored;
    callDevice(mgr, devicePath, kDeviceIface, "Disconnect", 0, ignored);
    mgr.unlink();
    return result;
}

std::string resolve(Manager& mgr, ObjectTree& tree, const std::string& adapterPath, const std::string& id)
{
    std::string path = findDevice(tree, adapterPath, id);
    if (!path.empty()) {
        return path;
    }
    discover(mgr, adapterPath, kResolveScan, [&] {
        CallError error;
        if (mgr.withBus([&](sd_bus* bus) { return getManagedObjects(bus, tree, error); })) {
            path = findDevice(tree, adapterPath, id);
        }
        return !path.empty();
    });
    return path;
}

}  // namespace

ServiceOverrides ServiceOverrides::fromEnvironment()
{
    return {envText("NKR_BLE_SERVICE"), envText("NKR_BLE_WRITE_CHAR"), envText("NKR_BLE_NOTIFY_CHAR")};
}

bool findSerialService(const ObjectTree& tree, const std::string& devicePath,
                       const ServiceOverrides& overrides, SerialService& out)
{
    for (const auto& [path, ifaces] : tree) {
        auto s = ifaces.find(kServiceIface);
        if (s == ifaces.end() || textOf(s->second, "Device") != devicePath) {
            continue;
        }
        const std::string uuid = lowerCase(textOf(s->second, "UUID"));
        if (overrides.service.empty()) {
            auto primary = s->second.find("Primary");
            if (primary == s->second.end() || !primary->second.boolean || isSigUuid(uuid)) {
                continue;
            }
        } else if (uuid != overrides.service) {
            continue;
        }
        if (pickCharacteristics(tree, path, overrides, out)) {
            return true;
        }
    }
    return false;
}

int connectUnit(Manager& mgr, const std::string& id)
{
    bool linked = false;
    {
        std::lock_guard lock(mgr.stateMutex);
        linked = !mgr.link.devicePath.empty();
    }
    if (linked) {
        disconnectUnit(mgr);  // a new connect replaces the old link
    }
    mgr.lastError.clear();
    ObjectTree tree;
    std::string adapterPath;
    if (int r = usableAdapter(mgr, tree, adapterPath); r != kConnectOk) {
        return r;
    }
    const std::string devicePath = resolve(mgr, tree, adapterPath, id);
    if (devicePath.empty()) {
        mgr.lastError.set("no Bluetooth device \"" + id + "\" found");
        return kNotFound;
    }
    {
        std::lock_guard lock(mgr.stateMutex);
        mgr.link = LinkState{};
        mgr.link.devicePath = devicePath;
        mgr.frames.reset();
    }

    CallError error;
    if (!callDevice(mgr, devicePath, kDeviceIface, "Connect", kConnectCallUsec, error) &&
        !error.is("org.bluez.Error.AlreadyConnected")) {
        mgr.lastError.set("connect to " + devicePath + ": " + error.text);
        return abandon(mgr, devicePath, error.timedOut() ? kTimedOut : kConnectRefused);
    }
    Value connected;
    Value resolved;
    mgr.withBus([&](sd_bus* bus) {
        return getProperty(bus, devicePath, kDeviceIface, "Connected", connected, error) &&
               getProperty(bus, devicePath, kDeviceIface, "ServicesResolved", resolved, error);
    });
    if (connected.boolean && mgr.noteConnected(true)) {
        mgr.report(true);
    }
    {
        std::unique_lock lock(mgr.stateMutex);
        if (resolved.boolean) {
            mgr.link.servicesResolved = true;
        }
        bool ok = mgr.changed.wait_for(lock, mgr.connectTimeout, [&] {
            return mgr.link.servicesResolved || !mgr.bluezPresent;
        });
        if (!ok || !mgr.bluezPresent) {
            lock.unlock();
            mgr.lastError.set(ok ? std::string("bluetoothd left the bus while connecting")
                                 : "services of " + devicePath + " not resolved in " +
                                       std::to_string(mgr.connectTimeout.count()) + " ms");
            return abandon(mgr, devicePath, ok ? kNoAdapter : kTimedOut);
        }
    }

    SerialService serial;
    bool listed = mgr.withBus([&](sd_bus* bus) { return getManagedObjects(bus, tree, error); });
    if (!listed || !findSerialService(tree, devicePath, ServiceOverrides::fromEnvironment(), serial)) {
        mgr.lastError.set(listed ? "no serial service with write and notify on " + devicePath
                                 : "BlueZ does not answer: " + error.text);
        return abandon(mgr, devicePath, listed ? kNoSerialService : kNoAdapter);
    }
    {
        std::lock_guard lock(mgr.stateMutex);
        mgr.link.notifyPath = serial.notifyPath;
        mgr.link.writePath = serial.writePath;
        mgr.link.writeWithoutResponse = serial.writeWithoutResponse;
        mgr.link.chunk = serial.mtu > 3 ? serial.mtu - 3 : 20;
        mgr.frames.setPayloadSize(mgr.link.chunk);
    }
    if (!callDevice(mgr, serial.notifyPath, kCharIface, "StartNotify", 0, error)) {
        mgr.lastError.set("StartNotify on " + serial.notifyPath + ": " + error.text);
        return abandon(mgr, devicePath, error.timedOut() ? kTimedOut : kConnectRefused);
    }
    {
        std::lock_guard lock(mgr.stateMutex);
        mgr.link.connected = true;
        mgr.link.ready = true;
    }
    return kConnectOk;
}

int disconnectUnit(Manager& mgr)
{
    LinkState link;
    {
        std::lock_guard lock(mgr.stateMutex);
        link = mgr.link;
    }
    mgr.unlink();
    if (link.devicePath.empty()) {
        return 0;
    }
    CallError error;
    if (!link.notifyPath.empty()) {
        callDevice(mgr, link.notifyPath, kCharIface, "StopNotify", 0, error);
    }
    // With bluetoothd gone the link is gone too: nothing left to undo.
    if (!callDevice(mgr, link.devicePath, kDeviceIface, "Disconnect", 0, error) &&
        !error.is("org.bluez.Error.NotConnected") && !error.is("org.freedesktop.DBus.Error.ServiceUnknown") &&
        !error.is("org.freedesktop.DBus.Error.NameHasNoOwner")) {
        mgr.lastError.set("disconnect from " + link.devicePath + ": " + error.text);
        return -1;
    }
    return 0;
}

bool sendToUnit(Manager& mgr, const uint8_t* data, unsigned count)
{
    LinkState link;
    {
        std::lock_guard lock(mgr.stateMutex);
        link = mgr.link;
    }
    if (!link.ready || !link.connected || link.writePath.empty()) {
        mgr.lastError.set("send: not connected");
        return false;
    }
    const char* type = link.writeWithoutResponse ? "command" : "request";
    const std::size_t chunk = std::max<std::size_t>(link.chunk, 1);
    CallError error;
    // One lock for all pieces, so two senders cannot interleave them.
    bool ok = mgr.withBus([&](sd_bus* bus) {
        for (unsigned offset = 0; offset < count; offset += chunk) {
            const std::size_t n = std::min<std::size_t>(chunk, count - offset);
            auto append = [&](sd_bus_message* m) {
                int r = sd_bus_message_append_array(m, 'y', data + offset, n);
                return r < 0 ? r : sd_bus_message_append(m, "a{sv}", 1, "type", "s", type);
            };
            if (!callBluez(bus, link.writePath, kCharIface, "WriteValue", kWriteCallUsec, append, nullptr, error)) {
                return false;
            }
        }
        return true;
    });
    if (!ok) {
        mgr.lastError.set("WriteValue on " + link.writePath + ": " + error.text);
        return false;
    }
    return true;
}

}  // namespace blueshim
