// The focuser forgets its position at power-off: the object saves position
// and motor settings when it closes and restores them at an open that finds
// the unit at its power-on position. One record serves every unit of the
// account; the last unit closed wins.
#include <cstdio>
#include <new>

#include "NKR.h"
#include "../store/XmlStore.h"

namespace {

constexpr const char* kConfigFile = "NKRconfig.xml";
constexpr const char* kKeyFormat = "software\\%s";
constexpr const char* kProductKey = "HTX_Drevomat";
constexpr size_t kSubKeySize = 256;
// The query output is preset to this, so a stored -1 reads like a missing value.
constexpr int kUnset = -1;

}  // namespace

void CNKR::InitSubKey()
{
    if (m_pszSubKey != nullptr) return;
    m_pszSubKey = new (std::nothrow) char[kSubKeySize];
    if (m_pszSubKey != nullptr) std::snprintf(m_pszSubKey, kSubKeySize, kKeyFormat, kProductKey);
}

void CNKR::SaveSetting()
{
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
