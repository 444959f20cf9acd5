// The programs nkr_bench runs beside itself: the load program (memory) and
// the stand-in transport suite (threads over the library alone).
#pragma once

#include <string>
#include <vector>

#include "summary.h"

namespace nkrbench {

// Runs the load program on the shipped library against the simulator.
Footprint measureFootprint();

// Runs nkr_bench_standin with the given Google Benchmark arguments and adds
// its samples to results; false when it could not be run.
bool runStandinSuite(const std::vector<std::string>& args, Collector& results);

}  // namespace nkrbench
