#include "nkrhost/unit.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <thread>

namespace nkrhost {
namespace {

std::string rangeText(int low, int high) { return std::to_string(low) + ".." + std::to_string(high); }

}  // namespace

Inventory takeInventory(bool withBluetooth, int bleScanMillis)
{
    Inventory inv;
    for (const Identity& id : identifyUsbUnits()) inv.units.push_back(seenFrom(id));
    if (withBluetooth) {
        std::vector<SeenUnit> ble;
        inv.bluetooth = scanBluetooth(ble, bleScanMillis);
        inv.units.insert(inv.units.end(), ble.begin(), ble.end());
    }
    return inv;
}

Unit::Unit(Identity identity, const HostSettings& settings)
    : m_identity(std::move(identity)), m_settings(settings), m_watch(m_identity.link)
{
}

Unit::~Unit()
{
    if (!m_keepOpen) close();
}

std::unique_ptr<Unit> Unit::adopt(int slot, Link link, const HostSettings& settings)
{
    return std::unique_ptr<Unit>(new Unit(readIdentity(slot, link), settings));
}

std::unique_ptr<Unit> Unit::adoptBluetooth(int slot, const std::string& name, const std::string& address,
                                           const HostSettings& settings)
{
    Identity id = readIdentity(slot, Link::Ble);
    id.bleName = name;
    id.bleAddress = address;
    return std::unique_ptr<Unit>(new Unit(std::move(id), settings));
}

Status Unit::open(const OpenRequest& request, std::unique_ptr<Unit>& out, const HostSettings& settings)
{
    out.reset();
    const std::string wanted = trimmed(request.name);
    // A slot id needs no look at the other units (opening one may restore
    // its saved position); they are identified only to say what was seen.
    if (!request.bluetoothOnly && isSlotName(wanted)) {
        const int slot = std::stoi(wanted);
        for (int s : scanUsbSlots()) {
            if (s != slot) continue;
            const int rc = NKROpen(slot);
            if (rc != NKR_SUCCESS) return Status::fromSdk(rc, "opening USB unit " + wanted);
            out = adopt(slot, Link::Usb, settings);
            return {};
        }
    }
    std::vector<SeenUnit> seen;
    if (!request.bluetoothOnly)
        for (const Identity& id : identifyUsbUnits()) seen.push_back(seenFrom(id));

    const std::string name = trimmed(request.name);
    if (name.empty() && !request.bluetoothOnly) {
        if (seen.empty())
            return Status::failure(kUnitNotFound,
                                   "no USB focuser is connected (check the cable, and permissions with "
                                   "ls -l /dev/hidraw*)");
        out = adopt(seen.front().slot, Link::Usb, settings);
        return {};
    }

    // A USB name that matches is taken without waiting for a Bluetooth scan.
    Resolution r = resolveUnit(name, seen);
    const bool usbAnswered = r.status.ok() || r.status.code == kUnitAmbiguous || isSlotName(name);
    if ((request.bluetooth || request.bluetoothOnly) && !usbAnswered) {
        std::vector<SeenUnit> ble;
        Status scanned = scanBluetooth(ble, request.bleScanMillis);
        if (!scanned.ok() && request.bluetoothOnly) return scanned;
        seen.insert(seen.end(), ble.begin(), ble.end());
        r = resolveUnit(name, seen);
        if (!r.status.ok() && !scanned.ok()) r.status.message += "; " + scanned.message;
    }
    if (!r.status.ok()) return r.status;

    const SeenUnit& match = seen[static_cast<std::size_t>(r.index)];
    if (match.link == Link::Usb) {
        out = adopt(match.slot, Link::Usb, settings);
        return {};
    }
    int slot = -1;
    Status connected = connectBluetooth(match.bleName, match.bleAddress, slot);
    if (!connected.ok()) return connected;
    out = adoptBluetooth(slot, match.bleName, match.bleAddress, settings);
    return {};
}

void Unit::refreshIdentity()
{
    Identity id = readIdentity(slot(), link());
    id.bleName = m_identity.bleName;
    id.bleAddress = m_identity.bleAddress;
    if (id.serial.empty()) id.serial = m_identity.serial;
    m_identity = std::move(id);
}

void Unit::applyStoredMaximum()
{
    // A unit that lost power or was set by another program gets back the
    // maximum the user chose here.
    UnitSettings s;
    if (!m_settings.read(key(), s).ok() || !s.maxPosition) return;
    int onUnit = 0;
    if (NKRGetMaxStep(slot(), &onUnit) == NKR_SUCCESS && onUnit != *s.maxPosition &&
        *s.maxPosition <= std::max(stepRange(), 0))
        NKRSetMaxStep(slot(), *s.maxPosition);
}

Status maximumOf(const Identity& identity, const HostSettings& settings, int& out)
{
    UnitSettings s;
    Status read = settings.read(identity.key(), s);
    if (!read.ok()) return read;
    const int range = identity.stepRange;
    if (s.maxPosition) {
        out = range > 0 ? std::min(*s.maxPosition, range) : *s.maxPosition;
        return {};
    }
    int onUnit = 0;
    const int rc = NKRGetMaxStep(identity.slot, &onUnit);
    if (rc != NKR_SUCCESS) return Status::fromSdk(rc, "reading the maximum position");
    out = range > 0 ? std::min(onUnit, range) : onUnit;
    return {};
}

Status Unit::maximum(int& out) const { return maximumOf(m_identity, m_settings, out); }

Status Unit::checkMaximum(long long value)
{
    // One rule everywhere: 1 .. the step range, and never below where the
    // focuser stands (a maximum it is already past would strand it).
    const std::string range = rangeText(1, stepRange());
    if (value < 1 || (stepRange() > 0 && value > stepRange()))
        return Status::failure(kBadSetting, "max-step must be a whole number of steps from " + range +
                                                ", the unit's step range (got " + std::to_string(value) + ")");
    int at = 0;
    if (Status read = position(at); !read.ok()) return read;
    if (value < at)
        return Status::failure(kBadSetting, "max-step " + std::to_string(value) + " is below the position " +
                                                std::to_string(at) + " the focuser stands at; move it to " +
                                                std::to_string(value) + " or less first");
    return {};
}

Status Unit::setMaximum(long long value, bool onUnit)
{
    Status allowed = checkMaximum(value);
    if (!allowed.ok()) return allowed;
    if (onUnit) {
        const int rc = NKRSetMaxStep(slot(), static_cast<int>(value));
        noteResult(rc);
        if (rc != NKR_SUCCESS) return Status::fromSdk(rc, "setting the maximum position");
    }
    return m_settings.update(key(), [&](UnitSettings& s) {
        s.maxPosition = static_cast<int>(value);
        return Status{};
    });
}

Status Unit::checkTarget(long long target) const
{
    int max = 0;
    Status read = maximum(max);
    if (!read.ok()) return read;
    if (target >= 0 && target <= max) return {};
    if (target < 0)
        return Status::failure(kBeyondLimit, "position " + std::to_string(target) + " is outside " + rangeText(0, max) +
                                                 ": 0 is the inner end of travel");
    return Status::failure(kBeyondLimit, "position " + std::to_string(target) + " is outside " + rangeText(0, max) +
                                             ", the maximum position set for this focuser; raise its maximum "
                                             "position to go further");
}

Status Unit::position(int& out)
{
    const int rc = NKRGetPosition(slot(), &out);
    noteResult(rc);
    return Status::fromSdk(rc, "reading the position");
}

Status Unit::noteUpdateStopped(long long written, long long total)
{
    return m_settings.update(key(), [&](UnitSettings& s) {
        s.pendingUpdate = PendingUpdate{written, total};
        return Status{};
    });
}

Status Unit::noteUpdateCompleted()
{
    return m_settings.update(key(), [](UnitSettings& s) {
        s.pendingUpdate.reset();
        return Status{};
    });
}

Status Unit::checkNotInUpdateMode() const
{
    UnitSettings s;
    Status read = m_settings.read(key(), s);
    if (!read.ok()) return read;
    if (!s.pendingUpdate) return {};
    return Status::failure(kUpdatePending, "the focuser is in firmware update mode (an update stopped after " +
                                               std::to_string(s.pendingUpdate->written) + " of " +
                                               std::to_string(s.pendingUpdate->total) +
                                               " bytes) and will not move until an update completes; run the "
                                               "firmware update again");
}

Status Unit::moveTo(long long target)
{
    Status updating = checkNotInUpdateMode();
    if (!updating.ok()) return updating;
    Status allowed = checkTarget(target);
    if (!allowed.ok()) return allowed;
    const int rc = NKRMove(slot(), static_cast<int>(target));
    noteResult(rc);
    return Status::fromSdk(rc, "starting the move to " + std::to_string(target));
}

Status Unit::moveBy(long long steps, int* target)
{
    int from = 0;
    Status read = position(from);
    if (!read.ok()) return read;
    const long long goal = from + steps;
    if (target != nullptr) *target = static_cast<int>(std::clamp<long long>(goal, INT32_MIN, INT32_MAX));
    return moveTo(goal);
}

Status Unit::stop()
{
    const int rc = NKRStop(slot());
    noteResult(rc);
    return Status::fromSdk(rc, "stopping the motor");
}

Status Unit::sync(long long position)
{
    // The user's maximum holds for a declared position as for a move.
    if (Status allowed = checkTarget(position); !allowed.ok()) return allowed;
    const int rc = NKRResetPostion(slot(), static_cast<int>(position));
    noteResult(rc);
    return Status::fromSdk(rc, "setting the position");
}

FollowResult Unit::follow(const FollowOptions& options, const FollowHooks& hooks)
{
    FollowResult r = followMove(slot(), link(), options, hooks);
    if (r.end == MoveEnd::Gone) m_watch.markGone();
    return r;
}

Status Unit::planMove(long long target, const FollowOptions& options, std::unique_ptr<PlannedMove>& out)
{
    out.reset();
    Status updating = checkNotInUpdateMode();
    if (!updating.ok()) return updating;
    Status allowed = checkTarget(target);
    if (!allowed.ok()) return allowed;
    int from = 0, max = 0;
    Status read = position(from);
    if (!read.ok()) return read;
    if (Status m = maximum(max); !m.ok()) return m;
    UnitSettings s;
    if (Status st = settings(s); !st.ok()) return st;
    out = std::make_unique<PlannedMove>(*this, approachLegs(from, static_cast<int>(target), s.approach, max), options);
    return {};
}

FollowResult Unit::moveAndFollow(long long target, const FollowOptions& options, const FollowHooks& hooks)
{
    auto now = [&] { return hooks.now ? hooks.now() : MoveFollower::Clock::now(); };
    FollowResult failed;
    failed.end = MoveEnd::StoppedShort;
    std::unique_ptr<PlannedMove> move;
    failed.status = planMove(target, options, move);
    if (failed.status.ok()) failed.status = move->start(now());
    if (!failed.status.ok()) {
        position(failed.position);
        return failed;
    }
    for (;;) {
        if (hooks.interrupted && hooks.interrupted()) return move->interrupt();
        if (auto end = move->poll(now())) return *end;
        if (hooks.progress) hooks.progress(move->progress());
        if (hooks.sleep)
            hooks.sleep(options.poll);
        else
            std::this_thread::sleep_for(options.poll);
    }
}

namespace {

Status checkPositionName(const std::string& name)
{
    const bool printable = std::all_of(name.begin(), name.end(), [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
    if (name.empty() || name.size() > 32 || !printable || trimmed(name) != name)
        return Status::failure(kBadSetting, "a position name is 1 to 32 plain characters without blanks at either end (got '" +
                                                clippedName(name) + "')");
    return {};
}

std::string namesOf(const std::map<std::string, int>& positions)
{
    std::string list;
    for (const auto& [name, value] : positions) list += (list.empty() ? "" : ", ") + name;
    return list.empty() ? "none saved" : list;
}

}  // namespace

Status Unit::namedPositions(std::map<std::string, int>& out) const
{
    UnitSettings s;
    Status st = settings(s);
    out = s.positions;
    return st;
}

Status Unit::savePosition(const std::string& name, long long value)
{
    if (Status bad = checkPositionName(name); !bad.ok()) return bad;
    if (Status beyond = checkTarget(value); !beyond.ok()) return beyond;
    return m_settings.update(key(), [&](UnitSettings& s) {
        s.positions[name] = static_cast<int>(value);
        return Status{};
    });
}

Status Unit::removePosition(const std::string& name)
{
    return m_settings.update(key(), [&](UnitSettings& s) {
        if (s.positions.erase(name) == 0)
            return Status::failure(kBadSetting, "no position is named '" + clippedName(name) + "' (" +
                                                    namesOf(s.positions) + ")");
        return Status{};
    });
}

Status Unit::namedPosition(const std::string& name, int& out) const
{
    std::map<std::string, int> all;
    if (Status st = namedPositions(all); !st.ok()) return st;
    auto it = all.find(name);
    if (it == all.end())
        return Status::failure(kBadSetting, "no position is named '" + clippedName(name) + "' (" + namesOf(all) + ")");
    out = it->second;
    return {};
}

bool Unit::noteResult(int code) { return m_watch.note(code); }

Status Unit::reconnect()
{
    const auto now = Backoff::Clock::now();
    if (link() == Link::Ble) {
        if (m_open) NKRBLEDisconnect(slot());
        m_open = false;
        int newSlot = -1;
        Status st = connectBluetooth(m_identity.bleName, m_identity.bleAddress, newSlot);
        if (!st.ok()) {
            m_backoff.failed(now);
            return st;
        }
        m_identity.slot = newSlot;
    } else {
        if (m_open) NKRClose(slot());  // releases the slot of a unit that went away
        m_open = false;
        const std::string wanted = m_identity.serial;
        int found = -1;
        for (const Identity& id : identifyUsbUnits())
            if (!wanted.empty() ? id.serial == wanted : id.slot == m_identity.slot) found = id.slot;
        if (found < 0) {
            m_backoff.failed(now);
            return Status::failure(NKR_ERROR_REMOVED, "the focuser " + key() + " is not back yet");
        }
        m_identity.slot = found;
    }
    m_open = true;
    m_watch.reset();
    m_backoff.reset();
    refreshIdentity();
    applyStoredMaximum();
    return {};
}

void Unit::close()
{
    if (!m_open) return;
    m_open = false;
    if (link() == Link::Ble)
        NKRBLEDisconnect(slot());
    else
        NKRClose(slot());
}

}  // namespace nkrhost
