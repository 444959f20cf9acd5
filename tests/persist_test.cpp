// Position persistence on bare device objects: save and load round trips,
// defaults for what the file lacks, the shared record, hostile values.
#include <string>

#include "device/NKR.h"
#include "persist_test_support.h"
#include "store_test_support.h"

namespace {
using persisttest::Persist;
using storetest::configDir;
using storetest::readFile;
using storetest::writeFile;

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

TEST_F(Persist, SavedSettingsComeBackAndTheLastSaveWins)
{
    CNKR first;
    fill(first, 1234, 20, true, 50000, true);
    first.SaveSetting();
    ASSERT_NE(first.m_pszSubKey, nullptr);
    EXPECT_STREQ(first.m_pszSubKey, "software\\HTX_Drevomat");
    EXPECT_NE(readFile(configDir() + kFile).find("<Position type=\"4\">d2040000</Position>"),
              std::string::npos);

    CNKR loaded;
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, 1234);
    EXPECT_EQ(loaded.iBacklash, 20);
    EXPECT_TRUE(loaded.bBeep);
    EXPECT_EQ(loaded.maxstep, 50000);
    EXPECT_TRUE(loaded.bReverse);

    // Every unit shares the one record: the second save replaces the first.
    CNKR second;
    fill(second, 0, 0, false, 600000, false);
    second.SaveSetting();
    loaded.LoadSetting();
    EXPECT_EQ(loaded.step, 0);
    EXPECT_EQ(loaded.iBacklash, 0);
    EXPECT_FALSE(loaded.bBeep);
    EXPECT_EQ(loaded.maxstep, 600000);
    EXPECT_FALSE(loaded.bReverse);
}

TEST_F(Persist, MissingFileChangesNothingAndCreatesNothing)
{
    CNKR unit;
    fill(unit, 777, 5, true, 1000, true);
    unit.LoadSetting();
    EXPECT_EQ(unit.step, 777);
    EXPECT_EQ(unit.iBacklash, 5);
    EXPECT_TRUE(unit.bBeep);
    EXPECT_EQ(unit.maxstep, 1000);
    EXPECT_TRUE(unit.bReverse);
    EXPECT_FALSE(storetest::exists(configDir() + kFile));
}

TEST_F(Persist, MissingAndMinusOneValuesTakeTheDefaults)
{
    writeRecord("<Backlash type=\"4\">ffffffff</Backlash>\n"
                "<Beep type=\"4\">02000000</Beep>\n"
                "<Reverse type=\"4\">zz</Reverse>\n");
    CNKR unit;
    unit.m_iStepLimit = 600000;
    fill(unit, 5, 5, true, 5, true);
    unit.LoadSetting();
    EXPECT_EQ(unit.step, NKR_POWER_ON_POSITION);
    EXPECT_EQ(unit.iBacklash, 0);
    EXPECT_FALSE(unit.bBeep);  // only a stored 1 means on
    EXPECT_EQ(unit.maxstep, 600000);
    EXPECT_FALSE(unit.bReverse);
}

TEST_F(Persist, OverlongStoredValuesAreCutAtFourBytes)
{
    writeRecord("<Position type=\"4\">e8030000deadbeefdeadbeefdeadbeef</Position>\n"
                "<Backlash type=\"4\">1400000011223344</Backlash>\n"
                "<MaxStep type=\"4\">60ea0000" + std::string(4000, 'f') + "</MaxStep>\n");
    CNKR unit;
    unit.LoadSetting();
    EXPECT_EQ(unit.step, 1000);
    EXPECT_EQ(unit.iBacklash, 20);
    EXPECT_EQ(unit.maxstep, 60000);
}

}  // namespace
