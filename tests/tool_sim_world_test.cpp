// The simulated world as a user of "nkr --simulate" meets it: one command
// after another finds the units as the last one left them, until
// "nkr --simulate reset". Each command is a process of its own.
#include <chrono>
#include <string>
#include <thread>

#include "tool_support.h"

namespace {

using nkrtest::ToolRun;

class ToolSimWorldTest : public nkrtest::ToolTest {
protected:
    // "nkr --simulate get ID FIELD": the bare value.
    std::string get(int id, const std::string& field)
    {
        ToolRun r = run("get " + std::to_string(id) + " " + field);
        EXPECT_EQ(r.status, 0) << r.err;
        std::string value = r.out;
        while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.pop_back();
        return value;
    }
};

TEST_F(ToolSimWorldTest, PositionAndSettingsOutliveTheCommand)
{
    ASSERT_EQ(run("move 0 30400").status, 0);
    ASSERT_EQ(run("set 0 alias=scope").status, 0);
    ASSERT_EQ(run("set 1 max-step=45000").status, 0);

    EXPECT_EQ(get(0, "position"), "30400");
    EXPECT_EQ(get(0, "alias"), "scope");
    EXPECT_EQ(get(1, "max-step"), "45000");
}

TEST_F(ToolSimWorldTest, MoveWithoutWaitingGoesOnUntilStopped)
{
    ASSERT_EQ(get(0, "position"), "30000");
    // 29000 steps at 2000 a second: still running when the next command comes.
    ToolRun started = run("move 0 59000 --no-wait");
    ASSERT_EQ(started.status, 0) << started.err;

    // The next process sees the motor running and further on (bounded wait).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string position = get(0, "position");
    while (position == "30000" && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        position = get(0, "position");
    }
    EXPECT_NE(position, "30000");
    EXPECT_EQ(get(0, "moving"), "true");

    ASSERT_EQ(run("stop 0").status, 0);
    EXPECT_EQ(get(0, "moving"), "false");
    const std::string stoppedAt = get(0, "position");
    const int stopped = std::stoi(stoppedAt);
    EXPECT_GT(stopped, 30000);
    EXPECT_LT(stopped, 59000);
    EXPECT_EQ(get(0, "position"), stoppedAt);  // and stays there
}

TEST_F(ToolSimWorldTest, ResetForgetsTheWorldAndTheSavedSettings)
{
    ASSERT_EQ(run("move 0 30400").status, 0);
    ASSERT_EQ(run("set 0 alias=gone").status, 0);

    ToolRun reset = run("reset");
    ASSERT_EQ(reset.status, 0) << reset.err;
    // Back out of the box: neither the world nor the library's saved position
    // (restored when a unit reports its power-on position) brings 30400 back.
    EXPECT_EQ(get(0, "position"), "30000");
    EXPECT_EQ(get(0, "alias"), "");

    ToolRun notSimulated = runTool("", "reset");
    EXPECT_EQ(notSimulated.status, 2);
    EXPECT_EQ(notSimulated.err.rfind("nkr: error:", 0), 0u) << notSimulated.err;
}

TEST_F(ToolSimWorldTest, EveryUnitHasItsOwnSerial)
{
    const std::string first = get(0, "serial");
    const std::string second = get(1, "serial");
    EXPECT_EQ(first.size(), 16u);
    EXPECT_NE(first, second);
}

TEST_F(ToolSimWorldTest, SimulateFromTheEnvironmentInAnySpellingOfYes)
{
    for (const char* yes : {"1", "true", "TRUE", "yes", "Yes"}) {
        ToolRun r = runTool(std::string("NKR_SIMULATE=") + yes, "get 0 position");
        EXPECT_EQ(r.status, 0) << yes << ": " << r.err;
        EXPECT_EQ(r.out, "30000\n") << yes;
    }
}

TEST_F(ToolSimWorldTest, MalformedUnitsOrUnplugAreUsageErrors)
{
    for (const char* environment : {"NKR_SIM_UNITS=usb:33", "NKR_SIM_UNITS=usb:335,,ble:382",
                                    "NKR_SIM_UNITS=serial:335", "NKR_SIM_UNPLUG=0-500",
                                    "NKR_SIM_UNPLUG=7:10"}) {
        ToolRun r = runTool(environment, "--simulate list");
        EXPECT_EQ(r.status, 2) << environment;
        EXPECT_EQ(r.err.rfind("nkr: error: NKR_SIM_", 0), 0u) << environment << ": " << r.err;
        EXPECT_EQ(nkrtest::countOf(r.err, "\n"), 1u) << r.err;
        EXPECT_EQ(r.out, "") << environment;
    }
}

}  // namespace
