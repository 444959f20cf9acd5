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
#include "nkrhost/setting_catalogue.h"
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

// One checked change, ready to send: a setting of the host layer's
// catalogue and a value it accepts.
struct Change {
    const nkrhost::SettingInfo* info;
    nkrhost::SettingValue value;
    std::string name() const { return info->name; }
};

Json jsonOf(const nkrhost::SettingInfo& info, const nkrhost::SettingValue& v)
{
    switch (info.type) {
    case nkrhost::SettingType::Whole: return Json(static_cast<long long>(v.number));
    case nkrhost::SettingType::Decimal: return Json(v.number);
    case nkrhost::SettingType::Switch: return Json(v.number != 0);
    default: return v.text.empty() ? Json() : Json(v.text);
    }
}

std::string shownText(const nkrhost::SettingInfo& info, const nkrhost::SettingValue& v)
{
    const std::string name = info.name;
    if (name == "alias" && v.text.empty()) return "cleared (the unit has no alias now)";
    if (name == "approach")
        return v.text == "off" ? "off" : v.text == "out" ? "every move ends moving outward" : "every move ends moving inward";
    std::string text = nkrhost::settingText(info, v);
    if (name == "temp-coefficient") return formatFixed(v.number, 2) + " steps per" + degreesC();
    if (name == "temp-deadband") return formatFixed(v.number, 2) + degreesC();
    if (name == "step-size") return formatFixed(v.number, 3) + " microns per step";
    if (name == "approach-overshoot") return text + " steps";
    return text;
}

Change parseAssignment(const std::string& assignment)
{
    size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0)
        usageError("'" + clipped(assignment) + "' is not NAME=VALUE (for example backlash=20)");
    const std::string name = assignment.substr(0, eq);
    const nkrhost::SettingInfo* info = nkrhost::findSetting(name);
    if (info == nullptr) usageError("unknown setting '" + clipped(name) + "'; settings are " + nkrhost::settingNames());
    Change change{info, {}};
    fail(nkrhost::parseSetting(*info, assignment.substr(eq + 1), change.value));
    return change;
}

// Every change is checked against the unit before any is sent: a setting
// the unit cannot read is one it cannot take either.
void refuseUnsupported(const std::vector<Change>& changes, UnitSession& unit)
{
    for (const Change& c : changes) {
        if (c.info->home != nkrhost::SettingHome::Unit) continue;
        if (c.name() == "ble-name" && !unit.isBle())
            usageError("ble-name can only be changed over Bluetooth, and " + unit.label() +
                       " is on USB; nothing was changed");
        if (c.name() == "max-step") fail(unit.unit().checkMaximum(static_cast<long long>(c.value.number)));
        nkrhost::SettingValue now;
        nkrhost::Status read = nkrhost::readSetting(unit.unit(), *c.info, now);
        if (read.code == NKR_ERROR_NOT_SUPPORTED)
            throw ToolError(unit.label() + " has no " + c.name() + " setting, so nothing was changed: " +
                                formatErrorCode(read.code),
                            read.code, kExitDeviceError);
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
            if (earlier.info == change.info)
                usageError(change.name() + " is given twice (" + nkrhost::settingText(*earlier.info, earlier.value) +
                           " and " + nkrhost::settingText(*change.info, change.value) + "); give each setting once");
        changes.push_back(std::move(change));
    }

    // The unit's own settings are written by its holder only; the host
    // programs' settings may be changed from anywhere, and reach the holder.
    const bool onUnit = std::any_of(changes.begin(), changes.end(),
                                    [](const Change& c) { return c.info->home == nkrhost::SettingHome::Unit; });
    UnitSession unit(target, onUnit ? UnitSession::Access::Drive : UnitSession::Access::ReadOnly);
    refuseUnsupported(changes, unit);

    // Newer firmware runs at a fixed speed: the value is not sent at all.
    Firmware fw = readFirmware(unit.id());
    bool speedIgnored = fw.code == NKR_SUCCESS && fw.number() >= 336;
    std::vector<Change> sent;
    for (Change& c : changes) {
        if (c.name() == "speed" && speedIgnored) {
            warn("firmware " + fw.text() +
                 " ignores the speed setting (3.3.6 and later run at a fixed speed); speed not changed");
            continue;
        }
        sent.push_back(c);
    }
    for (const Change& c : sent)
        fail(onUnit ? unit.session().writeSetting(*c.info, c.value) : nkrhost::writeSetting(unit.unit(), *c.info, c.value));

    Json applied = Json::object();
    for (Change& c : sent) {
        // Show what the unit now reports (a Bluetooth name cannot be read over Bluetooth).
        nkrhost::SettingValue now = c.value;
        if (c.name() == "ble-name" || !nkrhost::readSetting(unit.unit(), *c.info, now).ok()) now = c.value;
        applied.set(jsonKey(c.name()), jsonOf(*c.info, now));
        if (!jsonMode()) sayField(c.name(), shownText(*c.info, now));
    }
    if (jsonMode()) {
        emitJson(Json::object().set("id", unit.id()).set("set", applied));
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
