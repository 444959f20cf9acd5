// Host threads call random exports on USB and Bluetooth units while others
// scan, open, close, unplug and drop links: every code must be a public one.
// Meant for ThreadSanitizer too; a hang ends at ctest's timeout.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iterator>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <thread>

#include "ble_test_support.h"

#if defined(__SANITIZE_THREAD__)
// NKRClose holds all 64 slot locks and then the device lock, more than
// ThreadSanitizer's lock-order detector can track (it aborts at 64).
extern "C" const char* __tsan_default_options() { return "detect_deadlocks=0"; }
#endif

namespace {
using Clock = std::chrono::steady_clock;
constexpr int kWorkers = 4, kCallsPerWorker = 5000, kUsbUnits = 3, kBleUnits = 2;
const std::set<int> kPublicCodes = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 50, 51, 52, 53, 54, 56, 57, 58, 59, 60, 62};

struct Out {  // where the calls write
    int v = 0;
    bool b = false, b2 = false;
    float f = 0;
    unsigned char x = 0, y = 0, z = 0;
    _NKR_SN sn{};
    _NKR_TYPE type{};
    _NKR_CONTROL_CAPS caps{};
    _NKR_ALL_INFO info{};
};
// Every per-device export (moves twice); r is a random number for the argument.
#define CALL(expr) [](int id, unsigned r, Out& o) { return (void)r, (void)o, (expr); }
const std::function<int(int, unsigned, Out&)> kCalls[] = {
    CALL(NKRGetPosition(id, &o.v)), CALL(NKRIsMoving(id, &o.b, &o.b2)), CALL(NKRGetBacklash(id, &o.v)),
    CALL(NKRSetBacklash(id, int(r % 300))), CALL(NKRSetBeep(id, r & 1)), CALL(NKRGetReverse(id, &o.b)),
    CALL(NKRSetReverse(id, r & 1)), CALL(NKRSetMaxStep(id, 10000 + int(r % 60000))), CALL(NKRStop(id)),
    CALL(NKRSetMaxForce(id, int(r % 20))), CALL(NKRGetTemp(id, &o.f)), CALL(NKRGetSerialNumber(id, &o.sn)),
    CALL(NKRGetFirmwareVersion(id, &o.x, &o.y, &o.z)), CALL(NKRGetType(id, &o.type)), CALL(NKRGetSpeed(id, &o.v)),
    CALL(NKRMove(id, int(r % 8000) - 500)), CALL(NKRMove(id, int(r % 8000) - 500)), CALL(NKRStepRange(id, &o.v)),
    CALL(NKRSetLedState(id, r & 1)), CALL(NKRGetLedState(id, &o.b)), CALL(NKRGetControlCaps(id, int(r % 9), &o.caps)),
    CALL(NKRBLEgetAllInfo(id, &o.info)),
};
#undef CALL

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
    void reconnectBle()
    {
        for (int id = NKR_BLE_FIRST_ID + kBleUnits - 1; id >= NKR_BLE_FIRST_ID; --id)
            check(NKRBLEDisconnect(id), "BLEDisconnect", id);
        for (size_t i = 0; i < ble_.size(); ++i) {
            int id = -1;
            const int rc = NKRBLEConnect(specs_[i].bleName.c_str(), nkrsim::bleAddress(ble_[i]).c_str(), &id);
            check(rc, "BLEConnect", id);
            std::unique_lock<std::shared_mutex> alone(pairing_);
            if (rc == NKR_SUCCESS) check(NKRBLEPair(id), "BLEPair", id);
        }
    }
    void scanAndOpen()
    {
        for (int i = 0, n = NKRGetNum(), id = -1; i < n; ++i) {
            check(NKRGetID(i, &id), "GetID", i);
            check(NKROpen(id), "Open", id);
        }
    }
    static bool allAnswer()
    {
        for (int id : {0, 1, 2, NKR_BLE_FIRST_ID, NKR_BLE_FIRST_ID + 1})
            if (nkrtest::position(id) < 0) return false;
        return true;
    }
};

TEST_F(ConcurrencyStress, RandomCallsWhileUnitsComeAndGo)
{
    for (int i = 0; i < kUsbUnits; ++i) usb_.push_back(nkrsim::addUnit(nkrtest::unitWithFirmware(i ? 382 : 335)));
    for (int i = 0; i < kBleUnits; ++i)
        ble_.push_back(nkrsim::addUnit(specs_.emplace_back(nkrtest::bleUnitWithFirmware(382))));
    scanAndOpen();
    reconnectBle();
    ASSERT_TRUE(allAnswer()) << "every unit answers before the storm";
    const auto deadline = Clock::now() + std::chrono::seconds(40);
    std::atomic<long> calls{0};
    std::atomic<int> workersLeft{kWorkers};
    auto running = [&] { return workersLeft.load() > 0 && Clock::now() < deadline; };
    // The registry and chaos threads act once every `every` worker calls.
    auto paced = [&](long every, auto&& action) {
        std::mt19937 rng(static_cast<unsigned>(every));
        for (long next = every; running(); next += every) {
            while (running() && calls.load() < next) std::this_thread::yield();
            action(rng(), rng());
        }
    };
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w)
        threads.emplace_back([&, w] {
            std::mt19937 rng(1000u + static_cast<unsigned>(w));
            Out out;
            for (int i = 0; i < kCallsPerWorker && Clock::now() < deadline; ++i, calls.fetch_add(1)) {
                const int id = randomId(rng);
                std::shared_lock<std::shared_mutex> notPairing(pairing_, std::defer_lock);
                if (id >= NKR_BLE_FIRST_ID) notPairing.lock();
                check(kCalls[rng() % std::size(kCalls)](id, rng(), out), "worker call", id);
            }
            workersLeft.fetch_sub(1);
        });
    threads.emplace_back([&] {
        paced(12, [&](unsigned r, unsigned which) {
            const int id = static_cast<int>(which % (kUsbUnits + 1));
            _NKR_INFO info{};
            if (r % 10 < 4) scanAndOpen();
            else if (r % 10 < 6) check(NKRClose(id), "Close", id);
            else if (r % 10 < 8) check(NKRGetProperty(id, &info), "GetProperty", id);  // may open the slot
            else if (nkrsim::bleConnections(ble_[0]) == 0 || nkrsim::bleConnections(ble_[1]) == 0) reconnectBle();
        });
    });
    threads.emplace_back([&] {
        paced(30, [&](unsigned r, unsigned which) {
            const nkrsim::UnitId u = usb_[which % usb_.size()];
            if (r % 4 == 0) nkrsim::unplug(u);
            else if (r % 4 == 1) nkrsim::replug(u);
            else if (r % 4 == 2) nkrsim::bleDropConnection(ble_[which % ble_.size()]);
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
    for (int id = 0; id < kUsbUnits; ++id)
        EXPECT_EQ(nkrtest::position(id) < 0 ? NKRClose(id) | NKROpen(id) : NKR_SUCCESS, NKR_SUCCESS);
    reconnectBle();
    EXPECT_TRUE(allAnswer());
}

// While g_disconnecting is false the callback holds the report until the disconnect has begun.
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
        g_disconnecting = round % 2 == 1;  // odd rounds: the report resets the link during the exchanges
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

// A host that releases the slot from its connection callback, on the helper's thread.
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
