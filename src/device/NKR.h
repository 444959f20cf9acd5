// CNKR: one opened focuser, over USB HID or Bluetooth LE.
//
// Every operation that can use either link takes a trailing bool: false for
// USB HID, true for BLE. Operations return _NKR_ERROR_CODE values.
//
// Locks: m_mutex (recursive) guards the HID handle and every cached status
// field; m_bleMutex serialises BLE exchanges. Order: slot lock (api layer),
// then m_mutex, then m_bleMutex.
#pragma once

#include <hidapi/hidapi.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "../../include/NKR_focuser.h"
#include "../common/CriSec.h"
#include "../ble/BluetoothLEProtocol.h"

class IBluetoothLEManager;

// Size of the object's report buffers.
inline constexpr int NKR_BUF_SIZE = 128;
// Position the firmware reports after power-up (triggers the restore at open).
inline constexpr int NKR_POWER_ON_POSITION = 30000;

class CNKR {
public:
    CNKR();
    ~CNKR();
    CNKR(const CNKR&) = delete;
    CNKR& operator=(const CNKR&) = delete;

    // ---- object life (NKR.cpp) ----
    bool open(const char* path);
    void close();

    // ---- HID exchange (NKR_hid.cpp) ----
    int sendCMD(unsigned char* cmd, int len, bool read, unsigned char* reply);
    int handleReportErr(int result);
    void HIDUpdateStatus(bool error);
    void HIDReconnect();

    // ---- status report (NKR_status.cpp) ----
    int getParams(bool ble);
    int getSpeed(int* speed, bool ble);
    int getStep(int* step, bool ble);
    int getBeep(bool* on, bool ble);
    int getReverse(bool* on, bool ble);
    int getBacklash(int* backlash, bool ble);
    int getMaxStep(int* maxStep, bool ble);
    int getMaxForce(int* force, bool ble);
    int isHandControl(bool* hand, bool ble);
    int isMoving(bool* moving, bool* handMoving, bool ble);

    // ---- motion (NKR_motion.cpp) ----
    int sendControl(int iReset, bool ble);
    int SetStep(int iStep, bool ble);
    int resetStep(int iStep, bool ble);
    int SetSpeed(int iSpeed);
    int stopMove(bool ble);

    // ---- motor settings (NKR_settings.cpp) ----
    int setBacklash(int backlash, bool ble);
    int setMaxStep(int maxStep, bool ble);
    int setBeep(bool on, bool ble);
    int setReverse(bool on, bool ble);
    int setMaxForce(int force, bool ble);
    int saveFWConf();
    int getStepRange(int* range, bool ble);

    // ---- temperature (NKR_temperature.cpp) ----
    int getTemp(float* temp, bool ble);
    float CalculTempuature(int iAdc);

    // ---- controls and capabilities (NKR_controls.cpp) ----
    int getNumOfControls(int* count, bool ble);
    int getControlCaps(int index, _NKR_CONTROL_CAPS* caps, bool ble);

    // ---- identity (NKR_identity.cpp) ----
    int getSerialNumber(unsigned char* out, int len, bool ble);
    int getAlias(char* out, int len, bool ble);
    int setAlias(const unsigned char* data, int len, bool ble);
    int getFwVer(unsigned char* major, unsigned char* minor, unsigned char* build, bool ble);
    int getType(_NKR_TYPE* type, bool ble);
    // Writes the model text, "_" and the unit's part into len bytes of out, cut to
    // len - 1 characters and terminated.
    int getBLEName(char* out, int len);
    int setBLEName(const char* name, int len, bool ble);
    int setSerialNumber(const unsigned char* data, int len);
    int setFactoryMode();

    // ---- status, errors and power (NKR_power.cpp) ----
    int getLEDState(bool* on, bool ble);
    int setLEDState(bool on, bool ble);
    int setShippingMode(bool ble);
    int getErrorCode(_NKR_ERROR_MSG* msg, bool ble);
    int getPowerOffReason(int* reason, bool ble);
    int getBatteryInfo(_NKR_BATTERY_INFO* info, bool ble);
    static int parseBatteryInfo(const unsigned char* data, int len, _NKR_BATTERY_INFO* info);
    int clearError();

    // ---- BLE exchange and sessions (NKR_ble.cpp, NKR_blesession.cpp) ----
    int bleSendData(BLEProtocol::CommandType commandType, std::vector<uint8_t> payload,
                    bool waitForAnswer, std::vector<uint8_t>& output);
    int BLEScan(int timeout, _BLE_DEVICE_INFO* devices, int capacity, int* count);
    int BLEConnect(const char* name, const char* address);
    int BLEDisconnect();
    int BLEPair();
    int BLEClearPair();
    int BLERegPairStateCallback(NKR_PAIR_STATE_CALLBACK callback);
    int BLERegConnStateCallback(NKR_CONN_STATE_CALLBACK callback);
    int BLEGetAllInfo(_NKR_ALL_INFO* info);
    int BLESendData(int unused, const unsigned char* data, int length, bool wait,
                    unsigned char* output);

    // ---- firmware update (NKR_update.cpp) ----
    int HIDStartUpdate();
    int HIDWriteUpdateFile(const _NKR_HID_FILE_BUF& block);
    int HIDEndUpdate();
    int BLEStartUpdate(int size);
    int BLEWriteUpdateFile(const _NKR_BLE_FILE_BUF& block);

    // ---- position persistence (NKR_persist.cpp) ----
    void InitSubKey();
    void SaveSetting();
    void LoadSetting();
    // Opt-in (NKR_STATE_PER_UNIT): keys the saved record by this unit's
    // serial number. Called by open before anything is loaded.
    void usePerUnitRecord();

    // True when a HID handle is open or a BLE manager is present.
    bool linkUp() const { return (m_bOpen && m_hDev != nullptr) || m_pBleManager != nullptr; }
    // The path this object was opened with ("" before open).
    const char* path() const { return m_szPath; }

    // ---- members (public: the api layer and the tests read them) ----
    // Atomic: the link test reads it unlocked while a reconnect replaces it.
    std::atomic<hid_device*> m_hDev{nullptr};
    S_MUTEX_UNIX m_mutex;
    int m_iOutputReportLen = 16;
    int m_iInputReportLen = 17;
    unsigned char* pszInBuf = nullptr;
    unsigned char* pszOutBuf = nullptr;
    char* m_szPath = nullptr;
    std::atomic<bool> m_bOpen{false};
    // Written under m_mutex, read without it by the moving tests (atomic for that).
    std::atomic<int> m_iMoveState{0};
    int iBacklash = 0;
    int speed = 3000;
    int step = 0;
    int maxstep = 0;
    int m_iTempRaw = 0;
    bool bBeep = false;
    bool bReverse = false;
    bool m_bHandMoving = false;
    int m_iRepeat = 3;
    bool m_bClearErr = false;
    bool m_bHandControl = false;
    bool m_bThermistor = false;
    bool m_bCanSerial = false;
    bool m_bCanFactory = false;
    int8_t cMaxForce = 0;
    int fwVersion = 0;
    int m_iStepLimit = 60000;
    float m_fTemp = 0.0f;       // last good temperature (all-information query)
    float fLastTemp = 0.0f;     // last temperature getTemp delivered
    float fLastTableTemp = 0.0f;
    std::string m_strType;
    // Capability flags, in the order the controls list reads them.
    bool bSupportBleName = false;
    bool bSupportLed = false;
    bool bSupportBuzzer = false;
    bool bSupportBattery = false;
    bool bSupportType = false;
    bool bSupportErrCode = false;
    bool bSupportBleUpdate = false;
    bool bSupportUsbUpdate = false;
    bool m_bLedOn = false;
    uint8_t m_cHidErr = 0;
    uint8_t m_cReconnect = 0;
    char* m_pszSubKey = nullptr;
    // Per-unit record (opt-in): its key, and whether a status report has
    // been read since open, so an unknown position never overwrites it.
    std::string m_strUnitKey;
    std::atomic<bool> m_bStatusRead{false};
    int m_iTempMax = 0;
    int m_iTempMin = 0;
    IBluetoothLEManager* m_pBleManager = nullptr;

    // BLE session state.
    NKR_PAIR_STATE_CALLBACK m_pfnPairState = nullptr;
    NKR_CONN_STATE_CALLBACK m_pfnConnState = nullptr;
    std::atomic<bool> m_bBleConnected{false};
    std::atomic<bool> bIsBleControl{false};  // this object is driven over BLE
    std::recursive_mutex m_bleMutex;

    // Controls list rebuilt by getNumOfControls.
    int m_aiControls[8] = {0};
    int m_iControlCount = 0;
};
