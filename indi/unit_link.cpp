#include "unit_link.h"

#include <cstring>
#include <string>
#include <vector>

#include "NKR_focuser.h"
#include "error_text.h"
#include "unit_identity.h"

namespace nkrindi {

namespace {

// The helper library reads the scan time-out in milliseconds.
constexpr int kBleScanMillis = 5000;
constexpr int kMaxScanResults = 16;

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

std::string UnitLink::openUsb(const std::string& serialOrAlias)
{
    close();
    const std::string wanted = trimmed(serialOrAlias);
    const int count = NKRGetNum();
    if (count <= 0) return "No focuser found on USB";

    std::string seen;
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (NKRGetID(index, &id) != NKR_SUCCESS) continue;
        const int rc = NKROpen(id);
        if (rc != NKR_SUCCESS) {
            seen += (seen.empty() ? "" : "; ") + failure("slot " + std::to_string(id), rc);
            continue;
        }
        // Units can only be told apart once open; an unwanted one is closed again.
        const std::string serial = wanted.empty() ? std::string() : readSerial(id);
        const std::string alias = wanted.empty() ? std::string() : readAlias(id);
        if (wanted.empty() || usbSelectorMatches(wanted, serial, alias)) {
            m_id = id;
            m_ble = false;
            m_description = "USB slot " + std::to_string(id);
            return {};
        }
        seen += (seen.empty() ? "" : "; ") + usbUnitLabel(id, serial, alias);
        NKRClose(id);
    }
    if (wanted.empty()) return "No USB focuser could be opened (" + seen + ")";
    return "No USB focuser has serial number or alias '" + wanted + "' (found: " + seen + ")";
}

std::string UnitLink::openBle(const std::string& nameOrAddress)
{
    close();
    const std::string wanted = trimmed(nameOrAddress);
    std::vector<_BLE_DEVICE_INFO> found(kMaxScanResults);
    int count = 0;
    int rc = NKRBLEScan(kBleScanMillis, found.data(), kMaxScanResults, &count);
    if (rc != NKR_SUCCESS) return failure("Bluetooth scan failed", rc);

    std::string seen;
    for (int i = 0; i < count && i < kMaxScanResults; ++i) {
        const std::string name = boundedText(found[i].Name, sizeof found[i].Name);
        const std::string address = boundedText(found[i].Address, sizeof found[i].Address);
        if (!bleSelectorMatches(wanted, name, address)) {
            seen += (seen.empty() ? "" : ", ") + name + " at " + address;
            continue;
        }
        int id = -1;
        rc = NKRBLEConnect(name.c_str(), address.c_str(), &id);
        if (rc != NKR_SUCCESS) return failure("Connecting to " + name + " failed", rc);
        rc = NKRBLEPair(id);
        if (rc != NKR_SUCCESS) {
            NKRBLEDisconnect(id);  // pairing drops the link but leaves the slot taken
            return failure("Pairing with " + name + " failed", rc);
        }
        m_id = id;
        m_ble = true;
        m_description = "Bluetooth " + name + " (slot " + std::to_string(id) + ")";
        return {};
    }
    return "No Bluetooth focuser named or at '" + wanted + "' (found: " +
           (seen.empty() ? std::string("none") : seen) + ")";
}

void UnitLink::close()
{
    if (m_id < 0) return;
    if (m_ble)
        NKRBLEDisconnect(m_id);
    else
        NKRClose(m_id);
    m_id = -1;
    m_ble = false;
    m_description.clear();
}

}  // namespace nkrindi
