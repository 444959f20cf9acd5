// The Bluetooth branches of the status read and the control frame.
#include "ble_test_support.h"
#include "device_support.h"

namespace {
using devicetest::Bytes;
using nkrtest::bleUnitWithFirmware;
using nkrtest::payloadOf;

class DeviceBle : public nkrtest::BleTest {};

TEST_F(DeviceBle, StatusAnswerIsLaidOverTheHidPositionsAndTheControlFrameFollowsIt)
{
    nkrsim::UnitId unit;
    auto d = connect(bleUnitWithFirmware(336), &unit);
    d->fwVersion = 336;
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.position = 600000;
        s.maxStep = 0x050607;
        s.backlash = 9;
        s.force = 5;
        s.beep = true;
    });
    nkrsim::clearSentFrames(unit);
    int pos = -1;
    ASSERT_EQ(d->getStep(&pos, true), NKR_SUCCESS);
    EXPECT_EQ(pos, 600000);
    EXPECT_EQ(d->maxstep, 0x050607);
    EXPECT_EQ(d->iBacklash, 9);
    EXPECT_EQ(d->cMaxForce, 5);
    EXPECT_TRUE(d->bBeep);
    std::vector<Bytes> frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0][3], BLEProtocol::CMD_DEVICE);
    EXPECT_EQ(payloadOf(frames[0]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));

    // The control frame travels without its report id and without waiting.
    d->m_iStepLimit = 600000;
    nkrsim::clearSentFrames(unit);
    ASSERT_EQ(d->SetStep(0x012345, true), NKR_SUCCESS);
    frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0][3], BLEProtocol::CMD_DEVICE);
    Bytes payload = payloadOf(frames[0]);
    ASSERT_EQ(payload.size(), 15u);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 4), (Bytes{0x7E, 0x5A, 0x03, 0x01}));
    EXPECT_EQ(Bytes(payload.begin() + 6, payload.begin() + 9), (Bytes{0x01, 0x23, 0x45}));
    EXPECT_EQ(nkrsim::state(unit).target, 0x012345);
    ASSERT_EQ(d->stopMove(true), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
}

TEST_F(DeviceBle, ShortStatusAnswerFillsWhatItCarriesAndTheRestStaysFromTheLastReport)
{
    nkrsim::UnitId unit;
    auto d = connect(bleUnitWithFirmware(336), &unit);
    d->fwVersion = 336;
    int pos = -1;
    ASSERT_EQ(d->getStep(&pos, true), NKR_SUCCESS);
    const int maxStep = d->maxstep;
    const int tempRaw = d->m_iTempRaw;
    ASSERT_GT(maxStep, 0);
    const uint8_t nextSeq = static_cast<uint8_t>(nkrsim::sentFrames(unit).back()[2] + 1);

    // A good response whose answer ends at byte 9 of the HID layout: move
    // state 0, backlash 7, position 1234, and nothing after it.
    Bytes frame = {0x01, 0x06, nextSeq, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x04, 0xD2};
    uint8_t sum = 0;
    for (uint8_t b : frame) sum = static_cast<uint8_t>(sum + b);
    frame.push_back(sum);
    nkrsim::bleRawAnswer(unit, frame);
    EXPECT_EQ(d->getStep(&pos, true), NKR_SUCCESS);
    EXPECT_EQ(pos, 1234);
    EXPECT_EQ(d->iBacklash, 7);
    EXPECT_EQ(d->maxstep, maxStep);     // bytes 14-15 as the last report left them
    EXPECT_EQ(d->m_iTempRaw, tempRaw);  // bytes 11-12 likewise
}

TEST_F(DeviceBle, PairingNotificationInPlaceOfTheStatusAnswerLeavesTheLastReport)
{
    nkrsim::UnitId unit;
    auto d = connect(bleUnitWithFirmware(336), &unit);
    d->fwVersion = 336;
    int pos = -1;
    ASSERT_EQ(d->getStep(&pos, true), NKR_SUCCESS);
    const int before = pos;

    // "Pairing accepted" ends the exchange with success and an empty answer:
    // the status read succeeds and the cached report stays as it was.
    nkrsim::bleNotifyInstead(unit, 0x00);
    EXPECT_EQ(d->getStep(&pos, true), NKR_SUCCESS);
    EXPECT_EQ(pos, before);
}

}  // namespace
