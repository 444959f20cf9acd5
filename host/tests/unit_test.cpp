// The user's maximum, the follow loop and Bluetooth attach, against simulated
// units on the simulator's clock.
#include <cerrno>

#include "host_fixture.h"
#include "nkrhost/session.h"
#include "nkrhost/unit.h"

using namespace nkrhost;

namespace hosttest {
namespace {

std::unique_ptr<Unit> openUnit(const std::string& name, const HostSettings& settings, bool ble = false)
{
    OpenRequest request;
    request.name = name;
    request.bluetooth = ble;
    request.bleScanMillis = 10;
    std::unique_ptr<Unit> unit;
    Status st = Unit::open(request, unit, settings);
    EXPECT_TRUE(st.ok()) << st.message;
    return unit;
}

FollowHooks simClock(std::function<bool()> interrupted = {})
{
    FollowHooks hooks;
    hooks.interrupted = std::move(interrupted);
    hooks.sleep = [](std::chrono::milliseconds d) { nkrsim::advanceMicros(static_cast<uint64_t>(d.count()) * 1000); };
    hooks.now = [] { return MoveFollower::Clock::time_point(std::chrono::microseconds(nkrsim::nowMicros())); };
    return hooks;
}

FollowOptions towards(int start, int target)
{
    FollowOptions o;
    o.start = start;
    o.target = target;
    return o;
}

using UnitLimits = HostTest;
using FollowLoop = HostTest;
using BluetoothAttach = HostTest;

TEST_F(UnitLimits, TheUsersMaximumIsEnforcedByEveryProgramThatReadsTheSettings)
{
    usbUnit("Main");
    auto unit = openUnit("main", settings());
    ASSERT_TRUE(unit);
    int max = 0;
    ASSERT_TRUE(unit->maximum(max).ok());
    EXPECT_EQ(max, 60000);  // nothing stored: the unit's own

    ASSERT_TRUE(unit->setMaximum(50000).ok());
    Status refused = unit->moveTo(55000);
    EXPECT_EQ(refused.code, kBeyondLimit);
    EXPECT_EQ(refused.message, "position 55000 is outside 0..50000, the maximum position set for this focuser; "
                               "raise its maximum position to go further");
    EXPECT_EQ(unit->moveTo(-1).code, kBeyondLimit);
    EXPECT_EQ(unit->moveBy(40001).code, kBeyondLimit);  // from 10000
    EXPECT_EQ(nkrsim::state(0).target, 10000) << "nothing was sent to the unit";
    EXPECT_EQ(unit->setMaximum(unit->stepRange() + 1LL).code, kBadSetting);
    EXPECT_EQ(unit->sync(unit->stepRange() + 1LL).code, kBeyondLimit);

    // Another program (a fresh object over the same file) sees the same limit,
    // and a unit that forgot it (power loss) gets it back from its holder;
    // a program that only opens it to look writes nothing.
    unit->close();
    nkrsim::update(0, [](nkrsim::UnitState& s) { s.maxStep = 60000; });
    auto opened = openUnit("0", settings());
    EXPECT_EQ(nkrsim::state(0).maxStep, 60000);
    std::unique_ptr<Session> held;
    ASSERT_TRUE(Session::hold(opened, {"test"}, held).ok());
    Unit* again = &held->unit();
    ASSERT_TRUE(again->maximum(max).ok());
    EXPECT_EQ(max, 50000);
    EXPECT_EQ(nkrsim::state(0).maxStep, 50000);
    int target = 0;
    EXPECT_TRUE(again->moveBy(40000, &target).ok());
    EXPECT_EQ(target, 50000);

    // A stored maximum past the unit's range (a hand-edited file) is held to the range.
    ASSERT_TRUE(again->hostSettings().mergeJson(again->key(), R"({"max_position": 999999})").ok());
    ASSERT_TRUE(again->maximum(max).ok());
    EXPECT_EQ(max, again->stepRange());
}

TEST_F(FollowLoop, EndsOnceWithOneMeaningForEachWayAMoveEnds)
{
    usbUnit("", 10000);
    auto unit = openUnit("0", settings());
    ASSERT_TRUE(unit->moveTo(12000).ok());
    FollowResult r = unit->follow(towards(10000, 12000), simClock());
    EXPECT_EQ(r.end, MoveEnd::Reached);
    EXPECT_EQ(r.position, 12000);

    // Stopped by someone else before the target: still, but short.
    ASSERT_TRUE(unit->moveTo(20000).ok());
    nkrsim::advanceMicros(500000);
    NKRStop(unit->slot());
    r = unit->follow(towards(12000, 20000), simClock());
    EXPECT_EQ(r.end, MoveEnd::StoppedShort);
    EXPECT_TRUE(r.ok());

    // Out of time: the motor is stopped and that is said.
    int from = 0;
    unit->position(from);
    ASSERT_TRUE(unit->moveTo(50000).ok());
    FollowOptions quick = towards(from, 50000);
    quick.timeout = std::chrono::milliseconds(1500);
    r = unit->follow(quick, simClock());
    EXPECT_EQ(r.end, MoveEnd::TimedOut);
    EXPECT_EQ(r.status.code, kTimedOut);
    EXPECT_NE(r.status.message.find("did not end within 1.5 s;"), std::string::npos) << r.status.message;
    EXPECT_TRUE(r.stop.ok());
    EXPECT_EQ(nkrsim::state(0).runState, 0);
}

TEST_F(FollowLoop, AnInterruptStopsTheMotorAndAFailedStopIsSaidToHaveFailed)
{
    usbUnit("", 10000);
    auto unit = openUnit("0", settings());
    ASSERT_TRUE(unit->moveTo(40000).ok());
    int looks = 0;
    FollowResult r = unit->follow(towards(10000, 40000), simClock([&] { return ++looks > 3; }));
    EXPECT_EQ(r.end, MoveEnd::Interrupted);
    EXPECT_TRUE(r.stop.ok());
    EXPECT_EQ(nkrsim::state(0).runState, 0);

    ASSERT_TRUE(unit->moveTo(10000).ok());
    looks = 0;
    r = unit->follow(towards(r.position, 10000), simClock([&] {
        if (++looks == 3) nkrsim::failTransfers(0, 100, EIO);
        return looks >= 3;
    }));
    EXPECT_EQ(r.end, MoveEnd::Interrupted);
    EXPECT_FALSE(r.stop.ok()) << "a stop that did not reach the unit must not pass for one";
    EXPECT_NE(r.stop.message.find("stopping the motor"), std::string::npos);
}

TEST_F(FollowLoop, AUnitThatGoesAwayOrStopsAnsweringEndsTheMoveAsGone)
{
    const struct {
        const char* how;
        std::function<void()> fault;
    } faults[] = {
        {"unplugged", [] { nkrsim::unplugAfterSteps(0, 1000); }},
        {"silent", [] { nkrsim::failTransfers(0, 1000, EIO); }},
    };
    for (const auto& f : faults) {
        nkrsim::reset();
        usbUnit("", 10000);
        auto unit = openUnit("0", settings());
        ASSERT_TRUE(unit->moveTo(30000).ok());
        f.fault();
        FollowResult r = unit->follow(towards(10000, 30000), simClock());
        EXPECT_EQ(r.end, MoveEnd::Gone) << f.how;
        EXPECT_TRUE(unit->gone()) << f.how;
        EXPECT_NE(r.status.message.find("went away during the move"), std::string::npos) << f.how;
        unit->close();
    }
}

TEST_F(UnitLimits, AGoneUnitIsFoundAgainBySerialWhateverSlotItGets)
{
    usbUnit("", 10000);
    auto unit = openUnit("0", settings());
    nkrsim::unplug(0);
    int position = 0;
    EXPECT_FALSE(unit->position(position).ok());
    EXPECT_TRUE(unit->gone());
    EXPECT_FALSE(unit->reconnect().ok());
    EXPECT_EQ(unit->backoff().delay(), std::chrono::seconds(1));
    nkrsim::replug(0);
    Status back = unit->reconnect();
    EXPECT_TRUE(back.ok()) << back.message;
    EXPECT_FALSE(unit->gone());
    EXPECT_TRUE(unit->position(position).ok());
}

TEST_F(BluetoothAttach, ByAUniqueBeginningOfItsNameWithCleanUpWhenPairingFails)
{
    bleUnit("A1B2");
    bleUnit("C3D4");
    usbUnit("Main");
    EXPECT_EQ(openUnit("NKR Pro_C", settings(), true)->identity().bleName, "NKR Pro_C3D4");

    std::unique_ptr<Unit> unit;
    OpenRequest request;
    request.name = "NKR Pro";
    request.bluetooth = true;
    request.bleScanMillis = 10;
    Status st = Unit::open(request, unit, settings());
    EXPECT_EQ(st.code, kUnitAmbiguous) << st.message;

    nkrsim::bleNotifyInstead(0, 0x01);  // the unit refuses the pairing
    request.name = "NKR Pro_A1B2";
    st = Unit::open(request, unit, settings());
    EXPECT_EQ(st.code, NKR_ERROR_BLE_PAIR) << st.message;
    EXPECT_EQ(nkrsim::bleConnections(0), 0) << "a failed attach leaves no link behind";
}

}  // namespace
}  // namespace hosttest
