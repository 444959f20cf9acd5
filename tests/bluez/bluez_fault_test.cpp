// What real radios do to a session: answers in small pieces, slow service
// resolution, a link that drops mid-exchange, a refused write, the adapter
// switched off, bluetoothd restarting, and a helper that must not be loaded.
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

std::atomic<int> g_connectedReports{0}, g_disconnectedReports{0};
void onConnectionChange(bool connected)
{
    (connected ? g_connectedReports : g_disconnectedReports)++;
}

bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

TEST_F(BlueZFaults, AnswersInTinyPiecesAreReassembled)
{
    control("SetChunkSize", "u", 3);
    int id = connectAndPair(kUnitName);
    _NKR_ALL_INFO info{};
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(info.Step, 30000);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

class SlowResolution : public BlueZTest {
    std::vector<std::string> simArgs() const override
    {
        return {"--resolve-delay-ms", "700", "--single-characteristic", "--decoy", "last"};
    }
};

TEST_F(SlowResolution, ConnectWaitsForServicesAndFindsASingleSerialCharacteristic)
{
    int id = connectAndPair(kUnitName);
    int position = 0;
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(position, 30000);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BlueZFaults, LinkDroppedMidExchangeFailsCleanlyAndTheSlotRecovers)
{
    g_disconnectedReports = 0;
    int id = connectAndPair(kUnitName);
    ASSERT_EQ(NKRBLERegConnStateCallback(id, onConnectionChange), NKR_SUCCESS);

    control("DropNextExchange");
    int position = 0;
    EXPECT_NE(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_TRUE(eventually([] { return g_disconnectedReports > 0; }));
    // Nothing more goes out on a dropped link, and nothing hangs.
    EXPECT_NE(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);

    id = connectAndPair(kUnitName);
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(position, 30000);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BlueZFaults, RefusedWriteIsASendError)
{
    int id = connectAndPair(kUnitName);
    unsigned before = requestsSeen();
    control("RefuseWrites", "u", 1);
    int position = 0;
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_ERROR_BLE_SEND);
    EXPECT_EQ(requestsSeen(), before);
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BlueZFaults, AdapterPoweredOff)
{
    control("SetPowered", "b", 0);
    _BLE_DEVICE_INFO found[4] = {};
    int count = -1;
    EXPECT_EQ(NKRBLEScan(300, found, 4, &count), NKR_ERROR_BLE_UNSUPPORTED);
    int id = -1;
    EXPECT_EQ(NKRBLEConnect(kUnitAddress, "", &id), NKR_ERROR_BLE_CONNECT);

    control("SetPowered", "b", 1);
    EXPECT_EQ(NKRBLEScan(300, found, 4, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 1);
}

TEST_F(BlueZFaults, BluetoothdRestartDisconnectsAndTheNextConnectWorks)
{
    g_disconnectedReports = 0;
    int id = connectAndPair(kUnitName);
    ASSERT_EQ(NKRBLERegConnStateCallback(id, onConnectionChange), NKR_SUCCESS);

    control("Vanish", "u", 0);
    EXPECT_TRUE(eventually([] { return g_disconnectedReports > 0; }));
    int position = 0;
    EXPECT_NE(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEConnect(kUnitName, "", &id), NKR_ERROR_BLE_CONNECT);

    control("Appear");
    id = connectAndPair(kUnitName);
    EXPECT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BlueZFaults, ConnectRefusedByTheStack)
{
    control("RefuseConnect", "b", 1);
    int id = -1;
    EXPECT_EQ(NKRBLEConnect(kUnitName, "", &id), NKR_ERROR_BLE_CONNECT);
    control("RefuseConnect", "b", 0);
    EXPECT_EQ(NKRBLEConnect(kUnitName, "", &id), NKR_SUCCESS);
    EXPECT_EQ(id, 50);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BlueZFaults, WritableHelperIsRefused)
{
    // A copy of the helper that anyone could have replaced.
    fs::path copy = fs::path(tmp_) / "libBlueShim.so";
    fs::copy_file(NKR_BLE_HELPER_PATH, copy);
    ASSERT_EQ(chmod(copy.c_str(), 0777), 0);
    setenv("NKR_BLE_HELPER", copy.c_str(), 1);
    _BLE_DEVICE_INFO found[4] = {};
    int count = -1;
    EXPECT_EQ(NKRBLEScan(300, found, 4, &count), NKR_ERROR_BLE_UNSUPPORTED);
}

}  // namespace
}  // namespace bluez
