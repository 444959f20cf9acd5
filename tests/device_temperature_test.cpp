// Temperature through NKRGetTemp: the scaled word of newer firmware and the
// thermistor reading of firmware 3.0.0, with the last good value repeated
// when a reading is implausible.
#include <cmath>

#include "test_support.h"

namespace {
class DeviceTemperature : public nkrtest::SimTest {};

TEST_F(DeviceTemperature, ReadingsInTurn)
{
    struct Step {
        int raw, rc;
        float celsius;  // NAN: the previous row's value is repeated
    };
    const std::pair<int, std::vector<Step>> firmware[] = {
        // (degrees + 300) * 100; -200 and below (the zero word too) are no temperature.
        {336, {{32500, 0, 25.0f}, {10000, 7, NAN}, {0, 7, NAN}, {10001, 0, -199.99f}, {22000, 0, -80.0f}}},
        // Converter readings 616..1020; beyond the table, the last table value.
        {300, {{616, 0, 74.06f}, {615, 7, NAN}, {1021, 7, NAN}, {800, 0, 50.13f}, {900, 0, 32.46f},
               {1000, 0, -4.66f}, {1013, 0, -19.01f}, {1014, 0, NAN}, {1020, 0, NAN}}},
    };
    for (const auto& [fw, steps] : firmware) {
        nkrsim::UnitId unit;
        const int id = openUnit(nkrtest::unitWithFirmware(fw), &unit);
        float last = NAN;
        for (const Step& s : steps) {
            SCOPED_TRACE(std::to_string(fw) + " raw " + std::to_string(s.raw));
            nkrsim::update(unit, [&](nkrsim::UnitState& st) { st.tempRaw = s.raw; });
            float t = 1234.0f;
            EXPECT_EQ(NKRGetTemp(id, &t), s.rc);
            if (!std::isnan(s.celsius)) last = s.celsius;
            EXPECT_NEAR(t, last, 0.01);
        }
        EXPECT_EQ(NKRGetTemp(id, nullptr), NKR_ERROR_INVALID_VALUE);
        NKRClose(id);
    }
}

}  // namespace
