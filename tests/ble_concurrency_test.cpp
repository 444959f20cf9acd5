// A connection drop reported on the helper's thread while host threads run
// exchanges and another host thread destroys the device object. Meant to run
// under ThreadSanitizer as well: no race, no use after free, no deadlock.
#include <atomic>
#include <thread>
#include <vector>

#include "api/Registry.h"
#include "ble_test_support.h"

namespace {
using nkrtest::BleTest;
using nkrtest::bleUnitWithFirmware;

class ConcurrencyBle : public BleTest {};

// While g_destroying is false the host callback holds the report inside the
// device's callable until the destruction has begun, so the two overlap.
std::atomic<bool> g_destroying{false};
std::atomic<int> g_reports{0};

void slowHostCallback(bool connected)
{
    if (connected) return;
    g_reports.fetch_add(1);
    g_reports.notify_all();
    g_destroying.wait(false);
}

TEST_F(ConcurrencyBle, DropDuringExchangesAndDestruction)
{
    constexpr int kRounds = 8;
    constexpr int kExchangesPerThread = 40;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        // Even rounds hold the report until destruction; odd rounds let it
        // reset the link while the exchanges are still running.
        g_destroying = round % 2 == 1;
        g_reports = 0;
        nkrsim::UnitId unit = -1;
        CNKR* device = connect(bleUnitWithFirmware(382), &unit).release();
        ASSERT_EQ(device->BLERegConnStateCallback(&slowHostCallback), NKR_SUCCESS);

        std::atomic<int> answered{0};
        std::vector<std::thread> exchanges;
        for (int t = 0; t < 2; ++t) {
            exchanges.emplace_back([&] {
                std::vector<uint8_t> out;
                for (int i = 0; i < kExchangesPerThread; ++i) {
                    int rc = device->bleSendData(BLEProtocol::CMD_DEVICE, statusPayload(), true, out);
                    if (rc == NKR_SUCCESS) answered.fetch_add(1);
                }
            });
        }
        nkrsim::bleDropConnection(unit);

        std::thread destroyer([&] {
            for (auto& t : exchanges) t.join();
            g_reports.wait(0);  // the report has reached the host
            g_destroying = true;
            g_destroying.notify_all();
            delete device;
        });
        destroyer.join();
        nkrsim::bleFlushCallbacks();

        EXPECT_EQ(g_reports.load(), 1);
        EXPECT_EQ(nkrsim::bleConnections(unit), 0);
        EXPECT_LE(answered.load(), 2 * kExchangesPerThread);
    }
}

TEST_F(ConcurrencyBle, DestroyingTheDeviceStopsReportsThatHaveNotStarted)
{
    nkrsim::UnitId unit = -1;
    g_destroying = true;  // the host callback does not hold reports here
    g_reports = 0;
    auto device = connect(bleUnitWithFirmware(382), &unit);
    ASSERT_EQ(device->BLERegConnStateCallback(&slowHostCallback), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    device.reset();
    nkrsim::bleFlushCallbacks();
    EXPECT_LE(g_reports.load(), 1);

    // A later device may borrow the same trampoline and gets only its own reports.
    auto next = connect(bleUnitWithFirmware(382), &unit);
    g_reports = 0;
    ASSERT_EQ(next->BLERegConnStateCallback(&slowHostCallback), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_reports.load(), 1);
    EXPECT_FALSE(next->m_bBleConnected);
}

// A host that releases the slot from its own connection callback, on the
// helper's thread: the device's callable must not touch the object afterwards.
std::atomic<int> g_selfId{-1};
std::atomic<int> g_disconnectResult{-1};

void disconnectFromCallback(bool connected)
{
    if (!connected) g_disconnectResult = NKRBLEDisconnect(g_selfId);
}

TEST_F(ConcurrencyBle, HostCallbackMayDisconnectItsOwnSlot)
{
    nkrsim::UnitSpec spec = bleUnitWithFirmware(382);
    nkrsim::UnitId unit = nkrsim::addUnit(spec);
    int id = -1;
    ASSERT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(unit).c_str(), &id),
              NKR_SUCCESS);
    g_selfId = id;
    ASSERT_EQ(NKRBLERegConnStateCallback(id, &disconnectFromCallback), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_disconnectResult.load(), NKR_SUCCESS);
    EXPECT_EQ(pNKR[id].load(), nullptr);
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
}

}  // namespace
