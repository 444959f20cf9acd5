// The one table that scripts/bench shows: every figure, ratio and goal of
// one run, with the machine and the conditions it ran under.
#pragma once

#include <string>

#include "collector.h"

namespace nkrbench {

// Resident memory figures of the separate load program (negative: unknown).
struct Footprint {
    long loadBytes = -1;     // dlopen + scan + first open
    long perUnitBytes = -1;  // each further open unit
    int units = 0;           // units opened in all
    std::string error;
};

// The three load averages of /proc/loadavg, as text.
std::string loadAverage();

// The header (machine, date, conditions) and the table.
void printSummary(const Collector& results, const Footprint& footprint, int repetitions,
                  const std::string& loadBefore, const std::string& loadAfter);

}  // namespace nkrbench
