// Position and settings saved at close and restored at open, shared or per unit.
#include "fault_support.h"

namespace {
using faulttest::Saved;
using faulttest::savedRecord;
using nkrtest::unitWithFirmware;

class Persist : public nkrtest::SimTest {
protected:
    // Control frames sent in set-position mode (byte 10 = 1).
    static std::vector<nkrtest::Bytes> setPositionFrames(nkrsim::UnitId unit)
    {
        std::vector<nkrtest::Bytes> frames = nkrtest::controlFrames(unit);
        frames.erase(std::remove_if(frames.begin(), frames.end(), [](const auto& f) { return f[10] != 1; }), frames.end());
        return frames;
    }
    static std::vector<int> readBack(int id)
    {
        int pos = -1, backlash = -1, max = -1;
        bool beep = false, reverse = false;
        EXPECT_EQ(NKRGetPosition(id, &pos) | NKRGetBacklash(id, &backlash) | NKRGetBeep(id, &beep) |
                      NKRGetMaxStep(id, &max) | NKRGetReverse(id, &reverse),
                  NKR_SUCCESS);
        return {pos, backlash, beep, max, reverse};
    }
};

TEST_F(Persist, CloseSavesAndAPowerCycledUnitGetsItAllBackWithoutMoving)
{
    nkrsim::UnitId unit = -1;
    int id = openUnit(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRResetPostion(id, 70000), NKR_SUCCESS);  // 70000 needs the 24-bit layout
    ASSERT_EQ(NKRSetBacklash(id, 20) | NKRSetBeep(id, true) | NKRSetMaxStep(id, 90000) | NKRSetReverse(id, true),
              NKR_SUCCESS);
    ASSERT_EQ(NKRClose(id), NKR_SUCCESS);
    EXPECT_EQ(savedRecord(), (Saved{70000, 20, 1, 90000, 1}));
    nkrsim::unplug(unit);
    nkrsim::replug(unit);  // powers up at 30000
    nkrsim::clearSentReports(unit);
    ASSERT_EQ(NKROpen(id = scanForSlot(unit)), NKR_SUCCESS);
    const auto frames = setPositionFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    const auto& f = frames[0];
    EXPECT_EQ((std::vector<int>{f[4], f[5], f[6], f[7], f[8] << 8 | f[9], f[13] & 3, f[14] << 8 | f[15]}),
              (std::vector<int>{0, 20, 90000 >> 16, 70000 >> 16, 70000 & 0xffff, 3, 90000 & 0xffff}));
    EXPECT_EQ(readBack(id), (std::vector<int>{70000, 20, 1, 90000, 1}));
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
}

TEST_F(Persist, WithoutAFileOrWithDamagedValuesTheUnitKeepsItsOwnAndNothingIsWritten)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.maxStep = 400000;
    EXPECT_EQ(readBack(openUnit(spec)), (std::vector<int>{nkrtest::kPowerOnPosition, 0, 0, 400000, 0}));
    EXPECT_FALSE(storetest::exists(faulttest::settingsPath()));
    NKRClose(0);
    // Only a stored 1 means on; the restore leaves the unit's own maximum.
    storetest::writeFile(faulttest::settingsPath(),
                         "<?xml version=\"1.0\"?>\n<software>\n<HTX_Drevomat>\n"
                         "<Backlash type=\"4\">ffffffff</Backlash>\n<Beep type=\"4\">02000000</Beep>\n"
                         "<Reverse type=\"4\">zz</Reverse>\n</HTX_Drevomat>\n</software>\n");
    EXPECT_EQ(readBack(openUnit(spec)), (std::vector<int>{nkrtest::kPowerOnPosition, 0, 0, 400000, 0}));
}

TEST_F(Persist, OtherPositionsAreKeptAndCloseSavesTheLastUnit)
{
    faulttest::writeSavedRecord({1000, 5, 0, 50000, 0});
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.position = 1500;
    nkrsim::UnitId first = -1;
    const int idFirst = openUnit(spec, &first);
    EXPECT_TRUE(setPositionFrames(first).empty());
    EXPECT_EQ(readBack(idFirst)[0], 1500);
    spec.position = 2500;
    spec.maxStep = 400000;
    const int idSecond = openUnit(spec);
    ASSERT_EQ(NKRClose(idFirst), NKR_SUCCESS);
    ASSERT_EQ(NKRClose(idSecond), NKR_SUCCESS);
    const auto saved = savedRecord().value_or(Saved{});
    EXPECT_EQ(std::make_pair(saved.position, saved.maxStep), std::make_pair(2500, 400000));
}

// Two units with their own serial numbers: the shared record hands unit A's
// values to unit B; per-unit records give each unit back only its own.
class PersistPerUnit : public nkrtest::SimTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        nkrtest::SimTest::SetUp();
        if (GetParam()) setenv("NKR_STATE_PER_UNIT", "1", 1);  // each test has a process of its own
    }
    static nkrsim::UnitSpec unit(uint8_t serialByte)
    {
        nkrsim::UnitSpec spec = nkrtest::proUnitWithFirmware(382);
        spec.serial = {serialByte, 1, 2, 3, 4, 5, 6, 7};
        return spec;
    }
    static int opened(nkrsim::UnitId unit)
    {
        const int id = scanForSlot(unit);
        return NKROpen(id) == NKR_SUCCESS ? id : -1;
    }
    static std::pair<int, int> positionAndBacklash(int id)
    {
        int pos = -1, backlash = -1;
        EXPECT_EQ(NKRGetPosition(id, &pos) | NKRGetBacklash(id, &backlash), NKR_SUCCESS);
        return {pos, backlash};
    }
};

TEST_P(PersistPerUnit, EachUnitGetsBackOnlyItsOwnValuesWhenOptedIn)
{
    const bool perUnit = GetParam();
    nkrsim::UnitId a = nkrsim::addUnit(unit(0xA1));
    nkrsim::UnitId b = nkrsim::addUnit(unit(0xB2));
    int idA = opened(a);
    ASSERT_EQ(NKRResetPostion(idA, 123456) | NKRSetBacklash(idA, 11) | NKRClose(idA), NKR_SUCCESS);
    // B powers up at 30000 and finds either A's record or none of its own.
    const int idB = opened(b);
    EXPECT_EQ(positionAndBacklash(idB), perUnit ? std::make_pair(nkrtest::kPowerOnPosition, 0) : std::make_pair(123456, 11));
    ASSERT_EQ(NKRResetPostion(idB, 777) | NKRClose(idB), NKR_SUCCESS);
    // A, power-cycled, gets its own values back only from its own record.
    nkrsim::unplug(a);
    nkrsim::replug(a);
    idA = opened(a);
    EXPECT_EQ(positionAndBacklash(idA), std::make_pair(perUnit ? 123456 : 777, 11));
    ASSERT_EQ(NKRClose(idA), NKR_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(DefaultAndOptIn, PersistPerUnit, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "PerUnit" : "Shared"; });

}  // namespace
