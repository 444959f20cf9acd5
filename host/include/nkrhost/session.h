// The unit session: the one owner of a held unit. At most one of our
// programs holds a unit at a time, across processes and whatever link it
// came by (the "unit" claim on its key). The holder drives it: moves with the
// final approach carried to their end whether or not anyone waits, sync,
// settings, firmware, temperature compensation; it watches the link and
// reconnects with back-off. Every other program may read the unit and may
// always stop it; anything else is refused with the holder named, before
// anything is sent. Each front-end only translates a session into its own
// conventions (exit status, INDI properties, ASCOM members, Python).
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nkrhost/claim.h"
#include "nkrhost/errors.h"
#include "nkrhost/motion.h"
#include "nkrhost/setting_catalogue.h"
#include "nkrhost/tempcomp.h"
#include "nkrhost/unit.h"

namespace nkrhost {

// What a front-end shows of a unit.
enum class UnitState {
    Absent,      // known, not here (unplugged, switched off, out of reach), nobody asked for it
    Connecting,  // being opened or connected
    Ready,       // held, standing still
    Moving,      // held, a move (or a compensation correction) under way
    Gone,        // held, the link was lost; reconnecting with back-off
    Back,        // held, reconnected after being gone (for a few seconds, then Ready)
};
const char* unitStateName(UnitState state);  // "absent", "connecting", ...

// A program that stops a unit it does not hold leaves a note, so that the
// holder can say truthfully who stopped its move.
void noteStoppedBy(const std::string& unitKey, const std::string& who);
// Who stopped the unit since `since` ("" when no note is that new).
std::string stoppedBy(const std::string& unitKey, std::chrono::system_clock::time_point since);

// Stops a unit from any program, held or not: a stop is never refused. A
// program that does not hold it leaves a note for the holder.
Status stopUnit(Unit& unit, const std::string& who);

// ---- how a move ended -------------------------------------------------------

struct MoveReport {
    FollowResult result;
    int target = 0;
    std::string stoppedBy;  // who stopped it, when another program did
    // A move is a success only when it arrived.
    bool arrived() const { return result.end == MoveEnd::Reached; }
    // "reached 40000", "stopped at 12711 by nkr stop (pid 44), 27289 steps short of 40000", ...
    std::string sentence() const;
    // kMoveNotArrived (or the follow loop's own code) with sentence(); ok when it arrived.
    Status status() const;
};

// ---- the session --------------------------------------------------------------

class Session {
public:
    using Clock = MoveFollower::Clock;

    struct Options {
        std::string holder;  // "nkr-alpaca (focuser 0, http://host:11111/control)", "nkr move"
        bool compensate = true;  // run temperature compensation while held
        std::chrono::milliseconds tempCompPeriod{2000};
        std::chrono::milliseconds poll{100};  // how often a move is looked at
    };

    // Takes hold of an open unit. Refused (kUnitInUse, naming the holder)
    // when another program holds it: then `unit` is left with the caller,
    // open and untouched, so nothing is sent and nothing is closed.
    static Status hold(std::unique_ptr<Unit>& unit, const Options& options, std::unique_ptr<Session>& out);

    ~Session();  // releases the hold; the unit closes as Unit does
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Unit& unit() { return *m_unit; }
    const Unit& unit() const { return *m_unit; }
    const std::string& holder() const { return m_options.holder; }

    UnitState state(Clock::time_point now = Clock::now()) const;
    // The last position read (kept while the unit is gone) and since when it is gone.
    int lastPosition() const { return m_lastPosition; }
    std::chrono::system_clock::time_point goneSince() const { return m_goneSince; }

    // ---- driving (the holder only: a Session is the holder) -------------------
    // A move as the user asked for it, final approach included, checked
    // before anything moves; tick() carries it to its end.
    Status moveTo(long long target, const FollowOptions& options = {}, Clock::time_point now = Clock::now());
    Status moveBy(long long steps, int* target = nullptr, const FollowOptions& options = {},
                  Clock::time_point now = Clock::now());
    // Stops at once, also between the legs of a move; never refused.
    Status stop();
    Status sync(long long position);
    Status writeSetting(const SettingInfo& info, const SettingValue& value);

    bool moving() const { return m_move != nullptr || m_correcting; }
    // The move under way, or the last one's final look.
    MoveProgress progress() const;
    // How the last move ended, handed out once.
    std::optional<MoveReport> takeMoveEnd();

    // The user's maximum (the host settings file is parsed once per change,
    // so a change made by another program shows at the next look).
    Status maximum(int& out) const { return m_unit->maximum(out); }
    // Reads the position (kept as the last known one while the unit is gone).
    Status position(int& out);

    // One look: carries the planned move, runs compensation, watches the
    // link and reconnects when its back-off says so. Lines worth logging go
    // into log.
    void tick(Clock::time_point now, std::vector<std::string>& log);
    // Follows the move under way to its end (the tool and Python, which wait).
    MoveReport waitForMove(const FollowHooks& hooks = {});

    // The temperature compensation's one-line state ("" when it is off here).
    std::string tempCompSummary() const;
    // Whether the unit's temperature compensation is on in the host settings
    // (whichever program runs it): it then needs a look every tempCompPeriod.
    // While it is off, only a change of the settings can turn it on.
    bool compensating() const { return m_tempComp && m_tempComp->state() != TempCompRunner::State::Off; }

private:
    Session(std::unique_ptr<Unit> unit, const Options& options);
    void endMove(const FollowResult& result, std::vector<std::string>& log);
    void noteGone(int code, std::vector<std::string>& log);

    std::unique_ptr<Unit> m_unit;
    Options m_options;
    UnitClaim m_claim;
    UnitClaim m_addressClaim;  // a Bluetooth unit: also by its address
    std::unique_ptr<PlannedMove> m_move;
    std::chrono::system_clock::time_point m_moveBegun;
    std::optional<MoveReport> m_moveEnd;
    MoveProgress m_lastProgress;
    std::unique_ptr<TempCompRunner> m_tempComp;
    Clock::time_point m_nextTempTick{};
    bool m_correcting = false;
    int m_appliedMaximum = -1;
    int m_lastPosition = 0;
    std::chrono::system_clock::time_point m_goneSince{};
    Clock::time_point m_backAt{};
    bool m_cameBack = false;
};

}  // namespace nkrhost
