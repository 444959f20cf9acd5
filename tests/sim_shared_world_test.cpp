// The simulated world shared between processes through NKR_SIM_STATE: every
// case runs the small host program as separate processes over one state file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "nkr_sim.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct HostRun {
    int status = -1;
    std::string out, err;
};

std::string slurp(const fs::path& p)
{
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class SharedWorldTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/nkrworldXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        state_ = dir_ / "run" / "world";  // the folder is made on first use
    }
    void TearDown() override
    {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // Starts the host program with these steps; returns its pid.
    pid_t start(const std::vector<std::string>& steps, int tag)
    {
        std::string out = (dir_ / ("out" + std::to_string(tag))).string();
        std::string err = (dir_ / ("err" + std::to_string(tag))).string();
        std::string statePath = state_.string();
        pid_t pid = fork();
        if (pid == 0) {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(120);
            setenv("NKR_SIM_STATE", statePath.c_str(), 1);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(SIM_WORLD_HOST));
            for (const std::string& s : steps) argv.push_back(const_cast<char*>(s.c_str()));
            argv.push_back(nullptr);
            execv(SIM_WORLD_HOST, argv.data());
            _exit(127);
        }
        return pid;
    }

    HostRun finish(pid_t pid, int tag)
    {
        HostRun r;
        int status = 0;
        if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) r.status = WEXITSTATUS(status);
        r.out = slurp(dir_ / ("out" + std::to_string(tag)));
        r.err = slurp(dir_ / ("err" + std::to_string(tag)));
        return r;
    }

    HostRun host(const std::vector<std::string>& steps)
    {
        return finish(start(steps, 0), 0);
    }

    // The "show" line of unit 0 as key -> value.
    std::map<std::string, std::string> show(int unit = 0)
    {
        HostRun r = host({"show", std::to_string(unit)});
        EXPECT_EQ(r.status, 0) << r.err;
        std::map<std::string, std::string> fields;
        std::stringstream in(r.out);
        for (std::string word; in >> word;) {
            size_t eq = word.find('=');
            if (eq != std::string::npos) fields[word.substr(0, eq)] = word.substr(eq + 1);
        }
        return fields;
    }

    fs::path dir_, state_;
};

TEST_F(SharedWorldTest, PositionAndSettingsOutliveTheProcess)
{
    ASSERT_EQ(host({"move", "0", "30000", "max", "1", "45000", "alias", "0", "scope", "firmware", "0"})
                  .status,
              0);
    auto unit0 = show(0);
    EXPECT_EQ(unit0["alias"], "[scope]");
    EXPECT_EQ(unit0["fw"], "390");  // the version the finished update reports
    EXPECT_EQ(show(1)["max"], "45000");

    // A move to where the motor already stands ends at once.
    ASSERT_EQ(host({"move", "1", "30000"}).status, 0);
    EXPECT_EQ(show(1)["run"], "0");
}

TEST_F(SharedWorldTest, MoveGoesOnInWallClockTimeBetweenProcesses)
{
    // 400 steps at 2000 steps a second: done 200 ms after it started, and it
    // started before the starting process ended.
    ASSERT_EQ(host({"move", "0", "30400"}).status, 0);
    const auto started = Clock::now();

    auto early = show(0);
    int position = std::stoi(early["position"]);
    EXPECT_GE(position, 30000);
    EXPECT_LE(position, 30400);
    EXPECT_EQ(early["target"], "30400");

    while (Clock::now() - started < std::chrono::milliseconds(300))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // A process that never saw the move finds it finished, where it ended.
    auto late = show(0);
    EXPECT_EQ(late["position"], "30400");
    EXPECT_EQ(late["run"], "0");
}

TEST_F(SharedWorldTest, ResetForgetsTheWorld)
{
    ASSERT_EQ(host({"alias", "0", "gone", "move", "0", "31000"}).status, 0);
    ASSERT_TRUE(fs::exists(state_));
    HostRun forget = host({"forget"});
    ASSERT_EQ(forget.status, 0) << forget.err;
    EXPECT_FALSE(fs::exists(state_));
    auto unit0 = show(0);
    EXPECT_EQ(unit0["alias"], "[]");
    EXPECT_EQ(unit0["position"], "30000");
    EXPECT_EQ(unit0["run"], "0");
}

TEST_F(SharedWorldTest, TwoWritersAtOnceLoseNothing)
{
    // Each change of each writer is a read-change-save of its own; without
    // the lock and the re-read, one writer's saves overwrite the other's.
    pid_t a = start({"bump", "0", "150"}, 1);
    pid_t b = start({"bump", "0", "150"}, 2);
    HostRun ra = finish(a, 1), rb = finish(b, 2);
    ASSERT_EQ(ra.status, 0) << ra.err;
    ASSERT_EQ(rb.status, 0) << rb.err;
    EXPECT_EQ(show(0)["errors_cleared"], "300");
}

TEST_F(SharedWorldTest, DamagedFileGivesAFreshWorldAndIsReplaced)
{
    ASSERT_EQ(host({"alias", "0", "old", "max", "0", "40000"}).status, 0);
    for (const char* damage : {"{\"format\": \"nkr-sim-world\", \"vers", "[1, 2, 3]\n",
                               "{\"format\":\"nkr-sim-world\",\"version\":1,\"generation\":3,"
                               "\"units_key\":\"default\",\"units\":[{\"id\":0}]}"}) {
        std::ofstream(state_, std::ios::trunc) << damage;
        HostRun r = host({"show", "0"});
        ASSERT_EQ(r.status, 0);
        EXPECT_NE(r.err.find("is damaged"), std::string::npos) << r.err;
        EXPECT_NE(r.out.find("alias=[] "), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("max=60000 "), std::string::npos) << r.out;
        // Saved again whole: the next process reads it without complaint.
        HostRun again = host({"show", "0"});
        EXPECT_EQ(again.err, "");
    }
}

TEST_F(SharedWorldTest, UnreadableFileGivesAFreshWorld)
{
    if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
    ASSERT_EQ(host({"alias", "0", "kept"}).status, 0);
    fs::permissions(state_, fs::perms::none);
    HostRun r = host({"show", "0"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("alias=[] "), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("cannot read the state file"), std::string::npos) << r.err;
}

TEST_F(SharedWorldTest, OtherUnitsStartAWorldOfTheirOwn)
{
    ASSERT_EQ(host({"alias", "0", "three"}).status, 0);
    setenv("NKR_SIM_UNITS", "usb:382:E:NKRN", 1);
    auto unit0 = show(0);
    unsetenv("NKR_SIM_UNITS");
    EXPECT_EQ(unit0["alias"], "[]");
    EXPECT_EQ(unit0["fw"], "382");
}

// ---- serial numbers and the environment ------------------------------------

TEST(SimEnvironment, EveryUnitHasItsOwnSerial)
{
    nkrsim::reset();
    nkrsim::addDefaultUnits();
    std::vector<std::vector<uint8_t>> serials;
    for (nkrsim::UnitId id = 0; id < 3; ++id) serials.push_back(nkrsim::state(id).serial);
    EXPECT_EQ(serials[0], (std::vector<uint8_t>{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0}));
    EXPECT_NE(serials[0], serials[1]);
    EXPECT_NE(serials[1], serials[2]);
    EXPECT_NE(serials[0], serials[2]);

    nkrsim::UnitSpec given;
    given.serial = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(nkrsim::state(nkrsim::addUnit(given)).serial, given.serial);
}

struct EnvCase {
    const char* units;   // null: unset
    const char* unplug;  // null: unset
    const char* complaint;  // null: valid
};

TEST(SimEnvironment, MalformedUnitsOrUnplugAreRefusedWithTheReason)
{
    const EnvCase cases[] = {
        {"usb:335,usb:382:E:NKRN,ble:382:E:NKR Pro", nullptr, nullptr},
        {"", nullptr, nullptr},
        {"both:370::NKRN", "0:500", nullptr},
        {nullptr, "2:10", nullptr},
        {"usb:33", nullptr, "entry 1 'usb:33': the firmware version '33' is not three digits"},
        {"usb:335,", nullptr, "entry 2 is empty"},
        {"serial:335", nullptr, "the link 'serial' is not usb, ble or both"},
        {"usb", nullptr, "expected link:fw[:letter[:type]]"},
        {"usb:3a5", nullptr, "not three digits"},
        {"usb:335:EE", nullptr, "model letter 'EE' is not one character"},
        {"usb:335:E:NKR Pro Max", nullptr, "longer than 8 characters"},
        {"usb:335:E:NKRN:extra", nullptr, "expected link:fw[:letter[:type]]"},
        {nullptr, "0-500", "NKR_SIM_UNPLUG '0-500' is not <unit id>:<steps>"},
        {nullptr, "0:", "is not <unit id>:<steps>"},
        {nullptr, "0:-5", "is not <unit id>:<steps>"},
        {nullptr, "3:10", "names unit 3, but the simulated units are 0 to 2"},
        {"", "0:1", "the simulated units are none"},
    };
    for (const EnvCase& c : cases) {
        SCOPED_TRACE(std::string(c.units ? c.units : "(unset)") + " / " + (c.unplug ? c.unplug : "(unset)"));
        c.units ? setenv("NKR_SIM_UNITS", c.units, 1) : unsetenv("NKR_SIM_UNITS");
        c.unplug ? setenv("NKR_SIM_UNPLUG", c.unplug, 1) : unsetenv("NKR_SIM_UNPLUG");
        std::string message;
        bool good = nkrsim::validateEnvironment(message);
        char buffer[200];
        EXPECT_EQ(nkr_sim_validate_environment(buffer, sizeof buffer), good ? 1 : 0);
        if (c.complaint == nullptr) {
            EXPECT_TRUE(good) << message;
        } else {
            EXPECT_FALSE(good);
            EXPECT_NE(message.find(c.complaint), std::string::npos) << message;
            EXPECT_EQ(message.find('\n'), std::string::npos);
            EXPECT_EQ(std::string(buffer), message.substr(0, sizeof buffer - 1));
        }
    }
    // A huge value is not echoed back whole.
    setenv("NKR_SIM_UNITS", ("usb:" + std::string(300, '9')).c_str(), 1);
    std::string message;
    EXPECT_FALSE(nkrsim::validateEnvironment(message));
    EXPECT_EQ(message.find(std::string(60, '9')), std::string::npos) << message;
    unsetenv("NKR_SIM_UNITS");
    unsetenv("NKR_SIM_UNPLUG");
}

TEST(SimEnvironment, MalformedUnitsGiveNoUnitsAndOneLineOnStderr)
{
    nkrsim::reset();
    setenv("NKR_SIM_UNITS", "usb:335,usb:9", 1);
    ::testing::internal::CaptureStderr();
    nkrsim::addDefaultUnits();
    std::string err = ::testing::internal::GetCapturedStderr();
    unsetenv("NKR_SIM_UNITS");
    EXPECT_EQ(nkrsim::bleAddress(0), "");  // no unit 0: not even the good first entry
    EXPECT_NE(err.find("nkr-sim: NKR_SIM_UNITS entry 2 'usb:9'"), std::string::npos) << err;
    EXPECT_NE(err.find("simulating no units"), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
}

}  // namespace
