// Bluetooth faults through the exports: silence, stale and damaged answers,
// dropped links, a unit switched off, and helper libraries that must not load.
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "ble_test_support.h"
#include "fault_support.h"

namespace {
using nkrtest::bleUnitWithFirmware;
using nkrtest::position;

std::atomic<int> g_unitToDrop{-1};
std::atomic<int> g_disconnectReports{0};

// Drops the link the moment the unit says "new connection": in the middle of the exchange that heard it.
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
    EXPECT_EQ((std::pair{NKRGetPosition(id, &pos), pos}), std::pair(int(NKR_ERROR_BLE_NO_ANSWER), -1));
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
    nkrsim::bleRawAnswer(unit, {0x01, 0x00});  // too short to carry a sequence number: refused, not read past
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_GENERAL);
    EXPECT_EQ(position(id), 1234);
    // A refused move frame leaves the run flag set: changes wait for a status read or a stop.
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
    // Between requests: reported from the helper's thread; the object stays, every request is refused.
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_disconnectReports.load(), 1);
    int pos = -1;
    for (int rc : {NKRGetPosition(id, &pos), NKRMove(id, 100)}) EXPECT_EQ(rc, NKR_ERROR_BLE_SEND);
    _NKR_ALL_INFO info{};
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_ERROR_INVALID_VALUE) << "no answer to fill the record";
    EXPECT_EQ(NKRBLEPair(id), NKR_ERROR_BLE_PAIR);
    // The host's way back: disconnect, connect (the same id), pair.
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_BLE_NOT_OPEN);
    EXPECT_EQ(reconnect(), id);
    EXPECT_EQ(position(id), 777);
    // During a request: the exchange waits out its grace and reports no answer.
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
    // Switched off: the link drops; a connect fails, leaves no object, and its id comes back later.
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
// points, cut short (the dynamic loader would raise SIGBUS in the host), or a
// good one that others may write: each is refused before it is loaded.
TEST_F(FaultHelper, MissingBrokenOrWritableHelperLibraryFailsCleanly)
{
    namespace fs = std::filesystem;
    const std::string dir = std::string(std::getenv("HOME")) + "/helpers";
    ASSERT_TRUE(fs::create_directories(dir + "/dir.so"));
    std::ofstream(dir + "/text.so") << "this is not a shared library\n";
    std::ofstream(dir + "/empty.so");
    const fs::path real = fs::canonical("./lib/libBlueShim.so");
    for (auto [copy, mode] : {std::pair{"/truncated.so", 0644}, {"/group.so", 0664}, {"/world.so", 0646}}) {
        fs::copy_file(real, dir + copy);
        chmod((dir + copy).c_str(), mode_t(mode));
    }
    fs::resize_file(dir + "/truncated.so", 1024);
    fs::create_symlink(real, dir + "/good.so");  // the loaded simulator itself, not a second copy
    spec = bleUnitWithFirmware(382);
    unit = nkrsim::addUnit(spec);
    _BLE_DEVICE_INFO found[4]{};
    int count = -1, pos = -1;
    for (const char* helper :
         {"missing.so", "text.so", "empty.so", "dir.so", "truncated.so", "libm.so.6", "group.so", "world.so"}) {
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
    // A good helper named by the environment: the same process scans and connects, from id 50.
    setenv("NKR_BLE_HELPER", (dir + "/good.so").c_str(), 1);
    EXPECT_EQ(NKRBLEScan(100, found, 4, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(reconnect(), NKR_BLE_FIRST_ID);
    EXPECT_EQ(position(NKR_BLE_FIRST_ID), 30000);
    unsetenv("NKR_BLE_HELPER");
}

}  // namespace
