// Motion and motor settings through the exports: the control frame byte for
// byte, clamps, the moving lock-out and stop, and a whole move polled to its end.
#include <cerrno>
#include <functional>

#include "device_support.h"

namespace {
using devicetest::Bytes;
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

class DeviceMotion : public DeviceTest {};

Bytes slice(const Bytes& b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }

TEST_F(DeviceMotion, FrameCarriesTheSpeedUpTo335AndHighBytesFrom336)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(335), &unit);
    ASSERT_EQ(NKRSetSpeed(id, 0x0102), NKR_SUCCESS);
    ASSERT_EQ(NKRMove(id, 1000), NKR_SUCCESS);
    Bytes f = devicetest::lastControlFrame(unit);
    ASSERT_EQ(f.size(), 16u);
    EXPECT_EQ(slice(f, 0, 11), (Bytes{0x03, 0x7E, 0x5A, 0x03, 0x01, 0x00, 0x01, 0x02, 0x03, 0xE8, 0x00}));
    EXPECT_EQ(slice(f, 14, 16), (Bytes{0xEA, 0x60}));  // maximum 60000 as reported
    EXPECT_EQ(nkrsim::state(unit).target, 1000);

    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.maxStep = 0x050607;
    id = openQuiet(spec, &unit);
    ASSERT_EQ(NKRMove(id, 0x012345), NKR_SUCCESS);
    f = devicetest::lastControlFrame(unit);
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
        const Bytes f = devicetest::lastControlFrame(unit);
        EXPECT_EQ(f[8] << 8 | f[9], sent) << target;
        ASSERT_EQ(NKRStop(id), NKR_SUCCESS);
    }
    // A reset redefines the position without moving or pausing.
    const uint64_t t0 = nkrsim::nowMicros();
    ASSERT_EQ(NKRResetPostion(id, 70000), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::nowMicros(), t0);
    const Bytes f = devicetest::lastControlFrame(unit);
    EXPECT_EQ((Bytes{f[4], f[8], f[9], f[10]}), (Bytes{0, 0xEA, 0x60, 1}));
    EXPECT_EQ(nkrsim::state(unit).position, 60000);
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
}

TEST_F(DeviceMotion, MoveWaits200msOnlyWhenTheFrameWasSent)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    uint64_t t0 = nkrsim::nowMicros();
    ASSERT_EQ(NKRMove(id, 30000), NKR_SUCCESS);  // already there: ends at once
    EXPECT_EQ(nkrsim::nowMicros() - t0, 200000u);
    bool moving = true;
    ASSERT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
    ASSERT_FALSE(moving);
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
    EXPECT_TRUE(devicetest::controlFrames(unit).empty());
    EXPECT_EQ(nkrsim::state(unit).runState, 1);
    nkrsim::clearSentReports(unit);
    ASSERT_EQ(NKRStop(id), NKR_SUCCESS);
    const std::vector<Bytes> sent = nkrsim::sentReports(unit);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(slice(sent[0], 0, 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x03}));
    EXPECT_TRUE(devicetest::isControlFrame(sent[1]));
    EXPECT_EQ(sent[1][4], 0);
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
    EXPECT_EQ(NKRSetBeep(id, true), NKR_SUCCESS);
}

TEST_F(DeviceMotion, SettingsInTheFrameAndTheirBounds)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(335), &unit);
    // Force, beep and reverse share byte 13; only the low nibble of the force travels.
    struct Step {
        std::function<int()> call;
        int byte, value, mode;  // mode: byte 10, -1 unchecked
    };
    const Step steps[] = {
        {[&] { return NKRSetBeep(id, true); }, 13, 0x01, 0}, {[&] { return NKRSetMaxForce(id, 0x1F3); }, 13, 0x31, -1},
        {[&] { return NKRSetReverse(id, true); }, 13, 0x33, -1}, {[&] { return NKRSetMaxForce(id, 20); }, 13, 0x43, -1},
        {[&] { return NKRSetBacklash(id, 255); }, 5, 255, 0},
        {[&] { return NKRSetMaxStep(id, 1000000); }, 14, 0xEA, 2},  // clamped to the range, stored
        {[&] { return NKRSetMaxStep(id, -3); }, 14, 0x00, 2},
    };
    for (const Step& s : steps) {
        EXPECT_EQ(s.call(), NKR_SUCCESS);
        const Bytes f = devicetest::lastControlFrame(unit);
        EXPECT_EQ(f[s.byte], s.value) << s.byte;
        if (s.mode >= 0) {
            EXPECT_EQ(f[10], s.mode);
        }
    }
    int force = -1;
    ASSERT_EQ(NKRGetMaxForce(id, &force), NKR_SUCCESS);
    EXPECT_EQ(force, 4);  // the unit reads the high half-byte
    EXPECT_EQ(nkrsim::state(unit).maxStep, 0);
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSetBacklash(id, 256), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(NKRSetBacklash(id, -1), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceMotion, UsbMoveRunsOnTheClockAndEndsAtTheTarget)
{
    const int id = openUnit(unitWithFirmware(336));
    ASSERT_EQ(NKRMove(id, 100000), NKR_SUCCESS);
    // 70000 steps at 2000 per second: about 35 s of simulated time.
    int polls = 0;
    for (bool moving = true; moving && polls < 1000; ++polls) {
        ASSERT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
        if (moving) nkrsim::advanceMicros(100'000);
    }
    EXPECT_GT(polls, 300);
    EXPECT_LT(polls, 1000);
    int pos = -1;
    ASSERT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    EXPECT_EQ(pos, 100000);
    EXPECT_EQ(NKRSetBacklash(id, 3), NKR_SUCCESS) << "settings change again once the move is over";
}

TEST_F(DeviceMotion, CloseStopsARunningMoveAndStoresTheSettingsWithRunOff)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRSetBacklash(id, 12), NKR_SUCCESS);
    ASSERT_EQ(NKRMove(id, 50000), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(id), NKR_SUCCESS);
    const Bytes f = devicetest::lastControlFrame(unit);
    EXPECT_EQ((Bytes{f[4], f[5], f[10]}), (Bytes{0, 12, 0}));
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
}

}  // namespace
