// The nkr tool on the simulator's default units: listing, reading, moving,
// settings and position, as a user or a script would run it.
#include <chrono>

#include "tool_support.h"

namespace nkrtest {
namespace {

TEST_F(ToolTest, ToolListShowsTheThreeDefaultUnits)
{
    ToolRun r = run("--json list --ble 1");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.lines().size(), 1u) << "one JSON document";
    const std::string& doc = r.out;
    EXPECT_EQ(countOf(doc, "\"link\":\"usb\""), 2u);
    EXPECT_EQ(countOf(doc, "\"link\":\"ble\""), 1u);
    EXPECT_NE(doc.find("\"firmware\":\"3.3.5\""), std::string::npos);
    EXPECT_NE(doc.find("\"firmware\":\"3.8.2\""), std::string::npos);
    EXPECT_NE(doc.find("\"type\":\"NKRN\""), std::string::npos);
    EXPECT_NE(doc.find("\"name\":\"NKR Pro_A1B2\""), std::string::npos);

    // Without --ble only the USB units, and the table form names them too.
    ToolRun text = run("list");
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("3.3.5"), std::string::npos);
    EXPECT_NE(text.out.find("NKRN"), std::string::npos);
    EXPECT_EQ(text.out.find("NKR Pro_A1B2"), std::string::npos);

    // The environment selects the simulator as --simulate does.
    ToolRun env = runTool("NKR_SIMULATE=1", "--json list");
    ASSERT_EQ(env.status, 0) << env.err;
    EXPECT_EQ(countOf(env.out, "\"link\":\"usb\""), 2u);
}

TEST_F(ToolTest, ToolInfoOfEachUsbUnit)
{
    ToolRun older = run("--json info 0");
    ASSERT_EQ(older.status, 0) << older.err;
    EXPECT_EQ(jsonString(older.out, "firmware"), "3.3.5");
    EXPECT_EQ(jsonInt(older.out, "position"), 30000);
    EXPECT_EQ(jsonInt(older.out, "step_range"), 60000);
    // Features of the battery model are reported missing, not as errors.
    EXPECT_EQ(jsonRaw(older.out, "battery"), "null");
    EXPECT_NE(older.out.find("\"led\":\"not supported\""), std::string::npos);
    EXPECT_TRUE(older.err.empty()) << older.err;

    ToolRun newer = run("--json info 1");
    ASSERT_EQ(newer.status, 0) << newer.err;
    EXPECT_EQ(jsonString(newer.out, "firmware"), "3.8.2");
    EXPECT_EQ(jsonString(newer.out, "type"), "NKRN");
    EXPECT_EQ(jsonInt(newer.out, "step_range"), 600000);
    EXPECT_EQ(jsonRaw(newer.out, "led"), "false");
    EXPECT_EQ(jsonString(newer.out, "motor_error"), "E0");
    EXPECT_NE(newer.out.find("\"name\":\"USB update NKR FW\""), std::string::npos);
}

TEST_F(ToolTest, ToolMoveWaitsForTheTargetAndFollowsRelativeSteps)
{
    ToolRun up = run("--json move 1 +600");
    ASSERT_EQ(up.status, 0) << up.err;
    std::vector<std::string> lines = up.lines();
    ASSERT_FALSE(lines.empty());
    for (const std::string& line : lines) EXPECT_EQ(line.front(), '{') << line;
    const std::string& last = lines.back();
    EXPECT_EQ(jsonString(last, "event"), "done");
    EXPECT_EQ(jsonInt(last, "target"), 30600);
    EXPECT_EQ(jsonInt(last, "position"), 30600);
    EXPECT_EQ(jsonRaw(last, "reached"), "true");

    // The next run opens a unit that powered up at 30000 and gets the saved
    // position back, so a relative move starts from where the last one ended.
    ToolRun down = run("--json move 1 -400");
    ASSERT_EQ(down.status, 0) << down.err;
    EXPECT_EQ(jsonInt(down.lines().front(), "start"), 30600);
    EXPECT_EQ(jsonInt(down.lines().back(), "position"), 30200);

    ToolRun absolute = run("--json move 0 29500");
    ASSERT_EQ(absolute.status, 0) << absolute.err;
    EXPECT_EQ(jsonInt(absolute.lines().back(), "position"), 29500);

    // Beyond the user's maximum: refused, never clamped, and the motor stays.
    ASSERT_EQ(run("set 0 max-step=50000").status, 0);
    ToolRun far = run("--json move 0 55000");
    EXPECT_EQ(far.status, 2);
    EXPECT_EQ(jsonString(far.out, "name"), "NKR_HOST_BEYOND_LIMIT");
    EXPECT_NE(far.err.find("outside 0..50000"), std::string::npos) << far.err;
    EXPECT_EQ(run("get 0 position").out, "29500\n");
    EXPECT_EQ(run("move 0 +20501").status, 2) << "relative moves are held to the same limit";
}

TEST_F(ToolTest, ToolMoveWithoutWaitReturnsAtOnce)
{
    auto started = std::chrono::steady_clock::now();
    // 20000 steps take 10 s of motor time.
    ToolRun r = run("--json move 1 50000 --no-wait");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.lines().size(), 1u);
    EXPECT_EQ(jsonString(r.out, "event"), "started");
    EXPECT_EQ(jsonInt(r.out, "target"), 50000);
    EXPECT_EQ(jsonRaw(r.out, "moving"), "true");
    EXPECT_LT(seconds, 5.0);
}

TEST_F(ToolTest, ToolMoveEndsWithAnErrorWhenTheUnitIsUnpluggedMidway)
{
    // The simulator pulls unit 1's cable 1500 steps into the move.
    ToolRun r = runTool("NKR_SIM_UNPLUG=1:1500", "--simulate --json move 1 +4000");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("NKR_ERROR_REMOVED (4)"), std::string::npos) << r.err;
}

TEST_F(ToolTest, ToolMoveStopsTheMotorOnCtrlC)
{
    // 20000 steps would take 10 s; Ctrl-C comes after about one.
    ToolRun r = run("--json move 1 +20000", "1.2");
    EXPECT_EQ(r.status, 130) << r.err;
    ASSERT_FALSE(r.lines().empty());
    std::string last = r.lines().back();
    EXPECT_EQ(jsonString(last, "event"), "stopped") << r.out << r.err;
    long long position = jsonInt(last, "position").value_or(-1);
    EXPECT_GT(position, 30000);
    EXPECT_LT(position, 50000);
    EXPECT_EQ(r.err.find("stopping the motor failed"), std::string::npos) << r.err;
}

TEST_F(ToolTest, ToolSetShowsWhatTheUnitKept)
{
    ToolRun set = run("--json set 0 backlash=20 beep=on max-step=50000");
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(jsonInt(set.out, "backlash"), 20);
    EXPECT_EQ(jsonRaw(set.out, "beep"), "true");
    EXPECT_EQ(jsonInt(set.out, "max_step"), 50000);
    ToolRun info = run("--json info 0");
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(jsonInt(info.out, "backlash"), 20);
    EXPECT_EQ(jsonRaw(info.out, "beep"), "true");

    // A bad value anywhere in the list changes nothing at all.
    ToolRun bad = run("--json set 0 backlash=30 beep=maybe");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("beep"), std::string::npos);
    EXPECT_EQ(run("set 0 backlash=256").status, 2);
    EXPECT_EQ(run("set 0 ble-name=Scope").status, 2) << "USB slots cannot take a Bluetooth name";
    EXPECT_EQ(jsonInt(run("--json info 0").out, "backlash"), 20);

    ToolRun newer = run("--json set 1 led=on force=9 reverse=yes");
    ASSERT_EQ(newer.status, 0) << newer.err;
    EXPECT_EQ(jsonRaw(newer.out, "led"), "true");
    EXPECT_EQ(jsonInt(newer.out, "force"), 9);
    EXPECT_EQ(jsonRaw(newer.out, "reverse"), "true");
    // Newer firmware ignores the speed: set, but with a warning.
    ToolRun fast = run("--json set 1 speed=1500");
    EXPECT_EQ(fast.status, 0) << fast.err;
    EXPECT_NE(fast.err.find("ignores the speed"), std::string::npos) << fast.err;
    // The older unit has no LED: a device error naming the code.
    ToolRun led = run("set 0 led=on");
    EXPECT_EQ(led.status, 1);
    EXPECT_NE(led.err.find("NKR_ERROR_NOT_SUPPORTED (8)"), std::string::npos) << led.err;

    // An alias with a quote is read back, escaped in the JSON; an empty one clears it.
    ToolRun alias = run("--json set 1 'alias=Ma\"in'");
    ASSERT_EQ(alias.status, 0) << alias.err;
    EXPECT_NE(alias.out.find("\"alias\":\"Ma\\\"in\""), std::string::npos) << alias.out;
    EXPECT_NE(run("set 1 alias=").out.find("cleared"), std::string::npos);
    EXPECT_NE(run("set 1 backlash=10 backlash=20").err.find("backlash is given twice"), std::string::npos);
}

TEST_F(ToolTest, ToolSyncDeclaresThePositionWithoutMovingAndKeepsItOutOfTheRealHome)
{
    ToolRun r = run("--json sync 1 12345");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonInt(r.out, "previous"), 30000);
    EXPECT_EQ(jsonInt(r.out, "position"), 12345);
    EXPECT_EQ(jsonInt(run("--json info 1").out, "position"), 12345);

    EXPECT_EQ(run("sync 0 70000").status, 2) << "beyond the step range of the older unit";
    EXPECT_EQ(run("sync 0 -30001").status, 2) << "before position 0";

    // The simulated units' settings live in the simulator's own state
    // directory, never in the user's real settings file.
    EXPECT_TRUE(std::ifstream(home_ + "/state/nkr-sim/.HTX/NKRconfig.xml").good());
    EXPECT_FALSE(std::ifstream(home_ + "/.HTX/NKRconfig.xml").good());
}

}  // namespace
}  // namespace nkrtest

namespace nkrtest {
namespace {

// Beyond the unit: host settings, named positions, the fit and the
// simulated temperature, through the tool as a user types them.
TEST_F(ToolTest, ToolFocusModelCommands)
{
    ASSERT_EQ(run("set 0 temp-coefficient=-5 temp-deadband=0.5 step-size=2.5 approach=out approach-overshoot=300").status, 0);
    EXPECT_EQ(run("get 0 step-size").out, "2.500\n");
    EXPECT_EQ(run("set 0 approach=sideways").status, 2);

    ASSERT_EQ(run("positions 0 add Ha 31200").status, 0);
    EXPECT_EQ(run("positions 0 add far 70000").status, 2) << "named positions obey the maximum";
    ToolRun go = run("--json goto 0 Ha");
    ASSERT_EQ(go.status, 0) << go.err;
    EXPECT_EQ(jsonInt(go.lines().back(), "position"), 31200);
    EXPECT_NE(run("goto 0 OIII").err.find("(Ha)"), std::string::npos);

    // A fit from focus runs: -12 steps per degree with one wild run.
    std::ofstream csv(home_ + "/runs.csv");
    csv << "time_utc,position,temperature_c\n";
    for (int i = 0; i < 12; ++i) csv << "t," << 30000 + 12 * i + (i == 4 ? 800 : 0) << "," << 20 - i << "\n";
    csv.close();
    ToolRun fit = run("--json tempcomp 0 fit '" + home_ + "/runs.csv' --save");
    ASSERT_EQ(fit.status, 0) << fit.err;
    EXPECT_NEAR(std::stod(jsonRaw(fit.out, "coefficient").value_or("0")), -12.0, 0.1);
    EXPECT_EQ(jsonInt(fit.out, "rejected"), 1);
    EXPECT_EQ(run("get 0 temp-coefficient").out, "-12.00\n");

    ToolRun temp = run("sim temperature 0 15.5");
    ASSERT_EQ(temp.status, 0) << temp.err;
    EXPECT_EQ(run("get 0 temperature").out, "15.50\n");
    EXPECT_EQ(run("tempcomp 0 on").status, 0);
    EXPECT_EQ(run("get 0 tempcomp").out, "true\n");
}

}  // namespace
}  // namespace nkrtest
