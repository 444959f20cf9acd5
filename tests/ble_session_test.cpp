// Bluetooth session exports: scan, connect, connection reports, pairing. The
// per-device exports over the link are in BleExports; a missing or broken
// helper library in FaultHelper.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ble_test_support.h"

namespace {
using nkrtest::bleUnitWithFirmware;
using nkrtest::payloadOf;
using Bytes = std::vector<uint8_t>;

class BleSession : public nkrtest::SimTest {};

std::vector<bool> g_reports;
std::thread::id g_reportThread;
void recordConnection(bool connected)
{
    g_reports.push_back(connected);
    g_reportThread = std::this_thread::get_id();
}

TEST_F(BleSession, ScanFillsAtMostTheCapacityAndPassesNoRadioNumbers)
{
    std::vector<nkrsim::UnitSpec> specs;
    std::vector<nkrsim::UnitId> units;
    for (int i = 0; i < 5; ++i) {
        specs.push_back(bleUnitWithFirmware(382));
        units.push_back(nkrsim::addUnit(specs.back()));
    }
    std::vector<_BLE_DEVICE_INFO> records(32);
    std::memset(records.data(), 0x7F, records.size() * sizeof records[0]);
    int count = -1;
    ASSERT_EQ(NKRBLEScan(1000, records.data(), 3, &count), NKR_SUCCESS);
    ASSERT_EQ(count, 3);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(std::string(records[i].Name), specs[i].bleName);
        EXPECT_EQ(std::string(records[i].Address), nkrsim::bleAddress(units[i]));
        EXPECT_EQ(records[i].SignalStrength | records[i].BluetoothAddress, 0);
    }
    EXPECT_EQ(records[3].Name[0], 0x7F);
    ASSERT_EQ(NKRBLEScan(1000, nullptr, 0, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 0);
    // The helper is asked for 16 records at most.
    for (int i = 0; i < 15; ++i) nkrsim::addUnit(bleUnitWithFirmware(382));
    ASSERT_EQ(NKRBLEScan(1000, records.data(), 32, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 16);
    EXPECT_EQ(NKRBLEScan(1000, nullptr, 32, &count), NKR_ERROR_INVALID_VALUE);
    nkrsim::setBleSupported(false);
    EXPECT_EQ(NKRBLEScan(1000, records.data(), 32, &count), NKR_ERROR_BLE_UNSUPPORTED);
}

TEST_F(BleSession, ConnectDisconnectAndTheConnectionCallback)
{
    EXPECT_EQ(NKRBLEDisconnect(NKR_BLE_FIRST_ID), NKR_ERROR_INVALID_ID);
    EXPECT_EQ(NKRBLERegConnStateCallback(NKR_BLE_FIRST_ID, &recordConnection), NKR_ERROR_INVALID_ID);
    nkrsim::UnitSpec refused = bleUnitWithFirmware(382);
    nkrsim::bleRefuseConnect(nkrsim::addUnit(refused), true);
    int id = -1;
    EXPECT_EQ(NKRBLEConnect(refused.bleName.c_str(), "", &id), NKR_ERROR_BLE_CONNECT);

    const nkrsim::UnitSpec spec = bleUnitWithFirmware(382);
    const nkrsim::UnitId unit = nkrsim::addUnit(spec);
    ASSERT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(unit).c_str(), &id), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::bleConnections(unit), 1);
    // A drop reported on the helper's thread reaches the host.
    g_reports.clear();
    ASSERT_EQ(NKRBLERegConnStateCallback(id, &recordConnection), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_reports, std::vector<bool>{false});
    EXPECT_NE(g_reportThread, std::this_thread::get_id()) << "the helper reports from a thread of its own";
    int pos = -1;
    EXPECT_NE(NKRGetPosition(id, &pos), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BleSession, PairingFailuresAndWhatAPairingReads)
{
    auto connected = [](int fw, nkrsim::UnitId* unit) {
        const nkrsim::UnitSpec spec = bleUnitWithFirmware(fw);
        *unit = nkrsim::addUnit(spec);
        int id = -1;
        EXPECT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(*unit).c_str(), &id), NKR_SUCCESS);
        return id;
    };
    nkrsim::UnitId unit = -1;
    int id = connected(382, &unit);
    nkrsim::setAdapterAddress("");
    EXPECT_EQ(NKRBLEPair(id), NKR_ERROR_BLE_PAIR);
    EXPECT_TRUE(nkrsim::sentFrames(unit).empty());
    // A refused pairing drops the link.
    nkrsim::setAdapterAddress("00:1A:7D:DA:71:13");
    nkrsim::bleNotifyInstead(unit, 0x01);
    EXPECT_EQ(NKRBLEPair(id), NKR_ERROR_BLE_PAIR);
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
    NKRBLEDisconnect(id);

    // Pairing sends the adapter's address, then reads the firmware and the status.
    id = connected(382, &unit);
    ASSERT_EQ(NKRBLEPair(id), NKR_SUCCESS);
    EXPECT_TRUE(nkrsim::state(unit).paired);
    const auto frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0][3], BLEProtocol::CMD_PAIR);
    EXPECT_EQ(std::string(frames[0].begin() + 4, frames[0].begin() + 4 + frames[0][1]), "00:1A:7D:DA:71:13");
    EXPECT_EQ(payloadOf(frames[1]), (Bytes{0x7E, 0x5A, 0x02, 0x04}));
    EXPECT_EQ(payloadOf(frames[2]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    int range = -1;
    EXPECT_EQ(NKRStepRange(id, &range), NKR_SUCCESS);
    EXPECT_EQ(range, 600000);
    EXPECT_EQ(NKRBLEClearPair(id), NKR_SUCCESS);
    EXPECT_FALSE(nkrsim::state(unit).paired);

    // Firmware up to 3.3.5 gains no capabilities.
    id = connected(335, &unit);
    ASSERT_EQ(NKRBLEPair(id), NKR_SUCCESS);
    EXPECT_EQ(NKRStepRange(id, &range), NKR_SUCCESS);
    EXPECT_EQ(range, 60000);
    EXPECT_EQ(NKRSetShippingMode(id), NKR_ERROR_NOT_SUPPORTED);
}

}  // namespace
