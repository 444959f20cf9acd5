#include "device_registry.h"

#include <NKR_focuser.h>

#include <strings.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "log.h"

namespace alpaca {
namespace fs = std::filesystem;

namespace {

constexpr const char* kDriverClaim = "driver";
// Temperature compensation looks at a unit this often.
constexpr auto kTempCompPeriod = std::chrono::seconds(2);

std::string notConnected(const Unit& unit, const std::string& why = {})
{
    return unit.label() + " is not connected" + (why.empty() ? "" : ": " + why);
}

}  // namespace

DeviceRegistry::DeviceRegistry(std::string statePath) : statePath_(std::move(statePath)) { load(); }

DeviceRegistry::~DeviceRegistry()
{
    stopSupervisor();
    // Close what we opened so positions are saved; a move keeps its current leg.
    for (auto& unit : all()) {
        std::lock_guard lock(unit->io);
        unit->tempComp.reset();
        unit->move.reset();
        unit->host.reset();
        unit->claim.release();
        unit->connected = false;
        // The scan left the units it identified open.
        if (unit->bleName.empty() && unit->slot >= 0) NKRClose(unit->slot);
    }
}

std::string DeviceRegistry::defaultStatePath()
{
    return (fs::path(nkrhost::configHome()) / "nkr-alpaca" / "devices.json").string();
}

void DeviceRegistry::load()
{
    if (statePath_.empty()) return;
    std::ifstream in(statePath_);
    if (!in) return;
    auto doc = nlohmann::json::parse(in, nullptr, false);
    if (!doc.is_object() || !doc["devices"].is_array()) {
        logWarn("ignoring unreadable device map " + statePath_);
        return;
    }
    for (auto& entry : doc["devices"]) {
        if (entry.is_object() && entry["serial"].is_string() && entry["number"].is_number_integer())
            known_.emplace_back(entry["serial"].get<std::string>(), entry["number"].get<int>());
    }
}

void DeviceRegistry::save() const
{
    if (statePath_.empty()) return;
    nlohmann::json doc;
    doc["devices"] = nlohmann::json::array();
    for (auto& [serial, number] : known_) doc["devices"].push_back({{"serial", serial}, {"number", number}});
    std::error_code ec;
    fs::create_directories(fs::path(statePath_).parent_path(), ec);
    std::string tmp = statePath_ + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << doc.dump(2) << "\n";
        if (!out) {
            logWarn("cannot write device map " + tmp);
            return;
        }
    }
    fs::rename(tmp, statePath_, ec);
    if (ec) logWarn("cannot write device map " + statePath_ + ": " + ec.message());
}

std::shared_ptr<Unit> DeviceRegistry::adopt(const std::string& reported, int slot, const std::string& bleName,
                                            const std::string& bleAddress)
{
    std::lock_guard lock(listMutex_);
    // Units that report the same serial (factory default) are told apart by
    // a suffix in the order they are found.
    std::string serial = reported;
    for (int k = 2;; ++k) {
        bool taken = false;
        for (auto& unit : units_)
            if (unit->serial == serial && unit->slot >= 0 && unit->slot != slot) taken = true;
        if (!taken) break;
        serial = reported + "-" + std::to_string(k);
    }
    for (auto& unit : units_) {
        if (unit->serial == serial) {
            unit->slot = slot;
            return unit;
        }
    }
    int number = -1;
    for (auto& [s, n] : known_)
        if (s == serial) number = n;
    if (number < 0) {
        number = 0;
        for (auto& [s, n] : known_) number = std::max(number, n + 1);
        known_.emplace_back(serial, number);
        save();
    }
    auto unit = std::make_shared<Unit>();
    unit->number = number;
    unit->serial = serial;
    unit->uniqueId = "nkr-focuser-" + serial;
    unit->bleName = bleName;
    unit->bleAddress = bleAddress;
    unit->slot = slot;
    units_.push_back(unit);
    std::sort(units_.begin(), units_.end(), [](auto& a, auto& b) { return a->number < b->number; });
    logInfo(unit->label() + " is unit " + serial + (bleName.empty() ? " (USB)" : " (Bluetooth " + bleName + ")"));
    return unit;
}

void DeviceRegistry::rescan()
{
    std::lock_guard scan(scanMutex_);
    for (const nkrhost::Identity& id : nkrhost::identifyUsbUnits()) {
        bool held = false;
        for (auto& unit : all())
            if (unit->slot == id.slot && unit->bleName.empty()) held = true;
        if (!held) adopt(id.key(), id.slot, "", "");
    }
}

AttachResult DeviceRegistry::attachBle(const std::string& wanted)
{
    if (nkrhost::trimmed(wanted).empty())
        return {nkrhost::Status::failure(NKR_ERROR_INVALID_VALUE, "give the Bluetooth name or address of the unit"),
                "give the Bluetooth name or address of the unit"};

    // A unit attached before keeps its number; if its link is still up it
    // only needs to be wanted again.
    for (auto& unit : all()) {
        if (unit->bleName.empty() || (unit->bleName != wanted && strcasecmp(unit->bleAddress.c_str(), wanted.c_str()) != 0))
            continue;
        std::lock_guard lock(unit->io);
        if (unit->host && !unit->host->gone()) {
            unit->wanted = true;
            unit->connected = true;
            return {{}, unit->label() + " is already attached"};
        }
    }

    int slot = -1;
    nkrhost::SeenUnit which;
    nkrhost::Status attached;
    {
        std::lock_guard scan(scanMutex_);
        attached = nkrhost::attachBluetooth(wanted, slot, which);
    }
    if (!attached.ok()) return {attached, attached.message};
    auto host = nkrhost::Unit::adoptBluetooth(slot, which.bleName, which.bleAddress);
    auto unit = adopt(host->key(), slot, which.bleName, which.bleAddress);
    std::lock_guard lock(unit->io);
    unit->host = std::move(host);
    unit->wanted = true;
    unit->connected = true;
    return {{}, unit->label() + " is Bluetooth unit " + which.bleName + " [" + which.bleAddress + "]"};
}

std::shared_ptr<Unit> DeviceRegistry::find(int number) const
{
    std::lock_guard lock(listMutex_);
    for (auto& unit : units_)
        if (unit->number == number) return unit;
    return nullptr;
}

std::vector<std::shared_ptr<Unit>> DeviceRegistry::all() const
{
    std::lock_guard lock(listMutex_);
    return units_;
}

nkrhost::Status DeviceRegistry::open(Unit& unit)
{
    std::lock_guard scan(scanMutex_);
    nkrhost::OpenRequest request;
    // The serial names the unit wherever it is plugged in now.
    request.name = unit.serial.rfind("usb-slot-", 0) == 0 ? unit.serial.substr(9) : unit.serial;
    std::unique_ptr<nkrhost::Unit> host;
    nkrhost::Status opened = nkrhost::Unit::open(request, host);
    if (!opened.ok()) return opened;
    unit.slot = host->slot();
    unit.host = std::move(host);
    return {};
}

// With io held: whether the unit can be used now. A unit that went away is
// looked for again when its back-off says so.
bool DeviceRegistry::reachable(Unit& unit)
{
    if (!unit.wanted) return false;
    if (unit.host && !unit.host->gone()) return true;
    if (unit.host) {
        if (!unit.host->backoff().due(Clock::now())) return false;
        nkrhost::Status back;
        {
            std::lock_guard scan(scanMutex_);
            back = unit.host->reconnect();
        }
        if (!back.ok()) return false;
        unit.slot = unit.host->slot();
        logInfo(unit.label() + " is back");
    } else if (!open(unit).ok()) {
        return false;
    }
    unit.connected = true;
    return true;
}

void DeviceRegistry::noteGone(Unit& unit, int code)
{
    logWarn(unit.label() + " (" + unit.serial + ") is gone: " + nkrhost::describeError(code).text);
    unit.move.reset();
    unit.connected = false;
    if (unit.bleName.empty()) unit.slot = -1;
}

DeviceError DeviceRegistry::call(Unit& unit, const std::function<int(int)>& fn)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit)};
    const int rc = fn(unit.host->slot());
    if (rc != NKR_SUCCESS && unit.host->noteResult(rc)) {
        noteGone(unit, rc);
        return {kNotConnected, notConnected(unit, nkrhost::describeError(rc).text)};
    }
    return fromSdk(rc);
}

DeviceError DeviceRegistry::withHost(Unit& unit, const std::function<nkrhost::Status(nkrhost::Unit&)>& fn)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit)};
    const nkrhost::Status status = fn(*unit.host);
    if (!status.ok() && unit.host->noteResult(status.code)) {
        noteGone(unit, status.code);
        return {kNotConnected, notConnected(unit, status.message)};
    }
    return fromStatus(status);
}

bool DeviceRegistry::connected(Unit& unit)
{
    std::lock_guard lock(unit.io);
    return reachable(unit);
}

DeviceError DeviceRegistry::connect(Unit& unit)
{
    std::lock_guard lock(unit.io);
    if (!unit.claim.held()) {
        nkrhost::Status claimed = unit.claim.take(kDriverClaim, unit.serial, "nkr-alpaca (" + unit.label() + ")");
        if (!claimed.ok()) return fromStatus(claimed);
    }
    unit.wanted = true;
    if (unit.host) unit.host->backoff().reset();  // a client asking now is tried at once
    if (!reachable(unit)) {
        unit.wanted = false;
        unit.claim.release();
        if (!unit.bleName.empty()) return {kNotConnected, "Bluetooth unit " + unit.bleName + " is out of reach"};
        return {kNotConnected, "cannot open " + unit.label() + " (" + unit.serial + "); is it plugged in?"};
    }
    if (!unit.tempComp) unit.tempComp = std::make_unique<nkrhost::TempCompRunner>(*unit.host, "nkr-alpaca (" + unit.label() + ")");
    logInfo(unit.label() + " connected");
    return {};
}

DeviceError DeviceRegistry::disconnect(Unit& unit)
{
    std::lock_guard lock(unit.io);
    const bool was = unit.wanted;
    unit.wanted = false;
    unit.connected = false;
    unit.tempComp.reset();  // gives compensation up for another program
    unit.move.reset();      // the current leg runs to its end
    unit.claim.release();
    // A USB unit is closed, which saves its position and settings; a
    // Bluetooth link is kept so that the next connect is quick.
    if (unit.bleName.empty()) unit.host.reset();
    if (was) logInfo(unit.label() + " disconnected");
    return {};
}

void DeviceRegistry::endMove(Unit& unit, const nkrhost::FollowResult& result)
{
    unit.move.reset();
    if (unit.tempComp) unit.tempComp->userMoveEnded();
    if (!result.ok()) {
        const std::string why = !result.status.ok() ? result.status.message : result.stop.message;
        logWarn(unit.label() + ": move " + nkrhost::moveEndName(result.end) + " at " + std::to_string(result.position) +
                (why.empty() ? "" : ": " + why));
    }
    if (result.end == nkrhost::MoveEnd::Gone && unit.host) {
        unit.host->noteResult(NKR_ERROR_REMOVED);
        noteGone(unit, result.status.code ? result.status.code : NKR_ERROR_REMOVED);
    }
}

void DeviceRegistry::pollMove(Unit& unit, Clock::time_point now)
{
    if (!unit.move) return;
    if (auto result = unit.move->poll(now)) endMove(unit, *result);
}

DeviceError DeviceRegistry::move(Unit& unit, long long target)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit)};
    nkrhost::Status status = unit.host->checkNotInUpdateMode();
    std::unique_ptr<nkrhost::PlannedMove> planned;
    int from = 0;
    if (status.ok()) status = unit.host->position(from);
    if (status.ok()) {
        nkrhost::FollowOptions options;
        options.start = from;
        status = unit.host->planMove(target, options, planned);
    }
    if (status.ok()) status = planned->start(Clock::now());
    if (!status.ok()) {
        if (unit.host->noteResult(status.code)) {
            noteGone(unit, status.code);
            return {kNotConnected, notConnected(unit, status.message)};
        }
        return fromStatus(status);
    }
    unit.move = std::move(planned);
    return {};
}

DeviceError DeviceRegistry::halt(Unit& unit)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit)};
    if (unit.move) {
        const nkrhost::FollowResult result = unit.move->interrupt();
        unit.move.reset();
        if (unit.tempComp) unit.tempComp->userMoveEnded();
        return fromStatus(result.stop);
    }
    return fromStatus(unit.host->stop());
}

DeviceError DeviceRegistry::isMoving(Unit& unit, bool& moving)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit)};
    pollMove(unit, Clock::now());
    if (unit.move) {
        moving = true;  // between legs the motor may stand for a moment
        return {};
    }
    if (!unit.connected) return {kNotConnected, notConnected(unit)};
    const int rc = NKRIsMoving(unit.host->slot(), &moving, nullptr);
    if (rc != NKR_SUCCESS && unit.host->noteResult(rc)) {
        noteGone(unit, rc);
        return {kNotConnected, notConnected(unit, nkrhost::describeError(rc).text)};
    }
    return fromSdk(rc);
}

std::string DeviceRegistry::tempCompSummary(Unit& unit)
{
    std::lock_guard lock(unit.io);
    return unit.tempComp ? unit.tempComp->describe() : std::string();
}

void DeviceRegistry::tick(Clock::time_point now)
{
    for (auto& unit : all()) {
        std::unique_lock lock(unit->io, std::try_to_lock);
        if (!lock.owns_lock() || !unit->host || !unit->wanted || unit->host->gone()) continue;
        if (unit->move) {
            pollMove(*unit, now);
            continue;
        }
        if (!unit->tempComp || now < unit->nextTempTick) continue;
        unit->nextTempTick = now + kTempCompPeriod;
        std::vector<std::string> lines;
        unit->tempComp->tick(lines);
        for (const std::string& line : lines) logInfo(unit->label() + ": " + line);
    }
}

void DeviceRegistry::startSupervisor(std::chrono::milliseconds period)
{
    if (supervisor_.joinable()) return;
    supervisor_ = std::thread([this, period] {
        std::unique_lock lock(supervisorMutex_);
        while (!supervisorWake_.wait_for(lock, period, [this] { return supervisorStop_; })) {
            lock.unlock();
            tick(Clock::now());
            lock.lock();
        }
    });
}

void DeviceRegistry::stopSupervisor()
{
    {
        std::lock_guard lock(supervisorMutex_);
        supervisorStop_ = true;
    }
    supervisorWake_.notify_all();
    if (supervisor_.joinable()) supervisor_.join();
}

}  // namespace alpaca
