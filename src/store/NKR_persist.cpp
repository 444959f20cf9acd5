// The focuser forgets its position at power-off: the object saves position
// and motor settings when it closes and restores them at an open that finds
// the unit at its power-on position. One record serves every unit of the
// account; the last unit closed wins.
#include <cstdio>
#include <new>

#include "../device/NKR.h"
#include "XmlStore.h"

namespace {

constexpr const char* kConfigFile = "NKRconfig.xml";
constexpr const char* kKeyFormat = "software\\%s";
constexpr const char* kProductKey = "HTX_Drevomat";
constexpr size_t kSubKeySize = 256;
constexpr int kValueType = 4;
// The query output is preset to this, so a stored -1 reads like a missing value.
constexpr int kUnset = -1;

void setInt(xmlHandle* handle, const char* name, int value)
{
    const auto u = static_cast<unsigned>(value);
    const unsigned char bytes[4] = {static_cast<unsigned char>(u), static_cast<unsigned char>(u >> 8),
                                    static_cast<unsigned char>(u >> 16),
                                    static_cast<unsigned char>(u >> 24)};
    XMLSetValueEx(handle, name, nullptr, kValueType, bytes, sizeof bytes);
}

// Reads a 4-byte little-endian value over the preset; a shorter stored value
// only replaces its first bytes, a longer one is cut at four.
int queryInt(xmlHandle* handle, const char* name, int preset)
{
    const auto p = static_cast<unsigned>(preset);
    unsigned char bytes[4] = {static_cast<unsigned char>(p), static_cast<unsigned char>(p >> 8),
                              static_cast<unsigned char>(p >> 16),
                              static_cast<unsigned char>(p >> 24)};
    int type = 0;
    int len = 0;
    XMLQueryValueEx(handle, name, nullptr, &type, bytes, &len, sizeof bytes);
    return static_cast<int>(bytes[0] | bytes[1] << 8 | bytes[2] << 16 |
                            static_cast<unsigned>(bytes[3]) << 24);
}

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
    setInt(&handle, "Position", step);
    setInt(&handle, "Backlash", iBacklash);
    setInt(&handle, "Beep", bBeep ? 1 : 0);
    setInt(&handle, "MaxStep", maxstep);
    setInt(&handle, "Reverse", bReverse ? 1 : 0);
    XMLCloseKey(&handle);
    NKRDbgPrint(__func__, "position saved %d\n", step);
}

void CNKR::LoadSetting()
{
    InitSubKey();
    xmlHandle handle;
    // A load never creates the file.
    if (m_pszSubKey == nullptr || !XMLOpenKey(kConfigFile, m_pszSubKey, &handle)) return;

    int value = queryInt(&handle, "Position", kUnset);
    step = value == kUnset ? NKR_POWER_ON_POSITION : value;
    value = queryInt(&handle, "Backlash", kUnset);
    iBacklash = value == kUnset ? 0 : value;
    bBeep = queryInt(&handle, "Beep", 0) == 1;
    value = queryInt(&handle, "MaxStep", kUnset);
    maxstep = value == kUnset ? m_iStepLimit : value;
    bReverse = queryInt(&handle, "Reverse", kUnset) == 1;

    XMLCloseKey(&handle);
    NKRDbgPrint(__func__, "position loaded %d\n", step);
}
