// nkr --simulate reset: forgets the simulated world, so the next command
// meets the units as they come out of the box.
#include <CLI/CLI.hpp>

#include "commands.h"
#include "errors.h"
#include "nkrhost/simulation.h"
#include "output.h"

namespace nkrtool {
namespace {

int runReset(const GlobalOptions&)
{
    if (!nkrhost::simulationActive())
        usageError("reset forgets the simulated units; run it as nkr --simulate reset");
    bool settingsForgotten = false;
    fail(nkrhost::resetSimulation(settingsForgotten));

    if (jsonMode())
        emitJson(Json::object().set("reset", true).set("settings_forgotten", settingsForgotten));
    else if (settingsForgotten)
        say("The simulated units are back as they came out of the box.");
    else
        say("The simulated units are back as they came out of the box; with --real-home their "
            "saved settings in your own settings file are kept.");
    return kExitOk;
}

}  // namespace

Command addResetCommand(CLI::App& app, const GlobalOptions& globals)
{
    CLI::App* sub = app.add_subcommand(
        "reset",
        "Forget the simulated world (only with --simulate): positions, moves, settings and "
        "firmware of the simulated units, and every setting kept for them (the library's saved "
        "records, the host settings, the Alpaca server's device numbers, INDI configurations).");
    sub->footer("Example:\n  nkr --simulate reset");
    return {sub, [&globals] { return runReset(globals); }, false};
}

}  // namespace nkrtool
