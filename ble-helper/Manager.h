// One helper manager: two bus connections, the signal thread and the state
// the entry points share.
//
// The "call" connection is used synchronously by caller threads, one call at
// a time under busMutex. The "signal" connection belongs to the event thread
// alone. Everything the signal handlers touch is guarded by stateMutex, and
// `changed` is notified whenever it moves.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "../src/ble/BlueShimApi.h"
#include "Bus.h"
#include "EventLoop.h"
#include "FrameAssembler.h"
#include "LastError.h"

namespace blueshim {

// The unit the manager is linked to; guarded by Manager::stateMutex.
struct LinkState {
    std::string devicePath;   // empty: no device followed
    std::string writePath;
    std::string notifyPath;
    bool writeWithoutResponse = false;
    std::size_t chunk = 20;   // ATT MTU - 3
    bool connected = false;   // Device1.Connected as last seen
    bool servicesResolved = false;
    bool ready = false;       // connect finished and notifications are on
};

struct Manager {
    static Manager* create(std::string& error);
    ~Manager();

    // Runs `fn` on the call connection under busMutex.
    template <typename Fn>
    auto withBus(Fn&& fn)
    {
        std::lock_guard lock(busMutex);
        return fn(callBus.get());
    }

    // Records Device1.Connected; returns true when it changed.
    bool noteConnected(bool connected);
    // Calls the connection-state callback; never with stateMutex held.
    void report(bool connected);

    // Forgets the linked device (after a disconnect or a failed connect).
    void unlink();

    std::mutex busMutex;
    std::unique_ptr<sd_bus, BusUnref> callBus;
    std::unique_ptr<sd_bus, BusUnref> signalBus;

    std::mutex stateMutex;
    std::condition_variable changed;
    LinkState link;
    FrameAssembler frames;
    bool bluezPresent = true;
    uint64_t devicesAdded = 0;  // bumped on InterfacesAdded
    BleConnectStateFn callback = nullptr;
    int isRead = 0;

    LastError lastError;
    std::string adapterName;  // NKR_BLE_ADAPTER, empty for the first adapter
    std::chrono::milliseconds waitTimeout{2000};
    std::chrono::milliseconds connectTimeout{10000};

    std::unique_ptr<EventLoop> loop;

private:
    Manager() = default;
    bool addMatches(std::string& error);
};

// Milliseconds from the environment variable `name`, or `fallback`.
std::chrono::milliseconds envMilliseconds(const char* name, std::chrono::milliseconds fallback);

}  // namespace blueshim
