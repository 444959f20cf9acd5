// One simulated world for every host program: with --simulate (or
// NKR_SIMULATE=1) a program starts itself again against the simulator
// library, in an environment that every simulated program shares: the same
// simulated units in the same state (a move started by one is seen and
// stopped by another), and settings kept apart from the user's real ones.
#pragma once

#include <string>

#include "nkrhost/errors.h"

namespace nkrhost {

// NKR_SIMULATE is 1, true or yes.
bool simulationRequestedByEnvironment();
// This process runs against the simulator (after the restart).
bool simulationActive();

struct SimulationRequest {
    bool requested = false;  // --simulate, or the environment asks for it
    bool realHome = false;   // keep the user's HOME and settings files
};

// When simulation is requested and not active yet, restarts the program in
// the simulator's environment and does not return; returns a failure when
// that is impossible. In the restarted program: checks the simulator's
// variables (NKR_SIM_UNITS, NKR_SIM_UNPLUG) and returns their fault, if any.
// Without a request: success, nothing changes.
Status enterSimulation(const SimulationRequest& request, char** argv);

// A control function of the simulator this process runs against, as its
// type (nullptr when the process is not simulated, or the simulator is too
// old to have it): the one place programs look the simulator's controls up.
void* simulatorSymbol(const char* name);
template <typename Function>
Function simulatorFunction(const char* name)
{
    return reinterpret_cast<Function>(simulatorSymbol(name));
}

// Forgets the simulated world and every setting of the simulated units (the
// library's saved records, the host settings, device numbers, driver
// configurations). Only in a simulated program; settingsForgotten says
// whether the settings went too (not with a real HOME).
Status resetSimulation(bool& settingsForgotten);

}  // namespace nkrhost
