// What real radios and stacks do to a session, and a helper that must not be
// loaded.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "bluez_fixture.h"

namespace bluez {
namespace {

namespace fs = std::filesystem;
using BlueZFaults = BlueZTest;

std::atomic<int> g_disconnectedReports{0};
void onConnectionChange(bool connected) { g_disconnectedReports += connected ? 0 : 1; }

// Waits for the helper's report from its own thread, with a bounded deadline.
bool disconnectReported()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (g_disconnectedReports == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return g_disconnectedReports > 0;
}

class SlowResolution : public BlueZTest {
    std::vector<std::string> simArgs() const override
    {
        return {"--resolve-delay-ms", "700", "--single-characteristic", "--decoy", "last", "--chunk", "3"};
    }
};

TEST_F(SlowResolution, ConnectWaitsForServicesFindsASingleCharacteristicAndReassemblesTinyPieces)
{
    const int id = connectAndPair(kUnitName);
    _NKR_ALL_INFO info{};
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(info.Step, 30000);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

// The link goes mid-exchange, or with bluetoothd: the host hears of it,
// nothing hangs, and a new connect (once the stack is back) works.
TEST_F(BlueZFaults, LinkLostMidExchangeOrWithBluetoothdAndTheSlotRecovers)
{
    for (const char* fault : {"DropNextExchange", "Vanish"}) {
        SCOPED_TRACE(fault);
        g_disconnectedReports = 0;
        int id = connectAndPair(kUnitName);
        ASSERT_EQ(NKRBLERegConnStateCallback(id, onConnectionChange), NKR_SUCCESS);
        if (std::string(fault) == "Vanish") control(fault, "u", 0);
        else control(fault);
        int position = 0;
        EXPECT_NE(NKRGetPosition(id, &position), NKR_SUCCESS);
        EXPECT_TRUE(disconnectReported());
        EXPECT_NE(NKRGetPosition(id, &position), NKR_SUCCESS);
        EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
        if (std::string(fault) == "Vanish") {
            EXPECT_EQ(NKRBLEConnect(kUnitName, "", &id), NKR_ERROR_BLE_CONNECT);
            control("Appear");
        }
        id = connectAndPair(kUnitName);
        EXPECT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
        EXPECT_EQ(position, 30000);
        EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    }
}

TEST_F(BlueZFaults, RefusedWriteConnectAndAdapterPoweredOff)
{
    int id = connectAndPair(kUnitName);
    const unsigned before = requestsSeen();
    control("RefuseWrites", "u", 1);
    int position = 0;
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_ERROR_BLE_SEND);
    EXPECT_EQ(requestsSeen(), before);
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    control("RefuseConnect", "b", 1);
    EXPECT_EQ(NKRBLEConnect(kUnitName, "", &id), NKR_ERROR_BLE_CONNECT);
    control("RefuseConnect", "b", 0);
    control("SetPowered", "b", 0);
    _BLE_DEVICE_INFO found[4] = {};
    int count = -1;
    EXPECT_EQ(NKRBLEScan(300, found, 4, &count), NKR_ERROR_BLE_UNSUPPORTED);
    EXPECT_EQ(NKRBLEConnect(kUnitAddress, "", &id), NKR_ERROR_BLE_CONNECT);
    control("SetPowered", "b", 1);
    EXPECT_EQ(NKRBLEScan(300, found, 4, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(NKRBLEConnect(kUnitName, "", &id), NKR_SUCCESS);
    EXPECT_EQ(id, 50);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    // A copy of the helper that anyone could have replaced is not loaded.
    const fs::path copy = fs::path(tmp_) / "libBlueShim.so";
    fs::copy_file(NKR_BLE_HELPER_PATH, copy);
    ASSERT_EQ(chmod(copy.c_str(), 0777), 0);
    setenv("NKR_BLE_HELPER", copy.c_str(), 1);
    EXPECT_EQ(NKRBLEScan(300, found, 4, &count), NKR_ERROR_BLE_UNSUPPORTED);
}

}  // namespace
}  // namespace bluez
