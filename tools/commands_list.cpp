// nkr list: every focuser this computer can reach, one line each.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "output.h"
#include "nkrhost/link.h"
#include "nkrhost/unit.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

struct ListOptions {
    int bleSeconds = 0;
};

std::string orDash(int code, const std::string& text)
{
    return code == NKR_SUCCESS && !text.empty() ? text : "-";
}

Json orNull(const std::string& text) { return text.empty() ? Json() : Json(text); }

// Every unit was opened to read who it is, and left open: a close would save
// position and settings for a mere look, and stop a move another program runs.
void listUsbUnit(const Identity& ident, Json& units, std::vector<std::vector<std::string>>& rows)
{
    int maximum = 0;
    const nkrhost::HostSettings settings;
    const nkrhost::Status max = nkrhost::maximumOf(ident, settings, maximum);
    nkrhost::UnitSettings kept;
    const bool updating = settings.read(ident.key(), kept).ok() && kept.pendingUpdate.has_value();
    units.push(Json::object()
                   .set("link", "usb")
                   .set("id", ident.slot)
                   .set("name", ident.name)
                   .set("alias", orNull(ident.alias))
                   .set("firmware", ident.firmware.code == NKR_SUCCESS ? Json(ident.firmware.text()) : Json())
                   .set("type", orNull(ident.model))
                   .set("step_range", ident.stepRange)
                   .set("max_step", max.ok() ? Json(maximum) : Json())
                   .set("serial", orNull(ident.serial))
                   .set("update_mode", updating));
    const std::string firmware = orDash(ident.firmware.code, ident.firmware.text());
    rows.push_back({std::to_string(ident.slot), "usb", ident.name, updating ? firmware + " (updating)" : firmware,
                    orDash(ident.modelCode, ident.model), std::to_string(ident.stepRange),
                    max.ok() ? std::to_string(maximum) : "-", orDash(ident.serialCode, ident.serial)});
}

int runList(const ListOptions& options)
{
    Json units = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const Identity& ident : nkrhost::identifyUsbUnits()) listUsbUnit(ident, units, rows);

    size_t bleCount = 0;
    std::string bleError;  // a failed Bluetooth scan still lists the USB units
    if (options.bleSeconds > 0) {
        if (interactive())
            say(paint(Colour::Dim, "Looking for Bluetooth units for " +
                                       std::to_string(options.bleSeconds) + " s..."));
        std::vector<nkrhost::SeenUnit> found;
        nkrhost::Status scanned = nkrhost::scanBluetooth(found, options.bleSeconds * 1000);
        if (!scanned.ok()) bleError = scanned.message;
        for (const nkrhost::SeenUnit& u : found) {
            units.push(Json::object().set("link", "ble").set("name", u.bleName).set("address", u.bleAddress));
            rows.push_back({"-", "ble", u.bleName, "-", "-", "-", "-", u.bleAddress});
            ++bleCount;
        }
    }

    if (jsonMode()) {
        Json doc = Json::object().set("units", units).set("ble_scanned", options.bleSeconds > 0);
        if (!bleError.empty()) doc.set("ble_error", bleError);
        emitJson(doc);
        if (!bleError.empty()) printErrorMessage(bleError);
        return bleError.empty() ? kExitOk : kExitDeviceError;
    }
    if (rows.empty()) {
        say("No focusers found.");
    } else {
        printTable({"ID", "LINK", "NAME", "FIRMWARE", "TYPE", "STEP RANGE", "MAX STEP", "SERIAL/ADDRESS"}, rows);
    }
    if (options.bleSeconds <= 0)
        say(paint(Colour::Dim, "(add --ble SECONDS to look for Bluetooth units as well)"));
    else if (bleCount > 0)
        say(paint(Colour::Dim, "(use a Bluetooth unit with: nkr --ble \"NAME\" COMMAND)"));
    if (!bleError.empty()) {
        printErrorMessage(bleError);
        return kExitDeviceError;
    }
    return kExitOk;
}

}  // namespace

Command addListCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<ListOptions>();
    CLI::App* sub = app.add_subcommand(
        "list",
        "List the focusers this computer can reach: for each USB unit its ID, name (with "
        "alias), firmware, type, step range (the largest position its firmware takes), the "
        "maximum position set for it (which every program keeps moves within) and serial "
        "number; with --ble also the "
        "Bluetooth units in range (name and address).");
    sub->add_option("--ble", options->bleSeconds,
                    "Also scan for Bluetooth units for this many seconds")
        ->type_name("SECONDS")
        ->check(numberIn(0, 60, true, "seconds"));
    sub->footer("Examples:\n  nkr list\n  nkr list --ble 3\n  nkr --json list --ble 3");
    return {sub,
            [options, &globals] {
                // "nkr --ble 3 list" puts the seconds on the global option.
                if (!globals.ble.empty())
                    usageError("list takes the scan time after the command: nkr list --ble SECONDS");
                return runList(*options);
            },
            false};
}

}  // namespace nkrtool
