#include "nkrhost/simulation.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "simulator_launch.h"

namespace nkrhost {
namespace fs = std::filesystem;

bool simulationRequestedByEnvironment() { return nkrsim::launch::requestedByEnvironment(); }

bool simulationActive() { return nkrsim::launch::active(); }

Status enterSimulation(const SimulationRequest& request, char** argv)
{
    if (!request.requested && !simulationActive()) return {};
    if (simulationActive()) {
        const std::string bad = nkrsim::launch::checkEnvironment();
        return bad.empty() ? Status{} : Status::failure(kBadSetting, bad);
    }
    nkrsim::launch::Options options;
    options.realHome = request.realHome;
    return Status::failure(kSettingsFile, nkrsim::launch::restart(options, argv));
}

void* simulatorSymbol(const char* name) { return simulationActive() ? dlsym(RTLD_DEFAULT, name) : nullptr; }

Status resetSimulation(bool& settingsForgotten)
{
    settingsForgotten = false;
    if (!simulationActive())
        return Status::failure(kBadSetting, "only a simulated program can forget the simulated units");
    auto forget = simulatorFunction<int (*)(char*, size_t)>("nkr_sim_forget_state");
    if (forget == nullptr) return Status::failure(kSettingsFile, "this simulator cannot forget its world (too old)");
    char message[512] = {0};
    if (forget(message, sizeof message) == 0)
        return Status::failure(kSettingsFile, std::string("cannot forget the simulated world: ") + message);

    // With --real-home the units' settings are the user's own: never touched.
    const char* home = std::getenv("HOME");
    if (home == nullptr || fs::path(home) != nkrsim::launch::privateStateDirectory()) return {};
    for (const fs::path& path : nkrsim::launch::privateSettingsPaths()) {
        std::error_code ec;
        fs::remove_all(path, ec);
        if (ec) return Status::failure(kSettingsFile, "cannot delete " + path.string() + ": " + ec.message());
    }
    settingsForgotten = true;
    return {};
}

}  // namespace nkrhost
