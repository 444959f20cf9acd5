// BLE manager over the run-time-loaded Bluetooth helper library.
//
// The helper is opened lazily with dlopen(RTLD_LAZY) from "./lib/libBlueShim.so"
// (relative to the working directory), or from the path in the environment
// variable NKR_BLE_HELPER when that is set. Every operation forwards to one
// helper entry point (see BlueShimApi.h); a missing entry point or a helper
// that could not be loaded makes the operation return a failure value instead
// of calling through a null pointer.
//
// Connection reports come from the helper on its own thread through a plain
// void(*)(bool) without a context pointer, so each manager borrows one of a
// fixed pool of trampolines (ConnectStateTrampolines.h). The destructor unbinds
// it and waits until a report in progress has left the stored callable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "BlueShimApi.h"
#include "IBluetoothLEManager.h"

class BluetoothLEManagerLinux : public IBluetoothLEManager {
public:
    BluetoothLEManagerLinux() = default;
    ~BluetoothLEManagerLinux() override;
    BluetoothLEManagerLinux(const BluetoothLEManagerLinux&) = delete;
    BluetoothLEManagerLinux& operator=(const BluetoothLEManagerLinux&) = delete;

    // Loads the helper and creates its manager; 0, or -1 when unusable.
    int32_t init();

    void ScanForDevices(uint32_t timeout, std::vector<DeviceInfo>& out) override;
    int32_t ConnectToDevice(const std::string& id, const std::string& second) override;
    int32_t DisconnectFromDevice() override;
    bool SendData(const std::vector<uint8_t>& data, uint32_t a, uint32_t b) override;
    int32_t ReceiveData(uint32_t a, uint32_t b) override;
    void GetReceivedData(std::vector<uint8_t>& out) override;
    void GetLocalBluetoothMacAddress(std::string& out) override;
    bool IsBluetoothLESupported() override;
    bool WaitForDataAndProcess() override;
    void setIsRead(bool isRead) override;
    void ConnectStateCallbackFunc(ConnectStateCallback callback) override;

    // Sends through the virtual SendData; the callable is not used.
    bool SendData1(const std::vector<uint8_t>& data, uint32_t a, uint32_t b,
                   const ConnectStateCallback& callable);

private:
    // Loads the helper on first use (a connect need not be preceded by the
    // support query that normally does it); true when the handle exists.
    bool ensureLoaded();
    void unload();

    void* m_hLib = nullptr;
    void* m_bleMgr = nullptr;
    bool m_loadAttempted = false;
    int m_trampolineSlot = -1;  // pool slot bound to this manager, -1 for none

    pfn_ble_manager_create m_create = nullptr;
    pfn_ble_manager_destroy m_destroy = nullptr;
    pfn_ble_manager_scan m_scan = nullptr;
    pfn_ble_manager_connect m_connect = nullptr;
    pfn_ble_manager_disconnect m_disconnect = nullptr;
    pfn_ble_manager_receive m_receive = nullptr;
    pfn_ble_manager_send m_send = nullptr;
    pfn_ble_manager_wait_for_data m_waitForData = nullptr;
    pfn_ble_manager_get_received_data m_getReceivedData = nullptr;
    pfn_ble_manager_is_ble_supported m_isBleSupported = nullptr;
    pfn_ble_manager_get_mac m_getMac = nullptr;
    pfn_ble_set_is_read m_setIsRead = nullptr;
    pfn_ble_set_connect_state_callback m_setConnectStateCallback = nullptr;
};
