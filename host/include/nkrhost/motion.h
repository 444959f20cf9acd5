// A move as the user asked for it: one leg, or two when the unit's final
// approach asks every move to end coming from one side (past the target by
// the overshoot, then back), so that mechanical slack is taken up the same
// way every time. A stop during either leg stops at once.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "nkrhost/follow.h"
#include "nkrhost/settings.h"

namespace nkrhost {

class Unit;

// The targets of the legs of a move from `from` to `target`: just the
// target, or first the point `overshoot` steps past it on the far side
// (kept within 0 .. maximum) when the move would not otherwise end coming
// from the chosen side by at least the overshoot.
std::vector<int> approachLegs(int from, int target, const ApproachSettings& approach, int maximum);

class PlannedMove {
public:
    using Clock = MoveFollower::Clock;
    PlannedMove(Unit& unit, std::vector<int> legs, const FollowOptions& options);

    // Starts the first leg.
    Status start(Clock::time_point now);
    // One look; a result once the whole move has ended (or a leg ended
    // anywhere but at its target: then the rest is not run).
    std::optional<FollowResult> poll(Clock::time_point now);
    // Stops the motor now; no further leg runs.
    FollowResult interrupt();

    int target() const { return m_legs.back(); }
    std::size_t leg() const { return m_leg; }
    std::size_t legCount() const { return m_legs.size(); }
    MoveProgress progress() const;

private:
    Status startLeg(Clock::time_point now);

    Unit& m_unit;
    std::vector<int> m_legs;
    FollowOptions m_options;
    std::size_t m_leg = 0;
    int m_start = 0;
    std::unique_ptr<MoveFollower> m_follower;
    MoveProgress m_last;  // the latest look, kept once the move has ended
};

}  // namespace nkrhost
