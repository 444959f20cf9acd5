// The Bluetooth branches of the status read and the control frame, through
// the exports on a connected, paired unit.
#include "ble_test_support.h"
#include "device_support.h"

namespace {
using devicetest::Bytes;
using nkrtest::payloadOf;

class DeviceBle : public nkrtest::SimTest {
protected:
    nkrsim::UnitId unit_ = -1;
    int id_ = -1;
    void SetUp() override
    {
        SimTest::SetUp();
        const nkrsim::UnitSpec spec = nkrtest::bleUnitWithFirmware(382);
        unit_ = nkrsim::addUnit(spec);
        id_ = nkrtest::connectAndPair(spec, unit_);
        nkrsim::update(unit_, [](nkrsim::UnitState& s) {
            s.position = 600000;
            s.maxStep = 0x050607;
            s.backlash = 9;
        });
        nkrsim::clearSentFrames(unit_);
    }
    std::vector<int> readAll()
    {
        int pos = -1, max = -1, backlash = -1;
        EXPECT_EQ(NKRGetPosition(id_, &pos) | NKRGetMaxStep(id_, &max) | NKRGetBacklash(id_, &backlash), NKR_SUCCESS);
        return {pos, max, backlash};
    }
};

TEST_F(DeviceBle, StatusAnswerIsLaidOverTheHidPositionsAndTheControlFrameFollowsIt)
{
    EXPECT_EQ(readAll(), (std::vector<int>{600000, 0x050607, 9}));
    std::vector<Bytes> frames = nkrsim::sentFrames(unit_);
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames[0][3], BLEProtocol::CMD_DEVICE);
    EXPECT_EQ(payloadOf(frames[0]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));

    // The control frame travels without its report id.
    nkrsim::clearSentFrames(unit_);
    ASSERT_EQ(NKRMove(id_, 0x012345), NKR_SUCCESS);
    frames = nkrsim::sentFrames(unit_);
    ASSERT_EQ(frames.size(), 1u);
    const Bytes payload = payloadOf(frames[0]);
    ASSERT_EQ(payload.size(), 15u);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 4), (Bytes{0x7E, 0x5A, 0x03, 0x01}));
    EXPECT_EQ(Bytes(payload.begin() + 6, payload.begin() + 9), (Bytes{0x01, 0x23, 0x45}));
    EXPECT_EQ(nkrsim::state(unit_).target, 0x012345);
    ASSERT_EQ(NKRStop(id_), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::state(unit_).runState, 0);
}

TEST_F(DeviceBle, ShortAnswerOrPairingNotificationLeavesTheRestOfTheLastReport)
{
    ASSERT_EQ(readAll(), (std::vector<int>{600000, 0x050607, 9}));
    const uint8_t nextSeq = static_cast<uint8_t>(nkrsim::sentFrames(unit_).back()[2] + 1);
    // A good response whose answer ends at byte 9 of the HID layout: move
    // state 0, backlash 7, position 1234, and nothing after it.
    Bytes frame = {0x01, 0x06, nextSeq, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x04, 0xD2};
    uint8_t sum = 0;
    for (uint8_t b : frame) sum = static_cast<uint8_t>(sum + b);
    frame.push_back(sum);
    nkrsim::bleRawAnswer(unit_, frame);
    int pos = -1, backlash = -1, max = -1;
    ASSERT_EQ(NKRGetPosition(id_, &pos), NKR_SUCCESS);
    EXPECT_EQ(pos, 1234);

    // "Pairing accepted" ends the exchange with success and an empty answer:
    // the read succeeds on the report as it was (the short answer's values).
    nkrsim::bleNotifyInstead(unit_, 0x00);
    ASSERT_EQ(NKRGetBacklash(id_, &backlash), NKR_SUCCESS);
    EXPECT_EQ(backlash, 7);
    nkrsim::bleNotifyInstead(unit_, 0x00);
    ASSERT_EQ(NKRGetMaxStep(id_, &max), NKR_SUCCESS);
    EXPECT_EQ(max, 0x0607);  // byte 6 from the short answer, bytes 14-15 as the full report left them
}

}  // namespace
