// What the host layer adds to the Alpaca focuser (user's maximum, named positions,
// temperature compensation, final approach), kept in the shared host settings.
#include "alpaca_fixture.h"
#include "nkrhost/settings.h"

#include <thread>

namespace alpaca::test {
namespace {

const std::string kSerialA = "414C504143413031";

// Ticks the registry as its supervisor would, advancing both clocks.
void tickFor(DeviceRegistry& registry, Clock::time_point& now, int rounds)
{
    for (int i = 0; i < rounds; ++i) {
        now += std::chrono::seconds(2);
        registry.tick(now);
        nkrsim::advanceMicros(2'000'000);
    }
}

TEST_F(AlpacaTest, HostSettingsLimitMovesAndNamePositions)
{
    nkrhost::HostSettings().update(kSerialA, [](nkrhost::UnitSettings& s) { s.maxPosition = 50000; return nkrhost::Status::success(); });
    connect(0);
    EXPECT_EQ(get(device(0, "maxstep"))["Value"], 50000);
    json beyond = put(device(0, "move"), "Position=55000");
    EXPECT_EQ(beyond["ErrorNumber"], 0x401);
    EXPECT_NE(beyond["ErrorMessage"].get<std::string>().find("maximum position set for this focuser"),
              std::string::npos) << beyond.dump();
    EXPECT_EQ(put(device(0, "action"), "Action=Positions&Parameters=flat%3D31000")["Value"], R"({"flat":31000})");
    EXPECT_EQ(put(device(0, "action"), "Action=Positions&Parameters=far%3D51000")["ErrorNumber"], 0x401);
    EXPECT_EQ(put(device(0, "action"), "Action=GotoPosition&Parameters=flat")["ErrorNumber"], 0);
    ASSERT_TRUE(runUntilStopped(0));
    EXPECT_EQ(get(device(0, "position"))["Value"], 31000);
    EXPECT_EQ(put(device(0, "action"), "Action=GotoPosition&Parameters=dark")["ErrorNumber"], 0x401);
    EXPECT_EQ(put(device(0, "action"), "Action=Positions&Parameters=-flat")["Value"], "{}");
    EXPECT_EQ(put(device(0, "action"), "Action=StepSize&Parameters=3.5")["Value"], "3.5");
    EXPECT_EQ(get(device(0, "stepsize"))["Value"], 3.5);
    EXPECT_EQ(put(device(0, "action"), "Action=StepSize&Parameters=-1")["ErrorNumber"], 0x401);
}

TEST_F(AlpacaTest, TempCompMovesByTheCoefficientAndAClientMoveResetsTheReference)
{
    connect(0);
    EXPECT_EQ(put(device(0, "action"), "Action=TempCoefficient&Parameters=-5")["Value"], "-5.0");
    nkrsim::setTemperature(unitA_, 25.0);
    EXPECT_EQ(put(device(0, "tempcomp"), "TempComp=true")["ErrorNumber"], 0);
    EXPECT_EQ(get(device(0, "tempcomp"))["Value"], true);
    Clock::time_point now = Clock::now();
    tickFor(*registry_, now, 6);  // the reference at 25 °C
    nkrsim::setTemperature(unitA_, 15.0);
    tickFor(*registry_, now, 10);  // the median follows, one correction of +50
    EXPECT_EQ(get(device(0, "position"))["Value"], 30050);
    // A client's move is made (interface version 4) and becomes the new reference.
    ASSERT_EQ(put(device(0, "move"), "Position=32000")["ErrorNumber"], 0);
    ASSERT_TRUE(runUntilStopped(0));
    tickFor(*registry_, now, 5);
    EXPECT_EQ(get(device(0, "position"))["Value"], 32000);
}

TEST_F(AlpacaTest, FinalApproachEndsFromOneSideAndHaltStopsBetweenLegs)
{
    nkrhost::HostSettings().update(kSerialA, [](nkrhost::UnitSettings& s) {
        s.approach = {true, +1, 200};
        return nkrhost::Status::success();
    });
    connect(0);
    ASSERT_EQ(put(device(0, "move"), "Position=31000")["ErrorNumber"], 0);  // outward: one leg
    ASSERT_TRUE(runUntilStopped(0));
    EXPECT_EQ(nkrsim::state(unitA_).position, 31000);
    ASSERT_EQ(put(device(0, "move"), "Position=30500")["ErrorNumber"], 0);  // inward: past and back
    EXPECT_EQ(nkrsim::state(unitA_).target, 30300);
    ASSERT_TRUE(runUntilStopped(0));
    EXPECT_EQ(nkrsim::state(unitA_).position, 30500);
    ASSERT_EQ(put(device(0, "move"), "Position=29000")["ErrorNumber"], 0);
    nkrsim::advanceMicros(100'000);
    EXPECT_EQ(put(device(0, "halt"), "")["ErrorNumber"], 0);
    Clock::time_point now = Clock::now();
    tickFor(*registry_, now, 3);
    EXPECT_EQ(get(device(0, "ismoving"))["Value"], false);
    EXPECT_GT(nkrsim::state(unitA_).position, 28800);  // no second leg after a halt
}

// At rest the supervisor looks only for the rescan (here: never), yet a
// maximum another program sets reaches the unit: the settings file wakes it.
TEST_F(AlpacaTest, SupervisorAtRestIsWokenByAChangedMaximum)
{
    connect(0);
    registry_->startSupervisor(std::chrono::milliseconds(250), std::chrono::hours(1));
    for (int maximum : {40000, 45000}) {  // the second after the file was replaced once
        nkrhost::HostSettings().update(kSerialA, [maximum](nkrhost::UnitSettings& s) {
            s.maxPosition = maximum;
            return nkrhost::Status::success();
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (nkrsim::state(unitA_).maxStep != maximum && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(nkrsim::state(unitA_).maxStep, maximum);
    }
}

}  // namespace
}  // namespace alpaca::test
