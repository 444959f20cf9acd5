// nkr --simulate sim temperature ID CELSIUS: changes the simulated world
// that every simulated front-end shares, so compensation and the rest can be
// watched without hardware.

#include <CLI/CLI.hpp>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "nkrhost/simulation.h"
#include "nkrhost/unit.h"
#include "output.h"

namespace nkrtool {
namespace {

struct SimOptions {
    std::string what, id, celsius;  // temperature ID CELSIUS
    double drift = 0;
    double until = 0;
    bool hasUntil = false;
};

int runSim(const SimOptions& options)
{
    if (!nkrhost::simulationActive()) usageError("sim changes the simulated units; run it as nkr --simulate sim ...");
    const std::vector<std::string> a = givenArgs({options.what, options.id, options.celsius});
    if (a.size() != 3 || a[0] != "temperature")
        usageError("sim takes: temperature ID CELSIUS [--drift DEGREES-PER-HOUR] [--until CELSIUS]");
    char* end = nullptr;
    const double celsius = std::strtod(a[2].c_str(), &end);
    if (end != a[2].c_str() + a[2].size() || a[2].empty())
        usageError("'" + clipped(a[2]) + "' is not a temperature in degrees Celsius");

    // The same name rule as everywhere: the simulator is told the unit's serial or Bluetooth name.
    nkrhost::Inventory seen = nkrhost::takeInventory(true);
    nkrhost::Resolution r = nkrhost::resolveUnit(a[1], seen.units);
    fail(r.status);
    const nkrhost::SeenUnit& unit = seen.units[static_cast<size_t>(r.index)];
    const std::string key = unit.link == nkrhost::Link::Ble ? unit.bleName : unit.serial;

    using SetTemperature = int (*)(const char*, double, double, int, double, char*, size_t);
    auto set = nkrhost::simulatorFunction<SetTemperature>("nkr_sim_set_temperature");
    if (set == nullptr) throw ToolError("this simulator cannot set temperatures (too old)", -1, kExitDeviceError);
    char message[256] = {0};
    if (set(key.c_str(), celsius, options.drift, options.hasUntil ? 1 : 0, options.until, message, sizeof message) == 0)
        usageError(message);
    if (jsonMode())
        emitJson(Json::object()
                     .set("unit", unit.describe())
                     .set("temperature", celsius)
                     .set("drift_per_hour", options.drift)
                     .set("until", options.hasUntil ? Json(options.until) : Json()));
    else
        say("The simulated " + unit.describe() + " now reads " + formatFixed(celsius, 2) + degreesC() +
            (options.drift != 0 ? ", drifting " + formatFixed(options.drift, 2) + degreesC() + " an hour" +
                                      (options.hasUntil ? " until " + formatFixed(options.until, 2) + degreesC() : "")
                                : "") +
            ".");
    return kExitOk;
}

}  // namespace

Command addSimCommand(CLI::App& app, const GlobalOptions&)
{
    auto options = std::make_shared<SimOptions>();
    CLI::App* sub = app.add_subcommand(
        "sim",
        "Change the simulated world every simulated front-end shares (implies --simulate): "
        "'temperature ID CELSIUS' sets a unit's temperature; --drift makes it change by that many "
        "degrees an hour (negative: a night's cooling), --until holds it there.");
    // One positional each, so that "--" before a negative temperature works as in move.
    sub->add_option("WHAT", options->what, "temperature (the one thing to change so far)");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("CELSIUS", options->celsius, "The temperature in degrees Celsius");
    sub->add_option("--drift", options->drift, "Degrees Celsius an hour, negative to cool")
        ->type_name("DEGREES")
        ->check(numberIn(-100, 100, false, "degrees an hour"));
    sub->add_option_function<double>(
           "--until",
           [options](double v) {
               options->until = v;
               options->hasUntil = true;
           },
           "Where the drift stops, in degrees Celsius")
        ->type_name("CELSIUS")
        ->check(numberIn(-100, 150, false, "degrees Celsius"));
    sub->footer("Examples:\n  nkr --simulate sim temperature 0 15\n"
                "  nkr --simulate sim temperature 0 20 --drift -3 --until 8");
    return {sub, [options] { return runSim(*options); }, true};
}

}  // namespace nkrtool
