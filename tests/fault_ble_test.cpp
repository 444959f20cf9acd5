// Bluetooth faults end to end, through the exports only: silence, stale and
// damaged answers, a link dropped between requests and in the middle of one,
// a unit switched off, and a helper library that is missing or not a library.
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <string>
#include <vector>

#include "ble_test_support.h"
#include "fault_support.h"

namespace {
using nkrtest::bleUnitWithFirmware;
using nkrtest::position;

std::atomic<int> g_unitToDrop{-1};
std::atomic<int> g_disconnectReports{0};

// Pair-state callback: drops the link the moment the unit says "new
// connection", which is in the middle of the exchange that heard it.
void dropOnNewConnection(_NKR_ERROR_CODE code)
{
    if (code == NKR_ERROR_BLE_NEW_CONNECTION && g_unitToDrop.load() >= 0) nkrsim::bleDropConnection(g_unitToDrop.load());
}

void countDisconnects(bool connected)
{
    if (!connected) g_disconnectReports.fetch_add(1);
}

class FaultBle : public nkrtest::SimTest {
protected:
    // Adds a unit at the given position, connects and pairs it, counting its drops.
    int connectAndPair(int position = 30000)
    {
        spec = bleUnitWithFirmware(382);
        spec.position = position;
        unit = nkrsim::addUnit(spec);
        return reconnect();
    }
    int reconnect()
    {
        const int id = nkrtest::connectAndPair(spec, unit);
        EXPECT_EQ(NKRBLERegConnStateCallback(id, &countDisconnects), NKR_SUCCESS);
        return id;
    }
    nkrsim::UnitSpec spec;
    nkrsim::UnitId unit = -1;
};

TEST_F(FaultBle, SilenceStaleAndDamagedAnswers)
{
    const int id = connectAndPair(4321);
    int pos = -1;
    nkrsim::bleSilence(unit, 1);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_NO_ANSWER);
    EXPECT_EQ(pos, -1);
    EXPECT_EQ(position(id), 4321) << "one silent wait costs one call";
    nkrsim::bleSilence(unit, 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_NO_ANSWER);
    EXPECT_EQ(position(id), 4321);
    // An answer to an earlier request is skipped, the right one is taken.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.position = 1234; });
    nkrsim::bleStaleFirst(unit);
    EXPECT_EQ(position(id), 1234);
    nkrsim::bleCorruptChecksum(unit, 1);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_CHECKSUM);
    nkrsim::bleRefuseSend(unit, 1);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_SEND);
    // A frame too short to carry a sequence number is refused, not read past.
    nkrsim::bleRawAnswer(unit, {0x01, 0x00});
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_GENERAL);
    EXPECT_EQ(position(id), 1234);
    // A move whose frame is refused leaves the host's run flag set (no state
    // is rolled back), so changes wait for a status read or a stop.
    nkrsim::bleRefuseSend(unit, 1);
    EXPECT_EQ(NKRMove(id, 3000), NKR_ERROR_BLE_SEND);
    EXPECT_EQ(NKRSetBacklash(id, 5), NKR_ERROR_MOVING);
    EXPECT_EQ(position(id), 1234);
    EXPECT_EQ(NKRMove(id, 3000), NKR_SUCCESS);
}

TEST_F(FaultBle, LinkDroppedBetweenAndDuringRequestsOrUnitSwitchedOff)
{
    int id = connectAndPair(777);
    g_disconnectReports = 0;
    // Between requests: the helper reports it from its own thread, the
    // object stays in its slot and every request is refused.
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_disconnectReports.load(), 1);
    int pos = -1;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_SEND);
    EXPECT_EQ(NKRMove(id, 100), NKR_ERROR_BLE_SEND);
    _NKR_ALL_INFO info{};
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_ERROR_INVALID_VALUE) << "no answer to fill the record";
    EXPECT_EQ(NKRBLEPair(id), NKR_ERROR_BLE_PAIR);
    // The host's way back: disconnect, connect (the same id), pair.
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_NOT_OPEN);
    EXPECT_EQ(reconnect(), id);
    EXPECT_EQ(position(id), 777);
    // During a request: the link goes while the exchange waits for its
    // answer. The exchange waits out its grace and reports no answer.
    g_unitToDrop = unit;
    ASSERT_EQ(NKRBLERegPairStateCallback(id, &dropOnNewConnection), NKR_SUCCESS);
    nkrsim::bleNewConnection(unit, 0);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_NO_ANSWER);
    g_unitToDrop = -1;
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_disconnectReports.load(), 2);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_SEND);
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    EXPECT_EQ(reconnect(), id);
    EXPECT_EQ(NKRMove(id, 900), NKR_SUCCESS);
    nkrsim::advanceMicros(1000000);
    EXPECT_EQ(position(id), 900);
    // Switched off: the link drops, and a connect fails, leaves no object
    // and gives its id back once the unit is on again.
    nkrsim::unplug(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_SEND);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    int failed = -1;
    EXPECT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(unit).c_str(), &failed), NKR_ERROR_BLE_CONNECT);
    EXPECT_EQ(NKRGetPosition(failed, &pos), NKR_ERROR_BLE_NOT_OPEN);
    nkrsim::replug(unit);
    EXPECT_EQ(reconnect(), failed);
    // Bluetooth sessions never write the settings file.
    EXPECT_FALSE(storetest::exists(faulttest::settingsPath()));
}

class FaultHelper : public FaultBle {};

// Missing, not a library, empty, a folder, a library without the entry
// points, or cut short (a copy that broke off: handed to the dynamic loader
// it would raise SIGBUS in the host, so the manager refuses it first).
TEST_F(FaultHelper, MissingOrBrokenHelperLibraryFailsCleanly)
{
    const std::string dir = std::string(std::getenv("HOME")) + "/helpers";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    std::ofstream(dir + "/text.so") << "this is not a shared library\n";
    std::ofstream(dir + "/empty.so");
    mkdir((dir + "/dir.so").c_str(), 0755);
    std::vector<char> head(1024);
    std::ifstream real("./lib/libBlueShim.so", std::ios::binary);
    ASSERT_EQ(real.read(head.data(), 1024).gcount(), 1024);
    std::ofstream(dir + "/truncated.so", std::ios::binary).write(head.data(), 1024);
    spec = bleUnitWithFirmware(382);
    unit = nkrsim::addUnit(spec);
    _BLE_DEVICE_INFO found[4]{};
    int count = -1, pos = -1;
    for (const char* helper : {"missing.so", "text.so", "empty.so", "dir.so", "truncated.so", "libm.so.6"}) {
        SCOPED_TRACE(helper);
        setenv("NKR_BLE_HELPER", (helper[0] == 'l' ? std::string(helper) : dir + "/" + helper).c_str(), 1);
        EXPECT_EQ(NKRBLEScan(100, found, 4, &count), NKR_ERROR_BLE_UNSUPPORTED);
        int id = -1;
        EXPECT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(unit).c_str(), &id), NKR_ERROR_BLE_CONNECT);
        EXPECT_EQ(id, NKR_BLE_FIRST_ID);
        EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_NOT_OPEN);
        EXPECT_EQ(NKRBLEPair(id), NKR_ERROR_BLE_NOT_OPEN);
        EXPECT_EQ(NKRBLEDisconnect(id), NKR_ERROR_INVALID_ID);
    }
    // With the helper back, the same process scans and connects, from id 50.
    unsetenv("NKR_BLE_HELPER");
    EXPECT_EQ(NKRBLEScan(100, found, 4, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(reconnect(), NKR_BLE_FIRST_ID);
    EXPECT_EQ(position(NKR_BLE_FIRST_ID), 30000);
}

}  // namespace
