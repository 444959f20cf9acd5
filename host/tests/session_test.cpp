// The unit session: one holder per unit, refusals without side effects, a
// stop from anywhere, moves that tell the truth, the maximum's one rule, and
// a unit that goes and comes back.
#include "host_fixture.h"
#include "nkrhost/session.h"

using namespace nkrhost;

namespace hosttest {
namespace {

using Clock = Session::Clock;

Clock::time_point simNow() { return Clock::time_point(std::chrono::microseconds(nkrsim::nowMicros())); }

class SessionTest : public HostTest {
protected:
    std::unique_ptr<Unit> open(const std::string& name = "0")
    {
        OpenRequest request;
        request.name = name;
        std::unique_ptr<Unit> unit;
        Status st = Unit::open(request, unit, settings());
        EXPECT_TRUE(st.ok()) << st.message;
        return unit;
    }
    std::unique_ptr<Session> hold(const std::string& holder, const std::string& name = "0")
    {
        auto unit = open(name);
        std::unique_ptr<Session> session;
        Status st = Session::hold(unit, {holder}, session);
        EXPECT_TRUE(st.ok()) << st.message;
        return session;
    }
    // Ticks on the simulator's clock until the move under way has ended.
    MoveReport finish(Session& session)
    {
        std::vector<std::string> log;
        for (int i = 0; i < 2000 && session.moving(); ++i) {
            nkrsim::advanceMicros(100000);
            session.tick(simNow(), log);
        }
        auto end = session.takeMoveEnd();
        EXPECT_TRUE(end.has_value());
        return end.value_or(MoveReport{});
    }
};

TEST_F(SessionTest, OneHolderPerUnitAndARefusalSendsNothingAndClosesNothing)
{
    usbUnit("Main", 10000);
    auto server = hold("nkr-alpaca (focuser 0)");
    ASSERT_TRUE(server->moveTo(40000, {}, simNow()).ok());
    nkrsim::advanceMicros(300000);

    // A second program names the unit differently (by its alias): same key, refused.
    auto other = open("Main");
    ASSERT_TRUE(other);
    nkrsim::clearSentReports(0);
    std::unique_ptr<Session> second;
    Status refused = Session::hold(other, {"nkr move"}, second);
    EXPECT_EQ(refused.code, kUnitInUse);
    EXPECT_NE(refused.message.find("held by nkr-alpaca (focuser 0)"), std::string::npos) << refused.message;
    ASSERT_TRUE(other) << "the unit stays with the refused program";
    EXPECT_FALSE(second);
    other.reset();  // the refused program ends: it must not close (and so stop) the unit
    EXPECT_TRUE(nkrsim::sentReports(0).empty()) << "a refused program sent nothing";
    EXPECT_EQ(nkrsim::state(0).runState, 1) << "the holder's move goes on";
    EXPECT_EQ(unitHolder(server->unit().key()).rfind("nkr-alpaca (focuser 0) (pid ", 0), 0u);

    // Released: another program may hold it.
    server.reset();
    EXPECT_TRUE(unitHolder(open("Main")->key()).empty());
    EXPECT_TRUE(hold("nkr move", "Main"));
}

TEST_F(SessionTest, AStopFromAnotherProgramEndsTheMoveAsAFailureThatNamesWhoStoppedIt)
{
    usbUnit("", 10000);
    auto holder = hold("nkr-alpaca (focuser 0)");
    ASSERT_TRUE(holder->moveTo(40000, {}, simNow()).ok());
    nkrsim::advanceMicros(500000);
    auto other = open();
    ASSERT_TRUE(stopUnit(*other, "nkr stop").ok()) << "a stop is never refused";

    const MoveReport report = finish(*holder);
    EXPECT_FALSE(report.arrived());
    EXPECT_EQ(report.status().code, kMoveNotArrived);
    EXPECT_NE(report.stoppedBy.find("nkr stop"), std::string::npos) << report.sentence();
    EXPECT_LT(report.result.position, 40000);

    // Its own move that arrives is a success; the final approach is carried
    // by the session's looks alone, nobody waiting.
    ASSERT_TRUE(holder->unit().hostSettings().mergeJson(holder->unit().key(),
                                                       R"({"approach": {"enabled": true, "direction": 1, "overshoot": 300}})")
                    .ok());
    const int from = report.result.position;
    ASSERT_TRUE(holder->moveTo(from - 1000, {}, simNow()).ok());
    const MoveReport approached = finish(*holder);
    EXPECT_TRUE(approached.arrived()) << approached.sentence();
    EXPECT_EQ(nkrsim::state(0).position, from - 1000);
    EXPECT_TRUE(approached.status().ok());
}

TEST_F(SessionTest, TheMaximumFollowsOneRuleAndAChangeFromAnyProgramReachesTheHolder)
{
    usbUnit("", 15000);
    auto holder = hold("INDI NKR Focuser");
    const SettingInfo& max = *findSetting("max-step");
    EXPECT_EQ(holder->writeSetting(max, {0, ""}).code, kBadSetting);
    const Status below = holder->writeSetting(max, {5000, ""});
    EXPECT_EQ(below.code, kBadSetting);
    EXPECT_NE(below.message.find("below the position 15000"), std::string::npos) << below.message;
    ASSERT_TRUE(holder->writeSetting(max, {20000, ""}).ok());
    EXPECT_EQ(nkrsim::state(0).maxStep, 20000);
    EXPECT_EQ(holder->sync(25000).code, kBeyondLimit) << "sync holds the maximum too";
    EXPECT_EQ(holder->unit().savePosition("far", 25000).code, kBeyondLimit);
    EXPECT_EQ(holder->moveTo(-5, {}, simNow()).message, "position -5 is outside 0..20000: 0 is the inner end of travel");

    // Another program, not holding the unit, changes the maximum in the host
    // settings; the holder sees it and puts it on the unit at its next look.
    auto other = open();
    ASSERT_TRUE(writeSetting(*other, max, {40000, ""}).ok());
    std::vector<std::string> log;
    holder->tick(simNow(), log);
    int now = 0;
    ASSERT_TRUE(holder->maximum(now).ok());
    EXPECT_EQ(now, 40000);
    EXPECT_EQ(nkrsim::state(0).maxStep, 40000);
}

TEST_F(SessionTest, AUnitThatGoesKeepsItsLastPositionAndComesBack)
{
    usbUnit("", 12000);
    auto holder = hold("nkr-alpaca (focuser 0)");
    std::vector<std::string> log;
    nkrsim::unplug(0);
    int position = 0;
    for (int i = 0; i < 4 && holder->state() != UnitState::Gone; ++i) {
        (void)holder->position(position);
        holder->tick(simNow(), log);
    }
    EXPECT_EQ(holder->state(), UnitState::Gone);
    EXPECT_EQ(holder->lastPosition(), 12000);
    EXPECT_EQ(holder->position(position).code, NKR_ERROR_REMOVED);
    EXPECT_EQ(position, 12000);

    nkrsim::replug(0);
    holder->unit().backoff().reset();
    holder->tick(simNow(), log);
    EXPECT_EQ(holder->state(simNow()), UnitState::Back);
    ASSERT_FALSE(log.empty());
    EXPECT_NE(log.back().find("is back at position 12000"), std::string::npos) << log.back();
}

TEST(SettingCatalogue, RefusesWhatIsOutsideItsRangeWithOneSentenceAndNeverWraps)
{
    SettingValue v;
    const struct {
        const char* setting;
        const char* typed;
        const char* sentence;  // "" = accepted
    } cases[] = {
        {"speed", "70000", "speed must be a whole number from 0 to 65535 steps/s (got '70000')"},
        {"Speed", "-1", "speed must be a whole number from 0 to 65535 steps/s (got '-1')"},
        {"MaxForce", "256", "force must be a whole number from 0 to 15 (got '256')"},
        {"backlash", "300", "backlash must be a whole number from 0 to 255 steps (got '300')"},
        {"backlash", "255", ""},
        {"backlash", "2.5", "backlash must be a whole number from 0 to 255 steps (got '2.5')"},
        {"step-size", "0", "step-size must be a number from 0.001 to 10000 µm (got '0')"},
        {"step_size", "0.001", ""},
        {"TempCoefficient", "-10000", ""},
        {"temp-coefficient", "10000.5", "temp-coefficient must be a number from -10000 to 10000 steps/°C (got '10000.5')"},
        {"alias", "Mainscope", "alias must be at most 8 plain characters (printable ASCII) (got 'Mainscope')"},
        {"alias", "Mainscop", ""},
        {"alias", "12", "alias must not be a number: '12' would be read as a slot id; add a letter"},
        {"alias", "Ma\xff", "alias must be at most 8 plain characters (printable ASCII) (got 'Ma?')"},
        {"approach", "OUT", ""},
        {"approach", "sideways", "approach must be out, in or off (got 'sideways')"},
        {"beep", "maybe", "beep must be on or off (got 'maybe')"},
    };
    for (const auto& c : cases) {
        const SettingInfo* info = findSetting(c.setting);
        ASSERT_NE(info, nullptr) << c.setting;
        const Status st = parseSetting(*info, c.typed, v);
        EXPECT_EQ(st.message, c.sentence) << c.setting << "=" << c.typed;
    }
    for (const SettingInfo& info : settingCatalogue()) EXPECT_LE(std::string(info.label).size(), 12u) << info.name;
}

TEST_F(HostTest, TheSettingsFileChecksValuesByTheCatalogueInTheWordsPeopleSee)
{
    HostSettings file = settings();
    EXPECT_EQ(file.mergeJson("A", R"({"temp_comp": {"coefficient": 200000}})").message,
              "temp-coefficient must be a number from -10000 to 10000 steps/°C (got '200000')");
    EXPECT_EQ(file.mergeJson("A", R"({"step_size_um": 0})").message,
              "step-size must be a number from 0.001 to 10000 µm (got '0')");
    EXPECT_EQ(file.mergeJson("A", R"({"max_position": 0})").code, kBadSetting);
    ASSERT_TRUE(file.mergeJson("A", R"({"temp_comp": {"deadband": 0.25}})").ok());
    UnitSettings s;
    ASSERT_TRUE(file.read("A", s).ok());
    EXPECT_EQ(s.tempComp.deadband, 0.25);
    // A change by another program is read at once, though the file is cached.
    ASSERT_TRUE(HostSettings(file.path()).mergeJson("A", R"({"temp_comp": {"deadband": 0.75}})").ok());
    ASSERT_TRUE(file.read("A", s).ok());
    EXPECT_EQ(s.tempComp.deadband, 0.75);
}

}  // namespace
}  // namespace hosttest
