#include "Manager.h"

#include <cstdlib>
#include <cstring>

namespace blueshim {
namespace {

int onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*)
{
    auto* mgr = static_cast<Manager*>(userdata);
    std::string iface;
    Properties changed;
    if (!readPropertiesChanged(m, iface, changed)) {
        return 0;
    }
    const char* rawPath = sd_bus_message_get_path(m);
    const std::string path = rawPath != nullptr ? rawPath : "";
    bool fire = false;
    bool state = false;
    {
        std::lock_guard lock(mgr->stateMutex);
        LinkState& link = mgr->link;
        if (iface == kDeviceIface && !link.devicePath.empty() && path == link.devicePath) {
            if (auto it = changed.find("ServicesResolved"); it != changed.end()) {
                link.servicesResolved = it->second.boolean;
            }
            if (auto it = changed.find("Connected"); it != changed.end()) {
                state = it->second.boolean;
                fire = link.connected != state;
                link.connected = state;
                if (!state) {
                    link.servicesResolved = false;
                    link.ready = false;
                }
            }
        } else if (iface == kCharIface && !link.notifyPath.empty() && path == link.notifyPath) {
            // BlueZ reports the MTU once it has been negotiated, after the connect.
            if (auto it = changed.find("MTU"); it != changed.end() && it->second.number > 3) {
                link.chunk = static_cast<std::size_t>(it->second.number) - 3;
                mgr->frames.setPayloadSize(link.chunk);
            }
            if (auto it = changed.find("Value"); it != changed.end()) {
                const auto& bytes = it->second.bytes;
                mgr->frames.feed(bytes.data(), bytes.size(), FrameAssembler::Clock::now());
            }
        }
    }
    mgr->changed.notify_all();
    if (fire) {
        mgr->report(state);
    }
    return 0;
}

int onInterfacesAdded(sd_bus_message*, void* userdata, sd_bus_error*)
{
    auto* mgr = static_cast<Manager*>(userdata);
    {
        std::lock_guard lock(mgr->stateMutex);
        ++mgr->devicesAdded;
    }
    mgr->changed.notify_all();
    return 0;
}

int onNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*)
{
    auto* mgr = static_cast<Manager*>(userdata);
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0 || name == nullptr ||
        std::strcmp(name, kBluez) != 0) {
        return 0;
    }
    bool present = newOwner != nullptr && *newOwner != '\0';
    bool fire = false;
    {
        std::lock_guard lock(mgr->stateMutex);
        mgr->bluezPresent = present;
        if (!present) {
            fire = mgr->link.connected;
            mgr->link.connected = false;
            mgr->link.servicesResolved = false;
            mgr->link.ready = false;
        }
    }
    mgr->changed.notify_all();
    if (!present) {
        mgr->lastError.set("bluetoothd left the bus");
    }
    if (fire) {
        mgr->report(false);
    }
    return 0;
}

}  // namespace

std::chrono::milliseconds envMilliseconds(const char* name, std::chrono::milliseconds fallback)
{
    const char* v = std::getenv(name);
    if (v == nullptr || *v == '\0') {
        return fallback;
    }
    char* end = nullptr;
    long ms = std::strtol(v, &end, 10);
    if (end == v || *end != '\0' || ms <= 0) {
        return fallback;
    }
    return std::chrono::milliseconds(ms);
}

Manager* Manager::create(std::string& error)
{
    std::unique_ptr<Manager> mgr(new Manager());
    mgr->callBus.reset(openSystemBus(error));
    if (!mgr->callBus) {
        return nullptr;
    }
    mgr->signalBus.reset(openSystemBus(error));
    if (!mgr->signalBus || !mgr->addMatches(error)) {
        return nullptr;
    }
    if (const char* adapter = std::getenv("NKR_BLE_ADAPTER")) {
        mgr->adapterName = adapter;
    }
    mgr->waitTimeout = envMilliseconds("NKR_BLE_TIMEOUT_MS", mgr->waitTimeout);
    mgr->connectTimeout = envMilliseconds("NKR_BLE_CONNECT_TIMEOUT_MS", mgr->connectTimeout);
    FrameAssembler::Options framing;
    framing.hold = envMilliseconds("NKR_BLE_FRAME_HOLD_MS", framing.hold);
    mgr->frames = FrameAssembler(framing);
    mgr->loop = std::make_unique<EventLoop>(mgr->signalBus.get());
    if (!mgr->loop->start()) {
        error = "cannot start the event thread";
        return nullptr;
    }
    return mgr.release();
}

Manager::~Manager()
{
    if (loop) {
        loop->stop();
    }
    // Match slots are floating: they go with the connection.
    signalBus.reset();
    callBus.reset();
}

bool Manager::addMatches(std::string& error)
{
    sd_bus* bus = signalBus.get();
    int r = sd_bus_match_signal(bus, nullptr, kBluez, nullptr, kPropertiesIface, "PropertiesChanged",
                                onPropertiesChanged, this);
    if (r >= 0) {
        r = sd_bus_match_signal(bus, nullptr, kBluez, nullptr, "org.freedesktop.DBus.ObjectManager",
                                "InterfacesAdded", onInterfacesAdded, this);
    }
    if (r >= 0) {
        r = sd_bus_add_match(bus, nullptr,
                             "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                             "member='NameOwnerChanged',arg0='org.bluez'",
                             onNameOwnerChanged, this);
    }
    if (r < 0) {
        error = std::string("cannot watch BlueZ signals: ") + std::strerror(-r);
        return false;
    }
    return true;
}

bool Manager::noteConnected(bool connected)
{
    std::lock_guard lock(stateMutex);
    bool changedNow = link.connected != connected;
    link.connected = connected;
    return changedNow;
}

void Manager::report(bool connected)
{
    BleConnectStateFn fn = nullptr;
    {
        std::lock_guard lock(stateMutex);
        fn = callback;
    }
    if (fn != nullptr) {
        fn(connected);
    }
}

void Manager::unlink()
{
    {
        std::lock_guard lock(stateMutex);
        link = LinkState{};
        frames.reset();
    }
    changed.notify_all();
}

}  // namespace blueshim
