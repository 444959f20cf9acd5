// Lets a host program run against the simulated units instead of hardware
// (its --simulate option): the program starts itself again in an environment
// in which the SDK's HID and Bluetooth back ends are the simulator library.
// Only the environment changes; the program itself is the same binary.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace nkrsim::launch {

struct Options {
    // Sets NKR_SIM_STATE (unless already set) so that every program started
    // this way meets the same simulated units, as real ones would be met.
    bool shareWorld = true;
    // Keeps the user's HOME, and with it the real settings files. Otherwise
    // HOME becomes privateStateDirectory() and XDG_CONFIG_HOME its .config,
    // so simulated units never touch the user's own settings.
    bool realHome = false;
};

// True when NKR_SIMULATE is 1, true or yes (in any case).
bool requestedByEnvironment();

// True in the process that restart() started.
bool active();

// $XDG_STATE_HOME/nkr-sim, or ~/.local/state/nkr-sim: HOME of the simulated
// units' settings file, kept apart from the user's real one.
std::filesystem::path privateStateDirectory();

// Sets the simulator's environment in this process without a restart, for a
// program that loads the SDK itself later (Python): NKR_BLE_HELPER, the
// shared world and the private HOME of Options. "" or the reason it failed.
std::string prepareEnvironment(const Options& options, const std::string& simulatorLibrary);

// The folders of the simulated units' own settings under
// privateStateDirectory(): the library's saved records, the host settings,
// the Alpaca server's device numbers and INDI configurations.
std::vector<std::filesystem::path> privateSettingsPaths();

// Replaces the process with argv[0]'s program (/proc/self/exe) in the
// simulator's environment. Returns only on failure, with the reason; the
// build tree's simulator is tried first, then <prefix>/<libdir>/nkr-sim.
std::string restart(const Options& options, char** argv);

// In the restarted process: "" when NKR_SIM_UNITS and NKR_SIM_UNPLUG make
// sense, else the simulator's one-line reason.
std::string checkEnvironment();

}  // namespace nkrsim::launch
