// The device object's life: construction, open over HID, close, destruction.
#include "NKR.h"

#include <cstring>
#include <new>

#include "../ble/IBluetoothLEManager.h"
#include "../log/Log.h"
#include "RTlist.h"

namespace {
constexpr int kPathSize = 256;
// Report lengths the firmware is built with; anything else keeps the default.
constexpr int kLongReport = 64;
constexpr int kShortReport = 16;
// Firmware thresholds (major*100 + minor*10 + build).
constexpr int kFwSerial = 322;      // serial number and alias commands
constexpr int kFwWidePos = 336;     // 24-bit positions
constexpr int kFwUsbUpdate = 370;   // firmware update over USB
constexpr int kStepLimit16 = 60000;
constexpr int kStepLimit24 = 600000;
constexpr unsigned char kNewModelLetter = 'E';
// Firmware-version answer: bytes 4-6 version, 7 model letter, 8.. model text.
constexpr int kVerMajor = 4, kVerMinor = 5, kVerBuild = 6, kVerLetter = 7, kVerText = 8;

unsigned char* newBuffer(size_t n) { return new (std::nothrow) unsigned char[n](); }

// Derives what the unit can do from its firmware-version answer.
void applyFirmwareVersion(CNKR& dev, const unsigned char* reply)
{
    const int major = reply[kVerMajor];
    const int minor = reply[kVerMinor];
    const int build = reply[kVerBuild];

    // Only 3.0.0 and older report the raw thermistor reading.
    dev.m_bThermistor = major <= 3 && minor == 0 && build == 0;
    dev.fwVersion = major * 100 + minor * 10 + build;

    if (dev.fwVersion < kFwSerial) {
        dev.m_iStepLimit = kStepLimit16;
    } else {
        dev.m_bCanSerial = true;
        dev.m_iStepLimit = dev.fwVersion < kFwWidePos ? kStepLimit16 : kStepLimit24;
    }

    if (reply[kVerLetter] == kNewModelLetter) {
        // The model text runs to its terminator or to the end of the answer.
        const int textRoom = dev.m_iInputReportLen - kVerText;
        const char* text = reinterpret_cast<const char*>(reply + kVerText);
        dev.m_strType.assign(text, textRoom > 0 ? strnlen(text, static_cast<size_t>(textRoom)) : 0);
        dev.m_bCanSerial = true;
        dev.m_bCanFactory = true;
        dev.m_iStepLimit = kStepLimit24;
        dev.bSupportBleName = true;
        dev.bSupportLed = true;
        dev.bSupportBuzzer = true;
        dev.bSupportBattery = true;
        dev.bSupportType = true;
        dev.bSupportErrCode = true;
    }
    // Every unit has the beeper.
    dev.bSupportBuzzer = true;
    if (dev.fwVersion >= kFwUsbUpdate) dev.bSupportUsbUpdate = true;
}
}  // namespace

CNKR::CNKR()
{
    m_iOutputReportLen = kShortReport;
    m_iInputReportLen = 17;
    hid_init();
    InitLogger();
    pszInBuf = newBuffer(NKR_BUF_SIZE);
    NKR_LOG("CNKR pszInBuf is %p", static_cast<void*>(pszInBuf));
    pszOutBuf = newBuffer(NKR_BUF_SIZE);
    m_szPath = new (std::nothrow) char[kPathSize]();
    m_hDev = nullptr;
    m_bOpen = false;
    InitCriSecNKR(&m_mutex);

    m_iTempMin = -20;
    m_iTempMax = -20;
    for (const RTEntry& row : RTlist) {
        if (row.temperature < m_iTempMin) m_iTempMin = row.temperature;
        if (row.temperature > m_iTempMax) m_iTempMax = row.temperature;
    }
}

CNKR::~CNKR()
{
    delete[] pszInBuf;
    pszInBuf = nullptr;
    delete[] pszOutBuf;
    pszOutBuf = nullptr;
    delete[] m_szPath;
    m_szPath = nullptr;
    // The buffers are gone by now: close() finds a null staging buffer and
    // sends nothing, but still closes the handle and saves the position.
    close();
    delete[] m_pszSubKey;
    m_pszSubKey = nullptr;
    NKR_LOG("~CNKR delete m_pBleManager %p\n", static_cast<void*>(m_pBleManager));
    if (m_pBleManager != nullptr) {
        delete m_pBleManager;
        m_pBleManager = nullptr;
    }
    NKR_LOG("~CNKR m_pBleManager is %p\n", static_cast<void*>(m_pBleManager));
    DelCriSecNKR(&m_mutex);
    m_strType.clear();
}

bool CNKR::open(const char* path)
{
    if (m_bOpen) return true;
    if (path == nullptr) return false;
    m_hDev = hid_open_path(path);
    if (m_hDev == nullptr) {
        NKRDbgPrint("open", "failed to open \"%s\"\n", path);
        return false;
    }
    if (m_szPath != nullptr) {
        std::strncpy(m_szPath, path, kPathSize - 1);
        m_szPath[kPathSize - 1] = '\0';
    }
    m_bOpen = true;

    int inputLen = 0;
    int outputLen = 0;
    if (get_hid_report_descriptor_linux_mac(m_hDev, path, &inputLen, &outputLen) == 0) {
        if (outputLen == kLongReport || outputLen == kShortReport) {
            m_iOutputReportLen = outputLen;
        } else {
            NKR_LOG("Hid Get NKR Input/Output Capacity Error! Input/Output default value: 16/16.");
        }
    } else {
        NKR_LOG("Hid Get NKR Input/Output Capacity Failed! Input/Output default value: 16/16.");
    }

    // A failed version read leaves these and every capability as they are.
    m_bThermistor = true;
    m_bCanSerial = false;
    unsigned char version[] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
    unsigned char reply[NKR_BUF_SIZE] = {0};
    if (sendCMD(version, sizeof version, true, reply) == NKR_SUCCESS) {
        applyFirmwareVersion(*this, reply);
        NKR_LOG("FWVER : %d,Capabilities.OutputReportByteLength = %d.", fwVersion, m_iOutputReportLen);
        NKRDbgPrint("open", "NKR Firmware Ver: %d.%d.%d-%c\n", reply[kVerMajor], reply[kVerMinor],
                    reply[kVerBuild], reply[kVerLetter]);
    }

    usePerUnitRecord();
    getParams(false);
    if (step == NKR_POWER_ON_POSITION) {
        // The unit has lost its position at power-up: give it the saved one.
        LoadSetting();
        CriSecLock lock(m_mutex);
        m_iMoveState = 0;
        sendControl(1, false);
    }
    return m_bOpen;
}

void CNKR::close()
{
    if (!m_bOpen && m_hDev == nullptr) {
        NKRDbgPrint("close", "not opened\n");
        return;
    }
    // Have the unit keep its settings; refused while a move runs, so stop it.
    saveFWConf();
    if (m_iMoveState.load() == 1) stopMove(false);
    {
        CriSecLock lock(m_mutex);
        if (m_hDev != nullptr) hid_close(m_hDev);
        m_hDev = nullptr;
        m_bOpen = false;
    }
    SaveSetting();
    NKRDbgPrint("close", "closed\n");
}
