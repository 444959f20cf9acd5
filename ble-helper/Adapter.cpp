#include "Adapter.h"

#include <algorithm>
#include <cstring>

#include "BlueShimErrors.h"
#include "Uuid.h"

namespace blueshim {
namespace {

bool under(const std::string& path, const std::string& parent)
{
    return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
           path[parent.size()] == '/';
}

const Value* property(const Interfaces& ifaces, const char* iface, const char* name)
{
    auto i = ifaces.find(iface);
    if (i == ifaces.end()) {
        return nullptr;
    }
    auto p = i->second.find(name);
    return p == i->second.end() ? nullptr : &p->second;
}

std::string displayName(const Interfaces& ifaces)
{
    if (const Value* v = property(ifaces, kDeviceIface, "Name")) {
        return v->text;
    }
    if (const Value* v = property(ifaces, kDeviceIface, "Alias")) {
        return v->text;
    }
    return {};
}

void copyText(char* out, std::size_t size, const std::string& text)
{
    std::size_t n = std::min(size - 1, text.size());
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

}  // namespace

std::string findAdapter(const ObjectTree& tree, const std::string& wanted)
{
    for (const auto& [path, ifaces] : tree) {
        if (ifaces.count(kAdapterIface) == 0) {
            continue;
        }
        const bool named = path.size() > wanted.size() &&
                           path.compare(path.size() - wanted.size(), wanted.size(), wanted) == 0 &&
                           path[path.size() - wanted.size() - 1] == '/';
        if (wanted.empty() || named) {
            return path;
        }
    }
    return {};
}

int usableAdapter(Manager& mgr, ObjectTree& tree, std::string& adapterPath)
{
    CallError error;
    if (!mgr.withBus([&](sd_bus* bus) { return getManagedObjects(bus, tree, error); })) {
        mgr.lastError.set("BlueZ does not answer: " + error.text);
        return kNoAdapter;
    }
    adapterPath = findAdapter(tree, mgr.adapterName);
    if (adapterPath.empty()) {
        mgr.lastError.set(mgr.adapterName.empty() ? std::string("no Bluetooth adapter")
                                                  : "no Bluetooth adapter " + mgr.adapterName);
        return kNoAdapter;
    }
    const Value* powered = property(tree[adapterPath], kAdapterIface, "Powered");
    if (powered == nullptr || !powered->boolean) {
        mgr.lastError.set("Bluetooth adapter " + adapterPath + " is powered off");
        return kNoAdapter;
    }
    return kConnectOk;
}

int collectUnits(const ObjectTree& tree, const std::string& adapterPath, BleScanRecord* records,
                 int capacity)
{
    int count = 0;
    for (const auto& [path, ifaces] : tree) {
        if (count >= capacity) {
            break;
        }
        if (!under(path, adapterPath) || ifaces.count(kDeviceIface) == 0) {
            continue;
        }
        std::string name = displayName(ifaces);
        if (name.compare(0, 3, "NKR") != 0) {
            continue;
        }
        const Value* address = property(ifaces, kDeviceIface, "Address");
        const Value* rssi = property(ifaces, kDeviceIface, "RSSI");
        BleScanRecord& r = records[count++];
        std::memset(&r, 0, sizeof r);
        copyText(r.name, sizeof r.name, name);
        copyText(r.address, sizeof r.address, address != nullptr ? address->text : "");
        r.rssi = rssi != nullptr ? static_cast<int16_t>(rssi->number) : 0;
        r.btAddress = address != nullptr ? addressValue(address->text) : 0;
    }
    return count;
}

std::string findDevice(const ObjectTree& tree, const std::string& adapterPath, const std::string& id)
{
    const bool byAddress = isBluetoothAddress(id);
    for (const auto& [path, ifaces] : tree) {
        if (!under(path, adapterPath) || ifaces.count(kDeviceIface) == 0) {
            continue;
        }
        if (byAddress) {
            const Value* address = property(ifaces, kDeviceIface, "Address");
            if (address != nullptr && lowerCase(address->text) == lowerCase(id)) {
                return path;
            }
            continue;
        }
        const Value* name = property(ifaces, kDeviceIface, "Name");
        const Value* alias = property(ifaces, kDeviceIface, "Alias");
        if ((name != nullptr && name->text == id) || (alias != nullptr && alias->text == id)) {
            return path;
        }
    }
    return {};
}

void discover(Manager& mgr, const std::string& adapterPath, std::chrono::milliseconds duration,
              const std::function<bool()>& found)
{
    const auto deadline = std::chrono::steady_clock::now() + duration;
    CallError error;
    mgr.withBus([&](sd_bus* bus) {
        auto filter = [](sd_bus_message* m) {
            return sd_bus_message_append(m, "a{sv}", 1, "Transport", "s", "le");
        };
        if (!callBluez(bus, adapterPath, kAdapterIface, "SetDiscoveryFilter", 0, filter, nullptr, error)) {
            mgr.lastError.set("SetDiscoveryFilter: " + error.text);
        }
        // Already discovering (another client) is fine: the devices still show up.
        if (!callBluez(bus, adapterPath, kAdapterIface, "StartDiscovery", 0, nullptr, nullptr, error) &&
            !error.is("org.bluez.Error.InProgress")) {
            mgr.lastError.set("StartDiscovery: " + error.text);
        }
        return true;
    });
    uint64_t seen = 0;
    {
        std::lock_guard lock(mgr.stateMutex);
        seen = mgr.devicesAdded;
    }
    while (!(found && found())) {
        std::unique_lock lock(mgr.stateMutex);
        bool woke = mgr.changed.wait_until(lock, deadline, [&] {
            return mgr.devicesAdded != seen || !mgr.bluezPresent;
        });
        if (!woke || !mgr.bluezPresent) {
            break;
        }
        seen = mgr.devicesAdded;
    }
    mgr.withBus([&](sd_bus* bus) {
        return callBluez(bus, adapterPath, kAdapterIface, "StopDiscovery", 0, nullptr, nullptr, error);
    });
}

}  // namespace blueshim
