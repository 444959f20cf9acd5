// The nkr tool given real signals mid-move: the motor is stopped, the unit
// closed (so its position is saved) and the exit status is 128 + signal.
#include <csignal>
#include <fstream>
#include <memory>
#include <utility>

#include "tool_live.h"
#include "tool_support.h"

namespace nkrtest {
namespace {

class ToolSignalTest : public ToolTest {
protected:
#ifdef NKR_TOOL_PATH
    static constexpr const char* kTool = NKR_TOOL_PATH;
#else
    static constexpr const char* kTool = "";
#endif

    // A long move of unit 1 (20000 steps take about 10 s), followed until it
    // has visibly started.
    std::unique_ptr<LiveTool> startLongMove()
    {
        auto tool = std::make_unique<LiveTool>(home_, kTool, "--simulate --json move 1 +20000");
        std::string line;
        for (int k = 0; k < 100; ++k) {
            if (!tool->waitForLine("\"progress\"", &line)) break;
            if (jsonInt(line, "position").value_or(30000) > 30000) return tool;
        }
        ADD_FAILURE() << "the move never showed progress";
        return tool;
    }

    // What a fresh command finds: the unit stands still, at the saved position.
    void expectStoppedAndSavedAt(long long low, long long high)
    {
        ToolRun info = run("--json info 1");
        ASSERT_EQ(info.status, 0) << info.err;
        EXPECT_EQ(jsonRaw(info.out, "moving"), "false") << info.out;
        long long position = jsonInt(info.out, "position").value_or(-1);
        EXPECT_GE(position, low);
        EXPECT_LE(position, high);
    }
};

TEST_F(ToolSignalTest, ToolSignalStopsTheMotorSavesThePositionAndExitsWith128PlusSignal)
{
    const std::pair<int, std::string> signals[] = {
        {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}, {SIGINT, "SIGINT"}, {SIGQUIT, "SIGQUIT"}};
    for (const auto& [signalNumber, name] : signals) {
        SCOPED_TRACE(name);
        auto tool = startLongMove();
        tool->sendSignal(signalNumber);
        EXPECT_EQ(tool->finish(), 128 + signalNumber) << tool->errors();
        std::string stopped;
        for (size_t at = 0, end; (end = tool->rest().find('\n', at)) != std::string::npos; at = end + 1)
            stopped = tool->rest().substr(at, end - at);
        EXPECT_EQ(jsonString(stopped, "event"), "stopped") << tool->rest();
        EXPECT_EQ(jsonString(stopped, "signal"), name);
        EXPECT_NE(tool->errors().find("stopped by " + name), std::string::npos) << tool->errors();
        // Only SIGINT is Ctrl-C.
        EXPECT_EQ(tool->errors().find("Ctrl-C") != std::string::npos, signalNumber == SIGINT)
            << tool->errors();
        long long position = jsonInt(stopped, "position").value_or(-1);
        EXPECT_GT(position, 30000);
        expectStoppedAndSavedAt(position, position);
        // Back to the power-on position for the next round.
        ASSERT_EQ(run("sync 1 30000").status, 0);
    }
}

TEST_F(ToolSignalTest, ToolBrokenPipeStopsTheMotorQuietly)
{
    auto tool = startLongMove();
    tool->closeOutput();
    EXPECT_EQ(tool->finish(), 128 + SIGPIPE) << tool->errors();
    EXPECT_TRUE(tool->errors().empty()) << tool->errors();
    expectStoppedAndSavedAt(30001, 49999);
}

TEST_F(ToolSignalTest, ToolWatchEndsWithTheSignalStatusLikeEveryCommand)
{
    LiveTool watch(home_, kTool, "--simulate --json watch 0 --interval 50");
    ASSERT_TRUE(watch.waitForLine("\"position\""));
    watch.sendSignal(SIGINT);
    EXPECT_EQ(watch.finish(), 130) << watch.errors();
    EXPECT_NE(watch.errors().find("SIGINT"), std::string::npos) << watch.errors();

    EXPECT_EQ(runTool("", "--help").out.find("130 Ctrl-C.") , std::string::npos);
    EXPECT_NE(runTool("", "--help").out.find("143 SIGTERM"), std::string::npos);
}

TEST_F(ToolSignalTest, ToolSignalDuringAFirmwareUpdateSaysWhatStateTheUnitIsIn)
{
    // The largest image allowed, so the write takes a while.
    const std::string image = home_ + "/large.bin";
    {
        std::ofstream out(image, std::ios::binary);
        std::string block(1 << 16, '\x5a');
        for (int k = 0; k < 256; ++k) out << block;
    }
    LiveTool update(home_, kTool, "--simulate --json firmware 1 '" + image + "' --yes");
    ASSERT_TRUE(update.waitForLine("\"firmware_progress\""));
    update.sendSignal(SIGINT);
    int status = update.finish();
    if (status == 0) GTEST_SKIP() << "the update finished before the signal arrived";
    EXPECT_EQ(status, 130) << update.errors();
    EXPECT_NE(update.errors().find("interrupted by SIGINT (Ctrl-C)"), std::string::npos) << update.errors();
    EXPECT_NE(update.errors().find("the unit is in update mode"), std::string::npos) << update.errors();
    EXPECT_NE(update.errors().find("Run the same nkr firmware command again"), std::string::npos);

    // Every command now says so, and the unit refuses to move until an update completes.
    ToolRun list = run("list");
    EXPECT_NE(list.out.find("(updating)"), std::string::npos) << list.out;
    ToolRun move = run("move 1 +100");
    EXPECT_EQ(move.status, 1);
    EXPECT_NE(move.err.find("firmware update mode"), std::string::npos) << move.err;
}

}  // namespace
}  // namespace nkrtest
