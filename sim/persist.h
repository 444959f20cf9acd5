// Sharing the simulated world between processes through the file that
// NKR_SIM_STATE names, as real units keep their state between programs.
// Every function runs with the world lock held.
#pragma once

#include <string>

namespace nkrsim::detail {

// The outermost world lock was taken: locks the state file and takes over
// whatever another process saved since this one last looked.
void beginShared();
// The outermost world lock is about to be released: saves the world if this
// process changed it and unlocks the state file.
void endShared();

}  // namespace nkrsim::detail
