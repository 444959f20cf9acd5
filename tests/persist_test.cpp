// Position persistence: save and load round trips on bare device objects,
// defaults for what the file lacks, and the restore of a unit that an open
// finds at its power-on position. Overlong stored values are the store's to
// cut (Store.QueriesReportTheStoredLengthAndNeverWritePastTheBuffer).
#include <cstdint>
#include <string>
#include <vector>

#include "device/NKR.h"
#include "device_support.h"
#include "store_test_support.h"

namespace {
using storetest::configDir;
using storetest::writeFile;
using nkrtest::unitWithFirmware;

class Persist : public nkrtest::SimTest {};

const std::string kFile = "NKRconfig.xml";

void fill(CNKR& unit, int position, int backlash, bool beep, int maxStep, bool reverse)
{
    unit.step = position;
    unit.iBacklash = backlash;
    unit.bBeep = beep;
    unit.maxstep = maxStep;
    unit.bReverse = reverse;
}

void writeRecord(const std::string& values)
{
    writeFile(configDir() + kFile,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<software>\n<HTX_Drevomat>\n" + values +
                  "</HTX_Drevomat>\n</software>\n");
}

// Control frames sent in set-position mode (byte 10 = 1).
std::vector<devicetest::Bytes> setPositionFrames(nkrsim::UnitId unit)
{
    std::vector<devicetest::Bytes> frames;
    for (const auto& f : devicetest::controlFrames(unit))
        if (f[10] == 1) frames.push_back(f);
    return frames;
}

TEST_F(Persist, SavedSettingsComeBackAndMissingOrMinusOneValuesTakeTheDefaults)
{
    CNKR first;
    fill(first, 1234, 20, true, 50000, true);
    first.SaveSetting();
    CNKR loaded;
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, 1234);
    EXPECT_EQ(loaded.iBacklash, 20);
    EXPECT_TRUE(loaded.bBeep);
    EXPECT_EQ(loaded.maxstep, 50000);
    EXPECT_TRUE(loaded.bReverse);

    writeRecord("<Backlash type=\"4\">ffffffff</Backlash>\n"
                "<Beep type=\"4\">02000000</Beep>\n"
                "<Reverse type=\"4\">zz</Reverse>\n");
    loaded.m_iStepLimit = 600000;
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, NKR_POWER_ON_POSITION);
    EXPECT_EQ(loaded.iBacklash, 0);
    EXPECT_FALSE(loaded.bBeep);  // only a stored 1 means on
    EXPECT_EQ(loaded.maxstep, 600000);
    EXPECT_FALSE(loaded.bReverse);
}

TEST_F(Persist, UnitAtPowerOnPositionGetsTheSavedRecordWithoutMoving)
{
    {
        CNKR saved;
        fill(saved, 70000, 20, true, 90000, false);  // 70000 needs the 24-bit layout
        saved.SaveSetting();
    }
    nkrsim::UnitId unit = -1;
    openUnit(unitWithFirmware(336), &unit);

    auto frames = setPositionFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    const auto& f = frames[0];
    EXPECT_EQ(f[4], 0);                             // hold, no move
    EXPECT_EQ(f[5], 20);                            // backlash
    EXPECT_EQ(f[6], (90000 >> 16) & 0xff);          // maximum, high byte
    EXPECT_EQ(f[7], (70000 >> 16) & 0xff);          // position, high byte
    EXPECT_EQ(f[8] << 8 | f[9], 70000 & 0xffff);    // position, low bytes
    EXPECT_EQ(f[13] & 0x03, 0x01);                  // beep on, reverse off
    EXPECT_EQ(f[14] << 8 | f[15], 90000 & 0xffff);  // maximum, low bytes
    EXPECT_EQ(nkrsim::state(unit).position, 70000);
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
}

TEST_F(Persist, WithoutAFileAnOpenAt30000KeepsTheDefaultsAndWritesNothing)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.maxStep = 400000;
    int id = openUnit(spec);
    int pos = -1, backlash = -1, maxStep = -1;
    bool beep = true, reverse = true;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    EXPECT_EQ(pos, NKR_POWER_ON_POSITION);
    EXPECT_EQ(NKRGetBacklash(id, &backlash), NKR_SUCCESS);
    EXPECT_EQ(backlash, 0);
    EXPECT_EQ(NKRGetBeep(id, &beep), NKR_SUCCESS);
    EXPECT_FALSE(beep);
    EXPECT_EQ(NKRGetReverse(id, &reverse), NKR_SUCCESS);
    EXPECT_FALSE(reverse);
    EXPECT_EQ(NKRGetMaxStep(id, &maxStep), NKR_SUCCESS);
    EXPECT_EQ(maxStep, 400000) << "the unit's own maximum";
    EXPECT_FALSE(storetest::exists(configDir() + kFile));
}

TEST_F(Persist, OtherPositionsAreKeptAndCloseSavesTheLastUnit)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.position = 1500;
    nkrsim::UnitId first = -1;
    int idFirst = openUnit(spec, &first);
    EXPECT_TRUE(setPositionFrames(first).empty());
    EXPECT_EQ(dev(idFirst)->step, 1500);

    spec.position = 2500;
    spec.maxStep = 400000;
    int idSecond = openUnit(spec);
    ASSERT_EQ(NKRClose(idFirst), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(idSecond), NKR_SUCCESS);

    CNKR loaded;
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, 2500);
    EXPECT_EQ(loaded.maxstep, 400000);
}

}  // namespace
