// A whole move through the exported functions.
#include "device_support.h"

namespace {
using nkrtest::unitWithFirmware;

class DeviceEndToEnd : public devicetest::DeviceTest {
protected:
    // Polls NKRIsMoving on the simulated clock; returns the polls needed (-1: never stopped).
    static int waitUntilStill(int id)
    {
        for (int poll = 1; poll <= 1000; ++poll) {
            bool moving = true;
            if (NKRIsMoving(id, &moving, nullptr) != NKR_SUCCESS) return -1;
            if (!moving) return poll;
            nkrsim::advanceMicros(100'000);
        }
        return -1;
    }
};

TEST_F(DeviceEndToEnd, UsbMoveRunsOnTheClockAndEndsAtTheTarget)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.stepsPerSecond = 2000;
    nkrsim::UnitId unit;
    int id = openUnit(spec, &unit);
    int pos = -1;
    ASSERT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    ASSERT_EQ(pos, 30000);

    ASSERT_EQ(NKRMove(id, 100000), NKR_SUCCESS);
    // 70000 steps at 2000 per second: about 35 s of simulated time.
    int polls = waitUntilStill(id);
    EXPECT_GT(polls, 300);
    ASSERT_GT(polls, 0);
    ASSERT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
    EXPECT_EQ(pos, 100000);

    // Settings can change again once the move is over.
    EXPECT_EQ(NKRSetBacklash(id, 3), NKR_SUCCESS);
    int backlash = -1;
    EXPECT_EQ(NKRGetBacklash(id, &backlash), NKR_SUCCESS);
    EXPECT_EQ(backlash, 3);
}

}  // namespace
