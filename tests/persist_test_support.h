// One fixture for every Persist test (gtest needs the same fixture class
// across files): the simulated world, so that units can also be opened.
#pragma once
#include "test_support.h"

namespace persisttest {
class Persist : public nkrtest::SimTest {};
}  // namespace persisttest
