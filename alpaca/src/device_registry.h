// The units the server offers, keyed by serial number so that each keeps its
// Alpaca device number (and UniqueID) across restarts and re-plugging. The
// host layer does the rest: opening, the user's maximum, planned moves, the
// "unit is gone" rule, reconnecting with back-off, temperature compensation.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ascom_errors.h"
#include "nkrhost/claim.h"
#include "nkrhost/motion.h"
#include "nkrhost/tempcomp.h"
#include "nkrhost/unit.h"

namespace alpaca {

using Clock = std::chrono::steady_clock;

// One unit. Every call on it runs under `io`, so calls on one unit are
// serialised while different units never wait for each other.
struct Unit {
    int number = 0;          // Alpaca device number (stable)
    std::string serial;      // registry key: the host layer's unit key
    std::string uniqueId;    // derived from the serial, stable
    std::string bleName;     // non-empty for a Bluetooth unit
    std::string bleAddress;  // as the scan reported it
    std::mutex io;
    // Guarded by io.
    std::unique_ptr<nkrhost::Unit> host;             // while the server holds the unit
    bool wanted = false;                             // a client connected it (reopen after a re-plug)
    nkrhost::UnitClaim claim;                        // held while connected: one server drives a unit
    std::unique_ptr<nkrhost::PlannedMove> move;      // a client's move, leg by leg
    std::unique_ptr<nkrhost::TempCompRunner> tempComp;
    Clock::time_point nextTempTick{};
    // Read without io by listings.
    std::atomic<int> slot{-1};
    std::atomic<bool> connected{false};

    std::string label() const { return "focuser " + std::to_string(number); }
};

// The outcome of attaching a Bluetooth unit.
struct AttachResult {
    nkrhost::Status status;
    std::string message;  // a sentence for the log or the control page
    bool ok() const { return status.ok(); }
};

class DeviceRegistry {
public:
    // statePath: the JSON file remembering serial -> number ("" = keep in memory).
    explicit DeviceRegistry(std::string statePath);
    ~DeviceRegistry();

    // Scans the USB bus, adopts new units.
    void rescan();
    // Attaches a Bluetooth unit by its name, a unique beginning of its name,
    // or its address. Attaching a unit that is already attached does nothing.
    AttachResult attachBle(const std::string& nameOrAddress);

    std::shared_ptr<Unit> find(int number) const;
    std::vector<std::shared_ptr<Unit>> all() const;

    // Runs fn(slot) under the unit's lock. Not connected -> NotConnected; a
    // result that says the unit is gone marks it so (it is looked for again
    // with back-off on later calls).
    DeviceError call(Unit& unit, const std::function<int(int slot)>& fn);
    // Runs fn on the host unit under the unit's lock, as call() does.
    DeviceError withHost(Unit& unit, const std::function<nkrhost::Status(nkrhost::Unit&)>& fn);

    // ASCOM Connect / Disconnect (a USB unit is closed, which saves its position).
    DeviceError connect(Unit& unit);
    DeviceError disconnect(Unit& unit);
    // True when a client connected the unit and it is reachable (a unit that
    // went away is looked for again, with back-off).
    bool connected(Unit& unit);

    // A client's move, checked against the user's maximum and run with the
    // unit's final approach; returns at once.
    DeviceError move(Unit& unit, long long target);
    // Stops at once, also between the legs of a move.
    DeviceError halt(Unit& unit);
    // True while the motor runs or a move has legs to go.
    DeviceError isMoving(Unit& unit, bool& moving);

    // One line on the unit's temperature compensation for a display ("" while
    // no client holds the unit).
    std::string tempCompSummary(Unit& unit);

    // One round of the background work: the next leg of planned moves and
    // the temperature compensation of connected units. The supervisor thread
    // calls it; tests may call it directly.
    void tick(Clock::time_point now);
    void startSupervisor(std::chrono::milliseconds period = std::chrono::milliseconds(250));

    // Where the mapping lives by default: $XDG_CONFIG_HOME/nkr-alpaca/devices.json.
    static std::string defaultStatePath();

private:
    std::shared_ptr<Unit> adopt(const std::string& serial, int slot, const std::string& bleName,
                                const std::string& bleAddress);
    void load();
    void save() const;
    bool reachable(Unit& unit);                 // with io held
    nkrhost::Status open(Unit& unit);           // with io held
    void noteGone(Unit& unit, int code);        // with io held
    void pollMove(Unit& unit, Clock::time_point now);  // with io held
    void endMove(Unit& unit, const nkrhost::FollowResult& result);
    void stopSupervisor();

    std::string statePath_;
    mutable std::mutex listMutex_;  // units_ and the persisted map
    std::mutex scanMutex_;          // scans and opens: one thread at a time
    std::vector<std::shared_ptr<Unit>> units_;
    std::vector<std::pair<std::string, int>> known_;  // serial -> number, persisted

    std::thread supervisor_;
    std::mutex supervisorMutex_;
    std::condition_variable supervisorWake_;
    bool supervisorStop_ = false;
};

}  // namespace alpaca
