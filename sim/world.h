// The simulator's one world: units, clock, faults and traffic logs, guarded
// by one recursive lock. Private to the simulator library.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ble/BlueShimApi.h"
#include "nkr_sim.h"

namespace nkrsim::detail {

// Input report length of every simulated unit (report id 1, 16 data bytes).
inline constexpr int kInputReportLen = 17;

// What the SDK sent to a unit: the latest messages for tests to inspect, and
// a count of all of them. Only the latest are kept, so that a simulator that
// serves for days (behind a server or a driver) does not grow without end.
class TrafficRecord {
public:
    static constexpr size_t kKept = 4096;

    void add(std::vector<uint8_t> message)
    {
        if (latest_.size() >= kKept) latest_.erase(latest_.begin(), latest_.begin() + kKept / 2);
        latest_.push_back(std::move(message));
        ++total_;
    }
    void clear() { latest_.clear(); }
    const std::vector<std::vector<uint8_t>>& latest() const { return latest_; }
    uint64_t total() const { return total_; }

private:
    std::vector<std::vector<uint8_t>> latest_;
    uint64_t total_ = 0;
};

// The messages a unit refused: the latest for tests to inspect, and how many
// stand since the last clear.
class RefusalRecord {
public:
    void add(Refusal why, std::vector<uint8_t> message)
    {
        if (latest_.size() >= TrafficRecord::kKept) latest_.erase(latest_.begin(), latest_.begin() + TrafficRecord::kKept / 2);
        latest_.push_back({why, std::move(message)});
        ++standing_;
    }
    void clear() { latest_.clear(), standing_ = 0; }
    const std::vector<RefusedMessage>& latest() const { return latest_; }
    uint64_t standing() const { return standing_; }

private:
    std::vector<RefusedMessage> latest_;
    uint64_t standing_ = 0;
};

struct Unit {
    UnitId id = 0;
    UnitSpec spec;
    UnitState st;
    bool plugged = true;
    uint64_t epoch = 0;  // plug generation; HID handles of an older one are dead
    int plugCount = 0;   // times plugged back in (shared with other processes)

    // Motion: lazily integrated from the clock.
    uint64_t lastTick = 0;
    uint64_t stepFraction = 0;  // step-microseconds not yet turned into a step
    int handTarget = 0;
    int stepsMoved = 0;         // since power-on
    int unplugAfterSteps = -1;  // >= 0: the cable comes out after that many steps

    // A temperature that drifts (a night's cooling): from startC at startUs
    // of world time, perHour degrees an hour, held once it reaches untilC.
    struct Drift {
        double startC = 0, perHour = 0;
        std::optional<double> untilC;
        uint64_t startUs = 0;
    };
    std::optional<Drift> drift;

    // Last reply the firmware prepared for a feature-report read.
    std::vector<uint8_t> reply;
    RefusalRecord refused;  // messages of either link the firmware would not take

    // USB faults and traffic.
    int failCount = 0;
    int failErrno = 0;
    bool refuseOpen = false;
    TrafficRecord sentReports;

    // Bluetooth faults and traffic.
    int silence = 0;
    bool staleFirst = false;
    std::optional<int> newConnectionWaits;
    int corruptChecksum = 0;
    std::optional<uint8_t> notifyEvent;
    std::optional<std::vector<uint8_t>> rawAnswer;
    std::optional<uint8_t> statusOverride;
    int refuseSend = 0;
    bool refuseConnect = false;
    TrafficRecord sentFrames;

    // Firmware update.
    UpdateConfig update;
    bool usbUpdating = false;
    bool bleUpdating = false;
    uint32_t bleUpdateSize = 0;
    std::vector<uint8_t> image;

    std::string bleName;  // advertised name
    std::string bleAddress;
};

// A queued answer frame; waitsBefore empty waits come before it shows.
struct QueuedFrame {
    std::vector<uint8_t> bytes;
    int waitsBefore = 0;
};

// One helper manager handed out by ble_manager_create.
struct Manager {
    UnitId connected = -1;
    bool expectAnswer = false;
    BleConnectStateFn callback = nullptr;
    std::deque<QueuedFrame> frames;
};

struct World {
    std::recursive_mutex lock;
    std::map<UnitId, std::unique_ptr<Unit>> units;
    UnitId nextId = 0;
    uint64_t nextEpoch = 1;
    bool defaultsPending = true;

    bool manualClock = false;
    uint64_t manualNow = 0;
    uint64_t realOffset = 0;  // advanceMicros on the real clock skips ahead

    bool bleSupported = true;
    // What an answer frame's length byte counts (NKR_SIM_BLE_LENGTH): header
    // and payload, the payload alone, or a fixed value.
    BleLength bleLength = BleLength::HeaderAndPayload;
    uint8_t bleLengthFixed = 0;
    bool bleLengthRead = false;
    std::string adapterAddress = "00:1A:7D:DA:71:13";
    std::map<Manager*, std::unique_ptr<Manager>> managers;

    int lockDepth = 0;  // nesting of WorldGuard on the thread holding the lock
};

// The world lock. The outermost guard of a thread also shares the world with
// other processes (NKR_SIM_STATE): it loads their changes on entry and saves
// this process's changes on exit.
class WorldGuard {
public:
    WorldGuard();
    ~WorldGuard();
    WorldGuard(const WorldGuard&) = delete;
    WorldGuard& operator=(const WorldGuard&) = delete;

private:
    std::unique_lock<std::recursive_mutex> lock_;
};

// The process-wide world (never destroyed, so late callers at exit are safe).
World& world();
// Locks the world and adds the default units first if nothing has set the
// world up yet.
WorldGuard lockWorld();

uint64_t nowLocked();
// Brings the unit's position up to the current time.
void advance(Unit& unit);
// The drifting temperature at world time now, and its status word.
double driftedCelsius(const Unit::Drift& drift, uint64_t now);
int tempRawOf(double celsius);
// Moves the unit on by dt microseconds of motor time (lastTick untouched).
void advanceBy(Unit& unit, uint64_t dt);
// Publishes the unit's report descriptor where the SDK looks for it (USB units).
void publishDescriptor(const Unit& unit);
// Puts the unit back in the state its spec gives at power-on, plugged in.
void rebuildUnit(Unit& unit);
// The unit, advanced to now; null for an unknown id. World lock held.
Unit* findUnit(UnitId id);
// Disconnects every manager connected to the unit and queues their
// "disconnected" reports. World lock held.
void dropBleConnections(UnitId id);

}  // namespace nkrsim::detail
