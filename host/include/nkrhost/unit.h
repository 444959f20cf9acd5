// One unit a host program works with: found by a name, opened, its limits
// enforced, its moves followed, its link watched and made again. What the
// library leaves to each program (the user's maximum, what "gone" means,
// reconnecting) is decided here once, so every front-end behaves alike.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "nkrhost/errors.h"
#include "nkrhost/follow.h"
#include "nkrhost/identity.h"
#include "nkrhost/link.h"
#include "nkrhost/motion.h"
#include "nkrhost/settings.h"

namespace nkrhost {

struct OpenRequest {
    // What the user typed: a slot id, serial, alias, Bluetooth name,
    // address or unique beginning of a Bluetooth name. "" = the first USB unit.
    std::string name;
    // Look among Bluetooth units too (a scan of bleScanMillis); with
    // bluetoothOnly the USB bus is not looked at.
    bool bluetooth = false;
    bool bluetoothOnly = false;
    int bleScanMillis = kBleScanMillis;
};

class Unit {
public:
    // Finds and opens the unit `request` names. A USB unit is opened; a
    // Bluetooth unit is connected and paired.
    static Status open(const OpenRequest& request, std::unique_ptr<Unit>& out,
                       const HostSettings& settings = HostSettings());
    // A slot this program has opened or connected itself.
    static std::unique_ptr<Unit> adopt(int slot, Link link, const HostSettings& settings = HostSettings());
    // A Bluetooth unit this program connected (connectBluetooth), with the
    // name and address it was found under (used to reconnect).
    static std::unique_ptr<Unit> adoptBluetooth(int slot, const std::string& name, const std::string& address,
                                                const HostSettings& settings = HostSettings());

    ~Unit();  // closes the unit unless keepOpen() was called
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    int slot() const { return m_identity.slot; }
    Link link() const { return m_identity.link; }
    const Identity& identity() const { return m_identity; }
    std::string label() const { return m_identity.label(); }
    std::string key() const { return m_identity.key(); }
    // Reads the identity again (after a settings change or a reconnect).
    void refreshIdentity();

    // ---- settings of the host programs, kept per unit ------------------------
    HostSettings& hostSettings() { return m_settings; }
    Status settings(UnitSettings& out) const { return m_settings.read(key(), out); }

    // ---- the user's limits ----------------------------------------------------
    // The largest position the firmware takes.
    int stepRange() const { return m_identity.stepRange; }
    // The user's maximum as every host program enforces it: the one in the
    // host settings, else the unit's own, never above the step range.
    Status maximum(int& out) const;
    // The one rule for the user's maximum: 1 .. the step range, and not
    // below the position the focuser stands at. ok, or kBadSetting.
    Status checkMaximum(long long value);
    // Sets the maximum in the host settings, and on the unit too when
    // onUnit (its holder), by that rule.
    Status setMaximum(long long value, bool onUnit = true);
    // ok, or kBeyondLimit with a sentence that names the limit.
    Status checkTarget(long long target) const;

    // ---- motion ----------------------------------------------------------------
    Status position(int& out);
    // Starts a move; refused outside 0 .. maximum, never clamped.
    Status moveTo(long long target);
    // Starts a move by steps from the current position; target receives the
    // absolute target.
    Status moveBy(long long steps, int* target = nullptr);
    Status stop();
    // Declares the current position without moving; refused outside 0 .. the user's maximum.
    Status sync(long long position);
    FollowResult follow(const FollowOptions& options, const FollowHooks& hooks = {});
    // A move as the user asked for it, with the unit's final approach (one
    // leg or two), checked against the limits before anything moves.
    Status planMove(long long target, const FollowOptions& options, std::unique_ptr<PlannedMove>& out);
    // Plans, starts and follows such a move to its end.
    FollowResult moveAndFollow(long long target, const FollowOptions& options, const FollowHooks& hooks = {});

    // ---- named positions ------------------------------------------------------
    Status namedPositions(std::map<std::string, int>& out) const;
    // Saves a name for a position (refused outside 0 .. maximum).
    Status savePosition(const std::string& name, long long position);
    Status removePosition(const std::string& name);
    // The position a name stands for; kBadSetting listing the names when unknown.
    Status namedPosition(const std::string& name, int& out) const;

    // ---- firmware update mode ---------------------------------------------------
    // Records that an update stopped part-way (the unit stays in update mode
    // and moves are refused until an update completes), or that one completed.
    Status noteUpdateStopped(long long written, long long total);
    Status noteUpdateCompleted();
    // ok, or kUpdatePending with a sentence that says what to do.
    Status checkNotInUpdateMode() const;

    // ---- the link --------------------------------------------------------------
    // Records the result of a call on the unit; true when it now counts as gone.
    bool noteResult(int code);
    bool gone() const { return m_watch.gone(); }
    // One attempt to get a gone unit back: the same unit (serial number, or
    // Bluetooth address) is looked for and opened again. ok when it is back;
    // the back-off says when to try next.
    Status reconnect();
    Backoff& backoff() { return m_backoff; }
    const Backoff& backoff() const { return m_backoff; }

    // Gives the unit back the maximum the user chose in the host settings
    // (it may have lost power, or been set by another program). A write:
    // only the holder does it.
    void applyStoredMaximum();

    // Closes (USB: which saves position and settings) or disconnects now.
    void close();
    // The unit stays open when this object goes (a move keeps running).
    void keepOpen() { m_keepOpen = true; }

private:
    Unit(Identity identity, const HostSettings& settings);

    Identity m_identity;
    HostSettings m_settings;
    LinkWatch m_watch;
    Backoff m_backoff;
    bool m_open = true;
    bool m_keepOpen = false;
};

// The user's maximum of any open unit (what Unit::maximum answers), without
// taking hold of it.
Status maximumOf(const Identity& identity, const HostSettings& settings, int& out);

// Everything the host programs can see: USB units (identified) and, when
// asked, Bluetooth units in range.
struct Inventory {
    std::vector<SeenUnit> units;
    Status bluetooth;  // the Bluetooth scan's outcome, when one was made
};
Inventory takeInventory(bool withBluetooth, int bleScanMillis = kBleScanMillis);

}  // namespace nkrhost
