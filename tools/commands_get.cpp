// nkr get / nkr wait: the two commands scripts need most. get prints one
// bare value of a unit; wait blocks until the motor stands still. Both only
// look, so they leave the unit open rather than closing it (a close saves
// position and settings) and never stop a move started elsewhere.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "output.h"
#include "session.h"
#include "nkrhost/session.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

struct GetOptions {
    std::string id, field;
};

struct WaitOptions {
    std::string id;
    double timeoutSeconds = 300;
};

struct Value {
    int code = NKR_SUCCESS;
    Json json;
    std::string text;
};

Value fromInt(int (*get)(int, int*), int id)
{
    int v = 0;
    Value out;
    out.code = get(id, &v);
    out.json = v;
    out.text = std::to_string(v);
    return out;
}

Value fromBool(int (*get)(int, bool*), int id)
{
    bool v = false;
    Value out;
    out.code = get(id, &v);
    out.json = v;
    out.text = v ? "true" : "false";
    return out;
}

Value fromText(int code, const std::string& text)
{
    // A value the unit does not have (no alias) is null in JSON, empty in text.
    return {code, text.empty() ? Json() : Json(text), text};
}

struct Field {
    const char* name;
    const char* help;
    std::function<Value(UnitSession& unit)> read;
};

const std::vector<Field>& fields()
{
    static const std::vector<Field> list = {
        {"position", "current position in steps", [](UnitSession& u) { return fromInt(NKRGetPosition, u.id()); }},
        {"moving", "true while the motor runs",
         [](UnitSession& u) {
             bool moving = false, hand = false;
             int rc = NKRIsMoving(u.id(), &moving, &hand);
             return Value{rc, moving, moving ? "true" : "false"};
         }},
        {"hand-moving", "true while a hand controller moves it",
         [](UnitSession& u) {
             bool moving = false, hand = false;
             int rc = NKRIsMoving(u.id(), &moving, &hand);
             return Value{rc, hand, hand ? "true" : "false"};
         }},
        {"temperature", "degrees Celsius",
         [](UnitSession& u) {
             Reading st = readStatus(u.id());
             return Value{st.temperatureCode, st.temperature, formatFixed(st.temperature, 2)};
         }},
        {"max-step", "the user's maximum position, which every program keeps moves within",
         [](UnitSession& u) {
             int v = 0;
             nkrhost::Status st = u.unit().maximum(v);
             return Value{st.code, v, std::to_string(v)};
         }},
        {"step-range", "the unit's full range", [](UnitSession& u) { return fromInt(NKRStepRange, u.id()); }},
        {"backlash", "steps", [](UnitSession& u) { return fromInt(NKRGetBacklash, u.id()); }},
        {"speed", "steps per second setting", [](UnitSession& u) { return fromInt(NKRGetSpeed, u.id()); }},
        {"force", "motor force 0..15", [](UnitSession& u) { return fromInt(NKRGetMaxForce, u.id()); }},
        {"reverse", "motor direction reversed", [](UnitSession& u) { return fromBool(NKRGetReverse, u.id()); }},
        {"beep", "beeper on", [](UnitSession& u) { return fromBool(NKRGetBeep, u.id()); }},
        {"led", "LED on (battery model)", [](UnitSession& u) { return fromBool(NKRGetLedState, u.id()); }},
        {"firmware", "firmware version",
         [](UnitSession& u) {
             Firmware fw = readFirmware(u.id());
             return fromText(fw.code, fw.text());
         }},
        {"serial", "serial number (16 hex digits)",
         [](UnitSession& u) {
             const Identity& ident = u.unit().identity();
             return fromText(ident.serialCode, ident.serial);
         }},
        {"alias", "alias, empty when none",
         [](UnitSession& u) {
             const Identity& ident = u.unit().identity();
             return fromText(ident.propertyCode, ident.alias);
         }},
        {"step-size", "microns per step, as set for the unit (empty when not set)",
         [](UnitSession& u) {
             nkrhost::UnitSettings s;
             nkrhost::Status st = u.unit().settings(s);
             if (!s.stepSizeMicrons) return Value{st.code, Json(), ""};
             return Value{st.code, *s.stepSizeMicrons, formatFixed(*s.stepSizeMicrons, 3)};
         }},
        {"temp-coefficient", "temperature compensation, steps per degree",
         [](UnitSession& u) {
             nkrhost::UnitSettings s;
             nkrhost::Status st = u.unit().settings(s);
             return Value{st.code, s.tempComp.coefficient, formatFixed(s.tempComp.coefficient, 2)};
         }},
        {"tempcomp", "temperature compensation on",
         [](UnitSession& u) {
             nkrhost::UnitSettings s;
             nkrhost::Status st = u.unit().settings(s);
             return Value{st.code, s.tempComp.enabled, s.tempComp.enabled ? "true" : "false"};
         }},
        {"name", "name with alias, e.g. NKR(Main)",
         [](UnitSession& u) {
             const Identity& ident = u.unit().identity();
             return fromText(ident.propertyCode, ident.name);
         }},
        {"type", "model type",
         [](UnitSession& u) {
             const Identity& ident = u.unit().identity();
             return fromText(ident.modelCode, ident.model);
         }},
    };
    return list;
}

std::string fieldNames()
{
    std::string names;
    for (const Field& f : fields()) names += (names.empty() ? "" : ", ") + std::string(f.name);
    return names;
}

const Field& findField(std::string name)
{
    // max_step (as in JSON) is accepted as well as max-step.
    std::replace(name.begin(), name.end(), '_', '-');
    for (const Field& f : fields())
        if (name == f.name) return f;
    usageError("unknown field '" + clipped(name) + "'; fields are " + fieldNames());
}

int runGet(const GetOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.field});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    if (args.empty()) usageError("missing FIELD (one of " + fieldNames() + ")");
    const Field& field = findField(args.front());
    args.erase(args.begin());
    rejectExtraArgs(args, target);

    UnitSession unit(target, UnitSession::Access::ReadOnly);
    Value value = field.read(unit);
    check(value.code, std::string("reading ") + field.name + " of " + unit.label());
    if (jsonMode())
        emitJson(Json::object().set("id", unit.id()).set("field", jsonKey(field.name)).set("value", value.json));
    else
        say(value.text);
    return kExitOk;
}

int runWait(const WaitOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    rejectExtraArgs(args, target);
    UnitSession unit(target, UnitSession::Access::ReadOnly);

    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<long long>(options.timeoutSeconds * 1000));
    for (;;) {
        bool moving = false, hand = false;
        check(NKRIsMoving(unit.id(), &moving, &hand), "reading whether " + unit.label() + " moves");
        // A move started with --no-wait is carried by an `nkr move` that
        // holds the unit to its end: between the legs of a final approach
        // the motor stands for a moment, and the move is not over.
        if (!moving && nkrhost::unitHolder(unit.unit().key()).rfind("nkr move", 0) != 0) break;
        if (options.timeoutSeconds > 0 && std::chrono::steady_clock::now() >= deadline) {
            int position = 0;
            NKRGetPosition(unit.id(), &position);
            throw ToolError(unit.label() + " is still moving after " + formatFixed(options.timeoutSeconds, 1) +
                                " s (position " + std::to_string(position) + "); it was left running",
                            -1, kExitDeviceError);
        }
        if (sleepUnlessInterrupted(100)) return kExitInterrupted;
    }
    int position = 0;
    check(NKRGetPosition(unit.id(), &position), "reading the position");
    if (jsonMode())
        emitJson(eventJson("still", unit.id()).set("position", position).set("moving", false));
    else
        say(unit.label() + " stands still at position " + std::to_string(position) + ".");
    return kExitOk;
}

}  // namespace

std::vector<std::string> getFieldNames()
{
    std::vector<std::string> names;
    for (const Field& f : fields()) names.push_back(f.name);
    return names;
}

Command addGetCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<GetOptions>();
    std::string fieldHelp;
    for (const Field& f : fields()) fieldHelp += std::string("\n  ") + f.name + std::string(static_cast<size_t>(std::max(2, 18 - static_cast<int>(std::string(f.name).size()))), ' ') + f.help;
    CLI::App* sub = app.add_subcommand(
        "get",
        "Print one value of a unit, bare, for scripts (booleans as true/false; a missing alias "
        "as an empty line). With --json: {\"id\":..,\"field\":..,\"value\":..}.");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("FIELD", options->field, "The value to print (see the list below)");
    sub->footer("Fields:" + fieldHelp +
                "\n\nExamples:\n  nkr get 0 position\n  nkr get 0 firmware\n  pos=$(nkr get Main position)");
    return {sub, [options, &globals] { return runGet(*options, globals); }, false};
}

Command addWaitCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<WaitOptions>();
    CLI::App* sub = app.add_subcommand(
        "wait",
        "Block until the unit's motor stands still (after 'nkr move ID STEP --no-wait'), then print "
        "the position. Ends with status 1 when it still moves after --timeout seconds, leaving "
        "the motor running.");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("--timeout", options->timeoutSeconds, "Seconds to wait at most (0: no limit; default 300)")
        ->type_name("SECONDS")
        ->check(numberIn(0, 86400, false, "seconds"));
    sub->footer("Example:\n  nkr move 0 20000 --no-wait && nkr wait 0 --timeout 60");
    return {sub, [options, &globals] { return runWait(*options, globals); }, false};
}

}  // namespace nkrtool
