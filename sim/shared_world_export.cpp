// For programs that load the SDK themselves after the simulator (Python's
// nkr.simulate()): puts this process in the environment every simulated
// program shares (the same world, the private settings folder) without the
// restart that programs with a main() use.
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "simulator_launch.h"

// share: 1 joins the world every simulated program shares (NKR_SIM_STATE),
// 0 keeps a world of this process's own. realHome: 1 keeps HOME as it is.
extern "C" __attribute__((visibility("default"))) int nkr_sim_enter_world(int share, int realHome, char* message,
                                                                           size_t size)
{
    std::string error;
    try {
        Dl_info self{};
        if (dladdr(reinterpret_cast<void*>(&nkr_sim_enter_world), &self) == 0 || self.dli_fname == nullptr) {
            error = "cannot tell where the simulator library is";
        } else {
            nkrsim::launch::Options options;
            options.realHome = realHome != 0;
            options.shareWorld = share != 0;
            error = nkrsim::launch::prepareEnvironment(options, self.dli_fname);
        }
    } catch (...) {
        error = "out of memory";
    }
    if (message != nullptr && size > 0) {
        size_t n = std::min(error.size(), size - 1);
        std::memcpy(message, error.data(), n);
        message[n] = '\0';
    }
    return error.empty() ? 1 : 0;
}

extern "C" __attribute__((visibility("default"))) int nkr_sim_enter_shared_world(int realHome, char* message,
                                                                                  size_t size)
{
    return nkr_sim_enter_world(1, realHome, message, size);
}
