// The units the server offers, keyed by serial number so that each keeps its
// Alpaca device number (and UniqueID) across restarts and re-plugging.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ascom_errors.h"

namespace alpaca {

// One unit. Every SDK call on it runs under `io`, so calls on one unit are
// serialised while different units never wait for each other.
struct Unit {
    int number = 0;            // Alpaca device number (stable)
    std::string serial;        // registry key
    std::string uniqueId;      // derived from the serial, stable
    std::string bleName;       // non-empty for a Bluetooth unit
    std::string bleAddress;    // as the scan reported it; used to reconnect
    std::mutex io;
    // Written under io; read by the scan without it.
    std::atomic<int> slot{-1};      // SDK slot id while present, -1 when unplugged
    std::atomic<bool> open{false};  // SDK open (ASCOM Connected)
    bool wanted = false;            // guarded by io: reopen after a re-plug
    // Guarded by io: when a dropped Bluetooth link was last tried again.
    std::optional<std::chrono::steady_clock::time_point> lastBleRetry;
};

// The outcome of attaching a Bluetooth unit: an SDK code and a sentence for
// the log or the setup page.
struct AttachResult {
    int code = 0;
    std::string message;
    bool ok() const { return code == 0; }
};

class DeviceRegistry {
public:
    // statePath: the JSON file remembering serial -> number ("" = keep in memory).
    explicit DeviceRegistry(std::string statePath);
    ~DeviceRegistry();

    // Scans the USB bus, attaches new units and finds re-plugged ones.
    void rescan();
    // Attaches a Bluetooth unit by its name, a unique beginning of its name,
    // or its address, after a scan. Attaching a unit that is already attached
    // and connected does nothing.
    AttachResult attachBle(const std::string& nameOrAddress);

    // The unit with that device number, or null.
    std::shared_ptr<Unit> find(int number) const;
    std::vector<std::shared_ptr<Unit>> all() const;

    // Runs fn(slot) under the unit's lock. Not connected -> NotConnected; an
    // SDK error that says the unit is gone marks it unplugged.
    DeviceError call(Unit& unit, const std::function<int(int slot)>& fn);

    // ASCOM Connect / Disconnect (Disconnect closes, which saves the position).
    DeviceError connect(Unit& unit);
    DeviceError disconnect(Unit& unit);
    // True when the unit is open; tries a re-plugged unit that was connected.
    bool connected(Unit& unit);

    // Where the mapping lives by default: $XDG_CONFIG_HOME/nkr-alpaca/devices.json.
    static std::string defaultStatePath();

private:
    std::shared_ptr<Unit> adopt(const std::string& serial, int slot, const std::string& bleName);
    void load();
    void save() const;
    void reattach(Unit& unit);  // called with unit.io held
    void reconnectBle(Unit& unit);  // called with unit.io held
    void markGone(Unit& unit);  // called with unit.io held

    std::string statePath_;
    mutable std::mutex listMutex_;  // units_ and the persisted map
    std::mutex scanMutex_;          // NKRGetNum/NKRGetID/NKROpen: one thread at a time
    std::vector<std::shared_ptr<Unit>> units_;
    std::vector<std::pair<std::string, int>> known_;  // serial -> number, persisted
};

}  // namespace alpaca
