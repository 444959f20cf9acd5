// nkr list: every focuser this computer can reach, one line each.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "commands.h"
#include "errors.h"
#include "output.h"
#include "session.h"
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

// Opens the unit to read who it is, and leaves it open: a close would save
// position and settings, rewriting the settings file for a mere look.
void listUsbUnit(int id, Json& units, std::vector<std::vector<std::string>>& rows)
{
    Json unit = Json::object().set("link", "usb").set("id", id);
    int openCode = NKROpen(id);
    if (openCode != NKR_SUCCESS) {
        unit.set("error", formatErrorCode(openCode));
        units.push(unit);
        rows.push_back({std::to_string(id), "usb", "NKR", "-", "-", "-",
                        std::string("cannot open: ") + describeError(openCode).name});
        return;
    }
    Identity ident = readIdentity(id);

    unit.set("name", ident.name)
        .set("alias", ident.alias.empty() ? Json() : Json(ident.alias))
        .set("firmware", ident.firmware.code == NKR_SUCCESS ? Json(ident.firmware.text()) : Json())
        .set("type", ident.typeCode == NKR_SUCCESS && !ident.type.empty() ? Json(ident.type) : Json())
        .set("max_step", ident.stepRange)
        .set("serial", ident.serialCode == NKR_SUCCESS ? Json(ident.serial) : Json());
    units.push(unit);
    rows.push_back({std::to_string(id), "usb", ident.name,
                    orDash(ident.firmware.code, ident.firmware.text()),
                    orDash(ident.typeCode, ident.type), std::to_string(ident.stepRange),
                    orDash(ident.serialCode, ident.serial)});
}

int runList(const ListOptions& options)
{
    Json units = Json::array();
    std::vector<std::vector<std::string>> rows;
    std::vector<int> slots = scanUsbSlots();
    for (int id : slots) listUsbUnit(id, units, rows);

    size_t bleCount = 0;
    std::string bleError;  // a failed Bluetooth scan still lists the USB units
    if (options.bleSeconds > 0) {
        if (interactive())
            say(paint(Colour::Dim, "Looking for Bluetooth units for " +
                                       std::to_string(options.bleSeconds) + " s..."));
        try {
            for (const BleUnit& u : scanBluetooth(options.bleSeconds)) {
                units.push(Json::object().set("link", "ble").set("name", u.name).set("address", u.address));
                rows.push_back({"-", "ble", u.name, "-", "-", "-", u.address});
                ++bleCount;
            }
        } catch (const ToolError& e) {
            bleError = e.what();
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
        printTable({"ID", "LINK", "NAME", "FIRMWARE", "TYPE", "MAX STEP", "SERIAL/ADDRESS"}, rows);
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
        "alias), firmware, type, maximum step (its step range) and serial number; with --ble also the "
        "Bluetooth units in range (name and address).");
    sub->add_option("--ble", options->bleSeconds,
                    "Also scan for Bluetooth units for this many seconds")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 60));
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
