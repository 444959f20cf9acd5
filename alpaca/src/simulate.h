// --simulate: start the server again with the simulator library standing in
// for hidapi and the Bluetooth helper (the same way the nkr tool does it).
#pragma once

#include <string>

namespace alpaca {
// When not yet inside the simulator, re-executes this program with the
// simulator's environment and does not return. Returns an error text when
// the simulator cannot be found or started.
std::string enterSimulator(char** argv);
}  // namespace alpaca
