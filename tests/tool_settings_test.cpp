// The nkr tool's settings read-back, Bluetooth session commands, the
// environment switch to the simulator, and the help it gives.
#include "tool_support.h"

namespace nkrtest {
namespace {

TEST_F(ToolTest, ToolSetShowsWhatTheUnitKept)
{
    // The library clamps the maximum to the step range; the read-back shows it.
    ToolRun clamped = run("--json set 0 max-step=70000");
    ASSERT_EQ(clamped.status, 0) << clamped.err;
    EXPECT_EQ(jsonInt(clamped.out, "max-step"), 60000);

    ToolRun newer = run("--json set 1 led=on force=9 reverse=on");
    ASSERT_EQ(newer.status, 0) << newer.err;
    EXPECT_EQ(jsonRaw(newer.out, "led"), "true");
    EXPECT_EQ(jsonInt(newer.out, "force"), 9);
    EXPECT_EQ(jsonRaw(newer.out, "reverse"), "true");

    // Newer firmware ignores the speed: set, but with a warning.
    ToolRun fast = run("--json set 1 speed=1500");
    EXPECT_EQ(fast.status, 0) << fast.err;
    EXPECT_NE(fast.err.find("ignores the speed"), std::string::npos) << fast.err;
    ToolRun older = run("--json set 0 speed=1500");
    ASSERT_EQ(older.status, 0) << older.err;
    EXPECT_EQ(jsonInt(older.out, "speed"), 1500);
    EXPECT_TRUE(older.err.empty()) << older.err;

    // The older unit has no LED: a device error naming the code.
    ToolRun led = run("set 0 led=on");
    EXPECT_EQ(led.status, 1);
    EXPECT_NE(led.err.find("NKR_ERROR_NOT_SUPPORTED (8)"), std::string::npos) << led.err;
    EXPECT_EQ(run("set 0 force=16").status, 2);
    EXPECT_EQ(run("set 0 alias=NineChars").status, 2);
    EXPECT_EQ(run("set 0").status, 2) << "nothing to set";
}

TEST_F(ToolTest, ToolBluetoothSessionCommands)
{
    const std::string unit = "--ble 'NKR Pro_A1B2' ";
    ToolRun sync = run("--json " + unit + "sync 20000");
    ASSERT_EQ(sync.status, 0) << sync.err;
    EXPECT_EQ(jsonInt(sync.out, "position"), 20000);

    ToolRun set = run("--json " + unit + "set led=on backlash=7");
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(jsonRaw(set.out, "led"), "true");
    EXPECT_EQ(jsonInt(set.out, "backlash"), 7);

    ToolRun watch = run("--json " + unit + "watch --count 2 --interval 50");
    ASSERT_EQ(watch.status, 0) << watch.err;
    EXPECT_EQ(watch.lines().size(), 2u);
    EXPECT_GE(jsonInt(watch.out, "id").value_or(0), 50);

    ToolRun stop = run("--json " + unit + "stop");
    ASSERT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(jsonRaw(stop.out, "stopped"), "true");

    ToolRun text = run(unit + "info");
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("Bluetooth address"), std::string::npos);
    EXPECT_NE(text.out.find("87 %"), std::string::npos);
}

TEST_F(ToolTest, ToolEnvironmentSelectsTheSimulator)
{
    ToolRun r = runTool("NKR_SIMULATE=1", "--json list");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(countOf(r.out, "\"link\":\"usb\""), 2u);
    // demo needs the simulator and selects it by itself.
    ToolRun demo = runTool("", "--json demo");
    ASSERT_EQ(demo.status, 0) << demo.err;
    EXPECT_EQ(jsonRaw(demo.out, "ok"), "true");
}

TEST_F(ToolTest, ToolHelpNamesEveryCommand)
{
    ToolRun help = runTool("", "--help");
    ASSERT_EQ(help.status, 0);
    for (const char* command : {"list", "info", "move", "stop", "sync", "set", "watch", "firmware", "demo"})
        EXPECT_NE(help.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
    ToolRun move = runTool("", "move --help");
    ASSERT_EQ(move.status, 0);
    EXPECT_NE(move.out.find("Ctrl-C"), std::string::npos);
    ToolRun version = runTool("", "--version");
    EXPECT_NE(version.out.find("1, 7, 7, 0"), std::string::npos);

    // Errors in text mode go to stderr only.
    ToolRun unknown = run("info 9");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_TRUE(unknown.out.empty()) << unknown.out;
    EXPECT_NE(unknown.err.find("nkr: error:"), std::string::npos);
}

}  // namespace
}  // namespace nkrtest
