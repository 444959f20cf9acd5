// Moves followed to the end on the simulator's clock, halts, connect /
// disconnect, unplug and re-plug.
#include "alpaca_fixture.h"
#include "log.h"
#include "shutdown.h"

namespace alpaca::test {
namespace {

TEST_F(AlpacaTest, MoveReturnsAtOnceAndIsMovingHoldsUntilTheUnitStops)
{
    connect(0);
    json answer = put(device(0, "move"), "Position=34000&ClientTransactionID=5");
    ASSERT_EQ(answer["ErrorNumber"], 0) << answer.dump();
    EXPECT_FALSE(answer.contains("Value"));
    EXPECT_EQ(get(device(0, "ismoving"))["Value"], true);
    // A second move while the first runs is an invalid operation, and the first goes on.
    json busy = put(device(0, "move"), "Position=31000");
    EXPECT_EQ(busy["ErrorNumber"], 0x40B) << busy.dump();
    ASSERT_TRUE(runUntilStopped(0));
    EXPECT_EQ(get(device(0, "position"))["Value"], 34000);
}

TEST_F(AlpacaTest, HaltStopsAMoveHalfway)
{
    connect(0);
    ASSERT_EQ(put(device(0, "move"), "Position=60000")["ErrorNumber"], 0);
    nkrsim::advanceMicros(2'000'000);
    ASSERT_EQ(put(device(0, "halt"), "")["ErrorNumber"], 0);
    ASSERT_TRUE(runUntilStopped(0));
    int position = get(device(0, "position"))["Value"];
    EXPECT_TRUE(position > 30000 && position < 60000) << position;
}

TEST_F(AlpacaTest, AStopSignalHaltsTheMoveSaysWhereAndKeepsThePosition)
{
    connect(0);
    connect(1);
    ASSERT_EQ(put(device(0, "move"), "Position=60000")["ErrorNumber"], 0);
    nkrsim::advanceMicros(2'000'000);
    std::vector<std::string> lines;
    setLogSink([&](const std::string&, const std::string& line) { lines.push_back(line); });
    stopUnits(*registry_, "SIGTERM");
    setLogSink(nullptr);
    EXPECT_EQ(nkrsim::state(unitA_).runState, 0) << "the motor still runs";
    const int stoppedAt = nkrsim::state(unitA_).position;
    EXPECT_TRUE(stoppedAt > 30000 && stoppedAt < 60000) << stoppedAt;
    EXPECT_NE(std::find(lines.begin(), lines.end(), "focuser 0 stopped at " + std::to_string(stoppedAt) + " on SIGTERM"),
              lines.end()) << ::testing::PrintToString(lines);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l.find("stopped at") != std::string::npos; }), 1)
        << "only the unit that moved";
    EXPECT_EQ(get(device(0, "connected"))["Value"], false);
    EXPECT_EQ(get(device(1, "connected"))["Value"], false);
    // The next server finds the unit where it stopped.
    stopServer();
    startServer();
    connect(0);
    EXPECT_EQ(get(device(0, "position"))["Value"], stoppedAt);
}

TEST_F(AlpacaTest, DisconnectKeepsThePositionForTheNextConnect)
{
    connect(0);
    ASSERT_EQ(put(device(0, "move"), "Position=31000")["ErrorNumber"], 0);
    ASSERT_TRUE(runUntilStopped(0));
    EXPECT_EQ(put(device(0, "disconnect"), "")["ErrorNumber"], 0);
    EXPECT_EQ(get(device(0, "connected"))["Value"], false);
    EXPECT_EQ(get(device(0, "position"))["ErrorNumber"], 0x407);
    EXPECT_EQ(put(device(0, "connect"), "")["ErrorNumber"], 0);
    EXPECT_EQ(get(device(0, "connecting"))["Value"], false);
    EXPECT_EQ(get(device(0, "position"))["Value"], 31000);
}

TEST_F(AlpacaTest, UnpluggedUnitAnswersNotConnectedAndComesBackWhenReplugged)
{
    connect(0);
    connect(1);
    nkrsim::unplug(unitA_);
    EXPECT_EQ(put(device(0, "halt"), "")["ErrorNumber"], 0x407) << "a stop that meets the lost link";
    EXPECT_EQ(get(device(0, "position"))["ErrorNumber"], 0x407);
    EXPECT_EQ(get(device(0, "connected"))["Value"], false);
    EXPECT_EQ(get(device(1, "position"))["Value"], 30000);  // the other unit is untouched
    EXPECT_EQ(get("/management/v1/configureddevices")["Value"].size(), 2u);  // it keeps its number while away
    // Back on the bus: looked for again with back-off, at once when a client connects.
    nkrsim::replug(unitA_);
    connect(0);
    EXPECT_EQ(get(device(0, "position"))["ErrorNumber"], 0) << lastBody_;
    EXPECT_EQ(get(device(0, "connected"))["Value"], true);
    EXPECT_EQ(get(device(1, "position"))["Value"], 30000);
}

TEST_F(AlpacaTest, AFailedConnectDuringAnOutageKeepsTheUnitWantedAndALateUnitGetsANumber)
{
    connect(0);
    nkrsim::unplug(unitA_);
    EXPECT_EQ(get(device(0, "position"))["ErrorNumber"], 0x407);
    EXPECT_EQ(put(device(0, "connected"), "Connected=true")["ErrorNumber"], 0x407) << "no unit to connect yet";
    // Plugged in again: the server's own looks bring it back, nobody asks again.
    nkrsim::replug(unitA_);
    registry_->tick(Clock::now() + std::chrono::minutes(1));
    EXPECT_EQ(get(device(0, "connected"))["Value"], true) << lastBody_;
    EXPECT_EQ(get(device(0, "position"))["ErrorNumber"], 0) << lastBody_;

    // A unit switched on after the server started joins with a number of its own.
    nkrsim::UnitSpec late;
    late.serial = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0x77};
    nkrsim::addUnit(late);
    registry_->tick(Clock::now() + std::chrono::minutes(1));
    json devices = get("/management/v1/configureddevices")["Value"];
    ASSERT_EQ(devices.size(), 3u) << devices.dump();
    EXPECT_EQ(devices[2]["DeviceNumber"], 2);
    EXPECT_EQ(devices[2]["UniqueID"], "nkr-focuser-123456789ABCDE77");
}

}  // namespace
}  // namespace alpaca::test
