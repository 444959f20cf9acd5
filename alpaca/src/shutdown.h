// What the server does at start and stop beyond serving: room for its
// connections, and a clean stop of the units on a signal.
#pragma once

#include <string>

#include "device_registry.h"

namespace alpaca {

// Raises the soft limit on open descriptors (to the hard limit) when
// `connections` and the server's own files might not fit under it.
void raiseDescriptorLimit(int connections);

// "SIGTERM", "SIGHUP", "SIGINT", or "signal N".
std::string signalName(int signal);

// Stops every move in progress (logged: "focuser 0 stopped at 41200 on
// SIGTERM") and lets every connected unit go, which saves its position.
void stopUnits(DeviceRegistry& registry, const std::string& reason);

}  // namespace alpaca
