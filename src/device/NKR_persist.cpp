// The focuser forgets its position at power-off: the object saves position
// and motor settings when it closes and restores them at an open that finds
// the unit at its power-on position. One record serves every unit of the
// account; the last unit closed wins. With NKR_STATE_PER_UNIT set, each unit
// with a serial number has a record of its own instead.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>

#include "NKR.h"
#include "../log/Log.h"
#include "../store/XmlStore.h"

namespace {

constexpr const char* kConfigFile = "NKRconfig.xml";
constexpr const char* kKeyFormat = "software\\%s";
constexpr const char* kProductKey = "HTX_Drevomat";
constexpr size_t kSubKeySize = 256;
// Per-unit records: software\HTX_Drevomat_units\SN<serial in hex>.
constexpr const char* kUnitKeyFormat = "software\\HTX_Drevomat_units\\SN%s";

bool perUnitRecordsWanted()
{
    const char* v = std::getenv("NKR_STATE_PER_UNIT");
    return v != nullptr && (std::strcmp(v, "1") == 0 || strcasecmp(v, "true") == 0 ||
                            strcasecmp(v, "yes") == 0);
}
// The query output is preset to this, so a stored -1 reads like a missing value.
constexpr int kUnset = -1;

}  // namespace

void CNKR::InitSubKey()
{
    if (m_pszSubKey != nullptr) return;
    m_pszSubKey = new (std::nothrow) char[kSubKeySize];
    if (m_pszSubKey == nullptr) return;
    if (m_strUnitKey.empty())
        std::snprintf(m_pszSubKey, kSubKeySize, kKeyFormat, kProductKey);
    else
        std::snprintf(m_pszSubKey, kSubKeySize, kUnitKeyFormat, m_strUnitKey.c_str());
}

void CNKR::usePerUnitRecord()
{
    if (!perUnitRecordsWanted() || m_pszSubKey != nullptr) return;
    unsigned char serial[8] = {};
    if (getSerialNumber(serial, sizeof serial, false) != NKR_SUCCESS) {
        NKR_LOG("per-unit record: no serial number, the shared record is used");
        return;
    }
    char hex[2 * sizeof serial + 1] = {};
    for (size_t i = 0; i < sizeof serial; ++i) std::snprintf(hex + 2 * i, 3, "%02X", serial[i]);
    m_strUnitKey = hex;
}

void CNKR::SaveSetting()
{
    // A unit's own record is never overwritten with a position nobody read.
    if (!m_strUnitKey.empty() && !m_bStatusRead.load()) {
        NKR_LOG("per-unit record SN%s: no status read since open, not saved", m_strUnitKey.c_str());
        return;
    }
    InitSubKey();
    xmlHandle handle;
    if (m_pszSubKey == nullptr ||
        (!XMLOpenKey(kConfigFile, m_pszSubKey, &handle) &&
         !XMLCreateKey(kConfigFile, m_pszSubKey, &handle, nullptr))) {
        NKRDbgPrint(__func__, "open fail, not save\n");
        return;
    }
    XMLSetInt(&handle, "Position", step);
    XMLSetInt(&handle, "Backlash", iBacklash);
    XMLSetInt(&handle, "Beep", bBeep ? 1 : 0);
    XMLSetInt(&handle, "MaxStep", maxstep);
    XMLSetInt(&handle, "Reverse", bReverse ? 1 : 0);
    XMLCloseKey(&handle);
    NKRDbgPrint(__func__, "position saved %d\n", step);
}

void CNKR::LoadSetting()
{
    InitSubKey();
    xmlHandle handle;
    // A load never creates the file.
    if (m_pszSubKey == nullptr || !XMLOpenKey(kConfigFile, m_pszSubKey, &handle)) return;

    int value = XMLQueryInt(&handle, "Position", kUnset);
    step = value == kUnset ? NKR_POWER_ON_POSITION : value;
    value = XMLQueryInt(&handle, "Backlash", kUnset);
    iBacklash = value == kUnset ? 0 : value;
    bBeep = XMLQueryInt(&handle, "Beep", 0) == 1;
    value = XMLQueryInt(&handle, "MaxStep", kUnset);
    maxstep = value == kUnset ? m_iStepLimit : value;
    bReverse = XMLQueryInt(&handle, "Reverse", kUnset) == 1;

    XMLCloseKey(&handle);
    NKRDbgPrint(__func__, "position loaded %d\n", step);
}
