// nkr --simulate keeps one simulated world between commands, forgets it on
// reset, and refuses a malformed description of the simulated units.
#include <sys/stat.h>

#include <string>

#include "tool_support.h"

namespace nkrtest {
namespace {

TEST_F(ToolTest, ToolSimulatedWorldOutlivesTheCommand)
{
    ASSERT_EQ(run("move 0 29000").status, 0);
    ASSERT_EQ(run("set 1 alias=Main max-step=50000").status, 0);
    EXPECT_EQ(run("get 0 position").out, "29000\n");
    EXPECT_EQ(run("get 1 alias").out, "Main\n");
    // The world lives in the runtime folder the test gave the tool.
    struct stat st {};
    EXPECT_EQ(stat((home_ + "/run/nkr-sim/world").c_str(), &st), 0);

    // A move started without waiting goes on after the tool has gone, and a
    // later command can stop it.
    ASSERT_EQ(run("move 0 60000 --no-wait").status, 0);
    ASSERT_EQ(run("stop 0").status, 0);
    std::string stopped = run("get 0 position").out;
    EXPECT_NE(stopped, "60000\n");
    EXPECT_EQ(run("get 0 moving").out, "false\n");
    EXPECT_EQ(run("get 0 position").out, stopped);

    ToolRun reset = run("reset");
    EXPECT_EQ(reset.status, 0) << reset.err;
    EXPECT_EQ(stat((home_ + "/run/nkr-sim/world").c_str(), &st), -1);
    EXPECT_EQ(run("get 0 position").out, "30000\n");
    EXPECT_NE(run("get 1 alias").out, "Main\n");
}

TEST_F(ToolTest, ToolResetNeedsTheSimulator)
{
    ToolRun r = runTool("", "reset");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("nkr: error:"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("nkr --simulate reset"), std::string::npos) << r.err;
}

TEST_F(ToolTest, ToolRefusesMalformedSimulatedUnits)
{
    for (const char* env : {"NKR_SIM_UNITS=usb:33", "NKR_SIM_UNITS=usb:335,", "NKR_SIM_UNPLUG=7:100",
                            "NKR_SIM_UNPLUG=0-100"}) {
        SCOPED_TRACE(env);
        ToolRun r = runTool(env, "--simulate list");
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err.rfind("nkr: error: NKR_SIM_", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find("nkr-sim:"), std::string::npos) << r.err;  // said once, by the tool
    }
    EXPECT_EQ(runTool("NKR_SIM_UNITS=usb:382:E:NKRN", "--simulate list").status, 0);
    EXPECT_EQ(runTool("NKR_SIMULATE=yes", "get 0 position").status, 0);
    EXPECT_EQ(runTool("NKR_SIMULATE=True", "get 0 position").status, 0);
}

}  // namespace
}  // namespace nkrtest
