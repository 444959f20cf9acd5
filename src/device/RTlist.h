// Resistance table of the 100 kilo-ohm (at 25 C) NTC thermistor that older
// units report as a raw converter reading.
#pragma once
#include <cstdint>

#pragma pack(push, 4)
// One row: 4-byte temperature then 8-byte resistance, 12 bytes with no padding.
struct RTEntry {
    int32_t temperature;  // whole degrees Celsius
    double resistance;    // kilo-ohms
};
#pragma pack(pop)
static_assert(sizeof(RTEntry) == 12, "RTlist rows are 12 bytes");

inline constexpr int RTLIST_ROWS = 271;
// Rows from -20 to 250 degrees in 1-degree steps, resistance strictly falling.
extern const RTEntry RTlist[RTLIST_ROWS];

// Finds the table interval that holds resistance r (ends included, the first
// interval in rising temperature wins) and interpolates linearly. Returns
// false, leaving *temperature alone, when r lies outside the table.
bool RTlistInterpolate(double r, float* temperature);
