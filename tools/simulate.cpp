#include "simulate.h"

#include <string>

#include "errors.h"
#include "simulator_launch.h"

namespace nkrtool {

bool simulateRequestedByEnvironment() { return nkrsim::launch::requestedByEnvironment(); }

bool runningInSimulator() { return nkrsim::launch::active(); }

void enterSimulatorIfRequested(const SimulateOptions& options, char** argv)
{
    if (!options.requested) return;
    if (runningInSimulator()) {
        std::string bad = nkrsim::launch::checkEnvironment();
        if (!bad.empty()) throw ToolError(bad, -1, kExitUsage);
        return;
    }
    nkrsim::launch::Options launch;
    launch.shareWorld = true;
    launch.realHome = options.realHome;
    throw ToolError(nkrsim::launch::restart(launch, argv), -1, kExitDeviceError);
}

}  // namespace nkrtool
