// Status report: both position layouts, the flags byte, failed reads, and
// the moving / hand-controller answers.
#include <cerrno>

#include "device_support.h"

namespace {
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

class DeviceStatus : public DeviceTest {};

TEST_F(DeviceStatus, SixteenBitLayoutUpToFirmware335)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(335), &unit);
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.position = 1234;
        s.speed = 0x0102;
        s.backlash = 7;
        s.maxStep = 50000;
        s.beep = true;
        s.reverse = true;
        s.handControl = true;
        s.force = 9;
        s.tempRaw = 0x1234;
    });
    int pos = -1, speed = -1, backlash = -1, maxStep = -1, force = -1;
    bool beep = false, reverse = false;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    EXPECT_EQ(pos, 1234);
    EXPECT_EQ(NKRGetSpeed(id, &speed), NKR_SUCCESS);
    EXPECT_EQ(speed, 0x0102);
    EXPECT_EQ(NKRGetBacklash(id, &backlash), NKR_SUCCESS);
    EXPECT_EQ(backlash, 7);
    EXPECT_EQ(NKRGetMaxStep(id, &maxStep), NKR_SUCCESS);
    EXPECT_EQ(maxStep, 50000);
    EXPECT_EQ(NKRGetBeep(id, &beep), NKR_SUCCESS);
    EXPECT_TRUE(beep);
    EXPECT_EQ(NKRGetReverse(id, &reverse), NKR_SUCCESS);
    EXPECT_TRUE(reverse);
    EXPECT_EQ(NKRGetMaxForce(id, &force), NKR_SUCCESS);
    EXPECT_EQ(force, 9);
}

TEST_F(DeviceStatus, TwentyFourBitLayoutFromFirmware336ForcesSpeedToZero)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.position = 600000;
        s.maxStep = 0x050607;
        s.speed = 0x0102;
    });
    int pos = -1, speed = -1, maxStep = -1;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    EXPECT_EQ(pos, 600000);
    const unsigned char* in = dev(id)->pszInBuf;
    EXPECT_EQ(in[7], 0x09);
    EXPECT_EQ(in[8], 0x27);
    EXPECT_EQ(in[9], 0xC0);
    EXPECT_EQ(NKRGetSpeed(id, &speed), NKR_SUCCESS);
    EXPECT_EQ(speed, 0);
    EXPECT_EQ(NKRGetMaxStep(id, &maxStep), NKR_SUCCESS);
    EXPECT_EQ(maxStep, 0x050607);
}

TEST_F(DeviceStatus, FailedReadLeavesOutputAndCacheUntouched)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(335), &unit);
    CNKR* d = dev(id);
    const int step = d->step, speed = d->speed, maxstep = d->maxstep, temp = d->m_iTempRaw;
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.position = 4321; });
    nkrsim::failTransfers(unit, 1, EIO);
    int pos = -77;
    bool moving = true;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_GENERAL);
    EXPECT_EQ(pos, -77);
    EXPECT_EQ(d->step, step);
    EXPECT_EQ(d->speed, speed);
    EXPECT_EQ(d->maxstep, maxstep);
    EXPECT_EQ(d->m_iTempRaw, temp);
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_ERROR_GENERAL);
    EXPECT_TRUE(moving);

    // Null outputs are refused without traffic.
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(d->getStep(nullptr, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(d->getMaxForce(nullptr, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(d->isMoving(nullptr, &moving, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(d->isHandControl(nullptr, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceStatus, MovingReportsHostMovesAndHandMoves)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    bool moving = true, hand = true;
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_FALSE(moving);
    EXPECT_FALSE(hand);

    // A hand-controller move: moving, and the second output is the hand bit.
    nkrsim::handMove(unit, 35000);
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_TRUE(hand);
    nkrsim::advanceMicros(10'000'000);

    // A host move: moving, not by hand. A null second output is allowed.
    ASSERT_EQ(NKRMove(id, 20000), NKR_SUCCESS);
    moving = false;
    EXPECT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_FALSE(hand);
}

TEST_F(DeviceStatus, HandControllerIsInferredFromTheSensorWordOnThermistorFirmware)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(300), &unit);
    CNKR* d = dev(id);
    ASSERT_TRUE(d->m_bThermistor);
    const std::pair<int, bool> cases[] = {{0, false}, {1, true}, {341, true}, {342, false}, {800, false}};
    for (auto [raw, expected] : cases) {
        SCOPED_TRACE(raw);
        // The attached bit is ignored on this firmware.
        nkrsim::update(unit, [raw = raw](nkrsim::UnitState& s) {
            s.tempRaw = raw;
            s.handControl = !s.handControl;
        });
        bool hand = !expected;
        EXPECT_EQ(d->isHandControl(&hand, false), NKR_SUCCESS);
        EXPECT_EQ(hand, expected);
    }
}

}  // namespace
