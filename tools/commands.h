// The sub-commands of the tool. Each add...Command function declares its
// sub-command (arguments and help) on the application and returns how to run
// it; main runs the one that was chosen after parsing, so nothing touches a
// unit before the command line is known to be good.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace nkrtool {

// Help of the ID argument of every per-unit command.
inline constexpr const char* kUnitIdHelp =
    "The unit: its slot id (see 'nkr list'), serial number, alias, or Bluetooth name or address "
    "(or the beginning of a Bluetooth name only one unit has); leave out when --ble names it";

// Options that apply to every command.
struct GlobalOptions {
    bool json = false;
    bool simulate = false;
    bool realHome = false;
    std::string ble;          // --ble NAME-OR-ADDRESS: the unit of a per-unit command
    int bleScanSeconds = 0;   // --ble-scan: how long to look for that unit (0: the host's usual time)
    bool verbose = false;     // -v: show the library's diagnostic log live
    bool sharedRecord = false;  // --shared-record: the library's one saved record for all units
    bool perUnitState = false;  // --per-unit-state: the default now, kept for old scripts
};

struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;   // returns the exit status
    bool needsSimulator = false;
};

Command addListCommand(CLI::App& app, const GlobalOptions& globals);
Command addInfoCommand(CLI::App& app, const GlobalOptions& globals);
Command addMoveCommand(CLI::App& app, const GlobalOptions& globals);
Command addStopCommand(CLI::App& app, const GlobalOptions& globals);
Command addSyncCommand(CLI::App& app, const GlobalOptions& globals);
Command addSetCommand(CLI::App& app, const GlobalOptions& globals);
Command addWatchCommand(CLI::App& app, const GlobalOptions& globals);
Command addFirmwareCommand(CLI::App& app, const GlobalOptions& globals);
Command addDemoCommand(CLI::App& app, const GlobalOptions& globals);
Command addGetCommand(CLI::App& app, const GlobalOptions& globals);
Command addWaitCommand(CLI::App& app, const GlobalOptions& globals);
Command addResetCommand(CLI::App& app, const GlobalOptions& globals);
Command addTempCompCommand(CLI::App& app, const GlobalOptions& globals);
Command addPositionsCommand(CLI::App& app, const GlobalOptions& globals);
Command addGotoCommand(CLI::App& app, const GlobalOptions& globals);
Command addSimCommand(CLI::App& app, const GlobalOptions& globals);

// The FIELD names of nkr get, for the completion script.
std::vector<std::string> getFieldNames();

}  // namespace nkrtool
