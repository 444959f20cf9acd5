#include "unit_link.h"

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "NKR_focuser.h"
#include "close_note.h"
#include "error_text.h"
#include "unit_identity.h"

namespace nkrindi {

namespace {

// The helper library reads the scan time-out in milliseconds.
constexpr int kBleScanMillis = 5000;
constexpr int kQuickBleScanMillis = 1000;
constexpr int kMaxScanResults = 16;
// How long an instance waits for another's scan of the units, or for moves
// of other instances to end before it scans.
constexpr auto kProbeWait = std::chrono::milliseconds(3000);

std::string boundedText(const char* text, size_t capacity)
{
    return std::string(text, strnlen(text, capacity));
}

std::string failure(const std::string& what, int code)
{
    return what + ": " + errorText(code) + " (" + std::to_string(code) + ")";
}

std::string usbUnitLabel(int id, const std::string& serial, const std::string& alias)
{
    std::string label = "slot " + std::to_string(id);
    label += serial.empty() ? " (no serial)" : " serial " + serial;
    if (!alias.empty()) label += " alias " + alias;
    return label;
}

// Who holds a unit's lock ("" when nobody does).
std::string lockHolder(const std::string& key)
{
    const std::string path = unitLockPath(key);
    FileLock probe;
    if (path.empty() || probe.lock(path, true, std::chrono::milliseconds(0))) return {};
    std::string text = FileLock::readText(path);
    return text.empty() ? std::string("another driver instance") : text;
}

// Closes a unit this instance only looked at, noting it as the last closed.
void closeProbed(int id, const std::string& serial)
{
    int position = 0;
    const bool known = NKRGetPosition(id, &position) == NKR_SUCCESS;
    NKRClose(id);
    if (known) noteClose(serial, position);
}

std::string bleKey(const std::string& address)
{
    std::string key = "ble-";
    for (char c : address) key += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return key;
}

}  // namespace

std::string readSerial(int id)
{
    _NKR_SN sn{};
    return NKRGetSerialNumber(id, &sn) == NKR_SUCCESS ? serialText(sn.SN) : std::string();
}

std::string readAlias(int id)
{
    _NKR_INFO info{};
    if (NKRGetProperty(id, &info) != NKR_SUCCESS) return {};
    return aliasFromUnitName(boundedText(info.Name, sizeof info.Name).c_str());
}

std::string readModel(int id)
{
    _NKR_TYPE type{};
    std::string model;
    if (NKRGetType(id, &type) == NKR_SUCCESS) model = boundedText(type.Type, sizeof type.Type);
    return model.empty() ? std::string("NKR") : model;
}

std::string UnitLink::takeUnitLock(const std::string& key, const std::string& owner)
{
    const std::string path = unitLockPath(key);
    if (path.empty()) return {};  // no lock directory: nothing to coordinate with
    if (!m_unitLock.lock(path, true, std::chrono::milliseconds(0))) {
        std::string holder = FileLock::readText(path);
        return holder.empty() ? std::string("another driver instance") : holder;
    }
    m_unitLock.write(owner + " (pid " + std::to_string(::getpid()) + ")");
    return {};
}

std::string UnitLink::openUsb(const std::string& serialOrAlias, const std::string& owner, bool quick)
{
    close();
    const std::string wanted = trimmed(serialOrAlias);
    // A serial number that another instance holds is refused before any unit is touched.
    if (isSerialText(wanted)) {
        const std::string holder = lockHolder(normalizedSerial(wanted));
        if (!holder.empty())
            return "The unit with serial number " + normalizedSerial(wanted) + " is in use by " +
                   holder + "; choose another unit";
    }
    // Opening and closing units stops their motors: not while another instance moves one.
    FileLock probing;
    if (!probing.lock(probeLockPath(), true, quick ? std::chrono::milliseconds(0) : kProbeWait) &&
        !probeLockPath().empty())
        return "Another driver instance is moving its focuser or scanning; connect again when it is done";

    const int count = NKRGetNum();
    if (count <= 0) return "No focuser found on USB";

    std::string seen;
    std::string refused;
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (NKRGetID(index, &id) != NKR_SUCCESS) continue;
        const int rc = NKROpen(id);
        if (rc != NKR_SUCCESS) {
            seen += (seen.empty() ? "" : "; ") + failure("slot " + std::to_string(id), rc);
            continue;
        }
        // Units can only be told apart once open; an unwanted one is closed again.
        const std::string serial = readSerial(id);
        const std::string alias = readAlias(id);
        if (wanted.empty() || usbSelectorMatches(wanted, serial, alias)) {
            const std::string holder = serial.empty() ? std::string() : takeUnitLock(serial, owner);
            if (holder.empty()) {
                m_id = id;
                m_ble = false;
                m_serial = serial;
                m_description = "USB slot " + std::to_string(id);
                return {};
            }
            refused = "The unit with serial number " + serial + " is in use by " + holder;
        }
        seen += (seen.empty() ? "" : "; ") + usbUnitLabel(id, serial, alias);
        closeProbed(id, serial);
        if (!wanted.empty() && !refused.empty()) return refused + "; choose another unit";
    }
    if (wanted.empty())
        return "No free USB focuser could be opened (" + seen + ")";
    return "No USB focuser has serial number or alias '" + wanted + "' (found: " + seen + ")";
}

std::string UnitLink::openBle(const std::string& nameOrAddress, const std::string& owner, bool quick)
{
    close();
    const std::string wanted = trimmed(nameOrAddress);
    std::vector<_BLE_DEVICE_INFO> found(kMaxScanResults);
    int count = 0;
    int rc = NKRBLEScan(quick ? kQuickBleScanMillis : kBleScanMillis, found.data(), kMaxScanResults,
                        &count);
    if (rc != NKR_SUCCESS) return failure("Bluetooth scan failed", rc);

    std::string seen;
    for (int i = 0; i < count && i < kMaxScanResults; ++i) {
        const std::string name = boundedText(found[i].Name, sizeof found[i].Name);
        const std::string address = boundedText(found[i].Address, sizeof found[i].Address);
        if (!bleSelectorMatches(wanted, name, address)) {
            seen += (seen.empty() ? "" : ", ") + name + " at " + address;
            continue;
        }
        // A Bluetooth unit is known by its address before any connection.
        const std::string holder = takeUnitLock(bleKey(address), owner);
        if (!holder.empty())
            return "The Bluetooth unit " + name + " is in use by " + holder + "; choose another unit";
        int id = -1;
        rc = NKRBLEConnect(name.c_str(), address.c_str(), &id);
        if (rc != NKR_SUCCESS) {
            m_unitLock.unlock();
            return failure("Connecting to " + name + " failed", rc);
        }
        rc = NKRBLEPair(id);
        if (rc != NKR_SUCCESS) {
            NKRBLEDisconnect(id);  // pairing drops the link but leaves the slot taken
            m_unitLock.unlock();
            return failure("Pairing with " + name + " failed", rc);
        }
        m_id = id;
        m_ble = true;
        m_serial = readSerial(id);
        m_description = "Bluetooth " + name + " (slot " + std::to_string(id) + ")";
        return {};
    }
    return "No Bluetooth focuser named or at '" + wanted + "' (found: " +
           (seen.empty() ? std::string("none") : seen) + ")";
}

void UnitLink::lose()
{
    if (m_id < 0) return;
    // The SDK's close of a vanished unit only releases the slot (its sends fail).
    if (m_ble)
        NKRBLEDisconnect(m_id);
    else
        NKRClose(m_id);
    m_id = -1;
    m_description.clear();
}

void UnitLink::close()
{
    if (m_id < 0) {
        m_unitLock.unlock();
        return;
    }
    if (m_ble) {
        NKRBLEDisconnect(m_id);
    } else {
        closeProbed(m_id, m_serial);
    }
    m_id = -1;
    m_ble = false;
    m_serial.clear();
    m_description.clear();
    m_unitLock.unlock();
}

std::vector<FoundUnit> scanUsbUnits(int skipId, std::string& problem)
{
    std::vector<FoundUnit> units;
    FileLock probing;
    if (!probing.lock(probeLockPath(), true, kProbeWait) && !probeLockPath().empty()) {
        problem = "Another driver instance is moving its focuser; refresh the list when it stops";
        return units;
    }
    const int count = NKRGetNum();
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (NKRGetID(index, &id) != NKR_SUCCESS || id == skipId) continue;
        if (NKROpen(id) != NKR_SUCCESS) continue;
        FoundUnit unit;
        unit.serial = readSerial(id);
        unit.alias = readAlias(id);
        unit.model = readModel(id);
        if (!unit.serial.empty()) unit.holder = lockHolder(unit.serial);
        closeProbed(id, unit.serial);
        units.push_back(unit);
    }
    return units;
}

std::vector<FoundUnit> scanBleUnits(std::string& problem)
{
    std::vector<FoundUnit> units;
    std::vector<_BLE_DEVICE_INFO> found(kMaxScanResults);
    int count = 0;
    const int rc = NKRBLEScan(kBleScanMillis, found.data(), kMaxScanResults, &count);
    if (rc != NKR_SUCCESS) {
        if (rc != NKR_ERROR_BLE_UNSUPPORTED) problem = failure("Bluetooth scan failed", rc);
        return units;
    }
    for (int i = 0; i < count && i < kMaxScanResults; ++i) {
        FoundUnit unit;
        unit.ble = true;
        unit.bleName = boundedText(found[i].Name, sizeof found[i].Name);
        unit.bleAddress = boundedText(found[i].Address, sizeof found[i].Address);
        unit.model = unit.bleName.substr(0, unit.bleName.rfind('_'));
        unit.holder = lockHolder(bleKey(unit.bleAddress));
        units.push_back(unit);
    }
    return units;
}

}  // namespace nkrindi
