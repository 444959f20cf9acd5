// --simulate: runs the tool against the simulator library instead of real
// hardware, by starting the tool again with an environment in which the
// library's HID and Bluetooth back ends are the simulator.
#pragma once

namespace nkrtool {

struct SimulateOptions {
    bool requested = false;  // --simulate, NKR_SIMULATE=1, or a command that needs it
    bool realHome = false;   // --real-home: keep the user's HOME (settings file)
};

// True when NKR_SIMULATE is 1, true or yes.
bool simulateRequestedByEnvironment();

// True in the process that the re-exec started.
bool runningInSimulator();

// When simulation is requested and not yet active, replaces the process with
// the tool itself in the simulator's environment (does not return); every
// command then meets the same simulated world (NKR_SIM_STATE), as real units
// keep theirs. Throws a ToolError when the simulator library cannot be found
// or started. In the restarted process it checks NKR_SIM_UNITS /
// NKR_SIM_UNPLUG and throws a usage error when either is malformed.
void enterSimulatorIfRequested(const SimulateOptions& options, char** argv);

}  // namespace nkrtool
