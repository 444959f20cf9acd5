// Bluetooth through the exports: scan, connect, pairing, the request exchange
// and every per-device export over the link (faults: fault_ble_test.cpp).
#include <cstring>
#include <thread>

#include "ble_test_support.h"

namespace {
using nkrtest::bleUnitWithFirmware;
using nkrtest::Bytes;
using nkrtest::payloadOf;

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
    for (int i = 0; i < 20; ++i) specs.push_back(bleUnitWithFirmware(382));
    for (size_t i = 0; i < 5; ++i) units.push_back(nkrsim::addUnit(specs[i]));
    std::vector<_BLE_DEVICE_INFO> records(32);
    std::memset(records.data(), 0x7F, records.size() * sizeof records[0]);
    int count = -1;
    ASSERT_EQ(NKRBLEScan(1000, records.data(), 3, &count), NKR_SUCCESS);
    ASSERT_EQ(count, 3);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(std::tuple(std::string(records[i].Name), std::string(records[i].Address),
                             records[i].SignalStrength | records[i].BluetoothAddress),
                  std::tuple(specs[i].bleName, nkrsim::bleAddress(units[i]), 0));
    EXPECT_EQ(records[3].Name[0], 0x7F);
    EXPECT_EQ((std::pair{NKRBLEScan(1000, nullptr, 0, &count), count}), std::pair(0, 0));
    // The helper is asked for 16 records at most.
    for (size_t i = 5; i < 20; ++i) nkrsim::addUnit(specs[i]);
    EXPECT_EQ((std::pair{NKRBLEScan(1000, records.data(), 32, &count), count}), std::pair(0, 16));
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
    EXPECT_EQ(nkrtest::position(id), -1);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BleSession, PairingFailuresAndWhatAPairingReads)
{
    using nkrtest::connected;
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
    EXPECT_TRUE(NKRStepRange(id, &range) == NKR_SUCCESS && NKRBLEClearPair(id) == NKR_SUCCESS);
    EXPECT_EQ(range, 600000);
    EXPECT_FALSE(nkrsim::state(unit).paired);
    // Firmware up to 3.3.5 gains no capabilities.
    id = connected(335, &unit);
    EXPECT_TRUE(NKRBLEPair(id) == NKR_SUCCESS && NKRStepRange(id, &range) == NKR_SUCCESS);
    EXPECT_EQ(range, 60000);
    EXPECT_EQ(NKRSetShippingMode(id), NKR_ERROR_NOT_SUPPORTED);
}

std::vector<int> g_pairCodes;
void recordPairState(_NKR_ERROR_CODE code) { g_pairCodes.push_back(code); }

// A connected, paired unit (id 50) whose pairing reports are recorded.
class BleExports : public nkrtest::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        g_pairCodes.clear();
        spec = bleUnitWithFirmware(382);
        spec.serial = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80};
        unit = nkrsim::addUnit(spec);
        id = nkrtest::connectAndPair(spec, unit);
        ASSERT_EQ(id, NKR_BLE_FIRST_ID);
        ASSERT_EQ(NKRBLERegPairStateCallback(id, &recordPairState), NKR_SUCCESS);
    }
    int request() { return NKRGetPosition(id, &pos); }
    Bytes lastPayload() { return payloadOf(nkrsim::sentFrames(unit).back()); }
    // Replaces the next answer with a frame of that type and tail, with the next request's sequence number.
    void rawNextAnswer(uint8_t type, const Bytes& tail)
    {
        Bytes frame = {type, static_cast<uint8_t>(tail.size()), uint8_t(nkrsim::sentFrames(unit).back()[2] + 1)};
        frame.insert(frame.end(), tail.begin(), tail.end());
        nkrsim::bleRawAnswer(unit, frame);
    }
    nkrsim::UnitSpec spec;
    nkrsim::UnitId unit = -1;
    int id = -1, pos = -1;
};

TEST_F(BleExports, FrameLayoutAndSequenceNumbersThatWrap)
{
    nkrsim::clearSentFrames(unit);
    ASSERT_EQ(request(), NKR_SUCCESS);
    auto frames = nkrsim::sentFrames(unit);
    const Bytes f = frames.at(0);
    ASSERT_EQ(frames.size() * 100 + f.size(), 113u) << "one frame of 13 bytes";
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 12),
              (Bytes{0x00, 0x04, f[2], 0x02, 0x7E, 0x5A, 0x02, 0x03, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(f[12], BLEProtocol::calculateChecksum(f.data(), 12));
    // The sequence number is 8 bits: the 256th request after it wraps to it.
    for (int i = 0; i < 256; ++i) ASSERT_EQ(request(), NKR_SUCCESS);
    frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 257u);
    for (size_t i = 1; i < frames.size(); ++i) ASSERT_EQ(frames[i][2], uint8_t(frames[i - 1][2] + 1)) << i;
}

TEST_F(BleExports, NewConnectionAllowsTwelveEmptyWaitsAndPairingNotificationsEndTheExchange)
{
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.position = 4321; });
    nkrsim::bleNewConnection(unit, 12);
    EXPECT_EQ((std::pair{request(), pos}), std::pair(0, 4321));
    EXPECT_EQ(g_pairCodes, (std::vector<int>{NKR_ERROR_BLE_NEW_CONNECTION}));
    nkrsim::bleNewConnection(unit, 13);
    EXPECT_EQ(request(), NKR_ERROR_BLE_NO_ANSWER);
    // The late answer left behind is stale for the next request.
    pos = -1;
    EXPECT_EQ((std::pair{request(), pos}), std::pair(0, 4321));
    // Pairing notifications end the exchange; other events are dropped and
    // the exchange waits on (here: in vain).
    g_pairCodes.clear();
    nkrsim::bleNotifyInstead(unit, 0x00);
    EXPECT_EQ(request(), NKR_SUCCESS);
    nkrsim::bleNotifyInstead(unit, 0x01);
    EXPECT_EQ(request(), NKR_ERROR_BLE_PAIR_REFUSED);
    nkrsim::bleNotifyInstead(unit, 0x07);
    EXPECT_EQ(request(), NKR_ERROR_BLE_NO_ANSWER);
    EXPECT_EQ(g_pairCodes, (std::vector<int>{NKR_SUCCESS, NKR_ERROR_BLE_PAIR_REFUSED}));
}

TEST_F(BleExports, TooShortFramesFailAndTheUnitStaysUsable)
{
    ASSERT_EQ(request(), NKR_SUCCESS);
    const int before = pos;
    // A 3-byte frame; a 4-byte notification that loses its checksum byte and
    // with it the event code; a matching response cut after its sequence number.
    for (Bytes frame : {Bytes{0x02, 0x00, 0x00}, Bytes{0x02, 0x00, 0x00, 0x02}, Bytes{0x01, 0x00, 0x00}}) {
        if (frame[0] == 0x01) frame[2] = uint8_t(nkrsim::sentFrames(unit).back()[2] + 1);
        nkrsim::bleRawAnswer(unit, frame);
        pos = -7;
        EXPECT_EQ((std::pair{request(), pos}), std::pair(int(NKR_ERROR_GENERAL), -7));
    }
    EXPECT_EQ((std::pair{request(), pos}), std::pair(0, before));
}

TEST_F(BleExports, SessionIdsAndAllInformation)
{
    // Ids are handed out as a stack: 50, 51, and after disconnecting 50, 51 once more.
    nkrsim::UnitSpec older = bleUnitWithFirmware(366);
    nkrsim::UnitId olderUnit = nkrsim::addUnit(older);
    const int second = nkrtest::connectAndPair(older, olderUnit);
    EXPECT_EQ(second, NKR_BLE_FIRST_ID + 1);
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.position = 0x0927C0, s.backlash = 7, s.tempRaw = 32550, s.beep = s.handControl = true, s.maxStep = 500000;
        s.motorErr = "E5", s.batteryErr = "E7";
    });
    _NKR_ALL_INFO info;
    ASSERT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(std::vector<int>({info.MoveState, info.Backlash, info.Step, info.Beep, info.Reverse, info.HandControl,
                                info.MaxStep, info.BleControl, info.Battery.battery_temp, info.Battery.battery_percentage}),
              std::vector<int>({0, 7, 600000, 1, 0, 1, 500000, 1, 25, 87}));
    EXPECT_FLOAT_EQ(info.Temperature, 25.5f);
    EXPECT_EQ(std::string(info.MotorErrCode, 2) + std::string(info.BatteryErrCode, 2), "E5E7");
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.tempRaw = 0; });  // -300 degrees: the last good value
    ASSERT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_FLOAT_EQ(info.Temperature, 25.5f);
    // An answer shorter than 20 bytes (valid frame, status 0) is refused.
    Bytes shortFrame = {0x01, 0x0C, uint8_t(nkrsim::sentFrames(unit).back()[2] + 1), 0x00, 0x01};
    shortFrame.resize(20, 0);
    shortFrame.push_back(BLEProtocol::calculateChecksum(shortFrame.data(), 20));
    nkrsim::bleRawAnswer(unit, shortFrame);
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_ERROR_INVALID_VALUE);
    // 49 is no Bluetooth id; firmware 366 lacks the request and the record
    // comes back zeroed.
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ((std::pair{NKRBLEgetAllInfo(49, &info), info.Step}), std::pair(int(NKR_ERROR_INVALID_ID), 0x5A5A5A5A));
    EXPECT_EQ((std::pair{NKRBLEgetAllInfo(second, &info), info.Step}), std::pair(int(NKR_ERROR_NOT_SUPPORTED), 0));
    // An export without a Bluetooth branch takes the id for a USB slot.
    EXPECT_EQ(NKRSetSpeed(id, 100), NKR_ERROR_INVALID_ID);
    ASSERT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    int next = -1;
    NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(unit).c_str(), &next);
    EXPECT_EQ(next, NKR_BLE_FIRST_ID + 1);
}

TEST_F(BleExports, RawDataPassesThroughUnframedAndAlwaysReportsSuccess)
{
    // A whole status request frame as raw data; the HID-sized payload makes
    // the request longer than the unit's answer.
    BLEProtocol::ProtoRequest request;
    request.command = BLEProtocol::CMD_DEVICE;
    request.data = {0x7E, 0x5A, 0x02, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    request.length = uint8_t(request.data.size());
    request.sequence = 0xC8;
    Bytes frame, shortFrame;
    BLEProtocol::encodeRequest(request, frame);
    // The raw path does not set the read flag itself: a waited request first.
    ASSERT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    Bytes output(frame.size(), 0xEE);
    ASSERT_EQ(NKRBLESendData(id, 0, frame.data(), int(frame.size()), true, output.data()), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::sentFrames(unit).back(), frame);
    EXPECT_EQ((Bytes{output[0], output[2], output.back()}), (Bytes{0x01, 0xC8, 0xEE}));
    // An answer longer than the data sent is not copied; silence neither. Success all the same.
    request.data.resize(4);
    request.length = 4;
    BLEProtocol::encodeRequest(request, shortFrame);
    const Bytes untouched(shortFrame.size(), 0xEE);
    output = untouched;
    for (int silent : {0, 1}) {
        nkrsim::bleSilence(unit, silent);
        EXPECT_EQ(NKRBLESendData(id, 0, shortFrame.data(), int(shortFrame.size()), true, output.data()), NKR_SUCCESS);
        EXPECT_EQ(output, untouched);
    }
    EXPECT_EQ(NKRBLESendData(NKR_BLE_FIRST_ID + 5, 0, shortFrame.data(), 4, true, output.data()),
              NKR_ERROR_INVALID_ID);
}

TEST_F(BleExports, EveryExportOverTheLink)
{
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.motorErr = "E7", s.batteryErr = "E8"; });
    EXPECT_TRUE(NKRSetBacklash(id, 7) == NKR_SUCCESS && nkrsim::state(unit).backlash == 7);
    ASSERT_EQ(NKRMove(id, 31000), NKR_SUCCESS);
    EXPECT_EQ(NKRMove(id, 32000), NKR_ERROR_MOVING);
    ASSERT_EQ(NKRStop(id), NKR_SUCCESS);
    // Identity: the same command bytes as over USB, answers read from index 4.
    _NKR_SN sn;
    ASSERT_EQ(NKRGetSerialNumber(id, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), spec.serial);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x0C}));
    ASSERT_EQ(NKRSetID(id, _NKR_ID{{'b', 'l', 'e', '-', 'u', 'n', 'i', 't'}}), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x0D, 'b', 'l', 'e', '-', 'u', 'n', 'i', 't', 0, 0, 0, 0}));
    _NKR_TYPE type;
    EXPECT_TRUE(NKRGetType(id, &type) == NKR_SUCCESS && std::string(type.Type) == "NKR Pro");
    // The name goes as 7E 5A 1E 00 and its characters (its own length, unlike USB).
    ASSERT_EQ(NKRSetBLEName(id, _NKR_BLE_NAME{"Dome"}), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x1E, 0x00, 'D', 'o', 'm', 'e'}));
    EXPECT_EQ(nkrsim::state(unit).bleNameSuffix, "Dome");
    // Power: error codes, battery (out of range below -40 degrees), LED.
    _NKR_ERROR_MSG msg;
    ASSERT_EQ(NKRGetErrorCode(id, &msg), NKR_SUCCESS);
    EXPECT_EQ(std::string(msg.MotorErrCode) + msg.BatteryErrCode, "E7E8");
    _NKR_BATTERY_INFO battery;
    ASSERT_EQ(NKRGetBatteryInfo(id, &battery), NKR_SUCCESS);
    EXPECT_EQ(battery.battery_percentage, 87);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x1E, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.battery[1] = 59; });
    EXPECT_EQ((std::pair{NKRGetBatteryInfo(id, &battery), battery.battery_vol}), std::pair(int(NKR_ERROR_BATTERY_RANGE), -1));
    ASSERT_EQ(NKRSetLedState(id, true), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x20, 0x01}));
    bool on = false;
    int count = 0;  // controls come from the firmware the pairing read
    ASSERT_EQ(NKRGetLedState(id, &on) | NKRGetNumOfControls(id, &count), NKR_SUCCESS);
    EXPECT_EQ(std::pair(on, count), std::pair(true, 8));
}

TEST_F(BleExports, ShortOrRefusedAnswers)
{
    _NKR_SN sn;
    int reason = 7;
    unsigned char major, minor, build;
    bool on;
    rawNextAnswer(0x05, {});  // too short to hold a status byte
    EXPECT_EQ(NKRGetSerialNumber(id, &sn), NKR_ERROR_GENERAL);
    // A status but no data behind it.
    rawNextAnswer(0x07, {0x00});
    EXPECT_EQ((std::pair{NKRGetReason(id, &reason), reason}), std::pair(int(NKR_ERROR_GENERAL), 7));
    rawNextAnswer(0x07, {0x00, 0x00, 0x03});
    EXPECT_EQ(NKRGetFirmwareVersion(id, &major, &minor, &build), NKR_ERROR_GENERAL);
    rawNextAnswer(0x07, {0x00});
    EXPECT_EQ(NKRGetLedState(id, &on), NKR_ERROR_GENERAL);
    // A refusing status leaves the outputs empty and is no error.
    std::memset(sn.SN, 0x55, sizeof sn.SN);
    nkrsim::bleStatus(unit, 0x05);
    EXPECT_TRUE(NKRGetSerialNumber(id, &sn) == NKR_SUCCESS && Bytes(sn.SN, sn.SN + 8) == Bytes(8, 0));
}

}  // namespace
