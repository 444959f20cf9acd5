// nkr info: everything one unit can tell about itself. A value the unit
// cannot give is shown as "not supported" or "unavailable", never as an
// error, so one missing feature does not hide the rest.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "output.h"
#include "report.h"
#include "saved_store.h"
#include "session.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

struct InfoOptions {
    std::string id;
};

void addIdentity(Report& r, UnitSession& unit, const Identity& ident, const Controls& controls)
{
    r.section("unit", "Unit");
    r.add("id", "id", unit.id(), std::to_string(unit.id()));
    r.add("link", "link", unit.isBle() ? "ble" : "usb", unit.isBle() ? "Bluetooth LE" : "USB");
    r.add("name", "name", ident.name, ident.name);
    r.add("alias", "alias", ident.alias.empty() ? Json() : Json(ident.alias),
          ident.alias.empty() ? "(none)" : ident.alias);
    r.addRead("firmware", "firmware", ident.firmware.code, ident.firmware.text(), ident.firmware.text());
    r.addRead("type", "type", ident.modelCode, ident.model, ident.model.empty() ? "(none)" : ident.model);
    r.addRead("serial", "serial number", ident.serialCode, ident.serial, ident.serial);
    const nkrhost::Status updating = unit.unit().checkNotInUpdateMode();
    r.add("update_mode", "firmware update", !updating.ok(),
          updating.ok() ? "none pending" : paint(Colour::Yellow, updating.message));
    // The Bluetooth name can only be read over USB, from units that have a radio.
    if (unit.isBle()) {
        r.add("ble_name", "Bluetooth name", unit.bleName(), unit.bleName());
        r.add("ble_address", "Bluetooth address", unit.bleAddress(), unit.bleAddress());
    } else if (!controls.has(kFeatureBleName)) {
        r.addUnavailable("ble_name", "Bluetooth name", "not supported");
    } else {
        char name[64] = {};
        int code = NKRGetBLEName(unit.id(), name);
        std::string text = printableText(name, sizeof name);
        r.addRead("ble_name", "Bluetooth name", code, text, text);
    }
}

void addStatus(Report& r, int id, const Reading& st)
{
    r.section("status", "Status");
    r.addRead("position", "position", st.positionCode, st.position, std::to_string(st.position));
    r.addRead("moving", "moving", st.movingCode, st.moving, yesNo(st.moving));
    r.addRead("hand_moving", "hand-controller move", st.movingCode, st.handMoving, yesNo(st.handMoving));
    int speed = 0;
    int code = NKRGetSpeed(id, &speed);
    r.addRead("speed", "speed", code, speed, std::to_string(speed));
    r.addRead("temperature", "temperature", st.temperatureCode, st.temperature,
              formatFixed(st.temperature, 2) + degreesC());
}

void addSettings(Report& r, UnitSession& unit, const Controls& controls)
{
    const int id = unit.id();
    r.section("settings", "Settings");
    int value = 0;
    bool flag = false;
    nkrhost::Status max = unit.unit().maximum(value);
    r.addRead("max_step", "maximum position", max.code, value, std::to_string(value));
    int code = NKR_SUCCESS;
    code = NKRStepRange(id, &value);
    r.addRead("step_range", "step range", code, value, "0.." + std::to_string(value));
    code = NKRGetBacklash(id, &value);
    r.addRead("backlash", "backlash", code, value, std::to_string(value) + " steps");
    code = NKRGetBeep(id, &flag);
    r.addRead("beep", "beep", code, flag, onOff(flag));
    code = NKRGetReverse(id, &flag);
    r.addRead("reverse", "reverse", code, flag, onOff(flag));
    code = NKRGetMaxForce(id, &value);
    r.addRead("force", "motor force", code, value, std::to_string(value) + " of 15");
    if (controls.has(kFeatureLed)) {
        code = NKRGetLedState(id, &flag);
        r.addRead("led", "LED", code, flag, onOff(flag));
    } else {
        r.addUnavailable("led", "LED", "not supported");
    }
}

// What the host programs keep for the unit, beside what the unit keeps.
void addHostSettings(Report& r, UnitSession& unit)
{
    nkrhost::UnitSettings s;
    if (!unit.unit().settings(s).ok()) return;
    r.section("host", "Kept by the host programs");
    r.add("step_size", "step size", s.stepSizeMicrons ? Json(*s.stepSizeMicrons) : Json(),
          s.stepSizeMicrons ? formatFixed(*s.stepSizeMicrons, 3) + " microns" : "not set");
    r.add("temp_comp", "temp. compensation", s.tempComp.enabled,
          onOff(s.tempComp.enabled) + ", " + formatFixed(s.tempComp.coefficient, 2) + " steps per" + degreesC() +
              ", dead band " + formatFixed(s.tempComp.deadband, 2) + degreesC());
    r.add("temp_coefficient", "", s.tempComp.coefficient, "");
    r.add("temp_deadband", "", s.tempComp.deadband, "");
    r.add("approach", "final approach",
          s.approach.enabled ? Json(s.approach.direction > 0 ? "out" : "in") : Json("off"),
          s.approach.enabled ? std::string(s.approach.direction > 0 ? "outward" : "inward") + ", overshoot " +
                                   std::to_string(s.approach.overshoot) + " steps"
                             : "off");
    Json positions = Json::object();
    std::string names;
    for (const auto& [name, value] : s.positions) {
        positions.set(name, value);
        names += (names.empty() ? "" : ", ") + name + " " + std::to_string(value);
    }
    r.add("positions", "named positions", positions, names.empty() ? "none" : names);
}

// The library's store of the position a unit trusts at power-up: where it
// is and who may change it (the library shares it with every local account
// on purpose; the README's security notes say how to narrow that).
void addSavedStore(Report& r)
{
    const SavedStore s = savedStore();
    r.section("saved_record", "The library's saved record (restored at power-up)");
    r.add("file", "file", s.file.empty() ? Json() : Json(s.file),
          s.file.empty() ? "no home folder" : s.file + (s.fileExists ? "  " + modeText(s.fileMode, false) : "  (not written yet)"));
    r.add("folder", "folder", s.folder.empty() ? Json() : Json(s.folder),
          s.folder.empty() ? "no home folder"
                           : s.folder + (s.folderExists ? "  " + modeText(s.folderMode, true) : "  (not made yet)"));
    r.add("others_may_change", "other accounts",
          s.othersMayChange, s.othersMayChange ? "may change it (see the README's security notes)" : "cannot change it");
    r.add("file_mode", "", s.fileExists ? Json(octalMode(s.fileMode)) : Json(), "");
    r.add("folder_mode", "", s.folderExists ? Json(octalMode(s.folderMode)) : Json(), "");
}

void addBattery(Report& r, int id, const Controls& controls)
{
    if (!controls.has(kFeatureBattery)) {
        r.sectionUnavailable("battery", "Battery", "not supported");
        return;
    }
    r.section("battery", "Battery");
    const char* keys[] = {"temperature", "voltage", "charge_current", "percentage",
                          "discharge_current", "health", "charge_voltage"};
    const char* labels[] = {"temperature", "voltage", "charge current", "charge",
                            "discharge current", "health", "charge voltage"};
    // The firmware reports millivolts, milliamperes and percent.
    const std::string units[] = {degreesC(), " mV", " mA", " %", " mA", " %", " mV"};
    _NKR_BATTERY_INFO b{};
    int code = NKRGetBatteryInfo(id, &b);
    const int values[] = {b.battery_temp,           b.battery_vol,    b.battery_charge_curr,
                          b.battery_percentage,     b.battery_discharge_curr,
                          b.battery_health,         b.battery_charge_vol};
    for (size_t k = 0; k < std::size(values); ++k)
        r.addRead(keys[k], labels[k], code, values[k], std::to_string(values[k]) + units[k]);
}

void addDiagnostics(Report& r, int id, const Controls& controls)
{
    r.section("diagnostics", "Diagnostics");
    if (controls.has(kFeatureErrorCodes)) {
        _NKR_ERROR_MSG msg{};
        int code = NKRGetErrorCode(id, &msg);
        std::string motor = printableText(msg.MotorErrCode, sizeof msg.MotorErrCode);
        std::string battery = printableText(msg.BatteryErrCode, sizeof msg.BatteryErrCode);
        r.addRead("motor_error", "motor error code", code, motor, motor.empty() ? "(none)" : motor);
        r.addRead("battery_error", "battery error code", code, battery,
                  battery.empty() ? "(none)" : battery);
    } else {
        r.addUnavailable("motor_error", "motor error code", "not supported");
        r.addUnavailable("battery_error", "battery error code", "not supported");
    }
    // The power-off reason belongs to the battery model.
    if (controls.has(kFeatureBattery)) {
        int reason = 0;
        int code = NKRGetReason(id, &reason);
        const std::string name = reason == 0 ? "normal" : "shipping mode";
        r.addRead("power_off_reason", "last power-off", code, reason,
                  name + " (reason " + std::to_string(reason) + ")");
        r.addRead("power_off_reason_name", "", code, name, "");
    } else {
        r.addUnavailable("power_off_reason", "last power-off", "not supported");
    }
}

void printControls(const Controls& controls)
{
    sayHeading("Controls");
    if (controls.code != NKR_SUCCESS) {
        sayField("controls", paint(Colour::Dim, unavailableText(controls.code)));
        return;
    }
    std::vector<std::vector<std::string>> rows;
    for (const Control& c : controls.list)
        rows.push_back({"  " + c.name, c.supported ? "supported" : "not supported",
                        c.writable ? "settable" : "read-only", c.description});
    printTable({"  FEATURE", "SUPPORT", "ACCESS", "DESCRIPTION"}, rows);
}

int runInfo(const InfoOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    rejectExtraArgs(args, target);
    UnitSession unit(target, UnitSession::Access::ReadOnly);

    const Identity& ident = unit.unit().identity();
    Controls controls = readControls(unit.id());
    Reading st = readStatus(unit.id());

    Report r;
    addIdentity(r, unit, ident, controls);
    addStatus(r, unit.id(), st);
    addSettings(r, unit, controls);
    addHostSettings(r, unit);
    addSavedStore(r);
    addBattery(r, unit.id(), controls);
    addDiagnostics(r, unit.id(), controls);

    if (jsonMode()) {
        Json doc = r.toJson();
        doc.set("controls", controls.code == NKR_SUCCESS ? controlsJson(controls) : Json());
        emitJson(doc);
    } else {
        r.print();
        printControls(controls);
    }
    return kExitOk;
}

}  // namespace

Command addInfoCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<InfoOptions>();
    CLI::App* sub = app.add_subcommand(
        "info",
        "Show everything one unit reports: identity (name, alias, firmware, type, serial), "
        "position and motion, settings (maximum, step range, backlash, beep, reverse, force, "
        "LED), temperature, its optional features, and on battery models the battery, error "
        "codes and last power-off reason; then where the library keeps the position it restores "
        "at power-up, with the modes of that file and folder. Values the unit cannot give are shown as "
        "\"not supported\" or \"unavailable\".");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->footer("Examples:\n  nkr info 0\n  nkr --ble \"NKR Pro_A1B2\" info\n  nkr --json info 0");
    return {sub, [options, &globals] { return runInfo(*options, globals); }, false};
}

}  // namespace nkrtool
