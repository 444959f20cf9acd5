// nkr --simulate reset: forgets the simulated world, so the next command
// meets the units as they come out of the box.
#include <dlfcn.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "commands.h"
#include "errors.h"
#include "output.h"
#include "simulate.h"

namespace nkrtool {
namespace {

int runReset(const GlobalOptions& globals)
{
    if (!runningInSimulator()) usageError("reset forgets the simulated units; run it as nkr --simulate reset");
    using Forget = int (*)(char*, size_t);
    auto forget = reinterpret_cast<Forget>(dlsym(RTLD_DEFAULT, "nkr_sim_forget_state"));
    if (forget == nullptr)
        throw ToolError("this simulator cannot forget its world (too old)", -1, kExitDeviceError);
    char message[512] = {0};
    if (forget(message, sizeof message) == 0)
        throw ToolError(std::string("cannot forget the simulated world: ") + message, -1, kExitDeviceError);

    // The library's saved positions and settings of the simulated units: the
    // restarted tool's HOME is the simulator's state folder. --real-home
    // points at the user's own settings, which are never touched.
    const char* home = std::getenv("HOME");
    bool settingsForgotten = false;
    if (!globals.realHome && home != nullptr && std::filesystem::path(home).filename() == "nkr-sim") {
        std::error_code ec;
        std::filesystem::path settings = std::filesystem::path(home) / ".HTX";
        std::filesystem::remove_all(settings, ec);
        if (ec)
            throw ToolError("cannot delete " + settings.string() + ": " + ec.message(), -1,
                            kExitDeviceError);
        settingsForgotten = true;
    }

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
        "firmware of the simulated units, and their saved settings file.");
    sub->footer("Example:\n  nkr --simulate reset");
    return {sub, [&globals] { return runReset(globals); }, false};
}

}  // namespace nkrtool
