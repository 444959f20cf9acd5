// The list of optional features a unit offers, answered from what the object
// learnt at open or pairing: nothing is sent to the unit.
#include <cstring>
#include <string>

#include "../log/Log.h"
#include "NKR.h"

namespace {

constexpr int kUnknownFeature = 8;

struct FeatureText {
    const char* name;
    const char* description;
    bool writable;
};

constexpr FeatureText kFeatures[] = {
    {"BLE", "Bluetooth Low Energy support changing the name", true},
    {"LED", "LED control support; 0:off/1:on", true},
    {"BUZZER", "BUZZER control support; 0:off/1:on", true},
    {"NKR Type", "NKR type:NKR Pro or NKRN", false},
    {"Battery info", "Battery information support", false},
    {"ERR Code", "ERR Code: E0,E5,E6,E7,E8", false},
    {"FW Update", "BLE update firmware support", false},
    {"USB update NKR FW", "USB update firmware support", false},
};
constexpr FeatureText kUnknownText = {"Unknown", "Unknown feature", false};

// The flag each feature id reports. Ids 3 and 4 read the type and battery
// flags crosswise to their declaration order on purpose.
bool featureSupported(const CNKR& nkr, int id)
{
    switch (id) {
    case 0: return nkr.bSupportBleName;
    case 1: return nkr.bSupportLed;
    case 2: return nkr.bSupportBuzzer;
    case 3: return nkr.bSupportType;
    case 4: return nkr.bSupportBattery;
    case 5: return nkr.bSupportErrCode;
    case 6: return nkr.bSupportBleUpdate;
    case 7: return nkr.bSupportUsbUpdate;
    default: return false;
    }
}

}  // namespace

int CNKR::getNumOfControls(int* count, bool /*ble*/)
{
    if (count == nullptr) return NKR_ERROR_INVALID_VALUE;
    CriSecLock lock(m_mutex);  // m_strType may be replaced by getType meanwhile
    NKR_LOG("m_strType: %s", m_strType.c_str());

    int n = 0;
    auto add = [&](int id) { m_aiControls[n++] = id; };
    if (m_strType == "NKR Pro") {
        for (int id = 0; id <= 5; ++id) add(id);
        if (fwVersion > 369) add(7);  // USB update is listed before BLE update
        if (fwVersion > 381) add(6);
    } else if (m_strType == "NKRN") {
        add(1);
        add(2);
        add(3);
        add(5);
        if (fwVersion > 369) add(7);
    } else {
        add(2);
    }
    m_iControlCount = n;
    *count = n;
    return NKR_SUCCESS;
}

int CNKR::getControlCaps(int index, _NKR_CONTROL_CAPS* caps, bool /*ble*/)
{
    if (index > 8 || caps == nullptr) return NKR_ERROR_INVALID_INDEX;

    // The list is only valid below the count of the last getNumOfControls;
    // anything else is reported as an unknown feature, never read past it.
    int id = kUnknownFeature;
    {
        CriSecLock lock(m_mutex);
        if (index >= 0 && index < m_iControlCount) id = m_aiControls[index];
    }
    bool known = id >= 0 && id < kUnknownFeature;
    const FeatureText& text = known ? kFeatures[id] : kUnknownText;

    std::memset(caps, 0, sizeof *caps);
    std::strncpy(caps->Name, text.name, sizeof caps->Name - 1);
    std::strncpy(caps->Description, text.description, sizeof caps->Description - 1);
    caps->Supported = known && featureSupported(*this, id) ? 1 : 0;
    caps->Writable = text.writable ? 1 : 0;
    caps->ControlType = id;
    return NKR_SUCCESS;
}
