// Opening a unit and reading its status through the exports: what the
// firmware version and the report descriptor decide, both position layouts,
// the flags byte, failed reads, and the moving / hand-controller answers.
#include <cerrno>

#include "device_support.h"

namespace {
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

class DeviceStatus : public DeviceTest {};

TEST_F(DeviceStatus, FirmwareVersionDecidesSerialCommandsAndStepRange)
{
    struct Case {
        nkrsim::UnitSpec spec;
        int serialRc, range;
    };
    const Case cases[] = {
        {unitWithFirmware(300), NKR_ERROR_NOT_SUPPORTED, 60000}, {unitWithFirmware(321), NKR_ERROR_NOT_SUPPORTED, 60000},
        {unitWithFirmware(322), NKR_SUCCESS, 60000},            {unitWithFirmware(335), NKR_SUCCESS, 60000},
        {unitWithFirmware(336), NKR_SUCCESS, 600000},           {unitWithFirmware(370), NKR_SUCCESS, 600000},
        {nkrtest::proUnitWithFirmware(321), NKR_SUCCESS, 600000},  // model letter E: the newer family
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.spec.fwMajor * 100 + c.spec.fwMinor * 10 + c.spec.fwBuild);
        const int id = openUnit(c.spec);
        _NKR_SN sn{};
        int range = -1;
        EXPECT_EQ(NKRGetSerialNumber(id, &sn), c.serialRc);
        EXPECT_EQ(NKRStepRange(id, &range), NKR_SUCCESS);
        EXPECT_EQ(range, c.range);
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, ReportsAre64BytesOnlyWhenTheDescriptorSaysSo)
{
    nkrsim::UnitSpec wide = unitWithFirmware(336), odd = wide, hidden = wide;
    wide.outputReportLen = 64;
    // Report 3 output of 32 bytes: not a length the firmware uses.
    odd.descriptor = {0x85, 0x01, 0x75, 0x08, 0x95, 0x10, 0x81, 0x02, 0x85, 0x03, 0x75, 0x08, 0x95, 0x1F, 0x91, 0x02};
    hidden.outputReportLen = 64;
    hidden.descriptorReadable = false;
    const std::pair<nkrsim::UnitSpec, size_t> cases[] = {{wide, 64}, {unitWithFirmware(336), 16}, {odd, 16}, {hidden, 16}};
    for (const auto& [spec, length] : cases) {
        nkrsim::UnitId unit;
        const int id = openQuiet(spec, &unit);
        ASSERT_EQ(NKRSetBeep(id, true), NKR_SUCCESS);
        EXPECT_EQ(devicetest::lastControlFrame(unit).size(), length);
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, BothLayoutsReadBack)
{
    struct Case {
        int fw, position, maxStep, speedSent, speedRead;
    };
    // Up to 3.3.5 16-bit positions and the speed; from 3.3.6 24-bit positions, speed 0.
    const Case cases[] = {{335, 1234, 50000, 0x0102, 0x0102}, {336, 600000, 0x050607, 0x0102, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fw);
        nkrsim::UnitId unit;
        const int id = openQuiet(unitWithFirmware(c.fw), &unit);
        nkrsim::update(unit, [&](nkrsim::UnitState& s) {
            s.position = c.position;
            s.speed = c.speedSent;
            s.backlash = 7;
            s.maxStep = c.maxStep;
            s.beep = s.reverse = true;
            s.force = 9;
        });
        int pos = -1, speed = -1, backlash = -1, maxStep = -1, force = -1;
        bool beep = false, reverse = false;
        EXPECT_EQ(NKRGetPosition(id, &pos) | NKRGetSpeed(id, &speed) | NKRGetBacklash(id, &backlash) |
                      NKRGetMaxStep(id, &maxStep) | NKRGetBeep(id, &beep) | NKRGetReverse(id, &reverse) |
                      NKRGetMaxForce(id, &force),
                  NKR_SUCCESS);
        EXPECT_EQ(std::vector<int>({pos, speed, backlash, maxStep, force, beep, reverse}),
                  std::vector<int>({c.position, c.speedRead, 7, c.maxStep, 9, 1, 1}));
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, FailedReadLeavesTheOutputUntouched)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(335), &unit);
    nkrsim::failTransfers(unit, 2, EIO);
    int pos = -77;
    bool moving = true;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_GENERAL);
    EXPECT_EQ(pos, -77);
    EXPECT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_ERROR_GENERAL);
    EXPECT_TRUE(moving);
    // Null outputs are refused without traffic.
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRGetPosition(id, nullptr), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(NKRIsMoving(id, nullptr, &moving), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceStatus, MovingReportsHostMovesAndHandMoves)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    bool moving = true, hand = true;
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_FALSE(moving || hand);
    nkrsim::handMove(unit, 35000);
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_TRUE(moving && hand);
    nkrsim::advanceMicros(10'000'000);
    // A host move: moving, not by hand. A null second output is allowed.
    ASSERT_EQ(NKRMove(id, 20000), NKR_SUCCESS);
    moving = false;
    EXPECT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_FALSE(hand);
}

}  // namespace
