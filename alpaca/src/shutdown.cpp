#include "shutdown.h"

#include <NKR_focuser.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>

#include "log.h"

namespace alpaca {

void raiseDescriptorLimit(int connections)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t wanted = static_cast<rlim_t>(connections) + 64;  // the units, discovery, logs, state files
    if (limit.rlim_cur >= wanted) return;
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < wanted)
        logWarn("only " + std::to_string(limit.rlim_cur) + " open files allowed: fewer connections than " +
                std::to_string(connections) + " fit (raise ulimit -n or lower --max-connections)");
}

std::string signalName(int signal)
{
    switch (signal) {
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    case SIGINT: return "SIGINT";
    default: return "signal " + std::to_string(signal);
    }
}

void stopUnits(DeviceRegistry& registry, const std::string& reason)
{
    for (auto& unit : registry.all()) {
        if (!unit->connected) continue;
        bool moving = false;
        if (registry.isMoving(*unit, moving).ok() && moving) {
            const DeviceError halted = registry.halt(*unit);
            int position = 0;
            const DeviceError read = registry.call(*unit, [&](int slot) { return NKRGetPosition(slot, &position); });
            if (!halted.ok())
                logWarn(unit->label() + " could not be stopped on " + reason + ": " + halted.message);
            else if (read.ok())
                logInfo(unit->label() + " stopped at " + std::to_string(position) + " on " + reason);
            else
                logInfo(unit->label() + " stopped on " + reason + " (position unknown: " + read.message + ")");
        }
        const DeviceError released = registry.disconnect(*unit);
        if (!released.ok()) logWarn(unit->label() + " was not let go cleanly: " + released.message);
    }
    logInfo("stopped; positions saved");
}

}  // namespace alpaca
