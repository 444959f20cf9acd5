#include "device_registry.h"

#include <NKR_focuser.h>

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

bool isGone(int code)
{
    return code == NKR_ERROR_REMOVED || code == NKR_ERROR_CLOSED ||
           code == NKR_ERROR_BLE_NOT_OPEN || code == NKR_ERROR_INVALID_ID;
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

int DeviceRegistry::attachBle(const std::string& name)
{
    int slot = -1;
    int rc;
    {
        std::lock_guard scan(scanMutex_);
        rc = NKRBLEConnect(name.c_str(), "", &slot);
        if (rc != NKR_SUCCESS) {
            // Some helpers need the address from a scan.
            _BLE_DEVICE_INFO found[16]{};
            int count = 0;
            if (NKRBLEScan(5, found, 16, &count) == NKR_SUCCESS) {
                for (int i = 0; i < count && i < 16; ++i)
                    if (name == found[i].Name) rc = NKRBLEConnect(name.c_str(), found[i].Address, &slot);
            }
        }
    }
    if (rc != NKR_SUCCESS) return rc;
    NKRBLEPair(slot);  // first use pairs; an already paired unit just answers
    std::string serial = readSerial(slot);
    if (serial.empty()) serial = "ble-" + name;
    auto unit = adopt(serial, slot, name);
    std::lock_guard lock(unit->io);
    unit->open = true;
    unit->wanted = true;
    return NKR_SUCCESS;
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
    if (unit.bleName.empty()) NKRClose(unit.slot);
    unit.open = false;
    unit.slot = -1;
}

void DeviceRegistry::reattach(Unit& unit)
{
    if (!unit.bleName.empty()) return;  // a Bluetooth unit is re-attached by name
    if (unit.slot < 0) rescan();
    if (unit.slot < 0 || unit.open || !unit.wanted) return;
    std::lock_guard scan(scanMutex_);
    if (NKROpen(unit.slot) == NKR_SUCCESS) {
        unit.open = true;
        logInfo("focuser " + std::to_string(unit.number) + " is back");
    }
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
    if (rc != NKR_SUCCESS && isGone(rc)) {
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
        unit.open = unit.slot >= 0;
        return unit.open ? DeviceError{} : DeviceError{kNotConnected, "Bluetooth unit is not attached"};
    }
    if (unit.slot < 0) rescan();
    if (unit.slot < 0) return {kNotConnected, "focuser " + std::to_string(unit.number) + " is not plugged in"};
    int rc;
    {
        std::lock_guard scan(scanMutex_);
        rc = NKROpen(unit.slot);
    }
    if (rc != NKR_SUCCESS) {
        if (isGone(rc)) unit.slot = -1;
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
