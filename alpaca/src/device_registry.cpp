#include "device_registry.h"

#include <NKR_focuser.h>

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "log.h"

namespace alpaca {
namespace fs = std::filesystem;

namespace {

// Printable serials read as text; anything else as hex.
std::string serialText(const _NKR_SN& sn)
{
    bool printable = true;
    size_t len = 0;
    for (unsigned char c : sn.SN) {
        if (c == 0) break;
        if (!std::isprint(c)) printable = false;
        ++len;
    }
    if (printable && len > 0) return std::string(reinterpret_cast<const char*>(sn.SN), len);
    char hex[17];
    for (int i = 0; i < 8; ++i) std::snprintf(hex + 2 * i, 3, "%02X", sn.SN[i]);
    return hex;
}

std::string readSerial(int slot)
{
    _NKR_SN sn{};
    if (NKRGetSerialNumber(slot, &sn) == NKR_SUCCESS) return serialText(sn);
    return {};
}

// Codes that mean the unit's link is gone, rather than one failed request.
// A Bluetooth link that dropped refuses every send until it is made again.
bool isGone(const Unit& unit, int code)
{
    if (code == NKR_ERROR_BLE_NOT_OPEN || code == NKR_ERROR_INVALID_ID) return true;
    if (unit.bleName.empty()) return code == NKR_ERROR_REMOVED || code == NKR_ERROR_CLOSED;
    return code == NKR_ERROR_BLE_SEND;
}

// How long a Bluetooth scan for an attach lasts, in the SDK's milliseconds.
constexpr int kBleScanMs = 5000;
constexpr int kMaxScanned = 16;
// A dropped Bluetooth unit is tried again at most this often, so that
// clients polling it are not held up by a connect attempt on every request.
constexpr auto kBleRetryPeriod = std::chrono::seconds(5);

struct SeenUnit {
    std::string name;
    std::string address;
};

std::string fieldText(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

bool sameText(const std::string& a, const std::string& b)
{
    return !a.empty() && a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

// The unit a person meant: its exact name or address, else the only unit
// whose name begins with what they typed ("NKR Pro" for "NKR Pro_A1B2").
const SeenUnit* pickUnit(const std::vector<SeenUnit>& seen, const std::string& wanted, std::string& why)
{
    for (const SeenUnit& unit : seen)
        if (unit.name == wanted || sameText(unit.address, wanted)) return &unit;
    std::vector<const SeenUnit*> starts;
    for (const SeenUnit& unit : seen)
        if (unit.name.compare(0, wanted.size(), wanted) == 0) starts.push_back(&unit);
    if (starts.size() == 1) return starts.front();
    std::string list;
    for (const SeenUnit* unit : starts) list += (list.empty() ? "" : ", ") + unit->name;
    if (!starts.empty()) {
        why = "'" + wanted + "' is the beginning of several names (" + list + "); give the whole name";
        return nullptr;
    }
    for (const SeenUnit& unit : seen) list += (list.empty() ? "" : ", ") + unit.name + " [" + unit.address + "]";
    why = "no Bluetooth unit named '" + wanted + "' was found (seen: " + (list.empty() ? "none" : list) +
          "); check that it is on and near";
    return nullptr;
}

}  // namespace

DeviceRegistry::DeviceRegistry(std::string statePath) : statePath_(std::move(statePath)) { load(); }

DeviceRegistry::~DeviceRegistry()
{
    // Close what we opened so positions are saved.
    for (auto& unit : all()) {
        std::lock_guard lock(unit->io);
        if (unit->open && unit->slot >= 0) {
            if (unit->bleName.empty())
                NKRClose(unit->slot);
            else
                NKRBLEDisconnect(unit->slot);
        }
        unit->open = false;
    }
}

std::string DeviceRegistry::defaultStatePath()
{
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    fs::path base;
    if (xdg != nullptr && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        base = fs::path(home != nullptr && home[0] != '\0' ? home : "/tmp") / ".config";
    }
    return (base / "nkr-alpaca" / "devices.json").string();
}

void DeviceRegistry::load()
{
    if (statePath_.empty()) return;
    std::ifstream in(statePath_);
    if (!in) return;
    auto doc = nlohmann::json::parse(in, nullptr, false);
    if (!doc.is_object() || !doc["devices"].is_array()) {
        logWarn("ignoring unreadable device map " + statePath_);
        return;
    }
    for (auto& entry : doc["devices"]) {
        if (entry.is_object() && entry["serial"].is_string() && entry["number"].is_number_integer())
            known_.emplace_back(entry["serial"].get<std::string>(), entry["number"].get<int>());
    }
}

void DeviceRegistry::save() const
{
    if (statePath_.empty()) return;
    nlohmann::json doc;
    doc["devices"] = nlohmann::json::array();
    for (auto& [serial, number] : known_) doc["devices"].push_back({{"serial", serial}, {"number", number}});
    std::error_code ec;
    fs::create_directories(fs::path(statePath_).parent_path(), ec);
    std::string tmp = statePath_ + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << doc.dump(2) << "\n";
        if (!out) {
            logWarn("cannot write device map " + tmp);
            return;
        }
    }
    fs::rename(tmp, statePath_, ec);
    if (ec) logWarn("cannot write device map " + statePath_ + ": " + ec.message());
}

std::shared_ptr<Unit> DeviceRegistry::adopt(const std::string& reported, int slot, const std::string& bleName)
{
    std::lock_guard lock(listMutex_);
    // Units that report the same serial (factory default) are told apart by
    // a suffix in the order they are found.
    std::string serial = reported;
    for (int k = 2;; ++k) {
        bool taken = false;
        for (auto& unit : units_)
            if (unit->serial == serial && unit->slot >= 0 && unit->slot != slot) taken = true;
        if (!taken) break;
        serial = reported + "-" + std::to_string(k);
    }
    for (auto& unit : units_) {
        if (unit->serial == serial) {
            unit->slot = slot;
            return unit;
        }
    }
    int number = -1;
    for (auto& [s, n] : known_)
        if (s == serial) number = n;
    if (number < 0) {
        number = 0;
        for (auto& [s, n] : known_) number = std::max(number, n + 1);
        known_.emplace_back(serial, number);
        save();
    }
    auto unit = std::make_shared<Unit>();
    unit->number = number;
    unit->serial = serial;
    unit->uniqueId = "nkr-focuser-" + serial;
    unit->bleName = bleName;
    unit->slot = slot;
    units_.push_back(unit);
    std::sort(units_.begin(), units_.end(), [](auto& a, auto& b) { return a->number < b->number; });
    logInfo("focuser " + std::to_string(number) + " is unit " + serial +
            (bleName.empty() ? " (USB)" : " (Bluetooth " + bleName + ")"));
    return unit;
}

void DeviceRegistry::rescan()
{
    std::lock_guard scan(scanMutex_);
    int count = NKRGetNum();
    for (int i = 0; i < count; ++i) {
        int slot = -1;
        if (NKRGetID(i, &slot) != NKR_SUCCESS) continue;
        bool held = false;
        for (auto& unit : all())
            if (unit->slot == slot && unit->bleName.empty()) held = true;
        if (held) continue;
        if (NKROpen(slot) != NKR_SUCCESS) continue;
        std::string serial = readSerial(slot);
        NKRClose(slot);
        if (serial.empty()) serial = "usb-slot-" + std::to_string(slot);
        adopt(serial, slot, "");
    }
}

AttachResult DeviceRegistry::attachBle(const std::string& wanted)
{
    if (wanted.empty()) return {NKR_ERROR_INVALID_VALUE, "give the Bluetooth name or address of the unit"};

    // A unit attached before keeps its number; if its link is still held it
    // only needs to be wanted again.
    for (auto& unit : all()) {
        if (unit->bleName.empty() || (unit->bleName != wanted && !sameText(unit->bleAddress, wanted))) continue;
        std::lock_guard lock(unit->io);
        if (unit->slot >= 0) {
            unit->wanted = true;
            unit->open = true;
            return {NKR_SUCCESS, "focuser " + std::to_string(unit->number) + " is already attached"};
        }
    }

    std::vector<SeenUnit> seen;
    {
        std::lock_guard scan(scanMutex_);
        _BLE_DEVICE_INFO found[kMaxScanned]{};
        int count = 0;
        const int rc = NKRBLEScan(kBleScanMs, found, kMaxScanned, &count);
        if (rc != NKR_SUCCESS) return {rc, "Bluetooth scan failed: " + sdkErrorText(rc)};
        for (int i = 0; i < count && i < kMaxScanned; ++i)
            seen.push_back({fieldText(found[i].Name, sizeof found[i].Name),
                            fieldText(found[i].Address, sizeof found[i].Address)});
    }
    std::string why;
    const SeenUnit* match = pickUnit(seen, wanted, why);
    if (match == nullptr) return {NKR_ERROR_BLE_CONNECT, why};

    int slot = -1;
    int rc = NKRBLEConnect(match->name.c_str(), match->address.c_str(), &slot);
    if (rc != NKR_SUCCESS)
        return {rc, "cannot connect to " + match->name + " [" + match->address + "]: " + sdkErrorText(rc)};
    rc = NKRBLEPair(slot);
    if (rc != NKR_SUCCESS) {
        NKRBLEDisconnect(slot);
        return {rc, "pairing with " + match->name + " failed: " + sdkErrorText(rc) +
                        " (accept the pairing on the unit, then try again)"};
    }
    std::string serial = readSerial(slot);
    if (serial.empty()) serial = "ble-" + match->name;
    auto unit = adopt(serial, slot, match->name);
    std::lock_guard lock(unit->io);
    unit->bleAddress = match->address;
    unit->open = true;
    unit->wanted = true;
    return {NKR_SUCCESS, "focuser " + std::to_string(unit->number) + " is Bluetooth unit " + match->name + " [" +
                             match->address + "]"};
}

std::shared_ptr<Unit> DeviceRegistry::find(int number) const
{
    std::lock_guard lock(listMutex_);
    for (auto& unit : units_)
        if (unit->number == number) return unit;
    return nullptr;
}

std::vector<std::shared_ptr<Unit>> DeviceRegistry::all() const
{
    std::lock_guard lock(listMutex_);
    return units_;
}

void DeviceRegistry::markGone(Unit& unit)
{
    if (unit.slot < 0) return;
    logWarn("focuser " + std::to_string(unit.number) + " (" + unit.serial + ") is gone");
    // A Bluetooth id is given up so that the unit can be connected again.
    if (unit.bleName.empty())
        NKRClose(unit.slot);
    else
        NKRBLEDisconnect(unit.slot);
    unit.open = false;
    unit.slot = -1;
}

void DeviceRegistry::reattach(Unit& unit)
{
    if (!unit.bleName.empty()) return reconnectBle(unit);
    if (unit.slot < 0) rescan();
    if (unit.slot < 0 || unit.open || !unit.wanted) return;
    std::lock_guard scan(scanMutex_);
    if (NKROpen(unit.slot) == NKR_SUCCESS) {
        unit.open = true;
        logInfo("focuser " + std::to_string(unit.number) + " is back");
    }
}

void DeviceRegistry::reconnectBle(Unit& unit)
{
    if (unit.slot >= 0) {
        unit.open = true;  // the link was kept while the client was away
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (unit.lastBleRetry && now - *unit.lastBleRetry < kBleRetryPeriod) return;
    unit.lastBleRetry = now;
    int slot = -1;
    if (NKRBLEConnect(unit.bleName.c_str(), unit.bleAddress.c_str(), &slot) != NKR_SUCCESS) return;
    if (NKRBLEPair(slot) != NKR_SUCCESS) {
        NKRBLEDisconnect(slot);
        return;
    }
    unit.slot = slot;
    unit.open = true;
    unit.lastBleRetry.reset();  // a later drop is tried again at once
    logInfo("focuser " + std::to_string(unit.number) + " is back (Bluetooth " + unit.bleName + ")");
}

bool DeviceRegistry::connected(Unit& unit)
{
    std::lock_guard lock(unit.io);
    if (!unit.open && unit.wanted) reattach(unit);
    return unit.open;
}

DeviceError DeviceRegistry::call(Unit& unit, const std::function<int(int)>& fn)
{
    std::lock_guard lock(unit.io);
    if (!unit.open && unit.wanted) reattach(unit);
    if (!unit.open) return {kNotConnected, "focuser " + std::to_string(unit.number) + " is not connected"};
    int rc = fn(unit.slot);
    if (rc != NKR_SUCCESS && isGone(unit, rc)) {
        markGone(unit);
        return {kNotConnected, "focuser " + std::to_string(unit.number) + " is not connected: " + sdkErrorText(rc)};
    }
    return fromSdk(rc);
}

DeviceError DeviceRegistry::connect(Unit& unit)
{
    std::lock_guard lock(unit.io);
    unit.wanted = true;
    if (unit.open) return {};
    if (!unit.bleName.empty()) {
        unit.lastBleRetry.reset();  // a client asking now is tried at once
        reconnectBle(unit);
        return unit.open ? DeviceError{}
                         : DeviceError{kNotConnected, "Bluetooth unit " + unit.bleName + " is out of reach"};
    }
    if (unit.slot < 0) rescan();
    if (unit.slot < 0) return {kNotConnected, "focuser " + std::to_string(unit.number) + " is not plugged in"};
    int rc;
    {
        std::lock_guard scan(scanMutex_);
        rc = NKROpen(unit.slot);
    }
    if (rc != NKR_SUCCESS) {
        if (isGone(unit, rc)) unit.slot = -1;
        return {kNotConnected, "cannot open focuser " + std::to_string(unit.number) + ": " + sdkErrorText(rc)};
    }
    unit.open = true;
    logInfo("focuser " + std::to_string(unit.number) + " connected");
    return {};
}

DeviceError DeviceRegistry::disconnect(Unit& unit)
{
    std::lock_guard lock(unit.io);
    unit.wanted = false;
    if (!unit.open) return {};
    if (unit.bleName.empty()) NKRClose(unit.slot);  // saves position and settings
    unit.open = false;
    logInfo("focuser " + std::to_string(unit.number) + " disconnected");
    return {};
}

}  // namespace alpaca
