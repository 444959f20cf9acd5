// The driver's one device. libindidriver provides main() and dispatches the
// INDI protocol to every INDI::DefaultDevice that exists; what must happen
// before the device exists runs here, in order, as the program starts.
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "nkr_focuser.h"
#include "nkrhost/settings.h"
#include "nkrhost/simulation.h"

namespace {

// NKR_SIMULATE=1 in the driver's environment (indiserver's): the driver
// starts itself again against the simulator, in the one simulated world
// every front-end shares. Then one saved record per unit, as everywhere.
bool prepare()
{
    if (nkrhost::simulationRequestedByEnvironment() || nkrhost::simulationActive()) {
        std::ifstream in("/proc/self/cmdline", std::ios::binary);
        std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::vector<char*> argv;
        for (size_t at = 0; at < all.size(); at = all.find('\0', at) + 1) argv.push_back(&all[at]);
        argv.push_back(nullptr);
        const nkrhost::Status entered = nkrhost::enterSimulation({true, false}, argv.data());
        if (!entered.ok()) fprintf(stderr, "indi_nkr_focuser: %s\n", entered.message.c_str());
    }
    nkrhost::chooseSavedRecord(nkrhost::HostSettings());
    return true;
}

const bool prepared = prepare();

}  // namespace

static std::unique_ptr<NkrFocuser> focuser(new NkrFocuser());
