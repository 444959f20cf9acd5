// nkr watch: a live status line (position, moving, temperature) refreshed
// about four times a second until Ctrl-C or --count updates.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "output.h"
#include "session.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

struct WatchOptions {
    std::string id;
    int count = 0;  // 0 (left out): until Ctrl-C
    int intervalMs = 250;
};

// The status line, longest form first: a live line must fit the terminal,
// or every redraw wraps and scrolls.
std::vector<std::string> statusTexts(const Reading& st)
{
    std::string pos = st.positionCode == NKR_SUCCESS ? std::to_string(st.position) : "?";
    std::string moving = st.movingCode != NKR_SUCCESS ? "?"
                         : st.moving                 ? (st.handMoving ? "hand move" : "moving")
                                                     : "still";
    std::string temp = st.temperatureCode == NKR_SUCCESS ? formatFixed(st.temperature, 2) + degreesC()
                                                         : unavailableText(st.temperatureCode);
    std::string shortTemp = st.temperatureCode == NKR_SUCCESS ? formatFixed(st.temperature, 1) + degreesC() : "?";
    return {"position " + pos + "  " + moving + "  temperature " + temp, "position " + pos + "  " + moving + "  " + shortTemp,
            pos + "  " + moving + "  " + shortTemp, pos + "  " + moving};
}

Json statusJson(int id, int sequence, const Reading& st)
{
    auto orNull = [](int code, Json v) { return code == NKR_SUCCESS ? v : Json(); };
    return eventJson("status", id)
        .set("update", sequence)
        .set("position", orNull(st.positionCode, st.position))
        .set("moving", orNull(st.movingCode, st.moving))
        .set("hand_moving", orNull(st.movingCode, st.handMoving))
        .set("temperature", orNull(st.temperatureCode, st.temperature));
}

int runWatch(const WatchOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    rejectExtraArgs(args, target);
    UnitSession unit(target, UnitSession::Access::ReadOnly);

    if (interactive()) say(paint(Colour::Dim, "Watching " + unit.label() + " (Ctrl-C ends)"));
    for (int sequence = 1; options.count == 0 || sequence <= options.count; ++sequence) {
        Reading st = readStatus(unit.id());
        // A unit that is gone ends the watch instead of printing "?" forever.
        if (unit.unit().noteResult(st.positionCode) || unit.unit().noteResult(st.movingCode)) {
            if (interactive()) std::printf("\n");
            check(st.positionCode != NKR_SUCCESS ? st.positionCode : st.movingCode, "watching " + unit.label());
        }
        if (jsonMode()) {
            emitJson(statusJson(unit.id(), sequence, st));
        } else if (interactive()) {
            const size_t room = static_cast<size_t>(std::max(1, terminalColumns() - 1));
            std::printf("\r%s\033[K", firstThatFits(statusTexts(st), room).c_str());
            flushOutput();
        } else {
            say(statusTexts(st).front());
        }
        bool last = options.count != 0 && sequence == options.count;
        if (last || sleepUnlessInterrupted(options.intervalMs)) break;
    }
    if (interactive()) std::printf("\n");
    return kExitOk;
}

}  // namespace

Command addWatchCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<WatchOptions>();
    CLI::App* sub = app.add_subcommand(
        "watch",
        "Show a live status line of a unit (position, moving or still, temperature), "
        "refreshed about four times a second until Ctrl-C. In JSON mode, or when output is "
        "not a terminal, each update is printed on a line of its own.");
    sub->add_option("ID", options->id, kUnitIdHelp);
    // 0 is refused rather than read as "never stop": leaving --count out is how to watch until Ctrl-C.
    sub->add_option("--count", options->count, "Stop after this many updates (without it: until Ctrl-C)")
        ->type_name("N")
        ->check(numberIn(1, 1000000, true));
    sub->add_option("--interval", options->intervalMs, "Milliseconds between updates")
        ->type_name("MS")
        ->check(numberIn(50, 60000, true, "milliseconds"));
    sub->footer("Examples:\n  nkr watch 0\n  nkr --json watch 0 --count 10");
    return {sub, [options, &globals] { return runWatch(*options, globals); }, false};
}

}  // namespace nkrtool
