// A move the user does not wait for (move --no-wait) is still carried to its
// end, final approach included: the tool starts itself again, detached, as
// a waiting `move` that holds the unit until the move has ended, and returns
// once that process holds the unit and the motor is under way.
#pragma once

#include <string>

namespace nkrtool {

// The tool's own command line, kept by main for the carrier.
void rememberCommandLine(int argc, char** argv);

// Starts the carrier (the command line without --no-wait) for the unit
// with this key and waits until it holds the unit. "" on success, else why
// it did not start (its own error, when it ended early).
std::string startMoveCarrier(const std::string& unitKey);

}  // namespace nkrtool
