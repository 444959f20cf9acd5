#include "move_follow.h"

#include <NKR_focuser.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>

#include "errors.h"
#include "interrupt.h"
#include "json.h"
#include "output.h"

namespace nkrtool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 250;
// A motor that reports moving but has not moved for this long is stopped.
constexpr double kStallSeconds = 30.0;

int percentDone(int start, int target, int position)
{
    if (target == start) return 100;
    double done = static_cast<double>(position - start) / static_cast<double>(target - start);
    long p = std::lround(done * 100.0);
    return static_cast<int>(p < 0 ? 0 : (p > 100 ? 100 : p));
}

// A failure while following: the unit is most likely gone.
[[noreturn]] void failDuringMove(int code, int lastPosition)
{
    bool gone = code == NKR_ERROR_REMOVED || code == NKR_ERROR_INVALID_ID ||
                code == NKR_ERROR_CLOSED || code == NKR_ERROR_BLE_NOT_OPEN;
    std::string what = gone ? "the unit disappeared during the move" : "reading the unit during the move failed";
    throw ToolError(what + " (last known position " + std::to_string(lastPosition) +
                        "): " + formatErrorCode(code),
                    code, kExitDeviceError);
}

Json progressLine(const char* event, int id, int start, int target, int position, int speed, bool moving)
{
    return eventJson(event, id)
        .set("start", start)
        .set("target", target)
        .set("position", position)
        .set("percent", percentDone(start, target, position))
        .set("speed", speed)
        .set("moving", moving);
}

}  // namespace

MoveResult moveAndFollow(int id, int start, int target, bool emitLines)
{
    // Timed from before the call: it returns only after the motor has run a while.
    auto lastSample = Clock::now();
    check(NKRMove(id, target), "starting the move");
    ProgressBar bar;
    MoveResult result;
    result.position = start;
    auto lastChange = lastSample;
    int speed = 0;

    for (;;) {
        if (interrupted()) {
            int rc = NKRStop(id);
            bar.finish();
            NKRGetPosition(id, &result.position);
            result.interrupted = true;
            if (rc != NKR_SUCCESS) warn("stopping the motor failed: " + formatErrorCode(rc));
            if (emitLines && jsonMode())
                emitJson(progressLine("stopped", id, start, target, result.position, 0, false)
                             .set("signal", signalName(receivedSignal())));
            return result;
        }

        bool moving = false, handMoving = false;
        int rc = NKRIsMoving(id, &moving, &handMoving);
        if (rc != NKR_SUCCESS) failDuringMove(rc, result.position);
        int position = 0;
        rc = NKRGetPosition(id, &position);
        if (rc != NKR_SUCCESS) failDuringMove(rc, result.position);

        auto now = Clock::now();
        double elapsed = std::chrono::duration<double>(now - lastSample).count();
        if (elapsed > 0.05) speed = static_cast<int>(std::lround(std::abs(position - result.position) / elapsed));
        if (position != result.position) lastChange = now;
        lastSample = now;
        result.position = position;

        if (!moving) break;
        bar.update(percentDone(start, target, position) / 100.0,
                   "position " + std::to_string(position) + arrow() + std::to_string(target) + "  " +
                       std::to_string(speed) + " steps/s");
        if (emitLines && jsonMode())
            emitJson(progressLine("progress", id, start, target, position, speed, true));

        if (std::chrono::duration<double>(now - lastChange).count() > kStallSeconds) {
            NKRStop(id);
            throw ToolError("the motor reports moving but has not moved for " +
                                std::to_string(static_cast<int>(kStallSeconds)) +
                                " s; it was told to stop at position " + std::to_string(position),
                            NKR_ERROR_GENERAL, kExitDeviceError);
        }
        sleepUnlessInterrupted(kPollMs);
    }

    bar.update(percentDone(start, target, result.position) / 100.0,
               "position " + std::to_string(result.position) + arrow() + std::to_string(target));
    bar.finish();
    if (emitLines && jsonMode())
        emitJson(progressLine("done", id, start, target, result.position, 0, false)
                     .set("reached", result.position == target));
    return result;
}

}  // namespace nkrtool
