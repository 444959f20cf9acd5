// The host settings file: shared by every program, never losing a change.
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "host_fixture.h"
#include "nkrhost/link.h"

using namespace nkrhost;

namespace hosttest {
namespace {

using HostSettingsFile = HostTest;

TEST_F(HostSettingsFile, ConcurrentWritersNeverLoseEachOthersChanges)
{
    constexpr int kWriters = 4, kRounds = 25;
    for (int w = 0; w < kWriters; ++w) {
        if (fork() == 0) {
            HostSettings file = settings();
            for (int i = 0; i < kRounds; ++i) {
                file.update("shared", [](UnitSettings& s) {
                    s.positions["count"] += 1;
                    return Status{};
                });
                file.update("writer" + std::to_string(w), [&](UnitSettings& s) {
                    s.maxPosition = i;
                    return Status{};
                });
            }
            _exit(0);
        }
    }
    for (int w = 0; w < kWriters; ++w) wait(nullptr);
    UnitSettings s;
    ASSERT_TRUE(settings().read("shared", s).ok());
    EXPECT_EQ(s.positions["count"], kWriters * kRounds);
    for (int w = 0; w < kWriters; ++w) {
        ASSERT_TRUE(settings().read("writer" + std::to_string(w), s).ok());
        EXPECT_EQ(s.maxPosition, kRounds - 1);
    }
}

TEST_F(HostSettingsFile, KeepsWhatItDoesNotKnowAndRefusesBadValuesAsAWhole)
{
    const std::string path = settings().path();
    std::ofstream(path) << R"({"units": {"A": {"future_key": [1, 2], "name": "Main"}}, "other": true})";
    HostSettings file = settings();
    ASSERT_TRUE(file.mergeJson("A", R"({"step_size_um": 2.5, "positions": {"Ha": 31200}})").ok());
    Status bad = file.mergeJson("A", R"({"step_size_um": 3.0, "positions": {"OIII": -4}})");
    EXPECT_EQ(bad.code, kBadSetting);
    EXPECT_EQ(file.mergeJson("A", R"({"stepsize": 1})").code, kBadSetting);

    UnitSettings s;
    ASSERT_TRUE(file.read("A", s).ok());
    EXPECT_EQ(s.name, "Main");
    EXPECT_EQ(s.stepSizeMicrons, 2.5);
    EXPECT_EQ(s.positions.size(), 1u);
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("future_key"), std::string::npos);
    EXPECT_NE(text.find("\"other\""), std::string::npos);
}

TEST_F(HostSettingsFile, ADamagedFileIsReportedAndNeverOverwritten)
{
    const std::string path = settings().path();
    std::ofstream(path) << "{ not json";
    UnitSettings s;
    EXPECT_EQ(settings().read("A", s).code, kSettingsFile);
    EXPECT_EQ(settings().update("A", [](UnitSettings&) { return Status{}; }).code, kSettingsFile);
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "{ not json");
}

TEST(HostLink, GoneMeansTheSameForEveryProgram)
{
    EXPECT_TRUE(meansGone(Link::Usb, NKR_ERROR_REMOVED));
    EXPECT_TRUE(meansGone(Link::Ble, NKR_ERROR_BLE_SEND));
    EXPECT_FALSE(meansGone(Link::Usb, NKR_ERROR_BLE_SEND));
    EXPECT_FALSE(meansGone(Link::Usb, NKR_ERROR_MOVING));

    LinkWatch watch;
    EXPECT_FALSE(watch.note(NKR_ERROR_GENERAL));
    EXPECT_FALSE(watch.note(NKR_ERROR_GENERAL));
    EXPECT_FALSE(watch.note(NKR_SUCCESS)) << "a good answer clears the count";
    EXPECT_FALSE(watch.note(NKR_ERROR_GENERAL));
    EXPECT_FALSE(watch.note(NKR_ERROR_MOVING)) << "a refusal is an answer";
    EXPECT_FALSE(watch.note(NKR_ERROR_GENERAL));
    EXPECT_FALSE(watch.note(NKR_ERROR_GENERAL));
    EXPECT_TRUE(watch.note(NKR_ERROR_GENERAL));

    Backoff backoff;
    const auto t0 = Backoff::Clock::time_point{};
    EXPECT_TRUE(backoff.due(t0));
    std::vector<long> delays;
    for (int i = 0; i < 8; ++i) {
        backoff.failed(t0);
        delays.push_back(static_cast<long>(backoff.delay().count()));
    }
    EXPECT_EQ(delays, (std::vector<long>{1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000}));
    EXPECT_FALSE(backoff.due(t0 + std::chrono::seconds(29)));
    EXPECT_TRUE(backoff.due(t0 + std::chrono::seconds(30)));
}

}  // namespace
}  // namespace hosttest
