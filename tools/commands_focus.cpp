// nkr tempcomp / positions / goto: what astronomers ask of a focuser beyond
// the unit itself: temperature compensation (switched, watched, run in the
// foreground, and its coefficient fitted from focus runs), and named positions.
// The rules live in the host layer; this file is the command line of them.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <fstream>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "move_follow.h"
#include "nkrhost/tempcomp.h"
#include "nkrhost/tempfit.h"
#include "output.h"
#include "session.h"

namespace nkrtool {
namespace {

struct TempCompOptions {
    std::string id, what, file;  // ID, then on|off|status|fit FILE
    bool follow = false;
    bool save = false;
    std::string plot;
    int intervalMs = 1000;
};

std::string fixed(double v, int decimals) { return formatFixed(v, decimals); }

// compensated_by: the program compensating the unit now; stopping_in: one
// that still holds it after compensation was switched off, until its next look.
Json tempCompJson(const nkrhost::UnitSettings& s, const std::string& holder)
{
    const bool on = s.tempComp.enabled;
    return Json::object()
        .set("enabled", on)
        .set("coefficient", s.tempComp.coefficient)
        .set("deadband", s.tempComp.deadband)
        .set("compensated_by", holder.empty() || !on ? Json() : Json(holder))
        .set("stopping_in", holder.empty() || on ? Json() : Json(holder));
}

int showStatus(UnitSession& unit)
{
    nkrhost::UnitSettings s;
    fail(unit.unit().settings(s));
    const std::string holder = nkrhost::UnitClaim::holder("tempcomp", unit.unit().key());
    if (jsonMode()) {
        emitJson(tempCompJson(s, holder).set("id", unit.id()));
        return kExitOk;
    }
    sayField("compensation", onOff(s.tempComp.enabled));
    sayField("coefficient", fixed(s.tempComp.coefficient, 2) + " steps per" + degreesC());
    sayField("dead band", fixed(s.tempComp.deadband, 2) + degreesC());
    if (!holder.empty() && !s.tempComp.enabled)
        sayField("stopping in", holder + " (it has not yet seen that compensation is off; it stops at its next look)");
    else if (!holder.empty())
        sayField("compensated by", holder);
    else if (s.tempComp.enabled)
        sayField("compensated by", "no program now: run nkr tempcomp ID --follow, or the Alpaca server or "
                                   "the INDI driver with this unit connected");
    return kExitOk;
}

int switchTo(UnitSession& unit, bool on)
{
    fail(unit.unit().hostSettings().update(unit.unit().key(), [&](nkrhost::UnitSettings& s) {
        s.tempComp.enabled = on;
        return nkrhost::Status{};
    }));
    return showStatus(unit);
}

int follow(UnitSession& unit, const TempCompOptions& options)
{
    // On for as long as this command runs; as it was when it ends.
    bool wasOn = false;
    fail(unit.unit().hostSettings().update(unit.unit().key(), [&](nkrhost::UnitSettings& s) {
        wasOn = s.tempComp.enabled;
        s.tempComp.enabled = true;
        return nkrhost::Status{};
    }));
    struct Restore {
        UnitSession& unit;
        bool wasOn;
        ~Restore()
        {
            if (wasOn) return;
            unit.unit().hostSettings().update(unit.unit().key(), [](nkrhost::UnitSettings& s) {
                s.tempComp.enabled = false;
                return nkrhost::Status{};
            });
        }
    } restore{unit, wasOn};
    nkrhost::TempCompRunner runner(unit.unit(), "nkr tempcomp --follow");
    if (interactive()) say(paint(Colour::Dim, "Compensating " + unit.label() + " (Ctrl-C ends)"));
    std::string lastLine;
    for (;;) {
        std::vector<std::string> log;
        runner.tick(log);
        if (unit.unit().gone()) check(NKR_ERROR_REMOVED, "compensating " + unit.label());
        for (const std::string& line : log) {
            if (jsonMode()) {
                emitJson(eventJson("tempcomp", unit.id()).set("message", line));
            } else {
                if (interactive()) std::printf("\r\033[K");
                say(line);
            }
        }
        if (interactive()) {
            int position = 0;
            unit.unit().position(position);
            const std::string line = runner.describe() + ", position " + std::to_string(position);
            const size_t room = static_cast<size_t>(std::max(1, terminalColumns() - 1));
            std::printf("\r%s\033[K", firstThatFits({line, runner.describe()}, room).c_str());
            flushOutput();
        }
        if (sleepUnlessInterrupted(options.intervalMs)) break;
    }
    if (interactive()) std::printf("\n");
    return kExitInterrupted;
}

std::string defaultPlotPath(const std::string& csv)
{
    std::string base = csv;
    if (base.size() > 4 && base.compare(base.size() - 4, 4, ".csv") == 0) base.resize(base.size() - 4);
    return base + "-fit.svg";
}

int fit(const std::string& id, const std::string& file, const TempCompOptions& options, const GlobalOptions& globals)
{
    std::vector<nkrhost::FitRow> rows;
    int bad = 0;
    fail(nkrhost::readFitCsv(file, rows, bad));
    nkrhost::TempFit result;
    fail(nkrhost::fitTemperature(rows, result));
    const std::string plot = options.plot.empty() ? defaultPlotPath(file) : options.plot;
    {
        std::ofstream out(plot);
        out << nkrhost::fitPlotSvg(rows, result);
        if (!out) throw ToolError("cannot write the plot " + plot, -1, kExitDeviceError);
    }
    if (options.save) {
        std::vector<std::string> args{id};
        UnitSession unit(takeTarget(args, globals.ble, globals.bleScanSeconds));
        fail(unit.unit().hostSettings().update(unit.unit().key(), [&](nkrhost::UnitSettings& s) {
            s.tempComp.coefficient = std::round(result.coefficient * 100.0) / 100.0;
            return nkrhost::Status{};
        }));
        unit.leaveOpen();
    }
    if (jsonMode()) {
        emitJson(Json::object()
                     .set("coefficient", result.coefficient)
                     .set("r2", result.r2)
                     .set("used", result.used)
                     .set("rejected", result.rejected)
                     .set("unreadable_lines", bad)
                     .set("plot", plot)
                     .set("saved", options.save));
        return kExitOk;
    }
    sayField("coefficient", fixed(result.coefficient, 2) + " steps per" + degreesC());
    sayField(symbol("R\u00B2", "R2"), fixed(result.r2, 3));
    sayField("runs used", std::to_string(result.used));
    sayField("runs rejected", std::to_string(result.rejected));
    if (bad > 0) sayField("lines unreadable", std::to_string(bad) + " (their values are not numbers)");
    sayField("plot", plot);
    if (!jsonMode()) std::fputs(nkrhost::fitPlotText(rows, result, std::min(60, terminalColumns() - 12), 12).c_str(), stdout);
    say(options.save ? paint(Colour::Green, "The coefficient is saved for the unit.")
                     : paint(Colour::Dim, "(--save stores the coefficient for the unit)"));
    return kExitOk;
}

int runTempComp(const TempCompOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.what, options.file});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    if (!args.empty() && args.front() == "fit") {
        if (args.size() != 2) usageError("fit takes one file: nkr tempcomp ID fit FILE.csv");
        return fit(target.name, args[1], options, globals);
    }
    if (options.follow) {
        rejectExtraArgs(args, target);
        UnitSession unit(target);
        return follow(unit, options);
    }
    const std::string what = args.empty() ? "status" : args.front();
    if (args.size() > 1) rejectExtraArgs({args.begin() + 1, args.end()}, target);
    if (what != "on" && what != "off" && what != "status")
        usageError("'" + clipped(what) + "' is not on, off, status or fit FILE");
    // Switching compensation on or off drives the unit: only its holder may.
    UnitSession unit(target, what == "status" ? UnitSession::Access::ReadOnly : UnitSession::Access::Drive);
    if (what == "status") return showStatus(unit);
    return switchTo(unit, what == "on");
}

struct PositionsOptions {
    std::string id, verb, name, position;  // ID [list | add NAME [POSITION] | remove NAME]
};

const char* const kPositionsUsage =
    "positions takes: ID [list], ID add NAME [POSITION | +N | -N], or ID remove NAME";

// Where "add NAME [POSITION]" puts the name: the current position, a
// position, or +N / -N steps from the current one, as for move and sync.
long long positionToSave(UnitSession& unit, const std::vector<std::string>& args)
{
    int current = 0;
    if (args.size() == 2 || args[2][0] == '+' || args[2][0] == '-') fail(unit.unit().position(current));
    if (args.size() == 2) return current;
    bool relative = false;
    return parseStepTarget(args[2], current, relative);
}

int runPositions(const PositionsOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.verb, options.name, options.position});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    const std::string verb = args.empty() ? "list" : args.front();
    const bool adding = verb == "add" && (args.size() == 2 || args.size() == 3);
    if (!adding && !(verb == "remove" && args.size() == 2) && !(verb == "list" && args.size() <= 1))
        usageError(kPositionsUsage);
    if (adding && args.size() == 3) parseNumber(args[2], "position");  // refused before the unit is opened
    UnitSession unit(target, UnitSession::Access::ReadOnly);
    if (adding) {
        const long long position = positionToSave(unit, args);
        fail(unit.unit().savePosition(args[1], position));
        if (!jsonMode()) say("Saved '" + args[1] + "' = " + std::to_string(position) + " for " + unit.label() + ".");
    } else if (verb == "remove") {
        fail(unit.unit().removePosition(args[1]));
        if (!jsonMode()) say("Removed '" + args[1] + "' from " + unit.label() + ".");
    }
    std::map<std::string, int> all;
    fail(unit.unit().namedPositions(all));
    if (jsonMode()) {
        Json list = Json::object();
        for (const auto& [name, value] : all) list.set(name, value);
        emitJson(Json::object().set("id", unit.id()).set("positions", list));
    } else if (verb == "list") {
        if (all.empty()) say("No named positions for " + unit.label() + " (add one with: nkr positions ID add NAME [POSITION]).");
        for (const auto& [name, value] : all) sayField(name, std::to_string(value));
    }
    return kExitOk;
}

struct GotoOptions {
    std::string id, name;
    bool noWait = false;
};

int runGoto(const GotoOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.name});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    if (args.size() != 1) usageError("goto takes one position name (see nkr positions ID)");
    UnitSession unit(target);
    int goal = 0;
    fail(unit.unit().namedPosition(args.front(), goal));
    int start = 0;
    fail(unit.unit().position(start));
    say("Moving " + unit.label() + " to '" + args.front() + "' (" + std::to_string(goal) + ").");
    MoveResult result = moveAndFollow(unit.session(), start, goal, true);
    if (result.interrupted) {
        say("Stopped at position " + std::to_string(result.position) + " on " + signalDescription(receivedSignal()) + ".");
        return kExitInterrupted;
    }
    say(result.position == goal ? paint(Colour::Green, "Reached '" + args.front() + "' at " + std::to_string(goal) + ".")
                                : "Stopped at position " + std::to_string(result.position) + ".");
    return kExitOk;
}

}  // namespace

Command addTempCompCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<TempCompOptions>();
    CLI::App* sub = app.add_subcommand(
        "tempcomp",
        "Temperature compensation of a unit: switch it on or off, show it (status), run it in the "
        "foreground with a live line until Ctrl-C (--follow), or fit the coefficient to focus runs "
        "(fit FILE.csv with the columns temperature_c and position). While it is on, the one "
        "program that holds the unit (this one with --follow, the Alpaca server, the INDI driver) "
        "moves it by coefficient x (T - T_ref) whenever the smoothed temperature has moved past the "
        "dead band. Set the coefficient and dead band with nkr set ID temp-coefficient=S "
        "temp-deadband=D.");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("ACTION", options->what, "on, off, status (the default) or fit");
    sub->add_option("FILE", options->file, "With fit: the CSV file of focus runs");
    sub->add_flag("--follow", options->follow, "Run the compensation here until Ctrl-C");
    sub->add_flag("--save", options->save, "With fit: store the fitted coefficient for the unit");
    sub->add_option("--plot", options->plot, "With fit: where to write the SVG plot (default FILE-fit.svg)")
        ->type_name("FILE");
    sub->footer("Examples:\n  nkr tempcomp 0 status\n  nkr set 0 temp-coefficient=-5 temp-deadband=0.5\n"
                "  nkr tempcomp 0 on\n  nkr tempcomp 0 --follow\n  nkr tempcomp 0 fit runs.csv --save");
    return {sub, [options, &globals] { return runTempComp(*options, globals); }, false};
}

Command addPositionsCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<PositionsOptions>();
    CLI::App* sub = app.add_subcommand(
        "positions",
        "Named positions of a unit (kept in the host settings, shared with every front-end): list "
        "them, add one (at the current position, at POSITION, or +N / -N steps from the current "
        "one, as in move), or remove one. Move to one with nkr goto ID NAME.");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("ACTION", options->verb, "list (the default), add or remove");
    sub->add_option("NAME", options->name, "The position's name");
    sub->add_option("POSITION", options->position,
                    "With add: a position, or +N / -N steps from the current one (default: the current one)");
    sub->footer("Examples:\n  nkr positions 0\n  nkr positions 0 add Ha 31200\n  nkr positions 0 add OIII +150\n"
                "  nkr positions 0 remove Ha");
    return {sub, [options, &globals] { return runPositions(*options, globals); }, false};
}

Command addGotoCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<GotoOptions>();
    CLI::App* sub = app.add_subcommand("goto", "Move a unit to one of its named positions (see nkr positions).");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("NAME", options->name, "The position's name");
    sub->footer("Example:\n  nkr goto 0 Ha");
    return {sub, [options, &globals] { return runGoto(*options, globals); }, false};
}

}  // namespace nkrtool
