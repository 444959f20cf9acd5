// nkr set: change one or more settings of a unit. Every NAME=VALUE is
// checked before anything is sent, so a typo changes nothing.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "nkrhost/settings.h"
#include "errors.h"
#include "output.h"
#include "session.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

struct SetOptions {
    std::string id;
    std::vector<std::string> assignments;
};

// One checked change, ready to send.
struct Change {
    std::string name;
    Json value;        // as the user asked, for the report
    std::string text;  // as shown to people
    std::function<nkrhost::Status(UnitSession& unit)> apply;
    std::function<int(int id, Json& value, std::string& text)> readBack;  // null: none
    // Checks the value against the unit before anything is sent (null: none needed).
    std::function<nkrhost::Status(UnitSession& unit)> precheck;
};

bool printableAscii(const std::string& s)
{
    return std::all_of(s.begin(), s.end(), [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
}

int boundedNumber(const std::string& name, const std::string& text, long long low, long long high)
{
    long long v = parseNumber(text, name);
    if (v < low || v > high)
        usageError(name + " must be between " + std::to_string(low) + " and " + std::to_string(high) +
                   " (got " + clipped(text) + ")");
    return static_cast<int>(v);
}

using IntGetter = int (*)(int, int*);
using BoolGetter = int (*)(int, bool*);

std::function<int(int, Json&, std::string&)> readInt(IntGetter get)
{
    return [get](int id, Json& value, std::string& text) {
        int v = 0;
        int rc = get(id, &v);
        if (rc == NKR_SUCCESS) {
            value = v;
            text = std::to_string(v);
        }
        return rc;
    };
}

std::function<int(int, Json&, std::string&)> readBool(BoolGetter get)
{
    return [get](int id, Json& value, std::string& text) {
        bool v = false;
        int rc = get(id, &v);
        if (rc == NKR_SUCCESS) {
            value = v;
            text = onOff(v);
        }
        return rc;
    };
}

// A plain library setter as a change: its failure reads "setting NAME to VALUE: ...".
template <typename T>
std::function<nkrhost::Status(UnitSession&)> sdkSetter(const std::string& name, const std::string& text,
                                                       int (*set)(int, T), T v)
{
    return [=](UnitSession& unit) {
        return nkrhost::Status::fromSdk(set(unit.id(), v), "setting " + name + " to " + text);
    };
}

Change intChange(const std::string& name, int v, int (*set)(int, int), IntGetter get)
{
    return {name, v, std::to_string(v), sdkSetter(name, std::to_string(v), set, v), readInt(get)};
}

Change boolChange(const std::string& name, bool v, int (*set)(int, bool), BoolGetter get)
{
    return {name, v, onOff(v), sdkSetter(name, onOff(v), set, v), readBool(get)};
}

// A setting kept by the host programs rather than the unit: merged into the
// unit's host settings (checked there as a whole).
Change hostChange(const std::string& name, Json value, std::string text, std::string patch)
{
    return {name, std::move(value), std::move(text),
            [patch](UnitSession& unit) { return unit.unit().hostSettings().mergeJson(unit.unit().key(), patch); },
            nullptr};
}

double decimalNumber(const std::string& name, const std::string& text, double low, double high)
{
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || !(v >= low && v <= high))
        usageError(name + " must be a number from " + formatFixed(low, 1) + " to " + formatFixed(high, 1) + " (got '" +
                   clipped(text) + "')");
    return v;
}

int boundedNumber(const std::string& name, const std::string& text, nkrhost::SettingRange range)
{
    return boundedNumber(name, text, static_cast<long long>(range.low), static_cast<long long>(range.high));
}

double decimalNumber(const std::string& name, const std::string& text, nkrhost::SettingRange range)
{
    return decimalNumber(name, text, range.low, range.high);
}

Change parseAssignment(const std::string& assignment)
{
    size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0)
        usageError("'" + clipped(assignment) + "' is not NAME=VALUE (for example backlash=20)");
    std::string name = assignment.substr(0, eq);
    std::string value = assignment.substr(eq + 1);

    if (name == "backlash")
        return intChange(name, boundedNumber(name, value, nkrhost::kBacklashRange), NKRSetBacklash, NKRGetBacklash);
    if (name == "max-step") {
        // The user's maximum: on the unit and in the host settings, so every
        // program keeps moves within it.
        const long long v = parseNumber(value, name);
        return {name, v, std::to_string(v), [v](UnitSession& unit) { return unit.unit().setMaximum(v); },
                [](int id, Json& out, std::string& text) {
                    int max = 0;
                    int rc = NKRGetMaxStep(id, &max);
                    out = max;
                    text = std::to_string(max);
                    return rc;
                },
                [v](UnitSession& unit) { return unit.unit().checkMaximum(v); }};
    }
    if (name == "force")
        return intChange(name, boundedNumber(name, value, 0, 15), NKRSetMaxForce, NKRGetMaxForce);
    if (name == "speed")
        return intChange(name, boundedNumber(name, value, nkrhost::kSpeedRange), NKRSetSpeed, NKRGetSpeed);
    if (name == "temp-coefficient") {
        const double v = decimalNumber(name, value, nkrhost::kTempCoefficientRange);
        return hostChange(name, v, formatFixed(v, 2) + " steps per" + degreesC(),
                          "{\"temp_comp\": {\"coefficient\": " + std::to_string(v) + "}}");
    }
    if (name == "temp-deadband") {
        const double v = decimalNumber(name, value, nkrhost::kTempDeadbandRange);
        return hostChange(name, v, formatFixed(v, 2) + degreesC(), "{\"temp_comp\": {\"deadband\": " + std::to_string(v) + "}}");
    }
    if (name == "step-size") {
        const double v = decimalNumber(name, value, nkrhost::kStepSizeRange);
        return hostChange(name, v, formatFixed(v, 3) + " microns per step", "{\"step_size_um\": " + std::to_string(v) + "}");
    }
    if (name == "approach") {
        std::string v = value;
        std::transform(v.begin(), v.end(), v.begin(), [](unsigned char c) { return std::tolower(c); });
        if (v == "off")
            return hostChange(name, v, "off", R"({"approach": {"enabled": false}})");
        if (v == "out" || v == "in")
            return hostChange(name, v, v == "out" ? "every move ends moving outward" : "every move ends moving inward",
                              std::string(R"({"approach": {"enabled": true, "direction": )") + (v == "out" ? "1" : "-1") + "}}");
        usageError("approach must be out, in or off (got '" + clipped(value) + "')");
    }
    if (name == "approach-overshoot") {
        const int v = boundedNumber(name, value, 0, 100000);
        return hostChange(name, v, std::to_string(v) + " steps", R"({"approach": {"overshoot": )" + std::to_string(v) + "}}");
    }
    if (name == "beep") return boolChange(name, parseSwitch(value, name), NKRSetBeep, NKRGetBeep);
    if (name == "reverse")
        return boolChange(name, parseSwitch(value, name), NKRSetReverse, NKRGetReverse);
    if (name == "led")
        return boolChange(name, parseSwitch(value, name), NKRSetLedState, NKRGetLedState);
    if (name == "alias") {
        if (value.size() > sizeof(_NKR_ID::id) || !printableAscii(value))
            usageError("alias must be at most 8 plain characters (got '" + clipped(value) + "')");
        _NKR_ID alias{};
        std::memcpy(alias.id, value.data(), value.size());
        return {name, value.empty() ? Json() : Json(value), value.empty() ? "cleared (the unit has no alias now)" : value,
                [alias, value](UnitSession& unit) {
                    return nkrhost::Status::fromSdk(NKRSetID(unit.id(), alias), "setting alias to '" + value + "'");
                },
                [](int id, Json& v, std::string& text) {
                    _NKR_INFO info{};
                    int rc = NKRGetProperty(id, &info);
                    if (rc == NKR_SUCCESS) {
                        const std::string alias = nkrhost::aliasFromName(info.Name, sizeof info.Name);
                        v = alias.empty() ? Json() : Json(alias);
                        text = alias.empty() ? "cleared (the unit has no alias now)" : alias;
                    }
                    return rc;
                }};
    }
    if (name == "ble-name") {
        if (value.empty() || value.size() > 11 || !printableAscii(value))
            usageError("ble-name must be 1 to 11 plain characters (got '" + clipped(value) + "')");
        _NKR_BLE_NAME bleName{};
        std::memcpy(bleName.name, value.data(), value.size());
        return {name, value, value,
                [bleName, value](UnitSession& unit) {
                    return nkrhost::Status::fromSdk(NKRSetBLEName(unit.id(), bleName), "setting ble-name to " + value);
                },
                nullptr};
    }
    usageError("unknown setting '" + clipped(name) +
               "'; settings are backlash, max-step, beep, reverse, force, speed, led, alias, ble-name, "
               "temp-coefficient, temp-deadband, step-size, approach, approach-overshoot");
}

// Every change is checked against the unit before any is sent: a setting
// the unit cannot read is one it cannot take either.
void refuseUnsupported(const std::vector<Change>& changes, const UnitSession& unit)
{
    for (const Change& c : changes) {
        if (!c.readBack) continue;
        Json value;
        std::string text;
        int rc = c.readBack(unit.id(), value, text);
        if (rc == NKR_ERROR_NOT_SUPPORTED)
            throw ToolError(unit.label() + " has no " + c.name + " setting, so nothing was changed: " +
                                formatErrorCode(rc),
                            rc, kExitDeviceError);
    }
}

int runSet(const SetOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = options.assignments;
    // An empty ID typed before the settings stays, so it is named as the missing unit.
    if (!options.id.empty() || !args.empty()) args.insert(args.begin(), options.id);
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    if (args.empty()) usageError("nothing to set: give NAME=VALUE, for example backlash=20");
    std::vector<Change> changes;
    for (const std::string& a : args) {
        Change change = parseAssignment(a);
        for (const Change& earlier : changes)
            if (earlier.name == change.name)
                usageError(change.name + " is given twice (" + earlier.text + " and " + change.text +
                           "); give each setting once");
        changes.push_back(std::move(change));
    }

    UnitSession unit(target);
    for (const Change& c : changes)
        if (c.precheck) fail(c.precheck(unit));
    for (const Change& c : changes)
        if (c.name == "ble-name" && !unit.isBle())
            usageError("ble-name can only be changed over Bluetooth, and " + unit.label() +
                       " is on USB; nothing was changed");
    refuseUnsupported(changes, unit);

    // Newer firmware runs at a fixed speed: the value is not sent at all.
    Firmware fw = readFirmware(unit.id());
    bool speedIgnored = fw.code == NKR_SUCCESS && fw.number() >= 336;
    std::vector<Change> sent;
    for (Change& c : changes) {
        if (c.name == "speed" && speedIgnored) {
            warn("firmware " + fw.text() +
                 " ignores the speed setting (3.3.6 and later run at a fixed speed); speed not changed");
            continue;
        }
        sent.push_back(c);
    }
    for (const Change& c : sent) fail(c.apply(unit));

    Json applied = Json::object();
    Json adjusted = Json::object();
    bool anyAdjusted = false;
    for (Change& c : sent) {
        Json value = c.value;
        std::string text = c.text;
        // Show what the unit now reports, which may differ (a clamped maximum).
        if (c.readBack && c.readBack(unit.id(), value, text) != NKR_SUCCESS) {
            value = c.value;
            text = c.text;
        }
        if (value.dump() != c.value.dump() && c.name != "alias") {
            warn(c.name + " " + c.text + " was not taken as is: the unit keeps " + text +
                 (c.name == "max-step" ? " (the largest its step range allows)" : ""));
            adjusted.set(jsonKey(c.name), c.value);
            anyAdjusted = true;
        }
        applied.set(jsonKey(c.name), value);
        if (!jsonMode()) sayField(c.name, text);
    }
    if (jsonMode()) {
        Json doc = Json::object().set("id", unit.id()).set("set", applied);
        if (anyAdjusted) doc.set("requested", adjusted);
        emitJson(doc);
    } else if (sent.empty()) {
        say("Nothing was changed on " + unit.label() + ".");
    } else {
        say(paint(Colour::Green, "Settings of " + unit.label() + " changed."));
    }
    return kExitOk;
}

}  // namespace

Command addSetCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<SetOptions>();
    CLI::App* sub = app.add_subcommand(
        "set",
        "Change settings of a unit, each given as NAME=VALUE: backlash=0..255 (steps), "
        "max-step=N (largest position), beep=on|off, reverse=on|off (motor direction), "
        "force=0..15 (motor force), speed=N (firmware before 3.3.6 only), led=on|off "
        "(battery model), alias=TEXT (up to 8 characters, shown in the name), "
        "ble-name=TEXT (up to 11 characters; over Bluetooth only); and kept by the host programs "
        "for the unit: temp-coefficient=S (steps per degree Celsius, signed), temp-deadband=D "
        "(degrees), step-size=MICRONS (per step), approach=out|in|off (the side every move ends "
        "from), approach-overshoot=N (steps past the target before coming back). All values "
        "are checked before any is sent; the values the unit then reports are shown.");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("SETTINGS", options->assignments, "One or more NAME=VALUE");
    sub->footer("Examples:\n  nkr set 0 backlash=20\n  nkr set 0 beep=off reverse=on max-step=50000\n  nkr set 1 alias=Main\n  nkr --ble \"NKR Pro_A1B2\" set ble-name=Scope1 led=off");
    return {sub, [options, &globals] { return runSet(*options, globals); }, false};
}

}  // namespace nkrtool
