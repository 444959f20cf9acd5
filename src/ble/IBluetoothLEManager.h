// The device-facing end of the Bluetooth LE link, independent of the stack
// that carries it.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class IBluetoothLEManager {
public:
    struct DeviceInfo {
        std::string name;
        std::string address;  // what ConnectToDevice accepts
        std::string extra;    // third text of the helper's scan record
        int16_t signalStrength = 0;
        int64_t bluetoothAddress = 0;
    };
    using ConnectStateCallback = std::function<void(bool)>;

    virtual void ScanForDevices(uint32_t timeout, std::vector<DeviceInfo>& out) = 0;
    virtual int32_t ConnectToDevice(const std::string& id, const std::string& second) = 0;
    virtual int32_t DisconnectFromDevice() = 0;
    virtual bool SendData(const std::vector<uint8_t>& data, uint32_t a, uint32_t b) = 0;
    virtual int32_t ReceiveData(uint32_t a, uint32_t b) = 0;
    virtual void GetReceivedData(std::vector<uint8_t>& out) = 0;
    virtual void GetLocalBluetoothMacAddress(std::string& out) = 0;
    virtual bool IsBluetoothLESupported() = 0;
    virtual bool WaitForDataAndProcess() = 0;
    virtual void setIsRead(bool isRead) = 0;
    virtual void ConnectStateCallbackFunc(ConnectStateCallback callback) = 0;
    virtual ~IBluetoothLEManager() = default;

    // A new manager over the platform's helper library, owned by the caller.
    static IBluetoothLEManager* CreateBluetoothLEManager();
};

// Process-wide manager made when the library is loaded.
extern IBluetoothLEManager* g_pBleManager;
