// Bluetooth sessions of a device object: scan, connect, pairing, events,
// the all-information query and raw pass-through.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "../ble/ConnectStateTrampolines.h"
#include "../ble/IBluetoothLEManager.h"
#include "../log/Log.h"
#include "NKR.h"

namespace {

constexpr int kBleTextField = 64;  // name and address fields of _BLE_DEVICE_INFO
constexpr size_t kAllInfoMinBytes = 20;
constexpr size_t kAllInfoBatteryOffset = 18;

// Copies at most one field's worth of text, never reading past the string.
void copyTextField(char* field, const std::string& text)
{
    std::memset(field, 0, kBleTextField);
    std::memcpy(field, text.data(), std::min<size_t>(text.size(), kBleTextField));
}

uint32_t bigEndian24(const std::vector<uint8_t>& bytes, size_t at)
{
    return (uint32_t{bytes[at]} << 16) | (uint32_t{bytes[at + 1]} << 8) | bytes[at + 2];
}

}  // namespace

int CNKR::BLEScan(int timeout, _BLE_DEVICE_INFO* devices, int capacity, int* count)
{
    if (count == nullptr || (devices == nullptr && capacity > 0)) return NKR_ERROR_INVALID_VALUE;
    if (m_pBleManager == nullptr) m_pBleManager = IBluetoothLEManager::CreateBluetoothLEManager();
    if (m_pBleManager == nullptr || !m_pBleManager->IsBluetoothLESupported()) {
        NKR_LOG("Bluetooth device not supported. error:%d", NKR_ERROR_BLE_UNSUPPORTED);
        return NKR_ERROR_BLE_UNSUPPORTED;
    }
    NKR_LOG("Enter BLEScan");
    std::vector<IBluetoothLEManager::DeviceInfo> found;
    m_pBleManager->ScanForDevices(static_cast<uint32_t>(timeout), found);

    const int n = std::min(capacity, static_cast<int>(found.size()));
    *count = n;
    if (n < 1) return NKR_SUCCESS;
    for (int i = 0; i < n; ++i) {
        const IBluetoothLEManager::DeviceInfo& unit = found[static_cast<size_t>(i)];
        _BLE_DEVICE_INFO& record = devices[i];
        copyTextField(record.Name, unit.name);
        copyTextField(record.Address, unit.address);
        record.SignalStrength = unit.signalStrength;
        record.BluetoothAddress = unit.bluetoothAddress;
        NKR_LOG("Name: %s, Address: %s, Signal Strength: %d, Bluetooth Address: %lld",
                unit.name.c_str(), unit.address.c_str(), unit.signalStrength,
                static_cast<long long>(unit.bluetoothAddress));
    }
    return NKR_SUCCESS;
}

int CNKR::BLEConnect(const char* name, const char* address)
{
    if (name == nullptr || address == nullptr) return NKR_ERROR_INVALID_VALUE;
    if (m_pBleManager == nullptr) m_pBleManager = IBluetoothLEManager::CreateBluetoothLEManager();
    if (m_pBleManager == nullptr) return NKR_ERROR_BLE_CONNECT;
    NKR_LOG("Enter BLEConnect");
    if (m_pBleManager->ConnectToDevice(name, address) != 0) return NKR_ERROR_BLE_CONNECT;
    m_pBleManager->ReceiveData(3, 0);
    m_bBleConnected = true;
    bIsBleControl = true;
    return NKR_SUCCESS;
}

int CNKR::BLEDisconnect()
{
    IBluetoothLEManager* manager = m_pBleManager;
    if (manager == nullptr) return NKR_ERROR_CLOSED;
    manager->DisconnectFromDevice();
    m_bBleConnected = false;
    bIsBleControl = false;
    return NKR_SUCCESS;
}

int CNKR::BLEPair()
{
    if (m_pBleManager == nullptr) return NKR_ERROR_INVALID_ID;
    std::string localMac;
    m_pBleManager->GetLocalBluetoothMacAddress(localMac);
    NKR_LOG("strLocalMacAddress:%s", localMac.c_str());
    if (localMac.empty()) return NKR_ERROR_BLE_PAIR;

    std::vector<uint8_t> answer;
    const int result = bleSendData(BLEProtocol::CMD_PAIR,
                                   std::vector<uint8_t>(localMac.begin(), localMac.end()), true,
                                   answer);
    if (result != NKR_SUCCESS) {
        NKR_LOG("========== BLE pairing failed, err:%d ==========", result);
        BLEDisconnect();
        return NKR_ERROR_BLE_PAIR;
    }

    unsigned char major = 0, minor = 0, build = 0;
    if (getFwVer(&major, &minor, &build, true) == NKR_SUCCESS)
        fwVersion = major * 100 + minor * 10 + build;
    // The same capabilities a USB open grants for this firmware.
    if (fwVersion > 335) {
        m_bThermistor = false;
        m_bCanSerial = true;
        m_bCanFactory = true;
        bSupportBleName = bSupportLed = bSupportBuzzer = true;
        bSupportBattery = bSupportType = bSupportErrCode = true;
        m_iStepLimit = 600000;
        if (fwVersion > 369) bSupportUsbUpdate = true;
        if (fwVersion > 381) bSupportBleUpdate = true;
    }
    getParams(true);
    NKR_LOG("========== BLE pairing succeeded, fwVersion:%d ==========", fwVersion);
    return NKR_SUCCESS;
}

int CNKR::BLEClearPair()
{
    if (m_pBleManager == nullptr) return NKR_ERROR_INVALID_ID;
    std::string localMac;
    m_pBleManager->GetLocalBluetoothMacAddress(localMac);
    NKR_LOG("clear pair LocalMacAddress:%s", localMac.c_str());
    std::vector<uint8_t> answer;
    const int result = bleSendData(BLEProtocol::CMD_CLEAR_PAIR,
                                   std::vector<uint8_t>(localMac.begin(), localMac.end()), true,
                                   answer);
    if (result == NKR_SUCCESS)
        NKR_LOG("========== BLE clear pairing succeeded ==========");
    else
        NKR_LOG("========== BLE clear pairing failed, err:%d ==========", result);
    return result;
}

int CNKR::BLERegPairStateCallback(NKR_PAIR_STATE_CALLBACK callback)
{
    if (m_pBleManager == nullptr) return NKR_ERROR_CLOSED;
    std::atomic_ref(m_pfnPairState).store(callback);
    NKR_LOG("BLE pairing state callback registered.");
    return NKR_SUCCESS;
}

int CNKR::BLERegConnStateCallback(NKR_CONN_STATE_CALLBACK callback)
{
    if (m_pBleManager == nullptr) return NKR_ERROR_CLOSED;
    std::atomic_ref(m_pfnConnState).store(callback);
    // Runs on the helper's thread. It touches only the manager, the two atomic
    // flags and the stored callback, all of which outlive the manager, and the
    // manager's destructor waits for a running report before returning; so a
    // host destroying this object from another thread meanwhile is safe.
    m_pBleManager->ConnectStateCallbackFunc([this](bool connected) {
        NKR_CONN_STATE_CALLBACK hostCallback = std::atomic_ref(m_pfnConnState).load();
        if (hostCallback != nullptr) {
            NKR_LOG("BLE connection state changed: %s", connected ? "Connected" : "Disconnected");
            hostCallback(connected);
            // The host may have destroyed this object from its callback.
            if (bletrampoline::reportCancelled()) return;
        }
        if (!connected) {
            NKR_LOG("BLE disconnected, resetting flag");
            BLEDisconnect();
            m_bBleConnected = false;
            bIsBleControl = false;
        }
    });
    NKR_LOG("BLE connection state callback registered.");
    return NKR_SUCCESS;
}

int CNKR::BLEGetAllInfo(_NKR_ALL_INFO* info)
{
    if (info == nullptr) return NKR_ERROR_INVALID_VALUE;
    if (fwVersion <= 366) return NKR_ERROR_NOT_SUPPORTED;

    CriSecLock device(m_mutex);
    std::vector<uint8_t> answer;
    const int result =
        bleSendData(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, 0x01, 0x00}, true, answer);
    if (answer.size() < kAllInfoMinBytes) {
        NKR_LOG("OntputData size %d < %d", static_cast<int>(answer.size()),
                static_cast<int>(kAllInfoMinBytes));
        return NKR_ERROR_INVALID_VALUE;
    }

    const uint8_t flags = answer[11];
    m_iMoveState = answer[4];
    iBacklash = answer[5];
    step = static_cast<int>(bigEndian24(answer, 6));
    m_iTempRaw = (answer[9] << 8) | answer[10];
    bBeep = (flags & 0x01) != 0;
    bReverse = (flags & 0x02) != 0;
    m_bHandMoving = (flags & 0x04) != 0;
    m_bHandControl = (flags & 0x08) != 0;
    maxstep = static_cast<int>(bigEndian24(answer, 12));

    const float temperature = static_cast<float>(m_iTempRaw) / 100.0f - 300.0f;
    // A reading far below any real temperature means the sensor word is bad.
    if (temperature >= -200.0f) m_fTemp = temperature;

    info->MoveState = m_iMoveState;
    info->Backlash = iBacklash;
    info->Step = step;
    info->Temperature = m_fTemp;
    info->Beep = bBeep;
    info->Reverse = bReverse;
    info->HandMoving = m_bHandMoving;
    info->HandControl = m_bHandControl;
    info->MaxStep = maxstep;
    info->BleControl = bIsBleControl;
    info->MotorErrCode[0] = static_cast<char>(answer[15]);
    info->MotorErrCode[1] = static_cast<char>(answer[16]);
    info->BatteryErrCode[0] = static_cast<char>(answer[15]);
    info->BatteryErrCode[1] = static_cast<char>(answer[17]);
    parseBatteryInfo(answer.data() + kAllInfoBatteryOffset,
                     static_cast<int>(answer.size() - kAllInfoBatteryOffset), &info->Battery);
    return result;
}

int CNKR::BLESendData(int /*unused*/, const unsigned char* data, int length, bool wait,
                      unsigned char* output)
{
    if (data == nullptr || length < 0 || (wait && output == nullptr))
        return NKR_ERROR_INVALID_VALUE;
    IBluetoothLEManager* manager = m_pBleManager;
    if (manager == nullptr) return NKR_ERROR_INVALID_ID;

    std::vector<uint8_t> vInputData(data, data + length);
    NKR_LOG("vInputData.size:%d", static_cast<int>(vInputData.size()));
    manager->SendData(vInputData, 3, 0);
    if (!wait) return NKR_SUCCESS;

    manager->WaitForDataAndProcess();
    std::vector<uint8_t> receivedData;
    manager->GetReceivedData(receivedData);
    if (receivedData.size() > static_cast<size_t>(length)) {
        NKR_LOG("Output buffer too small for received data");
        return NKR_ERROR_INVALID_VALUE;
    }
    std::copy(receivedData.begin(), receivedData.end(), output);
    NKR_LOG("receivedData.size:%d", static_cast<int>(receivedData.size()));
    return NKR_SUCCESS;
}
