// Whole-library stress: host threads call random exports on USB and Bluetooth
// units while a registry thread scans, opens and closes, and a chaos thread
// unplugs and replugs USB units and drops Bluetooth links (the helper reports
// those from its own thread). Meant for ThreadSanitizer too. Every call must
// return a code of the public table, and nothing may hang: a watchdog ends the
// process with a report when a thread makes no progress for a minute.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "ble_test_support.h"
#include "store/XmlStore.h"

#if defined(__SANITIZE_THREAD__)
// NKRClose holds all 64 slot locks and then the device lock, more than
// ThreadSanitizer's lock-order detector can track (it aborts at 64); real
// deadlocks are caught by the watchdog below instead. Applies to the whole
// test program; TSAN_OPTIONS can still override it.
extern "C" const char* __tsan_default_options() { return "detect_deadlocks=0"; }
#endif

namespace {
using Clock = std::chrono::steady_clock;
using nkrtest::bleUnitWithFirmware;
using nkrtest::unitWithFirmware;

// Bounds: whichever comes first ends the run.
constexpr int kWorkers = 4;
constexpr int kCallsPerWorker = 5000;
constexpr auto kTimeBudget = std::chrono::seconds(40);
// A thread that makes no progress for this long is taken for deadlocked.
constexpr auto kStallLimit = std::chrono::seconds(60);
// Pacing: one registry action per this many worker calls, one fault likewise;
// the workers never run more than two registry actions ahead.
constexpr long kCallsPerRegistryAction = 12;
constexpr long kCallsPerFault = 30;
constexpr long kWorkerLead = 2;

constexpr int kUsbUnits = 3;
constexpr int kBleUnits = 2;

const std::set<int> kPublicCodes = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 50, 51, 52,
                                    53, 54, 56, 57, 58, 59, 60, 62};

// What one thread is doing, for the watchdog's report.
struct Heartbeat {
    std::string name;
    std::atomic<long> calls{0};
    std::atomic<const char*> current{"starting"};
    std::atomic<int> id{-1};
    std::atomic<bool> done{false};
};

std::atomic<int> g_dropReports{0};
void onConnectionChange(bool connected)
{
    if (!connected) g_dropReports.fetch_add(1);
}

// Ends the process when some thread stops making progress.
class Watchdog {
public:
    explicit Watchdog(std::vector<Heartbeat*> beats) : beats_(std::move(beats))
    {
        thread_ = std::thread([this] { run(); });
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> g(m_);
            stop_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }

private:
    void run()
    {
        std::vector<long> seen(beats_.size(), -1);
        std::vector<Clock::time_point> since(beats_.size(), Clock::now());
        std::unique_lock<std::mutex> g(m_);
        while (!cv_.wait_for(g, std::chrono::milliseconds(200), [this] { return stop_; })) {
            for (size_t i = 0; i < beats_.size(); ++i) {
                const long now = beats_[i]->calls.load();
                if (now != seen[i] || beats_[i]->done.load()) {
                    seen[i] = now;
                    since[i] = Clock::now();
                } else if (Clock::now() - since[i] > kStallLimit) {
                    report(i);
                }
            }
        }
    }

    [[noreturn]] void report(size_t stalled)
    {
        std::fprintf(stderr, "WATCHDOG: thread '%s' made no progress for %.0f s; state:\n",
                     beats_[stalled]->name.c_str(), std::chrono::duration<double>(kStallLimit).count());
        for (Heartbeat* b : beats_)
            std::fprintf(stderr, "  %-10s calls=%ld done=%d last call=%s id=%d\n", b->name.c_str(),
                         b->calls.load(), b->done.load() ? 1 : 0, b->current.load(), b->id.load());
        std::fflush(stderr);
        std::_Exit(3);
    }

    std::vector<Heartbeat*> beats_;
    std::mutex m_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::thread thread_;
};

// Codes seen per thread, merged at the end; off-table codes with their call.
struct Tally {
    std::map<int, long> codes;
    std::vector<std::string> unexpected;
    long usbCalls = 0, bleCalls = 0;

    void add(int rc, const char* op, int id)
    {
        ++codes[rc];
        if (!kPublicCodes.count(rc) && unexpected.size() < 20)
            unexpected.push_back(std::string(op) + "(" + std::to_string(id) + ") -> " + std::to_string(rc));
    }
    void merge(const Tally& o)
    {
        for (auto [rc, n] : o.codes) codes[rc] += n;
        unexpected.insert(unexpected.end(), o.unexpected.begin(), o.unexpected.end());
        usbCalls += o.usbCalls;
        bleCalls += o.bleCalls;
    }
};

// One random per-device export on id; returns its code.
int randomExport(std::mt19937& rng, int id, Heartbeat& hb)
{
    int v = 0;
    bool b = false, b2 = false;
    float f = 0;
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    auto call = [&](const char* name, auto&& fn) {
        hb.current = name;
        return fn();
    };
    switch (pick(24)) {
    case 0: return call("GetPosition", [&] { return NKRGetPosition(id, &v); });
    case 1: return call("IsMoving", [&] { return NKRIsMoving(id, &b, &b2); });
    case 2: return call("GetBacklash", [&] { return NKRGetBacklash(id, &v); });
    case 3: return call("SetBacklash", [&] { return NKRSetBacklash(id, pick(300)); });
    case 4: return call("GetBeep", [&] { return NKRGetBeep(id, &b); });
    case 5: return call("SetBeep", [&] { return NKRSetBeep(id, pick(2) == 1); });
    case 6: return call("GetReverse", [&] { return NKRGetReverse(id, &b); });
    case 7: return call("SetReverse", [&] { return NKRSetReverse(id, pick(2) == 1); });
    case 8: return call("GetMaxStep", [&] { return NKRGetMaxStep(id, &v); });
    case 9: return call("SetMaxStep", [&] { return NKRSetMaxStep(id, 10000 + pick(60000)); });
    case 10: return call("GetMaxForce", [&] { return NKRGetMaxForce(id, &v); });
    case 11: return call("SetMaxForce", [&] { return NKRSetMaxForce(id, pick(20)); });
    case 12: return call("GetTemp", [&] { return NKRGetTemp(id, &f); });
    case 13: {
        unsigned char ma = 0, mi = 0, bu = 0;
        return call("GetFirmwareVersion", [&] { return NKRGetFirmwareVersion(id, &ma, &mi, &bu); });
    }
    case 14: {
        _NKR_SN sn{};
        return call("GetSerialNumber", [&] { return NKRGetSerialNumber(id, &sn); });
    }
    case 15: {
        _NKR_TYPE type{};
        return call("GetType", [&] { return NKRGetType(id, &type); });
    }
    case 16:
    case 17: return call("Move", [&] { return NKRMove(id, pick(8000) - 500); });
    case 18: return call("Stop", [&] { return NKRStop(id); });
    case 19: return call("StepRange", [&] { return NKRStepRange(id, &v); });
    case 20: return call("GetSpeed", [&] { return NKRGetSpeed(id, &v); });
    case 21:
        if (pick(2) == 0) return call("SetLedState", [&] { return NKRSetLedState(id, pick(2) == 1); });
        return call("GetLedState", [&] { return NKRGetLedState(id, &b); });
    case 22: {
        _NKR_CONTROL_CAPS caps{};
        return call("GetControlCaps", [&] { return NKRGetControlCaps(id, pick(9), &caps); });
    }
    default: {
        _NKR_ALL_INFO info{};
        return call("BLEgetAllInfo", [&] { return NKRBLEgetAllInfo(id, &info); });
    }
    }
}

// Ids the workers aim at: the USB slots (and one free slot), the Bluetooth
// slots (and one empty), and ids outside the table.
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
    std::vector<nkrsim::UnitSpec> bleSpecs_;
    // Calls on Bluetooth ids share it; NKRBLEPair takes it alone.
    std::shared_mutex pairing_;

    // Connects every Bluetooth unit in order (ids 50, 51, ...), pairs it and
    // registers the connection report; codes go to the tally.
    void connectBle(Tally& t, Heartbeat& hb)
    {
        for (size_t i = 0; i < ble_.size(); ++i) {
            int id = -1;
            const std::string address = nkrsim::bleAddress(ble_[i]);
            hb.current = "BLEConnect";
            int rc = NKRBLEConnect(bleSpecs_[i].bleName.c_str(), address.c_str(), &id);
            t.add(rc, "BLEConnect", id);
            hb.calls.fetch_add(1);
            if (rc != NKR_SUCCESS) continue;
            hb.current = "BLERegConnStateCallback";
            t.add(NKRBLERegConnStateCallback(id, &onConnectionChange), "BLERegConnStateCallback", id);
            hb.current = "BLEPair";
            {
                // Pairing rewrites the unit's capabilities unguarded: hosts
                // pair before using the unit (see RELIABILITY.md).
                std::unique_lock<std::shared_mutex> alone(pairing_);
                t.add(NKRBLEPair(id), "BLEPair", id);
            }
            hb.calls.fetch_add(1);
        }
    }

    void disconnectBle(Tally& t, Heartbeat& hb)
    {
        hb.current = "BLEDisconnect";
        for (int id = NKR_BLE_FIRST_ID + kBleUnits - 1; id >= NKR_BLE_FIRST_ID; --id) {
            t.add(NKRBLEDisconnect(id), "BLEDisconnect", id);
            hb.calls.fetch_add(1);
        }
    }

    void scanAndOpen(Tally& t, Heartbeat& hb)
    {
        hb.current = "GetNum";
        const int n = NKRGetNum();
        for (int i = 0; i < n; ++i) {
            int id = -1;
            hb.current = "GetID";
            t.add(NKRGetID(i, &id), "GetID", i);
            hb.current = "Open";
            hb.id = id;
            t.add(NKROpen(id), "Open", id);
            hb.calls.fetch_add(1);
        }
    }
};

TEST_F(ConcurrencyStress, RandomCallsWhileUnitsComeAndGo)
{
    for (int i = 0; i < kUsbUnits; ++i) usb_.push_back(nkrsim::addUnit(unitWithFirmware(i == 0 ? 335 : 382)));
    for (int i = 0; i < kBleUnits; ++i) {
        bleSpecs_.push_back(bleUnitWithFirmware(382));
        ble_.push_back(nkrsim::addUnit(bleSpecs_.back()));
    }

    Heartbeat registryBeat, chaosBeat;
    registryBeat.name = "registry";
    chaosBeat.name = "chaos";
    std::vector<Heartbeat> workerBeats(kWorkers);
    std::vector<Heartbeat*> all = {&registryBeat, &chaosBeat};
    for (int w = 0; w < kWorkers; ++w) {
        workerBeats[w].name = "worker" + std::to_string(w);
        all.push_back(&workerBeats[w]);
    }
    Watchdog watchdog(all);

    Tally setupTally;
    scanAndOpen(setupTally, registryBeat);
    connectBle(setupTally, registryBeat);
    ASSERT_EQ(setupTally.codes.size(), 1u) << "every unit opens, connects and pairs before the storm";
    ASSERT_EQ(setupTally.codes.begin()->first, NKR_SUCCESS);

    const auto start = Clock::now();
    const auto deadline = start + kTimeBudget;
    std::atomic<long> workerCalls{0};
    std::atomic<long> registryActions{0};
    std::atomic<bool> registryRunning{true};
    std::atomic<int> workersLeft{kWorkers};
    auto running = [&] { return workersLeft.load() > 0 && Clock::now() < deadline; };
    // Holds a pacing thread until the workers have made `target` calls.
    auto waitForCalls = [&](long target) {
        while (running() && workerCalls.load() < target) std::this_thread::yield();
    };

    std::vector<Tally> tallies(kWorkers + 2);
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([&, w] {
            std::mt19937 rng(1000u + static_cast<unsigned>(w));
            Heartbeat& hb = workerBeats[w];
            for (int i = 0; i < kCallsPerWorker && Clock::now() < deadline; ++i) {
                // Keep the registry's scans, opens and closes among the calls.
                while (registryRunning.load() &&
                       workerCalls.load() >= (registryActions.load() + kWorkerLead) * kCallsPerRegistryAction)
                    std::this_thread::yield();
                const int id = randomId(rng);
                hb.id = id;
                std::shared_lock<std::shared_mutex> notPairing(pairing_, std::defer_lock);
                if (id >= NKR_BLE_FIRST_ID) notPairing.lock();
                const int rc = randomExport(rng, id, hb);
                if (notPairing.owns_lock()) notPairing.unlock();
                tallies[w].add(rc, hb.current.load(), id);
                (id >= NKR_BLE_FIRST_ID ? tallies[w].bleCalls : tallies[w].usbCalls)++;
                hb.calls.fetch_add(1);
                workerCalls.fetch_add(1);
            }
            hb.done = true;
            workersLeft.fetch_sub(1);
        });
    }

    long scans = 0, closes = 0, properties = 0, bleReconnects = 0;
    threads.emplace_back([&] {
        Tally& t = tallies[kWorkers];
        std::mt19937 rng(7);
        for (long next = kCallsPerRegistryAction; running(); next += kCallsPerRegistryAction) {
            waitForCalls(next);
            const unsigned r = rng() % 10;
            if (r < 4) {
                scanAndOpen(t, registryBeat);
                ++scans;
            } else if (r < 6) {
                const int id = static_cast<int>(rng() % (kUsbUnits + 1));
                registryBeat.current = "Close";
                registryBeat.id = id;
                t.add(NKRClose(id), "Close", id);
                ++closes;
            } else if (r < 8) {
                // Like a host listing its units; may open a closed slot for the query.
                const int id = static_cast<int>(rng() % (kUsbUnits + 1));
                _NKR_INFO info{};
                registryBeat.current = "GetProperty";
                registryBeat.id = id;
                t.add(NKRGetProperty(id, &info), "GetProperty", id);
                ++properties;
            } else {
                bool dropped = false;
                for (nkrsim::UnitId u : ble_) dropped = dropped || nkrsim::bleConnections(u) == 0;
                if (dropped) {
                    disconnectBle(t, registryBeat);
                    connectBle(t, registryBeat);
                    ++bleReconnects;
                }
            }
            registryBeat.calls.fetch_add(1);
            registryActions.fetch_add(1);
        }
        registryBeat.done = true;
        registryRunning = false;
    });

    long unplugs = 0, replugs = 0, drops = 0;
    threads.emplace_back([&] {
        std::mt19937 rng(11);
        for (long next = kCallsPerFault; running(); next += kCallsPerFault) {
            waitForCalls(next);
            const unsigned r = rng() % 4;
            const nkrsim::UnitId u = usb_[rng() % usb_.size()];
            chaosBeat.id = u;
            if (r == 0) {
                chaosBeat.current = "unplug";
                nkrsim::unplug(u);
                ++unplugs;
            } else if (r == 1) {
                chaosBeat.current = "replug";
                nkrsim::replug(u);
                ++replugs;
            } else if (r == 2) {
                chaosBeat.current = "bleDropConnection";
                nkrsim::bleDropConnection(ble_[rng() % ble_.size()]);
                ++drops;
            } else {
                chaosBeat.current = "advance clock";
                nkrsim::advanceMicros(500000);  // lets moves finish
            }
            chaosBeat.calls.fetch_add(1);
        }
        chaosBeat.done = true;
    });
    for (auto& th : threads) th.join();
    nkrsim::bleFlushCallbacks();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);

    Tally total;
    for (const Tally& t : tallies) total.merge(t);
    EXPECT_TRUE(total.unexpected.empty()) << total.unexpected.front();
    EXPECT_GT(workerCalls.load(), 0);

    std::printf("stress: %ld worker calls (%ld on USB ids, %ld on Bluetooth ids) in %lld ms; "
                "%d worker threads + registry + chaos; %d USB units, %d Bluetooth units\n",
                workerCalls.load(), total.usbCalls, total.bleCalls,
                static_cast<long long>(elapsed.count()), kWorkers, kUsbUnits, kBleUnits);
    std::printf("stress: registry %ld scans, %ld closes, %ld property reads, %ld Bluetooth "
                "reconnects; chaos %ld unplugs, %ld replugs, %ld link drops (%d reported)\n",
                scans, closes, properties, bleReconnects, unplugs, replugs, drops,
                g_dropReports.load());
    std::string codes = "stress: codes";
    for (auto [rc, n] : total.codes) codes += " " + std::to_string(rc) + ":" + std::to_string(n);
    std::printf("%s\n", codes.c_str());

    // Afterwards every unit is reachable again the ordinary way.
    for (nkrsim::UnitId u : usb_) nkrsim::replug(u);
    nkrsim::advanceMicros(60000000);
    Tally after;
    scanAndOpen(after, registryBeat);
    for (int id = 0; id < kUsbUnits; ++id) {
        int pos = -1;
        // A unit still holding a dead handle from before its replug needs a
        // close and an open: that is the host's documented way back.
        if (NKRGetPosition(id, &pos) != NKR_SUCCESS) {
            EXPECT_EQ(NKRClose(id), NKR_SUCCESS);
            EXPECT_EQ(NKROpen(id), NKR_SUCCESS);
        }
        EXPECT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS) << id;
    }
    disconnectBle(after, registryBeat);
    connectBle(after, registryBeat);
    for (int id = NKR_BLE_FIRST_ID; id < NKR_BLE_FIRST_ID + kBleUnits; ++id) {
        int pos = -1;
        EXPECT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS) << id;
    }
    disconnectBle(after, registryBeat);
    for (int id = 0; id < kUsbUnits; ++id) EXPECT_EQ(NKRClose(id), NKR_SUCCESS);

    // The closes wrote a settings file that still reads back.
    xmlHandle handle;
    EXPECT_EQ(XMLOpenKey("NKRconfig.xml", "software\\HTX_Drevomat", &handle), 1);
    XMLCloseKey(&handle);
}

}  // namespace
