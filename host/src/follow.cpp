#include "nkrhost/follow.h"

#include <NKR_focuser.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace nkrhost {
namespace {

int percentDone(int start, int target, int position)
{
    if (target == start) return 100;
    const double done = static_cast<double>(position - start) / static_cast<double>(target - start);
    const long p = std::lround(done * 100.0);
    return static_cast<int>(p < 0 ? 0 : (p > 100 ? 100 : p));
}

// "30", "0.5", "1.25": a time-out of half a second is not "0 s".
std::string seconds(std::chrono::milliseconds d)
{
    std::string text = std::to_string(d.count() / 1000);
    if (const long long part = d.count() % 1000; part != 0) {
        char fraction[8];
        std::snprintf(fraction, sizeof fraction, ".%03lld", part);
        text += fraction;
        while (text.back() == '0') text.pop_back();
    }
    return text;
}

}  // namespace

const char* moveEndName(MoveEnd end)
{
    switch (end) {
    case MoveEnd::Reached: return "reached";
    case MoveEnd::StoppedShort: return "stopped";
    case MoveEnd::Interrupted: return "interrupted";
    case MoveEnd::Gone: return "gone";
    case MoveEnd::TimedOut: return "timed out";
    case MoveEnd::Stalled: return "stalled";
    }
    return "stopped";
}

MoveFollower::MoveFollower(int slot, Link link, const FollowOptions& options, Clock::time_point begun)
    : m_slot(slot), m_link(link), m_options(options), m_watch(link), m_begun(begun), m_lastPoll(begun),
      m_lastChange(begun)
{
    m_progress.start = options.start;
    m_progress.target = options.target;
    m_progress.position = options.start;
    m_progress.moving = true;
    m_progress.percent = percentDone(options.start, options.target, options.start);
}

FollowResult MoveFollower::stopWith(MoveEnd end, Status status)
{
    FollowResult r;
    r.end = end;
    r.status = std::move(status);
    r.stop = Status::fromSdk(NKRStop(m_slot), "stopping the motor");
    int position = 0;
    if (NKRGetPosition(m_slot, &position) == NKR_SUCCESS) m_progress.position = position;
    m_progress.moving = !r.stop.ok();
    r.position = m_progress.position;
    return r;
}

FollowResult MoveFollower::interrupt() { return stopWith(MoveEnd::Interrupted, {}); }

std::optional<FollowResult> MoveFollower::poll(Clock::time_point now)
{
    bool moving = false, hand = false;
    int position = 0;
    int rc = NKRIsMoving(m_slot, &moving, &hand);
    if (rc == NKR_SUCCESS) rc = NKRGetPosition(m_slot, &position);
    if (rc != NKR_SUCCESS) {
        if (!m_watch.note(rc)) return std::nullopt;  // one failed look is not the end
        FollowResult r;
        r.end = MoveEnd::Gone;
        r.position = m_progress.position;
        r.status = Status::failure(rc, "the unit went away during the move (last known position " +
                                           std::to_string(m_progress.position) + "): " + formatError(rc));
        m_progress.moving = false;
        return r;
    }
    m_watch.note(rc);

    const double elapsed = std::chrono::duration<double>(now - m_lastPoll).count();
    if (elapsed > 0.02) m_progress.speed = static_cast<int>(std::lround(std::abs(position - m_progress.position) / elapsed));
    if (position != m_progress.position) m_lastChange = now;
    m_lastPoll = now;
    m_progress.position = position;
    m_progress.moving = moving;
    m_progress.percent = percentDone(m_options.start, m_options.target, position);
    if (moving) m_seenMoving = true;

    if (!moving) {
        const bool notStarted = !m_seenMoving && position == m_options.start &&
                                m_options.target != m_options.start && now - m_begun < m_options.startGrace;
        if (!notStarted) {
            m_progress.speed = 0;
            FollowResult r;
            r.end = position == m_options.target ? MoveEnd::Reached : MoveEnd::StoppedShort;
            r.position = position;
            return r;
        }
    }
    if (m_options.timeout.count() > 0 && now - m_begun >= m_options.timeout)
        return stopWith(MoveEnd::TimedOut,
                        Status::failure(kTimedOut, "the move to " + std::to_string(m_options.target) +
                                                       " did not end within " + seconds(m_options.timeout) +
                                                       " s; the motor was told to stop at position " +
                                                       std::to_string(position)));
    if (moving && now - m_lastChange >= m_options.stall)
        return stopWith(MoveEnd::Stalled,
                        Status::failure(kStalled, "the motor reports moving but has not moved for " +
                                                      seconds(m_options.stall) +
                                                      " s; it was told to stop at position " + std::to_string(position)));
    return std::nullopt;
}

FollowResult followMove(int slot, Link link, const FollowOptions& options, const FollowHooks& hooks)
{
    auto now = [&] { return hooks.now ? hooks.now() : MoveFollower::Clock::now(); };
    MoveFollower follower(slot, link, options, now());
    for (;;) {
        if (hooks.interrupted && hooks.interrupted()) return follower.interrupt();
        if (auto end = follower.poll(now())) return *end;
        if (hooks.progress) hooks.progress(follower.progress());
        if (hooks.sleep)
            hooks.sleep(options.poll);
        else
            std::this_thread::sleep_for(options.poll);
    }
}

}  // namespace nkrhost
