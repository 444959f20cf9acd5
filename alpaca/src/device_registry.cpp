#include "device_registry.h"

#include <NKR_focuser.h>

#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "log.h"
#include "nkrhost/settings.h"
#include "settings_watch.h"
#include "thread_name.h"

namespace alpaca {
namespace fs = std::filesystem;

namespace {

// A unit plugged in (or switched on) after the server started is found
// within this time.
constexpr auto kRescanPeriod = std::chrono::seconds(5);
// The supervisor's look while compensation runs (or, without a watch on the
// host settings, whenever nothing moves).
constexpr std::chrono::milliseconds kSteadyPeriod{1000};

std::string notConnected(const Unit& unit, const std::string& why = {})
{
    return unit.label() + " is not connected" + (why.empty() ? "" : ": " + why);
}

}  // namespace

DeviceRegistry::DeviceRegistry(std::string statePath)
    : statePath_(std::move(statePath)), supervisorWake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    load();
}

DeviceRegistry::~DeviceRegistry()
{
    stopSupervisor();
    if (supervisorWake_ >= 0) ::close(supervisorWake_);
    // Close what we opened so positions are saved.
    for (auto& unit : all()) {
        std::lock_guard lock(unit->io);
        unit->session.reset();
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

std::shared_ptr<Unit> DeviceRegistry::adopt(const std::string& key, int slot, const std::string& bleName,
                                            const std::string& bleAddress)
{
    std::lock_guard lock(listMutex_);
    for (auto& unit : units_) {
        if (unit->serial == key) {
            unit->slot = slot;
            return unit;
        }
    }
    int number = -1;
    for (auto& [k, n] : known_)
        if (k == key) number = n;
    if (number < 0) {
        number = 0;
        for (auto& [k, n] : known_) number = std::max(number, n + 1);
        known_.emplace_back(key, number);
        save();
    }
    auto unit = std::make_shared<Unit>();
    unit->number = number;
    unit->serial = key;
    unit->uniqueId = "nkr-focuser-" + key;
    unit->bleName = bleName;
    unit->bleAddress = bleAddress;
    unit->slot = slot;
    units_.push_back(unit);
    std::sort(units_.begin(), units_.end(), [](auto& a, auto& b) { return a->number < b->number; });
    logInfo(unit->label() + " is unit " + key + (bleName.empty() ? " (USB)" : " (Bluetooth " + bleName + ")"));
    return unit;
}

void DeviceRegistry::rescan()
{
    std::lock_guard scan(scanMutex_);
    nextRescan_ = Clock::now() + kRescanPeriod;
    // Only slots no unit of ours stands in are opened and identified.
    for (int slot : nkrhost::scanUsbSlots()) {
        bool known = false;
        for (auto& unit : all())
            if (unit->slot == slot && unit->bleName.empty()) known = true;
        if (known || NKROpen(slot) != NKR_SUCCESS) continue;
        adopt(nkrhost::readIdentity(slot, nkrhost::Link::Usb).key(), slot, "", "");
    }
}

std::string DeviceRegistry::holderName(const Unit& unit) const
{
    return "nkr-alpaca (" + unit.label() + (address_.empty() ? "" : ", " + address_) + ")";
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
        if (unit->session && !unit->session->unit().gone()) {
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
    nkrhost::Session::Options options;
    options.holder = holderName(*unit);
    nkrhost::Status held = nkrhost::Session::hold(host, options, unit->session);
    if (!held.ok()) {
        // Another program holds it: the link we made is ours to drop.
        host->keepOpen();
        NKRBLEDisconnect(slot);
        return {held, held.message};
    }
    unit->wanted = true;
    unit->connected = true;
    unit->state = static_cast<int>(nkrhost::UnitState::Ready);
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
    std::unique_ptr<nkrhost::Unit> host;
    if (!unit.bleName.empty()) {
        int slot = -1;
        nkrhost::Status connected = nkrhost::connectBluetooth(unit.bleName, unit.bleAddress, slot);
        if (!connected.ok()) return connected;
        host = nkrhost::Unit::adoptBluetooth(slot, unit.bleName, unit.bleAddress);
    } else {
        // The same key rule as everywhere: wherever the unit is plugged in now.
        for (const nkrhost::Identity& id : nkrhost::identifyUsbUnits())
            if (id.key() == unit.serial) host = nkrhost::Unit::adopt(id.slot, nkrhost::Link::Usb);
        if (!host) return nkrhost::Status::failure(NKR_ERROR_REMOVED, "cannot find " + unit.label() + " (" + unit.serial +
                                                                          "); is it plugged in and switched on?");
    }
    nkrhost::Session::Options options;
    options.holder = holderName(unit);
    nkrhost::Status held = nkrhost::Session::hold(host, options, unit.session);
    if (!held.ok()) {
        if (!unit.bleName.empty()) NKRBLEDisconnect(host->slot());
        return held;
    }
    unit.slot = unit.session->unit().slot();
    return {};
}

void DeviceRegistry::look(Unit& unit, Clock::time_point now)
{
    std::vector<std::string> lines;
    unit.session->tick(now, lines);
    for (const std::string& line : lines) logInfo(unit.label() + ": " + line);
    const nkrhost::UnitState state = unit.session->state(now);
    unit.state = static_cast<int>(state);
    unit.lastPosition = unit.session->lastPosition();
    unit.connected = state != nkrhost::UnitState::Gone;
    unit.slot = state == nkrhost::UnitState::Gone && unit.bleName.empty() ? -1 : unit.session->unit().slot();
}

// With io held: whether the unit can be used now. A unit that went away is
// looked for again when its back-off says so.
bool DeviceRegistry::reachable(Unit& unit)
{
    if (!unit.wanted) return false;
    if (!unit.session) {
        if (Clock::now() < unit.nextOpen) return false;
        unit.state = static_cast<int>(nkrhost::UnitState::Connecting);
        nkrhost::Status opened = open(unit);
        if (!opened.ok()) {
            unit.nextOpen = Clock::now() + std::chrono::seconds(2);
            unit.lastError = opened.message;
            unit.state = static_cast<int>(nkrhost::UnitState::Absent);
            return false;
        }
        unit.lastError.clear();
    }
    if (unit.session->unit().gone()) {
        std::lock_guard scan(scanMutex_);
        look(unit, Clock::now());
    } else {
        unit.state = static_cast<int>(unit.session->state());
    }
    unit.connected = !unit.session->unit().gone();
    return unit.connected;
}

DeviceError DeviceRegistry::call(Unit& unit, const std::function<int(int)>& fn)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit, unit.lastError)};
    const int rc = fn(unit.session->unit().slot());
    if (rc != NKR_SUCCESS && unit.session->unit().noteResult(rc)) {
        look(unit, Clock::now());
        return {kNotConnected, notConnected(unit, nkrhost::describeError(rc).text)};
    }
    return fromSdk(rc);
}

DeviceError DeviceRegistry::withSession(Unit& unit, const std::function<nkrhost::Status(nkrhost::Session&)>& fn)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit, unit.lastError)};
    // The host layer has already noted the result of every call it made.
    const nkrhost::Status status = fn(*unit.session);
    if (!status.ok() && unit.session->unit().gone()) {
        look(unit, Clock::now());
        return {kNotConnected, notConnected(unit, status.message)};
    }
    return fromStatus(status);
}

DeviceError DeviceRegistry::withHost(Unit& unit, const std::function<nkrhost::Status(nkrhost::Unit&)>& fn)
{
    return withSession(unit, [&](nkrhost::Session& session) { return fn(session.unit()); });
}

bool DeviceRegistry::connected(Unit& unit)
{
    std::lock_guard lock(unit.io);
    return reachable(unit);
}

nkrhost::UnitState DeviceRegistry::state(Unit& unit)
{
    std::lock_guard lock(unit.io);
    if (unit.session) unit.state = static_cast<int>(unit.session->state());
    return static_cast<nkrhost::UnitState>(unit.state.load());
}

DeviceError DeviceRegistry::connect(Unit& unit)
{
    std::lock_guard lock(unit.io);
    const bool wasWanted = unit.wanted;
    unit.wanted = true;
    // A client asking now is tried at once.
    if (unit.session) unit.session->unit().backoff().reset();
    unit.nextOpen = {};
    if (!reachable(unit)) {
        // A unit already wanted (gone, or not found yet) stays wanted: it is
        // held again when it comes back. Another program's hold is final.
        const bool heldElsewhere = unit.lastError.find(" is held by ") != std::string::npos;
        unit.wanted = wasWanted && !heldElsewhere;
        if (heldElsewhere) return {kInvalidOperation, unit.lastError};
        if (!unit.bleName.empty()) return {kNotConnected, "Bluetooth unit " + unit.bleName + " is out of reach"};
        return {kNotConnected, "cannot open " + unit.label() + " (" + unit.serial + "); is it plugged in?"};
    }
    logInfo(unit.label() + " connected");
    return {};
}

DeviceError DeviceRegistry::disconnect(Unit& unit)
{
    std::lock_guard lock(unit.io);
    const bool was = unit.wanted;
    unit.wanted = false;
    unit.connected = false;
    unit.state = static_cast<int>(nkrhost::UnitState::Absent);
    // The hold is given up. A USB unit is closed, which saves its position
    // and settings; a Bluetooth link is kept open so the next connect is quick.
    if (unit.session && !unit.bleName.empty()) unit.session->unit().keepOpen();
    unit.session.reset();
    if (was) logInfo(unit.label() + " disconnected");
    return {};
}

DeviceError DeviceRegistry::move(Unit& unit, long long target)
{
    DeviceError started = withSession(unit, [&](nkrhost::Session& session) {
        nkrhost::Status st = session.moveTo(target);
        if (st.ok()) unit.state = static_cast<int>(nkrhost::UnitState::Moving);
        return st;
    });
    if (started.ok()) nudgeSupervisor();  // the move's legs are carried from now on
    return started;
}

DeviceError DeviceRegistry::halt(Unit& unit)
{
    return withSession(unit, [](nkrhost::Session& session) { return session.stop(); });
}

DeviceError DeviceRegistry::isMoving(Unit& unit, bool& moving)
{
    std::lock_guard lock(unit.io);
    if (!reachable(unit)) return {kNotConnected, notConnected(unit, unit.lastError)};
    look(unit, Clock::now());
    if (unit.session->unit().gone()) return {kNotConnected, notConnected(unit)};
    if (unit.session->moving()) {
        moving = true;  // between legs, or during a compensation correction
        return {};
    }
    const int rc = NKRIsMoving(unit.session->unit().slot(), &moving, nullptr);
    if (rc != NKR_SUCCESS && unit.session->unit().noteResult(rc)) {
        look(unit, Clock::now());
        return {kNotConnected, notConnected(unit, nkrhost::describeError(rc).text)};
    }
    return fromSdk(rc);
}

std::string DeviceRegistry::tempCompSummary(Unit& unit)
{
    std::lock_guard lock(unit.io);
    return unit.session ? unit.session->tempCompSummary() : std::string();
}

DeviceRegistry::Pace DeviceRegistry::tick(Clock::time_point now)
{
    if (now >= nextRescan_) rescan();
    bool busy = false;
    bool compensating = false;
    for (auto& unit : all()) {
        std::unique_lock lock(unit->io, std::try_to_lock);
        if (!lock.owns_lock()) {
            busy = true;  // a client's call is under way: look again soon
            continue;
        }
        if (!unit->wanted) continue;
        if (!unit->session) {
            // Wanted but not found yet (unplugged when a client connected it).
            busy = !reachable(*unit) || busy;
            continue;
        }
        look(*unit, now);
        const nkrhost::UnitState state = unit->session->state(now);
        busy = busy || state == nkrhost::UnitState::Moving || state == nkrhost::UnitState::Gone;
        compensating = compensating || unit->session->compensating();
    }
    return busy ? Pace::Quick : compensating ? Pace::Steady : Pace::Rest;
}

void DeviceRegistry::nudgeSupervisor()
{
    if (supervisorWake_ < 0) return;
    const uint64_t one = 1;
    (void)!::write(supervisorWake_, &one, sizeof one);
}

void DeviceRegistry::startSupervisor(std::chrono::milliseconds period, std::chrono::milliseconds rest)
{
    if (supervisor_.joinable()) return;
    // Every period while a move runs or a unit is away, every second while
    // compensation runs; otherwise only for the rescan, so that a quiet night
    // costs one look in five seconds. A maximum (or any host setting) changed
    // elsewhere wakes it at once through a watch on the settings file, and a
    // client's move through the eventfd; other files changing beside the
    // settings wake it without a look. Without a watch (inotify refused) it
    // looks once a second instead.
    supervisor_ = std::thread([this, period, rest] {
        nameThisThread("supervisor");
        SettingsWatch settings(nkrhost::HostSettings::defaultPath());
        const std::chrono::milliseconds steady = std::min(rest, kSteadyPeriod);
        const std::chrono::milliseconds quiet = settings.watching() ? rest : steady;
        const auto waitFor = [&](Pace p) { return p == Pace::Quick ? period : p == Pace::Steady ? steady : quiet; };
        // A first look at once: what changed before the watch began is seen too.
        Pace pace = tick(Clock::now());
        Clock::time_point nextLook = Clock::now() + waitFor(pace);
        while (!supervisorStop_) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(nextLook - Clock::now());
            pollfd fds[2] = {{supervisorWake_, POLLIN, 0}, {settings.fd(), POLLIN, 0}};
            const int ready = ::poll(fds, settings.watching() ? 2 : 1, static_cast<int>(std::max<int64_t>(0, left.count())));
            if (supervisorStop_) break;
            if (ready > 0) {
                uint64_t count = 0;
                const bool nudged = ::read(supervisorWake_, &count, sizeof count) > 0;
                const bool changed = settings.drain();
                // Something else in the settings folder changed: no reason to look before it is time.
                if (!nudged && !changed && Clock::now() < nextLook) continue;
            }
            const Clock::time_point now = Clock::now();
            pace = tick(now);
            nextLook = now + waitFor(pace);
        }
    });
}

void DeviceRegistry::stopSupervisor()
{
    supervisorStop_ = true;
    nudgeSupervisor();
    if (supervisor_.joinable()) supervisor_.join();
}

}  // namespace alpaca
