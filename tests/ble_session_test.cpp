// Bluetooth session operations of the device object. A missing or broken
// helper library is covered through the exports in FaultHelper.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ble_test_support.h"

namespace {
using nkrtest::BleTest;
using nkrtest::bleUnitWithFirmware;
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
    EXPECT_TRUE(device->m_bBleConnected);
    EXPECT_TRUE(device->bIsBleControl);
    EXPECT_EQ(nkrsim::bleConnections(unit), 1);

    // A drop reported on the helper's thread reaches the host and resets the flags.
    connectionReports().clear();
    ASSERT_EQ(device->BLERegConnStateCallback(&recordConnection), NKR_SUCCESS);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(connectionReports(), std::vector<bool>{false});
    EXPECT_NE(g_reportThread, std::this_thread::get_id()) << "the helper reports from a thread of its own";
    EXPECT_FALSE(device->m_bBleConnected);
    EXPECT_FALSE(device->bIsBleControl);

    auto second = connect(bleUnitWithFirmware(382), &unit);
    EXPECT_EQ(second->BLEDisconnect(), NKR_SUCCESS);
    EXPECT_FALSE(second->m_bBleConnected);
    EXPECT_FALSE(second->bIsBleControl);
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
}

TEST_F(BleSession, PairingFailuresAndTheCapabilitiesOfAPairedUnit)
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

    struct Case {
        int fw;
        bool usbUpdate, bleUpdate;
    };
    for (Case c : {Case{382, true, true}, Case{381, true, false}, Case{369, false, false}}) {
        SCOPED_TRACE(c.fw);
        device = connect(bleUnitWithFirmware(c.fw), &unit);
        ASSERT_EQ(device->BLEPair(), NKR_SUCCESS);
        EXPECT_TRUE(nkrsim::state(unit).paired);
        Bytes first = nkrsim::sentFrames(unit).front();
        EXPECT_EQ(first[3], BLEProtocol::CMD_PAIR);
        EXPECT_EQ(std::string(first.begin() + 4, first.begin() + 4 + first[1]), "00:1A:7D:DA:71:13");
        EXPECT_EQ(device->fwVersion, c.fw);
        EXPECT_TRUE(device->m_bCanFactory);
        EXPECT_EQ(device->bSupportUsbUpdate, c.usbUpdate);
        EXPECT_EQ(device->bSupportBleUpdate, c.bleUpdate);
        EXPECT_EQ(device->m_iStepLimit, 600000);
        EXPECT_EQ(device->step, nkrsim::state(unit).position);

        EXPECT_EQ(device->BLEClearPair(), NKR_SUCCESS);
        EXPECT_FALSE(nkrsim::state(unit).paired);
    }

    // Firmware up to 335 gains no capabilities.
    device = connect(bleUnitWithFirmware(335), &unit);
    ASSERT_EQ(device->BLEPair(), NKR_SUCCESS);
    EXPECT_FALSE(device->m_bCanFactory);
    EXPECT_EQ(device->m_iStepLimit, 60000);
}

TEST_F(BleSession, AllInformationInOneRequest)
{
    nkrsim::UnitId unit = -1;
    auto old = connect(bleUnitWithFirmware(366), &unit);
    _NKR_ALL_INFO info{};
    info.Step = 99;
    EXPECT_EQ(old->BLEGetAllInfo(&info), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(info.Step, 99);

    auto device = connect(bleUnitWithFirmware(382), &unit);
    device->fwVersion = 382;  // as pairing would have set it
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.position = 0x0927C0;
        s.backlash = 7;
        s.tempRaw = 32550;
        s.beep = true;
        s.handControl = true;
        s.maxStep = 500000;
        s.motorErr = "E5";
        s.batteryErr = "E7";
    });
    info = {};
    ASSERT_EQ(device->BLEGetAllInfo(&info), NKR_SUCCESS);
    EXPECT_EQ(info.MoveState, 0);
    EXPECT_EQ(info.Backlash, 7);
    EXPECT_EQ(info.Step, 600000);
    EXPECT_FLOAT_EQ(info.Temperature, 25.5f);
    EXPECT_EQ(info.Beep, 1);
    EXPECT_EQ(info.Reverse, 0);
    EXPECT_EQ(info.HandControl, 1);
    EXPECT_EQ(info.MaxStep, 500000);
    EXPECT_EQ(info.BleControl, 1);
    EXPECT_EQ(std::string(info.MotorErrCode, 2), "E5");
    EXPECT_EQ(std::string(info.BatteryErrCode, 2), "E7");
    EXPECT_EQ(info.Battery.battery_temp, 25);
    EXPECT_EQ(info.Battery.battery_percentage, 87);
    EXPECT_EQ(device->step, 600000);

    // A temperature word of 0 (-300 degrees) repeats the last good value.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.tempRaw = 0; });
    ASSERT_EQ(device->BLEGetAllInfo(&info), NKR_SUCCESS);
    EXPECT_FLOAT_EQ(info.Temperature, 25.5f);
    EXPECT_FLOAT_EQ(device->m_fTemp, 25.5f);

    // An answer shorter than 20 bytes (valid frame, status 0) is refused.
    Bytes shortFrame = {0x01, 0x0C, uint8_t(nkrsim::sentFrames(unit).back()[2] + 1), 0x00,
                        0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    shortFrame.push_back(BLEProtocol::calculateChecksum(shortFrame.data(), 20));
    nkrsim::bleRawAnswer(unit, shortFrame);
    EXPECT_EQ(device->BLEGetAllInfo(&info), NKR_ERROR_INVALID_VALUE);
    nkrsim::bleSilence(unit, 1);
    EXPECT_EQ(device->BLEGetAllInfo(&info), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(device->BLEGetAllInfo(nullptr), NKR_ERROR_INVALID_VALUE);
}

TEST_F(BleSession, RawSendPassesBytesThroughUnframed)
{
    nkrsim::UnitId unit = -1;
    auto device = connect(bleUnitWithFirmware(382), &unit);

    // A whole status request frame as raw data; the HID-sized payload makes
    // the request longer than the unit's answer.
    BLEProtocol::ProtoRequest request;
    request.command = BLEProtocol::CMD_DEVICE;
    request.data = {0x7E, 0x5A, 0x02, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    request.length = uint8_t(request.data.size());
    request.sequence = 0xC8;
    Bytes frame;
    BLEProtocol::encodeRequest(request, frame);

    // The raw path does not set the read flag itself: a waited request first.
    Bytes answer;
    ASSERT_EQ(device->bleSendData(BLEProtocol::CMD_DEVICE, statusPayload(), true, answer),
              NKR_SUCCESS);
    Bytes output(frame.size(), 0xEE);
    ASSERT_EQ(device->BLESendData(0, frame.data(), int(frame.size()), true, output.data()),
              NKR_SUCCESS);
    EXPECT_EQ(nkrsim::sentFrames(unit).back(), frame);
    EXPECT_EQ(output[0], 0x01);
    EXPECT_EQ(output[2], 0xC8);
    EXPECT_EQ(output.back(), 0xEE);

    // An answer longer than the data sent is refused and not copied.
    Bytes shortFrame;
    request.data.resize(4);
    request.length = 4;
    BLEProtocol::encodeRequest(request, shortFrame);
    Bytes untouched(shortFrame.size(), 0xEE);
    output = untouched;
    EXPECT_EQ(device->BLESendData(0, shortFrame.data(), int(shortFrame.size()), true, output.data()),
              NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(output, untouched);

    EXPECT_EQ(device->BLESendData(0, shortFrame.data(), int(shortFrame.size()), false, nullptr),
              NKR_SUCCESS);
    EXPECT_EQ(device->BLESendData(0, shortFrame.data(), int(shortFrame.size()), true, nullptr),
              NKR_ERROR_INVALID_VALUE);
}

}  // namespace
