// Following a move until the motor stands still: the one loop every host
// program uses, with one meaning of reached, stopped short, gone, timed out
// and stalled. An interrupt stops the motor, and a stop that fails is
// reported as failed, never as a stop.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "nkrhost/errors.h"
#include "nkrhost/identity.h"
#include "nkrhost/link.h"

namespace nkrhost {

enum class MoveEnd {
    Reached,      // stands still at the target
    StoppedShort, // stands still elsewhere (stopped by a hand, another program, a limit)
    Interrupted,  // the program was told to stop; the motor was told to stop
    Gone,         // the unit went away during the move
    TimedOut,     // still moving when the time given ran out; the motor was told to stop
    Stalled,      // reports moving without moving; the motor was told to stop
};
const char* moveEndName(MoveEnd end);  // "reached", "stopped", ...

struct FollowOptions {
    int start = 0;
    int target = 0;
    std::chrono::milliseconds poll{100};
    std::chrono::milliseconds timeout{0};      // 0: no limit
    std::chrono::milliseconds stall{30000};    // moving without progress this long
    // A move may take a moment to start: standing still at the start counts
    // as the end only after this (or once the motor was seen moving).
    std::chrono::milliseconds startGrace{1000};
};

struct MoveProgress {
    int start = 0, target = 0, position = 0;
    bool moving = false;
    int speed = 0;    // steps per second, over the last poll
    int percent = 0;  // 0..100 of the way from start to target
};

struct FollowResult {
    MoveEnd end = MoveEnd::Reached;
    int position = 0;
    // Gone, TimedOut, Stalled: what happened; ok otherwise.
    Status status;
    // Interrupted, TimedOut, Stalled: the result of stopping the motor. A
    // failed stop means the motor may still run.
    Status stop;
    bool ok() const { return end == MoveEnd::Reached || end == MoveEnd::StoppedShort; }
};

// A move followed one look at a time, for callers that run their own loop
// (an event loop, or Python, which must see Ctrl-C between looks).
class MoveFollower {
public:
    using Clock = std::chrono::steady_clock;
    MoveFollower(int slot, Link link, const FollowOptions& options, Clock::time_point begun);

    // Reads the motor once; a result once the move has ended, else nothing.
    std::optional<FollowResult> poll(Clock::time_point now);
    // Stops the motor and ends the move as Interrupted.
    FollowResult interrupt();
    const MoveProgress& progress() const { return m_progress; }

private:
    FollowResult stopWith(MoveEnd end, Status status);

    int m_slot;
    Link m_link;
    FollowOptions m_options;
    LinkWatch m_watch;
    MoveProgress m_progress;
    Clock::time_point m_begun, m_lastPoll, m_lastChange;
    bool m_seenMoving = false;
};

struct FollowHooks {
    std::function<bool()> interrupted;                              // checked before every look
    std::function<void(std::chrono::milliseconds)> sleep;           // default: sleep_for
    std::function<MoveFollower::Clock::time_point()> now;           // default: steady_clock
    std::function<void(const MoveProgress&)> progress;              // after every look while moving
};

// Follows a move that has been started, to its end.
FollowResult followMove(int slot, Link link, const FollowOptions& options, const FollowHooks& hooks = {});

}  // namespace nkrhost
