// Following a move until the motor stands still: a live progress bar on a
// terminal, one JSON line per update in JSON mode, the motor stopped on
// Ctrl-C, and a clear error (no hang) when the unit vanishes mid-move.
#pragma once

namespace nkrtool {

struct MoveResult {
    int position = 0;
    bool interrupted = false;  // stopped with Ctrl-C
};

// Starts a move from start to target (NKRMove), then polls a few times a
// second until the unit reports it has stopped. Throws ToolError on a device
// error. emitLines: whether to print JSON progress lines (the demo gathers
// its JSON itself).
MoveResult moveAndFollow(int id, int start, int target, bool emitLines);

}  // namespace nkrtool
