// Position persistence end to end: an open that finds the unit at its
// power-on position hands it the saved record; a close saves the unit's state.
#include <cstdint>
#include <vector>

#include "device/NKR.h"
#include "persist_test_support.h"

namespace {
using nkrtest::unitWithFirmware;
using persisttest::Persist;

// Control frames (command 03) sent in set-position mode (byte 10 = 1).
std::vector<std::vector<uint8_t>> setPositionFrames(nkrsim::UnitId unit)
{
    std::vector<std::vector<uint8_t>> frames;
    for (const auto& report : nkrsim::sentReports(unit))
        if (report.size() >= 16 && report[0] == 0x03 && report[1] == 0x7E && report[2] == 0x5A &&
            report[3] == 0x03 && report[10] == 1)
            frames.push_back(report);
    return frames;
}

TEST_F(Persist, UnitAtPowerOnPositionGetsTheSavedRecord)
{
    {
        CNKR saved;
        saved.step = 70000;  // needs the 24-bit layout of firmware above 335
        saved.iBacklash = 20;
        saved.bBeep = true;
        saved.maxstep = 90000;
        saved.bReverse = false;
        saved.SaveSetting();
    }
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.position = NKR_POWER_ON_POSITION;
    nkrsim::UnitId unit = -1;
    openUnit(spec, &unit);

    auto frames = setPositionFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    const auto& f = frames[0];
    EXPECT_EQ(f[4], 0);                                  // hold, no move
    EXPECT_EQ(f[5], 20);                                 // backlash
    EXPECT_EQ(f[6], (90000 >> 16) & 0xff);               // maximum, high byte
    EXPECT_EQ(f[7], (70000 >> 16) & 0xff);               // position, high byte
    EXPECT_EQ(f[8] << 8 | f[9], 70000 & 0xffff);         // position, low bytes
    EXPECT_EQ(f[13] & 0x03, 0x01);                       // beep on, reverse off
    EXPECT_EQ(f[14] << 8 | f[15], 90000 & 0xffff);       // maximum, low bytes
}

TEST_F(Persist, OtherPositionsAreKeptAndCloseSavesTheLastUnit)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.position = 1500;
    nkrsim::UnitId first = -1;
    int idFirst = openUnit(spec, &first);
    EXPECT_TRUE(setPositionFrames(first).empty());

    spec.position = 2500;
    nkrsim::UnitId second = -1;
    int idSecond = openUnit(spec, &second);
    ASSERT_EQ(NKRClose(idFirst), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(idSecond), NKR_SUCCESS);

    CNKR loaded;
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, 2500);
}

}  // namespace
