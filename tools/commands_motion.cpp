// nkr move / stop / sync: driving the motor and redefining the position.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "move_carrier.h"
#include "move_follow.h"
#include "output.h"
#include "session.h"

namespace nkrtool {
namespace {

struct MoveOptions {
    std::string id, step;
    bool noWait = false;
};

struct PositionOptions {
    std::string id, step;
};

const char* const kIdHelp = kUnitIdHelp;


// The one value argument left after the unit was taken from args.
std::string takeValue(std::vector<std::string>& args, const std::string& what)
{
    if (args.empty()) usageError("missing " + what);
    if (args.size() > 1) usageError("unexpected argument '" + clipped(args[1]) + "'");
    return args.front();
}

int readPosition(UnitSession& unit)
{
    int position = 0;
    fail(unit.unit().position(position));
    return position;
}

int runMove(const MoveOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.step});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    std::string stepText = takeValue(args, "STEP (a position, or +N / -N steps)");
    parseNumber(stepText, "step");  // a bad number is refused before the unit is opened
    // Not waiting: checked here, then carried by a process of its own that holds the unit.
    UnitSession unit(target, options.noWait ? UnitSession::Access::ReadOnly : UnitSession::Access::Drive);
    if (options.noWait) {
        const std::string holder = nkrhost::unitHolder(unit.unit().key());
        if (!holder.empty()) fail(nkrhost::heldElsewhere(unit.unit().key(), holder));
    }

    int start = readPosition(unit);
    bool relative = false;
    long long wanted = parseStepTarget(stepText, start, relative);
    // Beyond the user's maximum is refused, never clamped: the same in every program.
    fail(unit.unit().checkNotInUpdateMode());
    fail(unit.unit().checkTarget(wanted));
    const int goal = static_cast<int>(wanted);

    if (options.noWait) {
        // The final approach's second leg, if any, is the carrier's to run.
        const std::string problem = startMoveCarrier(unit.unit().key());
        if (!problem.empty()) throw ToolError(problem, -1, kExitDeviceError);
        if (jsonMode())
            emitJson(eventJson("started", unit.id())
                         .set("start", start)
                         .set("target", goal)
                         .set("moving", true));
        else
            say("Moving " + unit.label() + " from " + std::to_string(start) + " to " +
                std::to_string(goal) + " (not waiting).");
        return kExitOk;
    }

    say("Moving " + unit.label() + " from " + std::to_string(start) + " to " + std::to_string(goal) +
        (interactive() ? " (Ctrl-C stops the motor)" : "") + ".");
    MoveResult result = moveAndFollow(unit.session(), start, goal, true);
    if (result.interrupted) {
        say(std::string("Stopped at position ") + std::to_string(result.position) + " on " +
            signalDescription(receivedSignal()) + ".");
        return kExitInterrupted;
    }
    say(paint(Colour::Green, "Reached position " + std::to_string(result.position) + "."));
    return kExitOk;
}

int runStop(const PositionOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.step});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    rejectExtraArgs(args, target);
    // A stop is never refused, whoever holds the unit; the holder is told who stopped it.
    UnitSession unit(target, UnitSession::Access::Stop);
    fail(nkrhost::stopUnit(unit.unit(), "nkr stop"));
    int position = readPosition(unit);
    if (jsonMode())
        emitJson(Json::object().set("id", unit.id()).set("stopped", true).set("position", position));
    else
        say("Stopped " + unit.label() + " at position " + std::to_string(position) + ".");
    return kExitOk;
}

int runSync(const PositionOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.step});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    std::string stepText = takeValue(args, "STEP (the position to declare, or +N / -N from the current one)");
    parseNumber(stepText, "step");  // a bad number is refused before the unit is opened
    UnitSession unit(target);
    int before = readPosition(unit);
    bool relative = false;
    long long step = parseStepTarget(stepText, before, relative);
    fail(unit.session().sync(step));
    int after = readPosition(unit);
    if (jsonMode())
        emitJson(Json::object().set("id", unit.id()).set("previous", before).set("position", after));
    else
        say("The position of " + unit.label() + " is now " + std::to_string(after) + " (was " +
            std::to_string(before) + "); the motor did not move.");
    return kExitOk;
}

}  // namespace

Command addMoveCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<MoveOptions>();
    CLI::App* sub = app.add_subcommand(
        "move",
        "Move a unit to an absolute position (move ID 12000) or by a number of steps from "
        "where it is (move ID +500, move ID -500). Shows a live progress bar until the "
        "motor stops; Ctrl-C stops the motor before the tool exits.");
    sub->add_option("ID", options->id, kIdHelp);
    sub->add_option("STEP", options->step,
                    "Target: a position, or +N / -N steps from the current one");
    sub->add_flag("--no-wait", options->noWait,
                  "Start the move and return at once; a process of its own carries it to its end (final "
                  "approach included) and holds the unit meanwhile");
    sub->footer("Examples:\n  nkr move 0 12000\n  nkr move 0 +500\n  nkr move 0 -500\n"
                "  nkr move 0 20000 --no-wait\n  nkr --ble \"NKR Pro_A1B2\" move 15000");
    return {sub, [options, &globals] { return runMove(*options, globals); }, false};
}

Command addStopCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<PositionOptions>();
    CLI::App* sub = app.add_subcommand("stop", "Stop the unit's motor at once and show where it stopped.");
    sub->add_option("ID", options->id, kIdHelp);
    sub->footer("Example:\n  nkr stop 0");
    return {sub, [options, &globals] { return runStop(*options, globals); }, false};
}

Command addSyncCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<PositionOptions>();
    CLI::App* sub = app.add_subcommand(
        "sync",
        "Declare the unit's current position to be STEP without moving the motor (for "
        "example after focusing by hand at a known mark). +N / -N shift the current "
        "position by N steps, as in move.");
    sub->add_option("ID", options->id, kIdHelp);
    sub->add_option("STEP", options->step, "The position to declare, or +N / -N from the current one");
    sub->footer("Examples:\n  nkr sync 0 25000\n  nkr sync 0 +100");
    return {sub, [options, &globals] { return runSync(*options, globals); }, false};
}

}  // namespace nkrtool
