// Motion and motor settings through the exports: the control frame, clamps,
// the moving lock-out, stop, and the Bluetooth branches.
#include <cerrno>
#include <functional>

#include "ble_test_support.h"

namespace {
using nkrtest::Bytes;
using nkrtest::lastControlFrame;
using nkrtest::unitWithFirmware;

class DeviceMotion : public nkrtest::SimTest {};

Bytes slice(const Bytes& b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }

TEST_F(DeviceMotion, FrameCarriesTheSpeedUpTo335AndHighBytesFrom336)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(335), &unit);
    ASSERT_TRUE(NKRSetSpeed(id, 0x0102) == NKR_SUCCESS && NKRMove(id, 1000) == NKR_SUCCESS);
    Bytes f = lastControlFrame(unit);
    ASSERT_EQ(f.size(), 16u);
    EXPECT_EQ(slice(f, 0, 11), (Bytes{0x03, 0x7E, 0x5A, 0x03, 0x01, 0x00, 0x01, 0x02, 0x03, 0xE8, 0x00}));
    EXPECT_EQ(slice(f, 14, 16), (Bytes{0xEA, 0x60}));  // maximum 60000 as reported
    EXPECT_EQ(nkrsim::state(unit).target, 1000);
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.maxStep = 0x050607;
    id = openQuiet(spec, &unit);
    ASSERT_EQ(NKRMove(id, 0x012345), NKR_SUCCESS);
    f = lastControlFrame(unit);
    EXPECT_EQ(slice(f, 6, 10), (Bytes{0x05, 0x01, 0x23, 0x45}));
    EXPECT_EQ(slice(f, 14, 16), (Bytes{0x06, 0x07}));
    EXPECT_EQ(nkrsim::state(unit).target, 0x012345);
}

TEST_F(DeviceMotion, TargetsAndPositionsAreClampedToTheStepRangeNotToTheMaximum)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(335), &unit);
    ASSERT_EQ(NKRSetMaxStep(id, 1000), NKR_SUCCESS);
    for (auto [target, sent] : {std::pair{5000, 5000}, {-5, 0}, {60000, 60000}, {70000, 60000}}) {
        ASSERT_EQ(NKRMove(id, target), NKR_SUCCESS);
        const Bytes f = lastControlFrame(unit);
        EXPECT_EQ(f[8] << 8 | f[9], sent) << target;
        ASSERT_EQ(NKRStop(id), NKR_SUCCESS);
    }
    // A reset redefines the position without moving or pausing.
    const uint64_t t0 = nkrsim::nowMicros();
    ASSERT_EQ(NKRResetPostion(id, 70000), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::nowMicros(), t0);
    const Bytes f = lastControlFrame(unit);
    EXPECT_EQ((Bytes{f[4], f[8], f[9], f[10]}), (Bytes{0, 0xEA, 0x60, 1}));
    EXPECT_TRUE(nkrsim::state(unit).position == 60000 && nkrsim::state(unit).runState == 0);
}

TEST_F(DeviceMotion, MoveWaits200msOnlyWhenTheFrameWasSent)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    uint64_t t0 = nkrsim::nowMicros();
    ASSERT_EQ(NKRMove(id, 30000), NKR_SUCCESS);  // already there: ends at once
    EXPECT_EQ(nkrsim::nowMicros() - t0, 200000u);
    bool moving = true;
    ASSERT_TRUE(NKRIsMoving(id, &moving, nullptr) == NKR_SUCCESS && !moving);
    nkrsim::failTransfers(unit, 1, EIO);
    t0 = nkrsim::nowMicros();
    EXPECT_EQ(NKRMove(id, 31000), NKR_ERROR_GENERAL);
    EXPECT_EQ(nkrsim::nowMicros(), t0);
    // The run flag stays set after a failed send until the next status read.
    EXPECT_EQ(NKRMove(id, 31000), NKR_ERROR_MOVING);
    ASSERT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
    EXPECT_EQ(NKRMove(id, 31000), NKR_SUCCESS);
}

TEST_F(DeviceMotion, NothingChangesWhileMovingButStopIsAllowedAfterClearingErrors)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRMove(id, 50000), NKR_SUCCESS);
    nkrsim::clearSentReports(unit);
    for (int rc : {NKRMove(id, 40000), NKRResetPostion(id, 100), NKRSetSpeed(id, 100), NKRSetBacklash(id, 10),
                   NKRSetMaxStep(id, 100), NKRSetBeep(id, true), NKRSetReverse(id, true), NKRSetMaxForce(id, 3)})
        EXPECT_EQ(rc, NKR_ERROR_MOVING);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
    // Stop clears errors first (a status exchange), then sends run = 0; when
    // clearing fails, nothing is stopped.
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRStop(id), NKR_ERROR_GENERAL);
    EXPECT_TRUE(nkrtest::controlFrames(unit).empty());
    EXPECT_EQ(nkrsim::state(unit).runState, 1);
    nkrsim::clearSentReports(unit);
    ASSERT_EQ(NKRStop(id), NKR_SUCCESS);
    const std::vector<Bytes> sent = nkrsim::sentReports(unit);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(slice(sent[0], 0, 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_TRUE(nkrtest::isControlFrame(sent[1]) && sent[1][4] == 0);
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
    EXPECT_EQ(NKRSetBeep(id, true), NKR_SUCCESS);
    // A unit in its error state holds the motor, whatever it is sent, until the error is cleared.
    const int held = nkrsim::state(unit).position;
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.runState = 6; });
    ASSERT_EQ(NKRMove(id, 40000), NKR_SUCCESS);
    nkrsim::advanceMicros(2'000'000);
    EXPECT_EQ(nkrsim::state(unit).position, held);
}

TEST_F(DeviceMotion, SettingsInTheFrameAndTheirBounds)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(335), &unit);
    // Force, beep and reverse share byte 13; only the low nibble of the force travels.
    // call, byte, value, mode (byte 10; -1 unchecked)
    const std::tuple<std::function<int()>, int, int, int> steps[] = {
        {[&] { return NKRSetBeep(id, true); }, 13, 0x01, 0}, {[&] { return NKRSetMaxForce(id, 0x1F3); }, 13, 0x31, -1},
        {[&] { return NKRSetReverse(id, true); }, 13, 0x33, -1}, {[&] { return NKRSetMaxForce(id, 20); }, 13, 0x43, -1},
        {[&] { return NKRSetBacklash(id, 255); }, 5, 255, 0},
        {[&] { return NKRSetMaxStep(id, 1000000); }, 14, 0xEA, 2},  // clamped to the range, stored
        {[&] { return NKRSetMaxStep(id, -3); }, 14, 0x00, 2},
    };
    for (const auto& [call, byte, value, mode] : steps) {
        EXPECT_EQ(call(), NKR_SUCCESS);
        const Bytes f = lastControlFrame(unit);
        EXPECT_EQ(std::pair(int(f[byte]), mode < 0 ? -1 : f[10]), std::pair(value, mode)) << byte;
    }
    int force = -1;  // the unit reads the high half-byte
    EXPECT_EQ((std::pair{NKRGetMaxForce(id, &force), force}), std::pair(0, 4));
    EXPECT_EQ(nkrsim::state(unit).maxStep, 0);
    nkrsim::clearSentReports(unit);
    for (int bad : {256, -1}) EXPECT_EQ(NKRSetBacklash(id, bad), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceMotion, CloseStopsARunningMoveAndStoresTheSettingsWithRunOff)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRSetBacklash(id, 12), NKR_SUCCESS);
    ASSERT_EQ(NKRMove(id, 50000), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(id), NKR_SUCCESS);
    const Bytes f = lastControlFrame(unit);
    EXPECT_TRUE((Bytes{f[4], f[5], f[10]}) == (Bytes{0, 12, 0}) && nkrsim::state(unit).runState == 0);
}

class DeviceBle : public nkrtest::SimTest {
protected:
    nkrsim::UnitId unit_ = -1;
    int id_ = -1;
    void SetUp() override
    {
        SimTest::SetUp();
        id_ = nkrtest::connected(382, &unit_, true);
        nkrsim::update(unit_, [](nkrsim::UnitState& s) { s.position = 600000, s.maxStep = 0x050607, s.backlash = 9; });
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
    EXPECT_EQ(nkrtest::payloadOf(frames[0]), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
    // The control frame travels without its report id.
    nkrsim::clearSentFrames(unit_);
    ASSERT_EQ(NKRMove(id_, 0x012345), NKR_SUCCESS);
    frames = nkrsim::sentFrames(unit_);
    ASSERT_EQ(frames.size(), 1u);
    const Bytes payload = nkrtest::payloadOf(frames[0]);
    ASSERT_EQ(payload.size(), 15u);
    EXPECT_EQ(slice(payload, 0, 4), (Bytes{0x7E, 0x5A, 0x03, 0x01}));
    EXPECT_EQ(slice(payload, 6, 9), (Bytes{0x01, 0x23, 0x45}));
    EXPECT_EQ(nkrsim::state(unit_).target, 0x012345);
    EXPECT_TRUE(NKRStop(id_) == NKR_SUCCESS && nkrsim::state(unit_).runState == 0);
}

TEST_F(DeviceBle, ShortAnswerOrPairingNotificationLeavesTheRestOfTheLastReport)
{
    ASSERT_EQ(readAll(), (std::vector<int>{600000, 0x050607, 9}));
    // A good response whose answer ends at byte 9 of the HID layout: move
    // state 0, backlash 7, position 1234, and nothing after it.
    Bytes frame = {0x01, 0x06, uint8_t(nkrsim::sentFrames(unit_).back()[2] + 1), 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x04, 0xD2};
    frame.push_back(BLEProtocol::calculateChecksum(frame.data(), uint32_t(frame.size())));
    nkrsim::bleRawAnswer(unit_, frame);
    int backlash = -1, max = -1;
    EXPECT_EQ(nkrtest::position(id_), 1234);
    // "Pairing accepted" ends the exchange with success and an empty answer:
    // the read succeeds on the report as it was (the short answer's values).
    nkrsim::bleNotifyInstead(unit_, 0x00);
    EXPECT_EQ((std::pair{NKRGetBacklash(id_, &backlash), backlash}), std::pair(0, 7));
    nkrsim::bleNotifyInstead(unit_, 0x00);
    // Byte 6 from the short answer, bytes 14-15 as the full report left them.
    EXPECT_EQ((std::pair{NKRGetMaxStep(id_, &max), max}), std::pair(0, 0x0607));
}

}  // namespace
