#include "session.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "errors.h"
#include "interrupt.h"
#include "output.h"

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

int parseUsbId(const std::string& text)
{
    if (text.empty()) usageError("missing unit ID (a USB slot id from 'nkr list', or --ble NAME)");
    size_t used = 0;
    int id = -1;
    try {
        id = std::stoi(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || id < 0)
        usageError("'" + text + "' is not a unit ID: give the slot id shown by 'nkr list'");
    if (id >= NKR_BLE_FIRST_ID)
        usageError("ID " + text + " is a Bluetooth slot, which exists only while a program is "
                   "connected; name the unit with --ble NAME-OR-ADDRESS instead");
    return id;
}

UnitTarget takeTarget(std::vector<std::string>& args, const std::string& ble, int bleScanSeconds)
{
    UnitTarget target;
    target.ble = ble;
    target.bleScanSeconds = bleScanSeconds;
    if (ble.empty()) {
        if (args.empty()) usageError("missing unit ID (a USB slot id from 'nkr list', or --ble NAME)");
        target.usbId = parseUsbId(args.front());
        args.erase(args.begin());
    }
    return target;
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

UnitSession::UnitSession(const UnitTarget& target) : target_(target)
{
    if (target.usbId)
        openUsb(*target.usbId);
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
