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

// Two units with their own serial numbers, by default and with per-unit
// records: the shared record hands unit A's values to unit B; per-unit
// records give each unit back only its own.
class PersistPerUnit : public nkrtest::SimTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        nkrtest::SimTest::SetUp();
        if (GetParam())
            setenv("NKR_STATE_PER_UNIT", "1", 1);
        else
            unsetenv("NKR_STATE_PER_UNIT");
    }
    void TearDown() override
    {
        unsetenv("NKR_STATE_PER_UNIT");
        nkrtest::SimTest::TearDown();
    }
    static nkrsim::UnitSpec unit(uint8_t serialByte)
    {
        nkrsim::UnitSpec spec = unitWithFirmware(382);
        spec.modelLetter = 'E';
        spec.typeText = "NKRN";
        spec.serial = {serialByte, 1, 2, 3, 4, 5, 6, 7};
        return spec;
    }
    static int openedId(nkrsim::UnitId unit)
    {
        NKRGetNum();
        for (int id = 0; id < NKR_BLE_FIRST_ID; ++id)
            if (slotPath(id) == nkrsim::usbPath(unit)) return NKROpen(id) == NKR_SUCCESS ? id : -1;
        return -1;
    }
};

TEST_P(PersistPerUnit, EachUnitGetsBackOnlyItsOwnValuesWhenOptedIn)
{
    const bool perUnit = GetParam();
    nkrsim::UnitId a = nkrsim::addUnit(unit(0xA1));
    nkrsim::UnitId b = nkrsim::addUnit(unit(0xB2));

    int idA = openedId(a);
    ASSERT_GE(idA, 0);
    ASSERT_EQ(NKRResetPostion(idA, 123456), NKR_SUCCESS);  // 24-bit, as newer units have
    ASSERT_EQ(NKRSetBacklash(idA, 11), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(idA), NKR_SUCCESS);

    // B powers up at 30000 and finds either A's record or none of its own.
    int idB = openedId(b);
    ASSERT_GE(idB, 0);
    int pos = -1, backlash = -1;
    ASSERT_EQ(NKRGetPosition(idB, &pos), NKR_SUCCESS);
    ASSERT_EQ(NKRGetBacklash(idB, &backlash), NKR_SUCCESS);
    EXPECT_EQ(pos, perUnit ? NKR_POWER_ON_POSITION : 123456);
    EXPECT_EQ(backlash, perUnit ? 0 : 11);
    ASSERT_EQ(NKRResetPostion(idB, 777), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(idB), NKR_SUCCESS);

    // A, power-cycled, gets its own values back only from its own record.
    nkrsim::unplug(a);
    nkrsim::replug(a);
    idA = openedId(a);
    ASSERT_GE(idA, 0);
    ASSERT_EQ(NKRGetPosition(idA, &pos), NKR_SUCCESS);
    ASSERT_EQ(NKRGetBacklash(idA, &backlash), NKR_SUCCESS);
    EXPECT_EQ(pos, perUnit ? 123456 : 777);
    EXPECT_EQ(backlash, 11);
    ASSERT_EQ(NKRClose(idA), NKR_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(DefaultAndOptIn, PersistPerUnit, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "PerUnit" : "Shared"; });

TEST_F(Persist, APerUnitRecordIsNeverOverwrittenWithAPositionNobodyRead)
{
    {
        CNKR good;
        good.m_strUnitKey = "A101020304050607";
        good.m_bStatusRead = true;
        fill(good, 4242, 3, false, 60000, false);
        good.SaveSetting();
    }
    {
        CNKR unread;  // its first status read failed
        unread.m_strUnitKey = "A101020304050607";
        fill(unread, 30000, 0, false, 60000, false);
        unread.SaveSetting();
    }
    CNKR loaded;
    loaded.m_strUnitKey = "A101020304050607";
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, 4242);
}

}  // namespace
