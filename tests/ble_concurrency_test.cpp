// A connection drop reported on the helper's thread while host threads run
// exchanges and another host thread disconnects the slot. Meant to run under
// ThreadSanitizer as well: no race, no use after free, no deadlock.
#include <atomic>
#include <thread>
#include <vector>

#include "ble_test_support.h"

namespace {
using nkrtest::bleUnitWithFirmware;

class ConcurrencyBle : public nkrtest::SimTest {
protected:
    int connected(nkrsim::UnitId* unit)
    {
        const nkrsim::UnitSpec spec = bleUnitWithFirmware(382);
        *unit = nkrsim::addUnit(spec);
        int id = -1;
        EXPECT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(*unit).c_str(), &id), NKR_SUCCESS);
        return id;
    }
};

// While g_disconnecting is false the host callback holds the report inside
// the device's callable until the disconnect has begun, so the two overlap.
std::atomic<bool> g_disconnecting{false};
std::atomic<int> g_reports{0};
void slowHostCallback(bool connected)
{
    if (connected) return;
    g_reports.fetch_add(1);
    g_reports.notify_all();
    g_disconnecting.wait(false);
}

TEST_F(ConcurrencyBle, DropDuringExchangesAndDisconnect)
{
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        // Even rounds hold the report until the disconnect; odd rounds let it
        // reset the link while the exchanges are still running.
        g_disconnecting = round % 2 == 1;
        g_reports = 0;
        nkrsim::UnitId unit = -1;
        const int id = connected(&unit);
        ASSERT_EQ(NKRBLERegConnStateCallback(id, &slowHostCallback), NKR_SUCCESS);
        std::vector<std::thread> exchanges;
        for (int t = 0; t < 2; ++t)
            exchanges.emplace_back([id] {
                int pos = 0;
                for (int i = 0; i < 40; ++i) NKRGetPosition(id, &pos);
            });
        nkrsim::bleDropConnection(unit);
        std::thread disconnecter([&] {
            for (auto& t : exchanges) t.join();
            g_reports.wait(0);  // the report has reached the host
            g_disconnecting = true;
            g_disconnecting.notify_all();
            EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
        });
        disconnecter.join();
        nkrsim::bleFlushCallbacks();
        EXPECT_EQ(g_reports.load(), 1);
        EXPECT_EQ(nkrsim::bleConnections(unit), 0);
    }
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
    nkrsim::UnitId unit = -1;
    g_selfId = connected(&unit);
    ASSERT_EQ(NKRBLERegConnStateCallback(g_selfId, &disconnectFromCallback), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_disconnectResult.load(), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(g_selfId), NKR_ERROR_INVALID_ID) << "the slot is free";
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
}

}  // namespace
