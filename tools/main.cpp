// nkr: try, check and drive NKR focusers from the command line, through the
// SDK's public C interface only.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "output.h"
#include "simulate.h"

#ifndef NKR_TOOL_VERSION
#define NKR_TOOL_VERSION "0"
#endif

namespace {

using namespace nkrtool;

const char* kDescription =
    "nkr - find, inspect and drive NKR telescope focusers over USB and Bluetooth LE.\n"
    "A USB unit is named by the slot ID that 'nkr list' shows; a Bluetooth unit by\n"
    "--ble NAME-OR-ADDRESS (the tool scans, connects and pairs for the command).\n"
    "Use --simulate to try everything on simulated units.";

const char* kFooter =
    "Examples:\n"
    "  nkr list --ble 3                  USB units and Bluetooth units in range\n"
    "  nkr info 0                        everything unit 0 reports\n"
    "  nkr move 0 12000                  move unit 0 to position 12000\n"
    "  nkr move 0 -500                   move unit 0 back by 500 steps\n"
    "  nkr set 0 backlash=20 beep=off    change settings\n"
    "  nkr --ble \"NKR Pro_A1B2\" info     a Bluetooth unit\n"
    "  nkr --simulate demo               a guided tour on simulated units\n"
    "Exit status: 0 success, 1 device error, 2 bad argument or unknown unit, 130 Ctrl-C.";

void addGlobalOptions(CLI::App& app, GlobalOptions& g)
{
    app.add_flag("--json", g.json,
                 "Print machine-readable JSON: one document, or for move and watch one object per line");
    app.add_flag("--simulate", g.simulate,
                 "Run against the built-in simulator instead of real hardware (also NKR_SIMULATE=1)");
    app.add_flag("--real-home", g.realHome,
                 "With --simulate: keep the real HOME, so the simulator uses your settings file");
    app.add_option("--ble", g.ble,
                   "Work on the Bluetooth unit with this name or address instead of a USB ID")
        ->type_name("NAME-OR-ADDRESS");
    app.add_option("--ble-scan", g.bleScanSeconds, "Seconds to scan when looking for the --ble unit")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 60));
}

int runChosen(const std::vector<Command>& commands)
{
    for (const Command& c : commands)
        if (c.app->parsed()) return c.run();
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{kDescription, "nkr"};
    app.set_version_flag("--version",
                         std::string("nkr ") + NKR_TOOL_VERSION + " (SDK version " + get_NKR_SDK_Ver() + ")");
    app.require_subcommand(1);
    app.fallthrough();  // global options may also follow the sub-command

    GlobalOptions globals;
    addGlobalOptions(app, globals);
    std::vector<Command> commands = {
        addListCommand(app, globals),  addInfoCommand(app, globals),  addMoveCommand(app, globals),
        addStopCommand(app, globals),  addSyncCommand(app, globals),  addSetCommand(app, globals),
        addWatchCommand(app, globals), addFirmwareCommand(app, globals), addDemoCommand(app, globals),
    };
    // After the sub-commands, which would otherwise inherit these examples.
    app.footer(kFooter);
    for (const Command& c : commands)
        c.app->footer(c.app->get_footer() +
                      "\n\nGlobal options (--json, --simulate, --ble NAME-OR-ADDRESS, ...) may come "
                      "before or after the command; see nkr --help.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int status = app.exit(e);
        return status == 0 ? kExitOk : kExitUsage;
    }

    initOutput(globals.json);
    try {
        SimulateOptions sim;
        sim.realHome = globals.realHome;
        sim.requested = globals.simulate || simulateRequestedByEnvironment();
        for (const Command& c : commands)
            if (c.app->parsed() && c.needsSimulator) sim.requested = true;
        enterSimulatorIfRequested(sim, argv);

        installInterruptHandler();
        return runChosen(commands);
    } catch (const ToolError& e) {
        printErrorMessage(e.what());
        if (jsonMode()) {
            Json error = Json::object().set("message", e.what());
            if (e.code() >= 0)
                error.set("code", e.code()).set("name", describeError(e.code()).name)
                    .set("explanation", describeError(e.code()).explanation);
            emitJson(Json::object().set("error", error));
        }
        return e.exitStatus();
    } catch (const std::exception& e) {
        printErrorMessage(e.what());
        return kExitDeviceError;
    }
}
