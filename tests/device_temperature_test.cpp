// Temperature: the thermistor table, the converter-reading conversion and
// both status encodings end to end.
#include <map>

#include "device/RTlist.h"
#include "device_support.h"

namespace {
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

TEST(DeviceTemperatureTable, RowsAreConsecutiveStrictlyFallingAndKeepTheDatasheetPoints)
{
    for (int i = 0; i < RTLIST_ROWS; ++i) {
        // Rows are packed (the doubles sit at 4-byte offsets): compare copies.
        const int t = RTlist[i].temperature;
        EXPECT_EQ(t, i - 20);
        if (i > 0) {
            const double r = RTlist[i].resistance, before = RTlist[i - 1].resistance;
            EXPECT_LT(r, before) << "row " << i;
        }
    }
    const std::map<int, double> datasheet = {
        {-20, 975.8038}, {-19, 920.5962}, {-18, 868.8615}, {-17, 820.3603}, {-16, 774.871},
        {-10, 554.7016}, {0, 327.0195},   {10, 199.2007},  {20, 124.9734},  {25, 100.0},
        {30, 80.5274},   {40, 53.1635},   {50, 35.8842},   {60, 24.7171},   {70, 17.3452},
        {80, 12.3825},   {90, 8.9809},    {100, 6.6101},   {110, 4.9319},   {120, 3.7268},
        {130, 2.8498},   {140, 2.2034},   {150, 1.7215},   {160, 1.3582},   {170, 1.0814},
        {180, 0.8686},   {190, 0.7034},   {200, 0.574},    {210, 0.4719},   {220, 0.3907},
        {230, 0.3257},   {240, 0.2732},   {246, 0.2465},   {247, 0.2424},   {248, 0.2384},
        {249, 0.2344},   {250, 0.2305}};
    for (auto [t, r] : datasheet) {
        const double row = RTlist[t + 20].resistance;
        EXPECT_EQ(row, r) << t << " degrees";
    }
}

TEST(DeviceTemperatureTable, ResistanceOfARowGivesExactlyThatRowsTemperature)
{
    for (const RTEntry& row : RTlist) {
        float t = 1000.0f;
        ASSERT_TRUE(RTlistInterpolate(row.resistance, &t));
        const int rowTemperature = row.temperature;
        EXPECT_EQ(t, static_cast<float>(rowTemperature));
    }
    float untouched = 7.0f;
    EXPECT_FALSE(RTlistInterpolate(975.81, &untouched));
    EXPECT_FALSE(RTlistInterpolate(0.2304, &untouched));
    EXPECT_EQ(untouched, 7.0f);
}

TEST(DeviceTemperatureTable, ConverterReadingsGiveTheWorkedValuesAndRepeatTheLastGoodOne)
{
    CNKR dev;
    // Nothing good yet: the fallback is the initial 0.
    EXPECT_EQ(dev.CalculTempuature(1014), 0.0f);
    EXPECT_NEAR(dev.CalculTempuature(616), 74.06, 0.01);
    EXPECT_NEAR(dev.CalculTempuature(800), 50.13, 0.01);
    EXPECT_NEAR(dev.CalculTempuature(900), 32.46, 0.01);
    EXPECT_NEAR(dev.CalculTempuature(1000), -4.66, 0.01);
    const float last = dev.CalculTempuature(1013);
    EXPECT_NEAR(last, -19.01, 0.01);
    // Outside the table (including the divide-by-zero reading): the last good value.
    EXPECT_EQ(dev.CalculTempuature(1014), last);
    EXPECT_EQ(dev.CalculTempuature(1024), last);
    EXPECT_EQ(dev.CalculTempuature(2000), last);
    EXPECT_EQ(dev.CalculTempuature(0), last);
}

class DeviceTemperature : public DeviceTest {
protected:
    // Sets the unit's temperature word and reads the temperature.
    int readWith(nkrsim::UnitId unit, int id, int raw, float* t)
    {
        nkrsim::update(unit, [raw](nkrsim::UnitState& s) { s.tempRaw = raw; });
        return NKRGetTemp(id, t);
    }
};

TEST_F(DeviceTemperature, ScaledWordIsDegreesPlus300TimesHundred)
{
    nkrsim::UnitId unit;
    int id = openUnit(unitWithFirmware(336), &unit);
    float t = -1.0f;
    EXPECT_EQ(readWith(unit, id, 32500, &t), NKR_SUCCESS);
    EXPECT_EQ(t, 25.0f);
    // -200 exactly and the zero word are refused with the last good value.
    t = -1.0f;
    EXPECT_EQ(readWith(unit, id, 10000, &t), NKR_ERROR_GENERAL);
    EXPECT_EQ(t, 25.0f);
    EXPECT_EQ(readWith(unit, id, 0, &t), NKR_ERROR_GENERAL);
    EXPECT_EQ(t, 25.0f);
    EXPECT_EQ(readWith(unit, id, 10001, &t), NKR_SUCCESS);
    EXPECT_NEAR(t, -199.99, 0.001);

    EXPECT_EQ(NKRGetTemp(id, nullptr), NKR_ERROR_INVALID_VALUE);
}

TEST_F(DeviceTemperature, ThermistorReadingsOutsideTheSensorRangeRepeatTheLastTemperature)
{
    nkrsim::UnitId unit;
    int id = openUnit(unitWithFirmware(300), &unit);
    ASSERT_TRUE(dev(id)->m_bThermistor);
    float t = 0.0f;
    ASSERT_EQ(readWith(unit, id, 616, &t), NKR_SUCCESS);
    EXPECT_NEAR(t, 74.06, 0.01);
    const float at616 = t;

    t = 0.0f;
    EXPECT_EQ(readWith(unit, id, 615, &t), NKR_ERROR_GENERAL);
    EXPECT_EQ(t, at616);
    t = 0.0f;
    EXPECT_EQ(readWith(unit, id, 1021, &t), NKR_ERROR_GENERAL);
    EXPECT_EQ(t, at616);

    ASSERT_EQ(readWith(unit, id, 1013, &t), NKR_SUCCESS);
    const float at1013 = t;
    EXPECT_NEAR(at1013, -19.01, 0.01);
    // Accepted readings beyond the table give the last table temperature.
    t = 0.0f;
    EXPECT_EQ(readWith(unit, id, 1014, &t), NKR_SUCCESS);
    EXPECT_EQ(t, at1013);
    t = 0.0f;
    EXPECT_EQ(readWith(unit, id, 1020, &t), NKR_SUCCESS);
    EXPECT_EQ(t, at1013);
}

}  // namespace
