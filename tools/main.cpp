// nkr: try, check and drive NKR focusers from the command line, through the
// SDK's public C interface only.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "diagnostic_log.h"
#include "help_documents.h"
#include "errors.h"
#include "interrupt.h"
#include "output.h"
#include "move_carrier.h"
#include "session.h"
#include "nkrhost/settings.h"
#include "nkrhost/simulation.h"

#ifndef NKR_TOOL_VERSION
#define NKR_TOOL_VERSION "0"
#endif

namespace {

using namespace nkrtool;

const char* kDescription =
    "nkr - find, inspect and drive NKR telescope focusers over USB and Bluetooth LE.\n"
    "A USB unit is named by the slot ID that 'nkr list' shows, or by its serial\n"
    "number or alias; a Bluetooth unit by --ble NAME-OR-ADDRESS (the tool scans,\n"
    "connects and pairs for the command).\n"
    "Use --simulate to try everything on simulated units.";

const char* kFooter =
    "Examples:\n"
    "  nkr list --ble 3                  USB units and Bluetooth units in range\n"
    "  nkr info 0                        everything unit 0 reports\n"
    "  nkr move 0 12000                  move unit 0 to position 12000\n"
    "  nkr move 0 -500                   move unit 0 back by 500 steps\n"
    "  nkr set 0 backlash=20 beep=off    change settings\n"
    "  nkr get 0 position                one bare value, for scripts\n"
    "  nkr wait 0 --timeout 60           block until the motor stands still\n"
    "  nkr --ble \"NKR Pro_A1B2\" info     a Bluetooth unit\n"
    "  nkr --simulate demo               a guided tour on simulated units\n"
    "Exit status: 0 success; 1 device error; 2 bad argument or unknown unit;\n"
    "  128+N ended by signal N after stopping the motor and closing the unit:\n"
    "  129 SIGHUP, 130 SIGINT (Ctrl-C), 131 SIGQUIT, 141 SIGPIPE, 143 SIGTERM.";

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
        ->check(numberIn(1, 60, true, "seconds"));
    app.add_flag("-v,--verbose", g.verbose,
                 "Show the library's diagnostic log lines on stderr while the command runs");
    app.add_flag_callback(
        "--log-dir",
        [] {
            std::string newest = newestLogFile();
            std::printf("%s\n", logDirectory());
            if (!newest.empty()) std::printf("newest log file: %s\n", newest.c_str());
            throw CLI::Success();
        },
        "Print the directory of the library's diagnostic log (and its newest file), then exit");
    app.add_flag("--shared-record", g.sharedRecord,
                 "Let the library keep one saved position for all units, as programs that do not "
                 "use the host settings see it (the default is one record per unit)");
    // Per-unit records are the default now; the old switch is still accepted.
    app.add_flag("--per-unit-state", g.perUnitState)->group("");
}

int runChosen(const std::vector<Command>& commands)
{
    for (const Command& c : commands)
        if (c.app->parsed()) {
            setHolderName("nkr " + c.app->get_name());
            return c.run();
        }
    return kExitUsage;
}

// The name of the sub-command nearest to a mistyped one (edit distance at
// most 2), or "".
std::string nearestCommand(const CLI::App& app, const std::string& typed)
{
    std::string best;
    size_t bestDistance = 3;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
        const std::string& name = sub->get_name();
        std::vector<size_t> row(name.size() + 1);
        for (size_t j = 0; j <= name.size(); ++j) row[j] = j;
        for (size_t i = 1; i <= typed.size(); ++i) {
            size_t diagonal = row[0];
            row[0] = i;
            for (size_t j = 1; j <= name.size(); ++j) {
                size_t above = row[j];
                row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (typed[i - 1] == name[j - 1] ? 0 : 1)});
                diagonal = above;
            }
        }
        if (row[name.size()] < bestDistance) {
            bestDistance = row[name.size()];
            best = name;
        }
    }
    return best;
}

// The first word that is not an option or an option's value.
std::string firstCommandWord(int argc, char** argv)
{
    static const std::vector<std::string> withValue = {"--ble", "--ble-scan"};
    for (int k = 1; k < argc; ++k) {
        std::string word = argv[k];
        if (word.rfind("-", 0) == 0) {
            if (std::find(withValue.begin(), withValue.end(), word) != withValue.end()) ++k;
            continue;
        }
        return word;
    }
    return "";
}

// An option word on the command line that no command knows ("--bogus"), or "".
std::string unknownOption(const CLI::App& app, int argc, char** argv)
{
    std::vector<const CLI::App*> apps{&app};
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) apps.push_back(sub);
    for (int k = 1; k < argc; ++k) {
        std::string word = argv[k];
        if (word == "--") break;
        if (word.size() < 2 || word[0] != '-' || std::isdigit(static_cast<unsigned char>(word[1]))) continue;
        const std::string name = word.substr(0, word.find('='));
        bool known = false;
        for (const CLI::App* a : apps)
            for (const CLI::Option* o : a->get_options())
                known = known || o->check_name(name);
        if (!known) return name;
    }
    return {};
}

// CLI11's message, in the tool's form: words cut to a sane length, a
// mistyped command answered with the nearest one, extra arguments in the
// order they were typed.
std::string describeParseError(const CLI::ParseError& e, const CLI::App& app, int argc, char** argv)
{
    const std::string option = unknownOption(app, argc, argv);
    if (!option.empty()) return "unknown option '" + clipped(option) + "' (nkr --help lists the options)";
    if (dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr) {
        // CLI11 lists the extras last first.
        const std::string what = e.what();
        const size_t colon = what.find(": ");
        std::vector<std::string> words;
        std::string word;
        for (char c : (colon == std::string::npos ? what : what.substr(colon + 2)) + " ") {
            if (c == ' ') {
                if (!word.empty()) words.insert(words.begin(), word);
                word.clear();
            } else {
                word += c;
            }
        }
        std::string list;
        for (const std::string& w : words) list += (list.empty() ? "'" : ", '") + clipped(w) + "'";
        return "unexpected argument" + std::string(words.size() > 1 ? "s " : " ") + list + " (see nkr --help)";
    }
    std::string command = firstCommandWord(argc, argv);
    bool known = false;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        known = known || sub->get_name() == command;
    if (!command.empty() && !known) {
        std::string nearest = nearestCommand(app, command);
        return "unknown command '" + clipped(command) + "'" +
               (nearest.empty() ? "" : "; did you mean '" + nearest + "'?") +
               " (nkr --help lists the commands)";
    }
    std::string message;
    std::string word;
    for (char c : std::string(e.what()) + " ") {
        if (c == ' ' || c == '\n') {
            message += clipped(word) + (c == '\n' ? "; " : " ");
            word.clear();
        } else {
            word += c;
        }
    }
    while (!message.empty() && (message.back() == ' ' || message.back() == ';')) message.pop_back();
    if (message.empty()) message = "bad command line";
    return message + " (see nkr --help)";
}

void reportError(const ToolError& e)
{
    if (receivedSignal() == SIGPIPE) return;
    printErrorMessage(e.what());
    if (jsonMode()) {
        Json error = Json::object().set("message", e.what());
        if (e.code() >= 0)
            error.set("code", e.code())
                .set("name", nkrhost::describeError(e.code()).name)
                .set("kind", nkrhost::kindName(nkrhost::describeError(e.code()).kind))
                .set("explanation", nkrhost::describeError(e.code()).text);
        emitJson(Json::object().set("error", error));
    }
}

int runCommand(const std::vector<Command>& commands, const GlobalOptions& globals, char** argv)
{
    try {
        nkrhost::SimulationRequest sim;
        sim.realHome = globals.realHome;
        sim.requested = globals.simulate || nkrhost::simulationRequestedByEnvironment();
        for (const Command& c : commands)
            if (c.app->parsed() && c.needsSimulator) sim.requested = true;
        const nkrhost::Status entered = nkrhost::enterSimulation(sim, argv);
        // In the restarted tool a bad NKR_SIM_UNITS is the user's argument.
        if (!entered.ok())
            throw ToolError(entered.message, -1, nkrhost::simulationActive() ? kExitUsage : kExitDeviceError);
        // Before any unit is opened: one saved record per unit unless asked otherwise.
        nkrhost::chooseSavedRecord(nkrhost::HostSettings());

        installInterruptHandler();
        if (globals.verbose) startLogTail();
        int status = runChosen(commands);
        stopLogTail();
        return status;
    } catch (const ToolError& e) {
        stopLogTail();
        reportError(e);
        return e.exitStatus();
    } catch (const std::exception& e) {
        stopLogTail();
        if (receivedSignal() != SIGPIPE) printErrorMessage(e.what());
        return kExitDeviceError;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // Before anything can start a thread, so that only the watcher takes them.
    blockTerminatingSignals();
    rememberCommandLine(argc, argv);
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
        addGetCommand(app, globals),   addWaitCommand(app, globals),
        addWatchCommand(app, globals), addFirmwareCommand(app, globals), addDemoCommand(app, globals),
        addResetCommand(app, globals), addTempCompCommand(app, globals), addPositionsCommand(app, globals),
        addGotoCommand(app, globals),  addSimCommand(app, globals),
    };
    // After the sub-commands, which would otherwise inherit these examples.
    app.footer(kFooter);
    // For the build, which installs the man page and completion made from this help.
    const std::string version = std::string("nkr ") + NKR_TOOL_VERSION;
    app.add_flag_callback("--help-man", [&app, &version] {
           std::fputs(manPage(app, version).c_str(), stdout);
           throw CLI::Success();
       })->group("");
    app.add_option_function<std::string>("--completion", [&app](const std::string& shell) {
           if (shell != "bash") throw CLI::ValidationError("--completion", "only bash is supported");
           std::fputs(bashCompletion(app).c_str(), stdout);
           throw CLI::Success();
       })->group("");
    for (const Command& c : commands)
        c.app->footer(c.app->get_footer() +
                      "\n\nGlobal options (--json, --simulate, --ble NAME-OR-ADDRESS, ...) may come "
                      "before or after the command; see nkr --help.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version end here with status 0; help fits the terminal.
        if (e.get_name() == "CallForHelp" || e.get_name() == "CallForAllHelp") {
            initOutput(false);
            std::string help = app.help("", e.get_name() == "CallForAllHelp" ? CLI::AppFormatMode::All
                                                                              : CLI::AppFormatMode::Normal);
            std::fputs(wrapText(help, outputWidth()).c_str(), stdout);
            return kExitOk;
        }
        if (e.get_exit_code() == 0) return app.exit(e);
        // --json holds for a bad command line too: the error is printed as JSON.
        bool json = false;
        for (int k = 1; k < argc; ++k) json = json || std::string(argv[k]) == "--json";
        initOutput(json);
        reportError(ToolError(describeParseError(e, app, argc, argv), -1, kExitUsage));
        return kExitUsage;
    }

    initOutput(globals.json);
    // Set before the library first reads its environment (the simulator's
    // re-exec keeps it).
    if (globals.sharedRecord) setenv("NKR_STATE_PER_UNIT", "0", 1);
    int status = runCommand(commands, globals, argv);
    // Every unit session has been closed by now, so the position is saved.
    if (int signalNumber = receivedSignal()) {
        // A broken pipe ends quietly, like any filter in a pipeline.
        if (signalNumber != SIGPIPE) warn(std::string("stopped by ") + signalDescription(signalNumber));
        return 128 + signalNumber;
    }
    return status;
}
