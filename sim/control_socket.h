// Control of the simulated world from another process: a unix socket that
// takes line commands (see NKR_SIM_CONTROL in nkr_sim.h). Private to the
// simulator library.
#pragma once

#include <string>

namespace nkrsim::detail {

// Starts the control socket when NKR_SIM_CONTROL is set; once per process.
// Called with the world lock held, on the world's first use.
void startControlSocketFromEnv();

// One command line, answered with "ok[ <value>]" or "error <reason>". Commands
// that wait (wait-stop) are not run here.
std::string runControlCommand(const std::string& line);

}  // namespace nkrsim::detail
