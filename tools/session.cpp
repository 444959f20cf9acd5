#include "session.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "errors.h"
#include "interrupt.h"
#include "output.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

// The helper library's scan time-out is in milliseconds.
constexpr int kScanUnitsPerSecond = 1000;
constexpr int kMaxScanResults = 16;

bool sameAddress(const std::string& a, const std::string& b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string joinIds(const std::vector<int>& ids)
{
    std::string out;
    for (int id : ids) out += (out.empty() ? "" : ", ") + std::to_string(id);
    return out.empty() ? "none" : out;
}

}  // namespace

bool isUnitName(const std::string& text)
{
    bool number = !text.empty() && text.size() <= 3 &&
                  std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    bool signedNumber = text.size() > 1 && (text[0] == '-' || text[0] == '+') &&
                        std::all_of(text.begin() + 1, text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    return !number && !signedNumber;
}

int parseUsbId(const std::string& text)
{
    const std::string range = "USB units have slot ids 0 to " + std::to_string(NKR_BLE_FIRST_ID - 1) +
                              " (see 'nkr list'); a unit may also be named by its serial number or alias";
    if (text.empty()) usageError("missing unit ID (a USB slot id from 'nkr list', or --ble NAME)");
    bool digits = text.size() <= 9 && std::all_of(text.begin(), text.end(), [](unsigned char c) {
                      return std::isdigit(c) != 0;
                  });
    if (!digits) usageError("'" + clipped(text) + "' is not a unit ID: " + range);
    int id = std::stoi(text);
    if (id >= NKR_BLE_FIRST_ID && id < NKR_MAX_SLOTS)
        usageError("ID " + text + " is a Bluetooth slot, which exists only while a program is "
                   "connected; name the unit with --ble NAME-OR-ADDRESS instead");
    if (id >= NKR_BLE_FIRST_ID) usageError("ID " + text + " is out of range: " + range);
    return id;
}

UnitTarget takeTarget(std::vector<std::string>& args, const std::string& ble, int bleScanSeconds)
{
    UnitTarget target;
    target.ble = ble;
    target.bleScanSeconds = bleScanSeconds;
    if (ble.empty()) {
        if (args.empty()) usageError("missing unit ID (a USB slot id from 'nkr list', or --ble NAME)");
        if (isUnitName(args.front()))
            target.usbName = args.front();
        else
            target.usbId = parseUsbId(args.front());
        args.erase(args.begin());
    }
    return target;
}

void rejectExtraArgs(const std::vector<std::string>& args, const UnitTarget& target)
{
    if (args.empty()) return;
    if (!target.ble.empty())
        usageError("unexpected argument '" + clipped(args.front()) +
                   "': --ble already names the unit, so no ID is given");
    usageError("unexpected argument '" + clipped(args.front()) + "'");
}

std::vector<BleUnit> scanBluetooth(int seconds)
{
    _BLE_DEVICE_INFO found[kMaxScanResults] = {};
    int count = 0;
    check(NKRBLEScan(std::max(seconds, 1) * kScanUnitsPerSecond, found, kMaxScanResults, &count),
          "Bluetooth scan");
    std::vector<BleUnit> units;
    for (int k = 0; k < count && k < kMaxScanResults; ++k)
        units.push_back({printableText(found[k].Name, sizeof found[k].Name),
                         printableText(found[k].Address, sizeof found[k].Address)});
    return units;
}

std::vector<int> scanUsbSlots()
{
    std::vector<int> slots;
    int count = NKRGetNum();
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (NKRGetID(index, &id) == NKR_SUCCESS && id >= 0) slots.push_back(id);
    }
    return slots;
}

UnitSession::UnitSession(const UnitTarget& target, Access access) : target_(target)
{
    leaveOpen_ = access == Access::ReadOnly;
    if (target.usbId)
        openUsb(*target.usbId);
    else if (!target.usbName.empty())
        openUsbByName(target.usbName);
    else
        openBle();
}

UnitSession::~UnitSession()
{
    if (!leaveOpen_) close();
}

void UnitSession::openUsb(int slot)
{
    std::vector<int> slots = scanUsbSlots();
    if (slots.empty())
        throw ToolError("no USB focuser is connected (check the cable, and permissions with "
                        "ls -l /dev/hidraw*): " + formatErrorCode(NKR_ERROR_INVALID_ID),
                        NKR_ERROR_INVALID_ID, kExitUsage);
    if (std::find(slots.begin(), slots.end(), slot) == slots.end())
        throw ToolError("no USB focuser with ID " + std::to_string(slot) + " (IDs found: " +
                            joinIds(slots) + "): " + formatErrorCode(NKR_ERROR_INVALID_ID),
                        NKR_ERROR_INVALID_ID, kExitUsage);
    check(NKROpen(slot), "opening USB unit " + std::to_string(slot));
    id_ = slot;
    ble_ = false;
    open_ = true;
    label_ = "USB unit " + std::to_string(slot);
}

// Only an open unit tells its serial number and alias, so each is opened in
// turn; the ones that do not match are left open rather than closed, since a
// close would rewrite the settings file.
void UnitSession::openUsbByName(const std::string& name)
{
    std::vector<int> slots = scanUsbSlots();
    std::vector<int> matches;
    std::string seen;
    for (int slot : slots) {
        if (NKROpen(slot) != NKR_SUCCESS) continue;
        Identity ident = readIdentity(slot);
        bool serial = ident.serialCode == NKR_SUCCESS && sameAddress(ident.serial, name);
        if (serial || (!ident.alias.empty() && ident.alias == name)) matches.push_back(slot);
        seen += (seen.empty() ? "" : ", ") + std::to_string(slot) + " " + ident.serial +
                (ident.alias.empty() ? "" : " (" + ident.alias + ")");
    }
    if (matches.empty())
        throw ToolError("no USB focuser has the serial number or alias '" + clipped(name) + "' (units: " +
                            (seen.empty() ? "none" : seen) + ")",
                        NKR_ERROR_INVALID_ID, kExitUsage);
    if (matches.size() > 1)
        throw ToolError("several USB focusers answer to '" + clipped(name) + "' (ids " + joinIds(matches) +
                            "); name one by its serial number or slot id",
                        NKR_ERROR_INVALID_ID, kExitUsage);
    id_ = matches.front();
    ble_ = false;
    open_ = true;
    label_ = "USB unit " + std::to_string(id_) + " (" + name + ")";
}

void UnitSession::openBle()
{
    std::vector<BleUnit> units = scanBluetooth(target_.bleScanSeconds);
    auto match = std::find_if(units.begin(), units.end(), [&](const BleUnit& u) {
        return u.name == target_.ble || sameAddress(u.address, target_.ble);
    });
    if (match == units.end()) {
        std::string seen;
        for (const BleUnit& u : units) seen += (seen.empty() ? "" : ", ") + u.name + " [" + u.address + "]";
        throw ToolError("no Bluetooth focuser named '" + target_.ble + "' was found (seen: " +
                            (seen.empty() ? "none" : seen) +
                            "); check it is on and near, or scan longer with --ble-scan",
                        NKR_ERROR_BLE_CONNECT, kExitUsage);
    }
    bleName_ = match->name;
    bleAddress_ = match->address;
    int id = -1;
    check(NKRBLEConnect(bleName_.c_str(), bleAddress_.c_str(), &id),
          "connecting to Bluetooth unit " + bleName_);
    id_ = id;
    ble_ = true;
    open_ = true;
    label_ = "Bluetooth unit " + bleName_;
    int rc = NKRBLEPair(id_);
    if (rc != NKR_SUCCESS) {
        close();
        check(rc, "pairing with Bluetooth unit " + bleName_);
    }
}

void UnitSession::close()
{
    if (!open_) return;
    open_ = false;
    if (ble_)
        NKRBLEDisconnect(id_);
    else
        NKRClose(id_);
}

void UnitSession::reopen(int retrySeconds)
{
    close();
    // Poll four times a second until the unit is back or time is up.
    const int attempts = std::max(1, retrySeconds * 4);
    for (int attempt = 1;; ++attempt) {
        try {
            if (ble_)
                openBle();
            else
                openUsb(id_);
            return;
        } catch (const ToolError&) {
            if (attempt >= attempts || sleepUnlessInterrupted(250)) throw;
        }
    }
}

}  // namespace nkrtool
