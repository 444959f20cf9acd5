// A Bluetooth unit driven through the exports, as a host drives it: the ids
// the session hands out, all information in one request, raw data, every
// per-device export over the link with the payloads it sends, and short or
// refused answers.
#include <cstring>
#include <string>
#include <vector>

#include "ble_test_support.h"

namespace {
using nkrtest::bleUnitWithFirmware;
using nkrtest::payloadOf;
using Bytes = std::vector<uint8_t>;

class BleExports : public nkrtest::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        spec = bleUnitWithFirmware(382);
        spec.serial = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80};
        unit = nkrsim::addUnit(spec);
        id = nkrtest::connectAndPair(spec, unit);
        ASSERT_EQ(id, NKR_BLE_FIRST_ID);
    }

    Bytes lastPayload()
    {
        auto frames = nkrsim::sentFrames(unit);
        return frames.empty() ? Bytes{} : payloadOf(frames.back());
    }

    // Replaces the next answer with a frame of the given type and tail,
    // carrying the sequence number the next request will have.
    void rawNextAnswer(uint8_t type, const Bytes& tail)
    {
        uint8_t seq = static_cast<uint8_t>(nkrsim::sentFrames(unit).back()[2] + 1);
        Bytes frame = {type, static_cast<uint8_t>(tail.size()), seq};
        for (uint8_t b : tail) frame.push_back(b);
        nkrsim::bleRawAnswer(unit, frame);
    }

    nkrsim::UnitSpec spec;
    nkrsim::UnitId unit = -1;
    int id = -1;
};

TEST_F(BleExports, SessionIdsAndAllInformation)
{
    // Ids are handed out as a stack: 50, then 51, and after disconnecting 50
    // the next connect gets 51 once more.
    nkrsim::UnitSpec older = bleUnitWithFirmware(366);
    nkrsim::UnitId olderUnit = nkrsim::addUnit(older);
    const int second = nkrtest::connectAndPair(older, olderUnit);
    EXPECT_EQ(second, NKR_BLE_FIRST_ID + 1);

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
    _NKR_ALL_INFO info;
    ASSERT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(std::vector<int>({info.MoveState, info.Backlash, info.Step, info.Beep, info.Reverse, info.HandControl,
                                info.MaxStep, info.BleControl, info.Battery.battery_temp, info.Battery.battery_percentage}),
              std::vector<int>({0, 7, 600000, 1, 0, 1, 500000, 1, 25, 87}));
    EXPECT_FLOAT_EQ(info.Temperature, 25.5f);
    EXPECT_EQ(std::string(info.MotorErrCode, 2) + std::string(info.BatteryErrCode, 2), "E5E7");

    // A temperature word of 0 (-300 degrees) repeats the last good value.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.tempRaw = 0; });
    ASSERT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_FLOAT_EQ(info.Temperature, 25.5f);

    // An answer shorter than 20 bytes (valid frame, status 0), or none, is refused.
    Bytes shortFrame = {0x01, 0x0C, uint8_t(nkrsim::sentFrames(unit).back()[2] + 1), 0x00,
                        0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    shortFrame.push_back(BLEProtocol::calculateChecksum(shortFrame.data(), 20));
    nkrsim::bleRawAnswer(unit, shortFrame);
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_ERROR_INVALID_VALUE);
    nkrsim::bleSilence(unit, 1);
    EXPECT_EQ(NKRBLEgetAllInfo(id, &info), NKR_ERROR_INVALID_VALUE);

    // 49 is no Bluetooth id; firmware 366 lacks the request and the record
    // comes back zeroed.
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ(NKRBLEgetAllInfo(49, &info), NKR_ERROR_INVALID_ID);
    EXPECT_EQ(info.Step, 0x5A5A5A5A);
    EXPECT_EQ(NKRBLEgetAllInfo(second, &info), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(info.Step, 0);

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
    Bytes frame;
    BLEProtocol::encodeRequest(request, frame);

    // The raw path does not set the read flag itself: a waited request first.
    int pos = -1;
    ASSERT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    Bytes output(frame.size(), 0xEE);
    ASSERT_EQ(NKRBLESendData(id, 0, frame.data(), int(frame.size()), true, output.data()), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::sentFrames(unit).back(), frame);
    EXPECT_EQ(output[0], 0x01);
    EXPECT_EQ(output[2], 0xC8);
    EXPECT_EQ(output.back(), 0xEE);

    // An answer longer than the data sent is not copied; silence neither.
    // The export reports success all the same.
    Bytes shortFrame;
    request.data.resize(4);
    request.length = 4;
    BLEProtocol::encodeRequest(request, shortFrame);
    const Bytes untouched(shortFrame.size(), 0xEE);
    output = untouched;
    EXPECT_EQ(NKRBLESendData(id, 0, shortFrame.data(), int(shortFrame.size()), true, output.data()), NKR_SUCCESS);
    EXPECT_EQ(output, untouched);
    nkrsim::bleSilence(unit, 1);
    EXPECT_EQ(NKRBLESendData(id, 0, shortFrame.data(), int(shortFrame.size()), true, output.data()), NKR_SUCCESS);
    EXPECT_EQ(output, untouched);
    EXPECT_EQ(NKRBLESendData(NKR_BLE_FIRST_ID + 5, 0, shortFrame.data(), 4, true, output.data()),
              NKR_ERROR_INVALID_ID);
}

TEST_F(BleExports, EveryExportOverTheLink)
{
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.tempRaw = 32550;
        s.motorErr = "E7";
        s.batteryErr = "E8";
    });

    // Settings, and a move polled to its end.
    int value = -1;
    ASSERT_EQ(NKRSetBacklash(id, 7), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::state(unit).backlash, 7);
    ASSERT_EQ(NKRMove(id, 31000), NKR_SUCCESS);
    EXPECT_EQ(NKRMove(id, 32000), NKR_ERROR_MOVING);
    bool moving = true;
    for (int poll = 0; poll < 100 && moving; ++poll) {
        ASSERT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
        nkrsim::advanceMicros(100000);
    }
    EXPECT_FALSE(moving);
    EXPECT_EQ(NKRGetPosition(id, &value), NKR_SUCCESS);
    EXPECT_EQ(value, 31000);
    float t = 0;
    EXPECT_EQ(NKRGetTemp(id, &t), NKR_SUCCESS);
    EXPECT_FLOAT_EQ(t, 25.5f);

    // Identity: the same command bytes as over USB, answers read from index 4.
    _NKR_SN sn;
    ASSERT_EQ(NKRGetSerialNumber(id, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), spec.serial);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x0C}));
    ASSERT_EQ(NKRSetID(id, _NKR_ID{{'b', 'l', 'e', '-', 'u', 'n', 'i', 't'}}), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x0D, 'b', 'l', 'e', '-', 'u', 'n', 'i', 't', 0, 0, 0, 0}));
    _NKR_TYPE type;
    ASSERT_EQ(NKRGetType(id, &type), NKR_SUCCESS);
    EXPECT_STREQ(type.Type, "NKR Pro");
    // The name goes as 7E 5A 1E 00 and its characters (its own length, unlike USB).
    ASSERT_EQ(NKRSetBLEName(id, _NKR_BLE_NAME{"Dome"}), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x1E, 0x00, 'D', 'o', 'm', 'e'}));
    EXPECT_EQ(nkrsim::state(unit).bleNameSuffix, "Dome");

    // Power: error codes, battery (out of range below -40 degrees), LED.
    _NKR_ERROR_MSG msg;
    ASSERT_EQ(NKRGetErrorCode(id, &msg), NKR_SUCCESS);
    EXPECT_STREQ(msg.MotorErrCode, "E7");
    EXPECT_STREQ(msg.BatteryErrCode, "E8");
    _NKR_BATTERY_INFO battery;
    ASSERT_EQ(NKRGetBatteryInfo(id, &battery), NKR_SUCCESS);
    EXPECT_EQ(battery.battery_percentage, 87);
    Bytes batteryRequest = {0x7E, 0x5A, 0x02, 0x1E};
    batteryRequest.resize(15, 0);
    EXPECT_EQ(lastPayload(), batteryRequest);
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.battery[1] = 59; });
    EXPECT_EQ(NKRGetBatteryInfo(id, &battery), NKR_ERROR_BATTERY_RANGE);
    EXPECT_EQ(battery.battery_vol, -1);
    ASSERT_EQ(NKRSetLedState(id, true), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x20, 0x01}));
    bool on = false;
    ASSERT_EQ(NKRGetLedState(id, &on), NKR_SUCCESS);
    EXPECT_TRUE(on);

    // Controls come from the firmware the pairing read.
    int count = 0;
    ASSERT_EQ(NKRGetNumOfControls(id, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 8);
    _NKR_CONTROL_CAPS caps;
    ASSERT_EQ(NKRGetControlCaps(id, 7, &caps), NKR_SUCCESS);
    EXPECT_EQ(caps.ControlType, 6);
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
    EXPECT_EQ(NKRGetReason(id, &reason), NKR_ERROR_GENERAL);
    EXPECT_EQ(reason, 7);
    rawNextAnswer(0x07, {0x00, 0x00, 0x03});
    EXPECT_EQ(NKRGetFirmwareVersion(id, &major, &minor, &build), NKR_ERROR_GENERAL);
    rawNextAnswer(0x07, {0x00});
    EXPECT_EQ(NKRGetLedState(id, &on), NKR_ERROR_GENERAL);
    // A refusing status leaves the outputs empty and is no error.
    std::memset(sn.SN, 0x55, sizeof sn.SN);
    nkrsim::bleStatus(unit, 0x05);
    EXPECT_EQ(NKRGetSerialNumber(id, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), Bytes(8, 0));
}

}  // namespace
