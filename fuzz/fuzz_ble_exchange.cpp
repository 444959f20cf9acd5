// The Bluetooth exchange and every Bluetooth answer parser fed with arbitrary
// frame sequences: responses, notifications, stale and short frames, frames
// with bad checksums, silence when the input runs out.
#include <cstdint>
#include <deque>

#include "FuzzInput.h"
#include "ble/IBluetoothLEManager.h"
#include "device/NKR.h"
#include "device/Sleep.h"

namespace {
void noSleep(unsigned) {}

// A manager whose radio delivers the fuzzer's frames, one per wait.
class FrameFeed final : public IBluetoothLEManager {
public:
    explicit FrameFeed(std::vector<std::vector<uint8_t>> frames) : frames_(frames.begin(), frames.end()) {}
    void ScanForDevices(uint32_t, std::vector<DeviceInfo>& out) override { out.clear(); }
    int32_t ConnectToDevice(const std::string&, const std::string&) override { return 0; }
    int32_t DisconnectFromDevice() override { return 0; }
    bool SendData(const std::vector<uint8_t>&, uint32_t, uint32_t) override { return true; }
    int32_t ReceiveData(uint32_t, uint32_t) override { return 0; }
    void GetReceivedData(std::vector<uint8_t>& out) override
    {
        out.clear();
        if (frames_.empty()) return;
        out = frames_.front();
        frames_.pop_front();
    }
    void GetLocalBluetoothMacAddress(std::string& out) override { out = "00:1A:7D:DA:71:13"; }
    bool IsBluetoothLESupported() override { return true; }
    bool WaitForDataAndProcess() override { return !frames_.empty(); }
    void setIsRead(bool) override {}
    void ConnectStateCallbackFunc(ConnectStateCallback) override {}

private:
    std::deque<std::vector<uint8_t>> frames_;
};

void pairEvents(_NKR_ERROR_CODE) {}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool once = [] {
        setenv("HOME", "/nonexistent-nkr-fuzz-home", 1);
        nkr::setSleepHook(&noSleep);
        return true;
    }();
    (void)once;
    if (size < 1) return 0;
    const uint8_t flags = data[0];

    CNKR dev;
    dev.m_pBleManager = new FrameFeed(nkrfuzz::splitChunks(data + 1, size - 1));
    dev.bIsBleControl = true;
    dev.m_bBleConnected = true;
    dev.m_bCanSerial = true;
    dev.m_bCanFactory = flags & 1;
    dev.fwVersion = (flags & 2) ? 382 : 336;
    dev.m_pfnPairState = (flags & 4) ? &pairEvents : nullptr;

    int i = 0;
    bool b = false, h = false;
    float t = 0;
    unsigned char serial[8], ma, mi, bu;
    char alias[9] = {0};
    _NKR_TYPE type{};
    _NKR_ERROR_MSG msg{};
    _NKR_BATTERY_INFO battery{};
    _NKR_ALL_INFO all{};
    _NKR_BLE_FILE_BUF block{};
    block.length = 480;
    unsigned char raw[8] = {0x7E, 0x5A, 0x02, 0x03, 0, 0, 0, 0}, out[8];

    dev.getParams(true);
    dev.isMoving(&b, &h, true);
    dev.getTemp(&t, true);
    dev.getSerialNumber(serial, 8, true);
    dev.getAlias(alias, 8, true);
    dev.getFwVer(&ma, &mi, &bu, true);
    dev.getType(&type, true);
    dev.getErrorCode(&msg, true);
    dev.getPowerOffReason(&i, true);
    dev.getBatteryInfo(&battery, true);
    dev.getLEDState(&b, true);
    dev.SetStep(1000, true);
    dev.stopMove(true);
    dev.BLEGetAllInfo(&all);
    dev.BLEStartUpdate(74565);
    dev.BLEWriteUpdateFile(block);
    dev.BLESendData(0, raw, sizeof raw, true, out);
    dev.BLEPair();
    return 0;
}
