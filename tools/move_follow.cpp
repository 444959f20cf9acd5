#include "move_follow.h"

#include <algorithm>
#include <string>

#include "errors.h"
#include "interrupt.h"
#include "json.h"
#include "output.h"

namespace nkrtool {
namespace {

Json progressLine(const char* event, int id, const nkrhost::MoveProgress& p)
{
    return eventJson(event, id)
        .set("start", p.start)
        .set("target", p.target)
        .set("position", p.position)
        .set("percent", p.percent)
        .set("speed", p.speed)
        .set("moving", p.moving);
}

}  // namespace

MoveResult moveAndFollow(nkrhost::Session& session, int start, int target, bool emitLines)
{
    const int id = session.unit().slot();
    const bool lines = emitLines && jsonMode();
    ProgressBar bar;
    nkrhost::FollowHooks hooks;
    hooks.interrupted = [] { return interrupted(); };
    hooks.sleep = [](std::chrono::milliseconds d) { sleepUnlessInterrupted(static_cast<int>(d.count())); };
    hooks.progress = [&](const nkrhost::MoveProgress& p) {
        const std::string where = std::to_string(p.position) + arrow() + std::to_string(target);
        bar.update(p.percent / 100.0, {"position " + where + "  " + std::to_string(p.speed) + " steps/s",
                                       "position " + where, where, std::to_string(p.position)});
        if (lines) emitJson(progressLine("progress", id, p));
    };
    // With the unit's final approach, if set: one leg or two.
    nkrhost::FollowOptions options;
    options.poll = std::chrono::milliseconds(250);
    fail(session.moveTo(target, options));
    const nkrhost::MoveReport report = session.waitForMove(hooks);
    const nkrhost::FollowResult& r = report.result;
    nkrhost::MoveProgress last{start, target, r.position, false, 0, 0};
    last.percent = target == start ? 100
                   : std::clamp(static_cast<int>(100.0 * (r.position - start) / (target - start)), 0, 100);
    if (report.arrived())
        bar.update(1.0, {"position " + std::to_string(r.position) + arrow() + std::to_string(target),
                         std::to_string(r.position)});
    bar.finish();

    switch (r.end) {
    case nkrhost::MoveEnd::Reached:
        if (lines) emitJson(progressLine("done", id, last).set("reached", true));
        return {r.position, false};
    case nkrhost::MoveEnd::StoppedShort: {
        // A move that did not arrive is a failure: a script must not take it for focus.
        const nkrhost::Status why = report.status();
        if (lines) {
            Json done = progressLine("done", id, last).set("reached", false).set("why", report.sentence());
            if (!report.stoppedBy.empty()) done.set("stopped_by", report.stoppedBy);
            emitJson(done);
        }
        throw ToolError(why.message, why.code, why.code == nkrhost::kMoveNotArrived ? kExitNotArrived : exitStatusFor(why.code));
    }
    case nkrhost::MoveEnd::Interrupted:
        if (!r.stop.ok())
            throw ToolError(std::string("interrupted by ") + signalName(receivedSignal()) + ", but " + r.stop.message +
                                "; the motor may still be moving (last known position " +
                                std::to_string(r.position) + ")",
                            r.stop.code, kExitDeviceError);
        if (lines)
            emitJson(progressLine("stopped", id, last).set("signal", signalName(receivedSignal())));
        return {r.position, true};
    default:
        // Gone, timed out, stalled: the host's sentence, with a failed stop if any.
        throw ToolError(r.status.message + (r.stop.ok() ? "" : "; " + r.stop.message), r.status.code,
                        kExitDeviceError);
    }
}

}  // namespace nkrtool
