// Whole-library stress: host threads call random exports on USB and Bluetooth
// units while a registry thread scans, opens and closes, and a chaos thread
// unplugs and replugs USB units and drops Bluetooth links (the helper reports
// those from its own thread). Every call must return a code of the public
// table. Then a drop reported on the helper's thread while host threads run
// exchanges and another disconnects the slot. Meant for ThreadSanitizer too:
// no race, no use after free; a hang ends at ctest's timeout.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "ble_test_support.h"

#if defined(__SANITIZE_THREAD__)
// NKRClose holds all 64 slot locks and then the device lock, more than
// ThreadSanitizer's lock-order detector can track (it aborts at 64).
extern "C" const char* __tsan_default_options() { return "detect_deadlocks=0"; }
#endif

namespace {
using Clock = std::chrono::steady_clock;
constexpr int kWorkers = 4, kCallsPerWorker = 5000, kUsbUnits = 3, kBleUnits = 2;
constexpr auto kTimeBudget = std::chrono::seconds(40);
const std::set<int> kPublicCodes = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 50, 51, 52, 53, 54, 56, 57, 58, 59, 60, 62};

// One random per-device export on id; returns its code.
int randomExport(std::mt19937& rng, int id)
{
    int v = 0;
    bool b = false, b2 = false;
    float f = 0;
    unsigned char x = 0, y = 0, z = 0;
    _NKR_SN sn{};
    _NKR_TYPE type{};
    _NKR_CONTROL_CAPS caps{};
    _NKR_ALL_INFO info{};
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    switch (pick(22)) {
    case 0: return NKRGetPosition(id, &v);
    case 1: return NKRIsMoving(id, &b, &b2);
    case 2: return NKRGetBacklash(id, &v);
    case 3: return NKRSetBacklash(id, pick(300));
    case 4: return NKRSetBeep(id, pick(2) == 1);
    case 5: return NKRGetReverse(id, &b);
    case 6: return NKRSetReverse(id, pick(2) == 1);
    case 7: return NKRSetMaxStep(id, 10000 + pick(60000));
    case 8: return NKRSetMaxForce(id, pick(20));
    case 9: return NKRGetTemp(id, &f);
    case 10: return NKRGetFirmwareVersion(id, &x, &y, &z);
    case 11: return NKRGetSerialNumber(id, &sn);
    case 12: return NKRGetType(id, &type);
    case 13:
    case 14: return NKRMove(id, pick(8000) - 500);
    case 15: return NKRStop(id);
    case 16: return NKRStepRange(id, &v);
    case 17: return NKRGetSpeed(id, &v);
    case 18: return pick(2) ? NKRSetLedState(id, pick(2) == 1) : NKRGetLedState(id, &b);
    case 19: return NKRGetControlCaps(id, pick(9), &caps);
    default: return NKRBLEgetAllInfo(id, &info);
    }
}

// The USB slots (and one free), the Bluetooth slots (and one empty), ids outside the table.
int randomId(std::mt19937& rng)
{
    const unsigned r = rng() % 100;
    if (r < 55) return static_cast<int>(rng() % (kUsbUnits + 1));
    if (r < 95) return NKR_BLE_FIRST_ID + static_cast<int>(rng() % (kBleUnits + 1));
    const int odd[] = {-1, 49, 127, 128, 1000};
    return odd[rng() % 5];
}

class ConcurrencyStress : public nkrtest::SimTest {
protected:
    std::vector<nkrsim::UnitId> usb_, ble_;
    std::vector<nkrsim::UnitSpec> specs_;
    std::shared_mutex pairing_;  // pairing rewrites the unit's capabilities: hosts pair before use
    std::mutex codesLock_;
    std::vector<std::string> offTable_;
    void check(int rc, const char* what, int id)
    {
        if (kPublicCodes.count(rc)) return;
        std::lock_guard<std::mutex> g(codesLock_);
        offTable_.push_back(std::string(what) + "(" + std::to_string(id) + ") -> " + std::to_string(rc));
    }
    void connectBle()
    {
        for (size_t i = 0; i < ble_.size(); ++i) {
            int id = -1;
            const int rc = NKRBLEConnect(specs_[i].bleName.c_str(), nkrsim::bleAddress(ble_[i]).c_str(), &id);
            check(rc, "BLEConnect", id);
            if (rc != NKR_SUCCESS) continue;
            std::unique_lock<std::shared_mutex> alone(pairing_);
            check(NKRBLEPair(id), "BLEPair", id);
        }
    }
    void disconnectBle()
    {
        for (int id = NKR_BLE_FIRST_ID + kBleUnits - 1; id >= NKR_BLE_FIRST_ID; --id)
            check(NKRBLEDisconnect(id), "BLEDisconnect", id);
    }
    bool allAnswer()
    {
        int pos = -1, failed = 0;
        for (int id : {0, 1, 2, NKR_BLE_FIRST_ID, NKR_BLE_FIRST_ID + 1}) failed += NKRGetPosition(id, &pos) != NKR_SUCCESS;
        return failed == 0;
    }
    void scanAndOpen()
    {
        const int n = NKRGetNum();
        for (int i = 0; i < n; ++i) {
            int id = -1;
            check(NKRGetID(i, &id), "GetID", i);
            check(NKROpen(id), "Open", id);
        }
    }
};

TEST_F(ConcurrencyStress, RandomCallsWhileUnitsComeAndGo)
{
    for (int i = 0; i < kUsbUnits; ++i) usb_.push_back(nkrsim::addUnit(nkrtest::unitWithFirmware(i ? 382 : 335)));
    for (int i = 0; i < kBleUnits; ++i) {
        specs_.push_back(nkrtest::bleUnitWithFirmware(382));
        ble_.push_back(nkrsim::addUnit(specs_.back()));
    }
    scanAndOpen();
    connectBle();
    ASSERT_TRUE(allAnswer()) << "every unit answers before the storm";
    const auto deadline = Clock::now() + kTimeBudget;
    std::atomic<long> calls{0};
    std::atomic<int> workersLeft{kWorkers};
    auto running = [&] { return workersLeft.load() > 0 && Clock::now() < deadline; };
    // The registry and chaos threads act once every `every` worker calls.
    auto paced = [&](long every, auto&& action) {
        std::mt19937 rng(static_cast<unsigned>(every));
        for (long next = every; running(); next += every) {
            while (running() && calls.load() < next) std::this_thread::yield();
            action(rng);
        }
    };
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([&, w] {
            std::mt19937 rng(1000u + static_cast<unsigned>(w));
            for (int i = 0; i < kCallsPerWorker && Clock::now() < deadline; ++i) {
                const int id = randomId(rng);
                std::shared_lock<std::shared_mutex> notPairing(pairing_, std::defer_lock);
                if (id >= NKR_BLE_FIRST_ID) notPairing.lock();
                check(randomExport(rng, id), "worker call", id);
                calls.fetch_add(1);
            }
            workersLeft.fetch_sub(1);
        });
    }
    threads.emplace_back([&] {
        paced(12, [&](std::mt19937& rng) {
            const unsigned r = rng() % 10;
            const int id = static_cast<int>(rng() % (kUsbUnits + 1));
            _NKR_INFO info{};
            if (r < 4) scanAndOpen();
            else if (r < 6) check(NKRClose(id), "Close", id);
            else if (r < 8) check(NKRGetProperty(id, &info), "GetProperty", id);  // may open a closed slot
            else {
                bool dropped = false;
                for (nkrsim::UnitId u : ble_) dropped = dropped || nkrsim::bleConnections(u) == 0;
                if (dropped) {
                    disconnectBle();
                    connectBle();
                }
            }
        });
    });
    threads.emplace_back([&] {
        paced(30, [&](std::mt19937& rng) {
            const unsigned r = rng() % 4;
            const nkrsim::UnitId u = usb_[rng() % usb_.size()];
            if (r == 0) nkrsim::unplug(u);
            else if (r == 1) nkrsim::replug(u);
            else if (r == 2) nkrsim::bleDropConnection(ble_[rng() % ble_.size()]);
            else nkrsim::advanceMicros(500000);  // lets moves finish
        });
    });
    for (auto& th : threads) th.join();
    nkrsim::bleFlushCallbacks();
    std::printf("stress: %ld worker calls\n", calls.load());
    EXPECT_TRUE(offTable_.empty()) << offTable_.front();
    EXPECT_GT(calls.load(), 0);
    // Afterwards every unit is reachable again the ordinary way: a unit still
    // holding a dead handle from before its replug needs a close and an open.
    for (nkrsim::UnitId u : usb_) nkrsim::replug(u);
    nkrsim::advanceMicros(60000000);
    scanAndOpen();
    for (int id = 0; id < kUsbUnits; ++id) {
        int pos = -1;
        if (NKRGetPosition(id, &pos) != NKR_SUCCESS) {
            EXPECT_EQ(NKRClose(id) | NKROpen(id), NKR_SUCCESS);
        }
    }
    disconnectBle();
    connectBle();
    EXPECT_TRUE(allAnswer());
}

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

TEST_F(ConcurrencyStress, DropDuringExchangesAndDisconnect)
{
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        // Even rounds hold the report until the disconnect; odd rounds let it
        // reset the link while the exchanges are still running.
        g_disconnecting = round % 2 == 1;
        g_reports = 0;
        nkrsim::UnitId unit = -1;
        const int id = nkrtest::connected(382, &unit);
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

TEST_F(ConcurrencyStress, HostCallbackMayDisconnectItsOwnSlot)
{
    nkrsim::UnitId unit = -1;
    g_selfId = nkrtest::connected(382, &unit);
    ASSERT_EQ(NKRBLERegConnStateCallback(g_selfId, &disconnectFromCallback), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_disconnectResult.load(), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(g_selfId), NKR_ERROR_INVALID_ID) << "the slot is free";
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
}

}  // namespace
