// Bluetooth session operations of the device object: scan, connect,
// connection reports, pairing. The exports' side is in BleExports; a missing
// or broken helper library in FaultHelper.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ble_test_support.h"

namespace {
using nkrtest::BleTest;
using nkrtest::bleUnitWithFirmware;
using nkrtest::payloadOf;
using Bytes = std::vector<uint8_t>;

class BleSession : public BleTest {};

std::vector<bool>& connectionReports()
{
    static std::vector<bool> reports;
    return reports;
}
std::thread::id g_reportThread;
void recordConnection(bool connected)
{
    connectionReports().push_back(connected);
    g_reportThread = std::this_thread::get_id();
}

TEST_F(BleSession, ScanFillsAtMostTheCapacityAndPassesNoRadioNumbers)
{
    std::vector<std::string> names;
    std::vector<nkrsim::UnitId> units;
    for (int i = 0; i < 5; ++i) {
        nkrsim::UnitSpec spec = bleUnitWithFirmware(382);
        names.push_back(spec.bleName);
        units.push_back(nkrsim::addUnit(spec));
    }
    CNKR scanner;
    std::vector<_BLE_DEVICE_INFO> records(32);
    std::memset(records.data(), 0x7F, records.size() * sizeof records[0]);
    int count = -1;
    ASSERT_EQ(scanner.BLEScan(1000, records.data(), 3, &count), NKR_SUCCESS);
    ASSERT_EQ(count, 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(std::string(records[i].Name), names[i]);
        EXPECT_EQ(std::string(records[i].Address), nkrsim::bleAddress(units[size_t(i)]));
        EXPECT_EQ(records[i].SignalStrength, 0);
        EXPECT_EQ(records[i].BluetoothAddress, 0);
    }
    EXPECT_EQ(records[3].Name[0], 0x7F);

    ASSERT_EQ(scanner.BLEScan(1000, records.data(), 0, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 0);
    count = -1;
    ASSERT_EQ(scanner.BLEScan(1000, nullptr, 0, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 0);

    // The helper is asked for 16 records at most.
    for (int i = 0; i < 15; ++i) nkrsim::addUnit(bleUnitWithFirmware(382));
    ASSERT_EQ(scanner.BLEScan(1000, records.data(), 32, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 16);

    nkrsim::setBleSupported(false);
    EXPECT_EQ(scanner.BLEScan(1000, records.data(), 32, &count), NKR_ERROR_BLE_UNSUPPORTED);
    EXPECT_EQ(scanner.BLEScan(1000, nullptr, 32, &count), NKR_ERROR_INVALID_VALUE);
}

TEST_F(BleSession, ConnectDisconnectAndTheConnectionCallback)
{
    CNKR fresh;
    EXPECT_EQ(fresh.BLEDisconnect(), NKR_ERROR_CLOSED);
    EXPECT_EQ(fresh.BLERegConnStateCallback(&recordConnection), NKR_ERROR_CLOSED);
    EXPECT_EQ(fresh.BLERegPairStateCallback(nullptr), NKR_ERROR_CLOSED);

    nkrsim::UnitSpec refused = bleUnitWithFirmware(382);
    nkrsim::bleRefuseConnect(nkrsim::addUnit(refused), true);
    EXPECT_EQ(fresh.BLEConnect(refused.bleName.c_str(), ""), NKR_ERROR_BLE_CONNECT);
    EXPECT_FALSE(fresh.m_bBleConnected);

    nkrsim::UnitId unit = -1;
    auto device = connect(bleUnitWithFirmware(382), &unit);
    EXPECT_EQ(nkrsim::bleConnections(unit), 1);

    // A drop reported on the helper's thread reaches the host and resets the flags.
    connectionReports().clear();
    ASSERT_EQ(device->BLERegConnStateCallback(&recordConnection), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(connectionReports(), std::vector<bool>{false});
    EXPECT_NE(g_reportThread, std::this_thread::get_id()) << "the helper reports from a thread of its own";
    EXPECT_FALSE(device->m_bBleConnected);
}

TEST_F(BleSession, PairingFailuresAndWhatAPairingReads)
{
    nkrsim::UnitId unit = -1;
    auto device = connect(bleUnitWithFirmware(382), &unit);

    nkrsim::setAdapterAddress("");
    EXPECT_EQ(device->BLEPair(), NKR_ERROR_BLE_PAIR);
    EXPECT_TRUE(nkrsim::sentFrames(unit).empty());

    // A refused pairing drops the link.
    nkrsim::setAdapterAddress("00:1A:7D:DA:71:13");
    nkrsim::bleNotifyInstead(unit, 0x01);
    EXPECT_EQ(device->BLEPair(), NKR_ERROR_BLE_PAIR);
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
    EXPECT_FALSE(device->m_bBleConnected);

    // Pairing sends the adapter's address, then reads the firmware and the status.
    device = connect(bleUnitWithFirmware(382), &unit);
    ASSERT_EQ(device->BLEPair(), NKR_SUCCESS);
    EXPECT_TRUE(nkrsim::state(unit).paired);
    // Exactly three requests: the pairing, the version read, the status read.
    auto frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 3u);
    Bytes first = frames.front();
    EXPECT_EQ(first[3], BLEProtocol::CMD_PAIR);
    EXPECT_EQ(std::string(first.begin() + 4, first.begin() + 4 + first[1]), "00:1A:7D:DA:71:13");
    EXPECT_EQ(payloadOf(frames[1]), (Bytes{0x7E, 0x5A, 0x02, 0x04}));
    EXPECT_EQ(payloadOf(frames[2]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_EQ(device->fwVersion, 382);
    EXPECT_EQ(device->m_iStepLimit, 600000);
    EXPECT_EQ(device->step, nkrsim::state(unit).position);
    EXPECT_EQ(device->BLEClearPair(), NKR_SUCCESS);
    EXPECT_FALSE(nkrsim::state(unit).paired);

    // Firmware up to 335 gains no capabilities.
    device = connect(bleUnitWithFirmware(335), &unit);
    ASSERT_EQ(device->BLEPair(), NKR_SUCCESS);
    EXPECT_FALSE(device->m_bCanFactory);
    EXPECT_EQ(device->m_iStepLimit, 60000);
}

}  // namespace
