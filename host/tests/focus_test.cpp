// Beyond the unit: temperature compensation on the simulator's clock, the
// fit of the coefficient, named positions and the final approach.
#include <cmath>
#include <random>

#include "host_fixture.h"
#include "nkrhost/tempcomp.h"
#include "nkrhost/tempfit.h"
#include "nkrhost/unit.h"

using namespace nkrhost;

namespace hosttest {
namespace {

void setTemperature(nkrsim::UnitId unit, double celsius)
{
    nkrsim::update(unit, [&](nkrsim::UnitState& s) { s.tempRaw = static_cast<int>(std::lround((celsius + 300.0) * 100.0)); });
}

std::unique_ptr<Unit> openFirst(const HostSettings& settings)
{
    std::unique_ptr<Unit> unit;
    OpenRequest request;
    request.name = "0";
    EXPECT_TRUE(Unit::open(request, unit, settings).ok());
    return unit;
}

// Ticks once a second of simulated time until the motor stands still.
void run(TempCompRunner& runner, int seconds, std::vector<std::string>& log)
{
    for (int s = 0; s < seconds; ++s) {
        runner.tick(log);
        nkrsim::advanceMicros(1000000);
    }
}

using TempComp = HostTest;

TEST_F(TempComp, FollowsTheTemperaturePastTheDeadBandOnly)
{
    usbUnit("", 30000);
    setTemperature(0, 25.0);
    auto unit = openFirst(settings());
    ASSERT_TRUE(unit->hostSettings()
                    .mergeJson(unit->key(), R"({"temp_comp": {"enabled": true, "coefficient": -5, "deadband": 0.5}})")
                    .ok());
    TempCompRunner runner(*unit, "test");
    std::vector<std::string> log;
    run(runner, 6, log);
    EXPECT_EQ(runner.state(), TempCompRunner::State::Active) << runner.describe();

    setTemperature(0, 24.5);  // at the dead band's edge: nothing moves
    run(runner, 10, log);
    EXPECT_EQ(nkrsim::state(0).position, 30000);

    setTemperature(0, 25.3);
    nkrsim::update(0, [](nkrsim::UnitState& s) { s.tempRaw = 0; });  // one wild reading (a probe error)...
    run(runner, 1, log);
    EXPECT_EQ(runner.state(), TempCompRunner::State::Paused);
    setTemperature(0, 25.3);
    run(runner, 10, log);
    EXPECT_EQ(nkrsim::state(0).position, 30000) << "...moves nothing";

    setTemperature(0, 15.0);
    run(runner, 30, log);
    EXPECT_EQ(nkrsim::state(0).position, 30050) << "-5 steps/degree over -10 degrees";
    std::string all;
    for (const std::string& line : log) all += line + "\n";
    EXPECT_NE(all.find("moved +50 steps to 30050"), std::string::npos) << all;
    EXPECT_NE(all.find("paused"), std::string::npos) << all;

    // A user's move takes a new reference; compensation then works from there.
    ASSERT_TRUE(unit->moveTo(20000).ok());
    run(runner, 10, log);
    setTemperature(0, 13.0);
    run(runner, 30, log);
    EXPECT_EQ(nkrsim::state(0).position, 20010);
}

TEST_F(TempComp, OnlyOneProgramCompensatesAUnitAndTheOthersSayWho)
{
    usbUnit("", 30000);
    auto unit = openFirst(settings());
    ASSERT_TRUE(unit->hostSettings().mergeJson(unit->key(), R"({"temp_comp": {"enabled": true, "coefficient": 2}})").ok());
    TempCompRunner first(*unit, "the first program"), second(*unit, "the second program");
    std::vector<std::string> log;
    first.tick(log);
    second.tick(log);
    EXPECT_EQ(second.state(), TempCompRunner::State::OtherProgram);
    EXPECT_NE(second.otherHolder().find("the first program"), std::string::npos);

    // Switched off anywhere: the holder lets go, and the other may take over.
    ASSERT_TRUE(unit->hostSettings().mergeJson(unit->key(), R"({"temp_comp": {"enabled": false}})").ok());
    first.tick(log);
    EXPECT_EQ(first.state(), TempCompRunner::State::Off);
    ASSERT_TRUE(unit->hostSettings().mergeJson(unit->key(), R"({"temp_comp": {"enabled": true}})").ok());
    second.tick(log);
    EXPECT_NE(second.state(), TempCompRunner::State::OtherProgram);
}

TEST(TempFitTest, RecoversTheCoefficientAndRejectsTheWildRuns)
{
    std::mt19937 random(7);
    std::normal_distribution<double> noise(0.0, 4.0);
    std::vector<FitRow> rows;
    for (int i = 0; i < 40; ++i) {
        const double t = 20.0 - 0.4 * i;
        rows.push_back({t, 30000.0 - 12.5 * t + noise(random)});
    }
    rows[5].position += 900;  // wild rows: a refocus on a cloud, a slipped tube
    rows[17].position -= 1500;
    rows[30].position += 400;
    TempFit fit;
    ASSERT_TRUE(fitTemperature(rows, fit).ok());
    EXPECT_NEAR(fit.coefficient, -12.5, 12.5 * 0.03);
    EXPECT_EQ(fit.rejected, 3);
    EXPECT_FALSE(fit.kept[5] || fit.kept[17] || fit.kept[30]);
    EXPECT_GT(fit.r2, 0.95);
    EXPECT_NE(fitPlotSvg(rows, fit).find("<circle"), std::string::npos);
    EXPECT_NE(fitPlotText(rows, fit).find('x'), std::string::npos);

    EXPECT_EQ(fitTemperature({{10, 1}, {10.2, 2}}, fit).code, kBadSetting);
    EXPECT_EQ(fitTemperature({{10, 1}, {10.1, 2}, {10.2, 3}}, fit).code, kBadSetting) << "0.2 degrees tell nothing";
}

using NamedPositions = HostTest;

TEST_F(NamedPositions, SavedWithinTheLimitsAndFoundByName)
{
    usbUnit("", 30000);
    auto unit = openFirst(settings());
    ASSERT_TRUE(unit->setMaximum(50000).ok());
    EXPECT_TRUE(unit->savePosition("Ha", 31200).ok());
    EXPECT_EQ(unit->savePosition("far", 55000).code, kBeyondLimit);
    EXPECT_EQ(unit->savePosition(" padded", 1).code, kBadSetting);
    int at = 0;
    EXPECT_TRUE(unit->namedPosition("Ha", at).ok());
    EXPECT_EQ(at, 31200);
    Status unknown = unit->namedPosition("OIII", at);
    EXPECT_NE(unknown.message.find("(Ha)"), std::string::npos) << unknown.message;
    EXPECT_TRUE(unit->removePosition("Ha").ok());
    EXPECT_EQ(unit->removePosition("Ha").code, kBadSetting);
}

TEST(FinalApproach, TheLastLegAlwaysComesFromTheChosenSide)
{
    const ApproachSettings outward{true, +1, 200}, inward{true, -1, 200};
    const struct {
        int from, target;
        ApproachSettings approach;
        std::vector<int> legs;
    } cases[] = {
        {10000, 12000, outward, {12000}},         // already outward, far enough
        {12000, 10000, outward, {9800, 10000}},   // inward: past the target, then back out
        {10000, 10100, outward, {9900, 10100}},   // outward but shorter than the overshoot
        {60100, 59900, inward, {59900}},          // exactly the overshoot, from past the maximum
        {12000, 10000, inward, {10000}},
        {10000, 12000, inward, {12200, 12000}},
        {500, 100, outward, {0, 100}},            // the overshoot stops at 0
        {12000, 10000, {false, +1, 200}, {10000}},
    };
    for (const auto& c : cases) EXPECT_EQ(approachLegs(c.from, c.target, c.approach, 60000), c.legs) << c.from << "->" << c.target;
}

TEST_F(NamedPositions, AFinalApproachMoveStopsAtOnceWhenInterrupted)
{
    usbUnit("", 30000);
    auto unit = openFirst(settings());
    ASSERT_TRUE(unit->hostSettings().mergeJson(unit->key(), R"({"approach": {"enabled": true, "direction": 1, "overshoot": 300}})").ok());
    FollowHooks hooks;
    hooks.sleep = [](std::chrono::milliseconds d) { nkrsim::advanceMicros(static_cast<uint64_t>(d.count()) * 1000); };
    hooks.now = [] { return MoveFollower::Clock::time_point(std::chrono::microseconds(nkrsim::nowMicros())); };
    FollowResult done = unit->moveAndFollow(29000, {}, hooks);
    EXPECT_EQ(done.end, MoveEnd::Reached);
    EXPECT_EQ(done.position, 29000);
    bool cameFromBelow = false;  // the unit passed 28700 on the way
    for (const auto& report : nkrsim::sentReports(0))
        cameFromBelow = cameFromBelow || (report.size() > 10 && report[3] == 0x03 && report[4] == 1 &&
                                          ((report[7] << 16) | (report[8] << 8) | report[9]) == 28700);
    EXPECT_TRUE(cameFromBelow);

    int looks = 0;
    hooks.interrupted = [&] { return ++looks > 5; };
    FollowResult stopped = unit->moveAndFollow(20000, {}, hooks);
    EXPECT_EQ(stopped.end, MoveEnd::Interrupted);
    EXPECT_TRUE(stopped.stop.ok());
    EXPECT_GT(stopped.position, 19700);
    EXPECT_EQ(nkrsim::state(0).runState, 0) << "no second leg after a stop";
}

}  // namespace
}  // namespace hosttest
