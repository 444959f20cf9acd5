// How the nkr tool reads what follows a command: +N and -N mean steps from
// the current position in every command that takes a position, "--" lets a
// negative value through in every command, and a missing piece is named as
// what it is.
#include "tool_support.h"

namespace nkrtest {
namespace {

long long namedPosition(const std::string& positionsJson, const std::string& name)
{
    return jsonInt(positionsJson, name, positionsJson.find("\"positions\"")).value_or(-1);
}

TEST_F(ToolTest, ToolPlusAndMinusAreStepsFromTheCurrentPositionInEveryCommand)
{
    ASSERT_EQ(run("move 1 31000").status, 0);
    ASSERT_EQ(run("positions 1 add up +5").status, 0);
    ASSERT_EQ(run("positions 1 add down -300").status, 0);
    ASSERT_EQ(run("positions 1 add exact 12345").status, 0);
    ASSERT_EQ(run("positions 1 add here").status, 0);
    ToolRun list = run("--json positions 1 list");
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(namedPosition(list.out, "up"), 31005) << list.out;
    EXPECT_EQ(namedPosition(list.out, "down"), 30700);
    EXPECT_EQ(namedPosition(list.out, "exact"), 12345);
    EXPECT_EQ(namedPosition(list.out, "here"), 31000);
    ToolRun text = run("positions 1 list");
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("down"), std::string::npos) << text.out;

    // Out of range is refused with the number the user's words make, never a clamped one.
    const struct {
        const char* args;
        const char* says;
    } beyond[] = {
        {"positions 1 add low -40000", "position -9000 is outside 0..60000"},
        {"--json positions 1 add low -31001", "position -1 is outside 0..60000"},
        {"positions 1 add high 60001", "position 60001 is outside 0..60000"},
        {"positions 1 add high 999999999999", "position 999999999999 is outside 0..60000"},
        {"move 1 -40000", "position -9000 is outside 0..60000"},
    };
    for (const auto& b : beyond) {
        ToolRun r = run(b.args);
        EXPECT_EQ(r.status, 2) << b.args;
        EXPECT_NE(r.err.find(b.says), std::string::npos) << b.args << ": " << r.err;
    }
    EXPECT_EQ(jsonInt(run("--json positions 1").out, "low"), std::nullopt) << "nothing was saved";

    ToolRun wrong = run("positions 1 rename up");
    EXPECT_EQ(wrong.status, 2);
    EXPECT_NE(wrong.err.find("ID [list], ID add NAME [POSITION | +N | -N], or ID remove NAME"), std::string::npos)
        << wrong.err;
}

TEST_F(ToolTest, ToolDoubleDashLetsANegativeValueThroughInEveryCommand)
{
    ToolRun cold = run("sim temperature 0 -- -5");
    ASSERT_EQ(cold.status, 0) << cold.err;
    EXPECT_EQ(run("get 0 temperature").out, "-5.00\n");
    ASSERT_EQ(run("sim temperature 0 -7.5").status, 0) << "a negative number needs no --";
    EXPECT_EQ(run("get 0 temperature").out, "-7.50\n");

    ASSERT_EQ(run("move 1 -- -200").status, 0);
    EXPECT_EQ(run("get 1 position").out, "29800\n");
    ASSERT_EQ(run("sync 1 -- -800").status, 0);
    EXPECT_EQ(run("get 1 position").out, "29000\n");
    ASSERT_EQ(run("positions 1 add low -- -300").status, 0);
    EXPECT_EQ(namedPosition(run("--json positions 1").out, "low"), 28700);
    EXPECT_EQ(run("tempcomp 1 -- status").status, 0);
    EXPECT_EQ(run("set 1 -- temp-coefficient=-4").status, 0);
    EXPECT_EQ(run("get 1 temp-coefficient").out, "-4.00\n");
}

TEST_F(ToolTest, ToolAnEmptyUnitIsNamedAsTheMissingPiece)
{
    for (const char* args : {"move '' 100", "sync '' 100", "goto '' Ha", "positions '' add Ha 100",
                             "tempcomp '' on", "get '' position", "set '' backlash=5"}) {
        ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_NE(r.err.find("missing unit ID"), std::string::npos) << args << ": " << r.err;
    }
    EXPECT_NE(run("move 1 ''").err.find("missing STEP"), std::string::npos);
}

}  // namespace
}  // namespace nkrtest
