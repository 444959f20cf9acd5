// Ctrl-C handling: the first Ctrl-C only raises a flag that long-running
// commands poll, so they can stop the motor and leave cleanly; a second one
// ends the tool at once.
#pragma once

namespace nkrtool {

void installInterruptHandler();
bool interrupted();
// Sleeps up to the given time, returning early (true) on Ctrl-C.
bool sleepUnlessInterrupted(int milliseconds);

}  // namespace nkrtool
