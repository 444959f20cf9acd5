// Following a move until the motor stands still, through the host layer's
// follow loop: a live progress bar on a terminal, one JSON line per update
// in JSON mode, the motor stopped on Ctrl-C (and a failed stop said to have
// failed), and a clear error (no hang) when the unit vanishes mid-move.
#pragma once

#include "nkrhost/session.h"

namespace nkrtool {

struct MoveResult {
    int position = 0;
    bool interrupted = false;  // stopped with Ctrl-C (and the stop went through)
};

// Starts a move of the held unit from start to target (refused beyond the
// user's maximum), with its final approach, then follows it to its end.
// Throws ToolError on a device error, on a unit that went away, on an
// interrupt whose stop failed, and on a move that ended short of its target
// (kExitNotArrived, with who stopped it when known). emitLines: whether to
// print JSON progress lines (the demo gathers its JSON itself).
MoveResult moveAndFollow(nkrhost::Session& session, int start, int target, bool emitLines);

}  // namespace nkrtool
