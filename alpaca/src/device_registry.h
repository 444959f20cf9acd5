// The units the server offers, keyed by the host layer's unit key (the
// serial number) so that each keeps its Alpaca device number (and UniqueID)
// across restarts and re-plugging, and a unit plugged in after the server
// started joins with a number of its own. A connected unit is held through
// the host layer's unit session, which does the rest: the hold against other
// programs, the user's maximum, planned moves, "gone" and reconnecting with
// back-off, temperature compensation.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ascom_errors.h"
#include "nkrhost/session.h"

namespace alpaca {

using Clock = std::chrono::steady_clock;

// One unit. Every call on it runs under `io`, so calls on one unit are
// serialised while different units never wait for each other.
struct Unit {
    int number = 0;          // Alpaca device number (stable)
    std::string serial;      // the host layer's unit key
    std::string uniqueId;    // derived from the serial, stable
    std::string bleName;     // non-empty for a Bluetooth unit
    std::string bleAddress;  // as the scan reported it
    std::mutex io;
    // Guarded by io.
    std::unique_ptr<nkrhost::Session> session;  // while the server holds the unit
    bool wanted = false;                        // a client connected it (held again after a re-plug)
    std::string lastError;                      // why the last connect failed ("" once it worked)
    Clock::time_point nextOpen{};               // a wanted unit not found yet is looked for again then
    // Read without io by listings.
    std::atomic<int> slot{-1};
    std::atomic<bool> connected{false};
    std::atomic<int> state{static_cast<int>(nkrhost::UnitState::Absent)};  // nkrhost::UnitState
    std::atomic<int> lastPosition{-1};

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
    // Runs fn on the unit's session under its lock, as call() does.
    DeviceError withSession(Unit& unit, const std::function<nkrhost::Status(nkrhost::Session&)>& fn);
    // What the page shows: absent, connecting, ready, moving, gone, back.
    nkrhost::UnitState state(Unit& unit);

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
    // How soon the next look is needed: quickly while a move runs or a unit
    // is away, every second while compensation runs, else only for the
    // rescan (a change of the host settings file wakes the supervisor).
    enum class Pace { Quick, Steady, Rest };
    Pace tick(Clock::time_point now);
    // period: between looks while something moves; rest: between looks at
    // rest (the USB rescan's 5 s; a change of the host settings wakes it).
    void startSupervisor(std::chrono::milliseconds period = std::chrono::milliseconds(250),
                         std::chrono::milliseconds rest = std::chrono::seconds(5));

    // Where the mapping lives by default: $XDG_CONFIG_HOME/nkr-alpaca/devices.json.
    static std::string defaultStatePath();
    // Where clients drive the units from, named to the programs this server refuses.
    void setAddress(const std::string& where) { address_ = where; }

private:
    std::shared_ptr<Unit> adopt(const std::string& key, int slot, const std::string& bleName,
                                const std::string& bleAddress);
    void load();
    void save() const;
    bool reachable(Unit& unit);                 // with io held
    nkrhost::Status open(Unit& unit);           // with io held
    void look(Unit& unit, Clock::time_point now);  // with io held: one session tick, logged
    std::string holderName(const Unit& unit) const;
    void stopSupervisor();

    std::string statePath_;
    std::string address_;
    mutable std::mutex listMutex_;  // units_ and the persisted map
    std::mutex scanMutex_;          // scans and opens: one thread at a time
    std::vector<std::shared_ptr<Unit>> units_;
    std::vector<std::pair<std::string, int>> known_;  // key -> number, persisted
    Clock::time_point nextRescan_{};

    std::thread supervisor_;
    std::atomic<bool> supervisorStop_{false};
    const int supervisorWake_;  // an eventfd: a nudge or the stop
    void nudgeSupervisor();
};

}  // namespace alpaca
