#include "nkrhost/motion.h"

#include <NKR_focuser.h>

#include <algorithm>

#include "nkrhost/unit.h"

namespace nkrhost {

std::vector<int> approachLegs(int from, int target, const ApproachSettings& approach, int maximum)
{
    if (!approach.enabled || approach.overshoot <= 0) return {target};
    const int dir = approach.direction < 0 ? -1 : +1;
    // The last leg must run towards `dir` for at least the overshoot.
    if (static_cast<long long>(target - from) * dir >= approach.overshoot) return {target};
    const long long before = static_cast<long long>(target) - static_cast<long long>(dir) * approach.overshoot;
    const int pre = static_cast<int>(std::clamp<long long>(before, 0, std::max(maximum, 0)));
    if (pre == target || pre == from) return {target};
    return {pre, target};
}

PlannedMove::PlannedMove(Unit& unit, std::vector<int> legs, const FollowOptions& options)
    : m_unit(unit), m_legs(std::move(legs)), m_options(options)
{
    if (m_legs.empty()) m_legs.push_back(options.target);
}

Status PlannedMove::startLeg(Clock::time_point now)
{
    int from = 0;
    Status read = m_unit.position(from);
    if (!read.ok()) return read;
    if (m_leg == 0) m_start = from;
    Status moved = m_unit.moveTo(m_legs[m_leg]);
    if (!moved.ok()) return moved;
    FollowOptions leg = m_options;
    leg.start = from;
    leg.target = m_legs[m_leg];
    m_follower = std::make_unique<MoveFollower>(m_unit.slot(), m_unit.link(), leg, now);
    return {};
}

Status PlannedMove::start(Clock::time_point now)
{
    m_leg = 0;
    return startLeg(now);
}

std::optional<FollowResult> PlannedMove::poll(Clock::time_point now)
{
    if (!m_follower) return std::nullopt;
    auto end = m_follower->poll(now);
    m_last = m_follower->progress();
    if (!end) return std::nullopt;
    if (end->end == MoveEnd::Gone) m_unit.noteResult(end->status.code == 0 ? NKR_ERROR_REMOVED : end->status.code);
    if (end->end != MoveEnd::Reached || m_leg + 1 >= m_legs.size()) {
        m_follower.reset();
        return end;
    }
    ++m_leg;
    Status next = startLeg(now);
    if (!next.ok()) {
        m_follower.reset();
        FollowResult r;
        r.end = MoveEnd::StoppedShort;
        r.position = end->position;
        r.status = next;
        return r;
    }
    return std::nullopt;
}

FollowResult PlannedMove::interrupt()
{
    if (!m_follower) {
        FollowResult r;
        r.end = MoveEnd::Interrupted;
        r.stop = m_unit.stop();
        m_unit.position(r.position);
        return r;
    }
    FollowResult r = m_follower->interrupt();
    m_last = m_follower->progress();
    m_follower.reset();
    return r;
}

MoveProgress PlannedMove::progress() const
{
    MoveProgress p = m_follower ? m_follower->progress() : m_last;
    // Progress is reported for the whole move, from its start to its target.
    p.start = m_start;
    p.target = target();
    if (p.target == p.start) {
        p.percent = 100;
    } else {
        const double done = static_cast<double>(p.position - p.start) / static_cast<double>(p.target - p.start);
        p.percent = std::clamp(static_cast<int>(done * 100.0 + 0.5), 0, 100);
    }
    return p;
}

}  // namespace nkrhost
