// Faults of the machine around the library: a hostile or unusable log
// directory in /tmp, and a home directory that is unset, unwritable or holds a
// damaged settings file. The units keep working in every case; the library
// writes nowhere it should not and never loses the record it already has.
// The log directory is fixed and set up once per process, so its faults run
// in child processes with a private /tmp.
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>

#include "device/NKR.h"
#include "fault_support.h"
#include "log/Log.h"

namespace {
using faulttest::Saved;
using faulttest::savedRecord;
using storetest::listDir;
using nkrtest::unitWithFirmware;

// One ordinary USB session (scan, open, move, read, close) on a unit that
// has just powered up; returns 0 or the code of the first failed step.
int usbSession(int target)
{
    nkrsim::addUnit(unitWithFirmware(382));
    FAULT_CHECK(NKRGetNum() == 1, 10);
    int id = -1;
    FAULT_CHECK(NKRGetID(0, &id) == NKR_SUCCESS, 11);
    FAULT_CHECK(NKROpen(id) == NKR_SUCCESS, 12);
    FAULT_CHECK(NKRMove(id, target) == NKR_SUCCESS, 13);
    nkrsim::advanceMicros(20000000);
    int pos = -1;
    FAULT_CHECK(NKRGetPosition(id, &pos) == NKR_SUCCESS, 14);
    FAULT_CHECK(pos == target, 15);
    FAULT_CHECK(NKRClose(id) == NKR_SUCCESS, 16);
    return 0;
}

class FaultLog : public nkrtest::SimTest {
protected:
    // Runs a USB session in a private /tmp prepared by plant; the log must
    // come to exist only when expected, and the victim directory (a target
    // for planted links) must stay empty.
    void runScenario(const char* name, const std::function<int()>& plant, bool expectLog)
    {
        SCOPED_TRACE(name);
        // The log is set up once per process: the children must start without one.
        if (!nkrlog::currentLogFile().empty()) GTEST_SKIP() << "needs a process of its own (ctest runs it so)";
        const int rc = faulttest::runWithPrivateTmp([&]() -> int {
            FAULT_CHECK(mkdir("/tmp/home", 0700) == 0, 2);
            setenv("HOME", "/tmp/home", 1);
            FAULT_CHECK(mkdir("/tmp/victim", 0755) == 0, 3);
            FAULT_CHECK(plant() == 0, 4);
            if (int failed = usbSession(1200)) return failed;
            auto saved = savedRecord();
            FAULT_CHECK(saved && saved->position == 1200, 20);
            const std::string file = nkrlog::currentLogFile();
            if (expectLog) {
                FAULT_CHECK(file.rfind("/tmp/htx/log/nkr_sdk/log_", 0) == 0, 21);
                std::ifstream in(file);
                std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
                FAULT_CHECK(text.find("SetStep move to step: 1200") != std::string::npos, 22);
            } else {
                FAULT_CHECK(file.empty(), 23);
            }
            FAULT_CHECK(listDir("/tmp/victim").empty(), 24);
            return 0;
        });
        if (rc == faulttest::kNoPrivateTmp) GTEST_SKIP() << "no private /tmp possible here";
        EXPECT_EQ(rc, 0) << "child failed; its check number is the exit code";
    }
};

// Each planting in a fresh private /tmp: the units keep working, the log
// comes to exist only in a clean /tmp, and nothing is written through a link.
TEST_F(FaultLog, PlantedOrUnusableLogDirectoriesAreNeverWrittenInto)
{
    struct Case {
        const char* name;
        bool expectLog, rootOnly;  // only root can give a directory to another user
        std::function<int()> plant;
    };
    const Case cases[] = {
        {"clean", true, false, [] { return 0; }},
        {"link in place of /tmp/htx", false, false, [] { return symlink("/tmp/victim", "/tmp/htx"); }},
        {"link in place of nkr_sdk", false, false,
         [] { return mkdir("/tmp/htx", 0755) || mkdir("/tmp/htx/log", 0755) || symlink("/tmp/victim", "/tmp/htx/log/nkr_sdk"); }},
        {"dangling link in place of log", false, false,
         [] { return mkdir("/tmp/htx", 0755) || symlink("/tmp/victim/missing", "/tmp/htx/log"); }},
        {"file in place of /tmp/htx/log", false, false,
         [] { return mkdir("/tmp/htx", 0755) || !(std::ofstream("/tmp/htx/log") << "x"); }},
        // World-writable, so only the owner check keeps the library out.
        {"foreign htx", false, true,
         [] { return mkdir("/tmp/htx", 0777) || chmod("/tmp/htx", 0777) || chown("/tmp/htx", 65534, 65534); }},
        {"foreign nkr_sdk", false, true,
         [] {
             return mkdir("/tmp/htx", 0755) || mkdir("/tmp/htx/log", 0755) || mkdir("/tmp/htx/log/nkr_sdk", 0777) ||
                    chmod("/tmp/htx/log/nkr_sdk", 0777) || chown("/tmp/htx/log/nkr_sdk", 65534, 65534);
         }},
        // /tmp/htx is ours but read-only: "log" cannot be made below it.
        {"read-only /tmp/htx", false, false,
         [] {
             return mkdir("/tmp/htx", 0755) || mount("/tmp/htx", "/tmp/htx", nullptr, MS_BIND, nullptr) ||
                    mount(nullptr, "/tmp/htx", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
         }},
    };
    for (const Case& c : cases)
        if (!c.rootOnly || geteuid() == 0) runScenario(c.name, c.plant, c.expectLog);
}

// ---- home directory ---------------------------------------------------------

const Saved kEarlier{1000, 20, 1, 50000, 0};

class FaultHome : public nkrtest::SimTest {
protected:
    void TearDown() override
    {
        nkrtest::SimTest::TearDown();
        setenv("HOME", home_.c_str(), 1);
    }
    const std::string home_ = std::getenv("HOME");
};

// Each home in turn, over one unit power-cycled between sessions: the unit
// keeps working, the session's position comes back the next time (from the
// file when it could be saved, else from the unit itself), a damaged record
// is neither used nor touched at open, and nothing is written where it should not be.
TEST_F(FaultHome, UnusableHomesAndDamagedOrBlockedSettingsFiles)
{
    const std::string file = faulttest::settingsPath();
    faulttest::writeSavedRecord(kEarlier);
    const std::string good = storetest::readFile(file);
    storetest::writeFile(home_ + "/plain-file", "x");
    struct Case {
        const char* why;
        std::string home;
        std::function<void()> plant;
        bool saved;  // the close writes the record
    };
    const Case cases[] = {
        {"missing home", "/nonexistent-nkr-home/deeper", [] {}, false},
        {"home is a file", home_ + "/plain-file", [] {}, false},
        {"half a record", home_, [&] { storetest::writeFile(file, good.substr(0, good.size() / 2)); }, true},
        {"garbage", home_, [&] { storetest::writeFile(file, "\x01\x02garbage"); }, true},
        {"empty file", home_, [&] { storetest::writeFile(file, ""); }, true},
        {"a directory in its place", home_, [&] { unlink(file.c_str()); mkdir(file.c_str(), 0700); }, false},
    };
    nkrsim::UnitId unit;
    const int id = plugAndScan(unitWithFirmware(382), &unit);
    int target = 2000;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        setenv("HOME", c.home.c_str(), 1);
        c.plant();
        const std::string before = storetest::readFile(file);
        nkrsim::unplug(unit);  // power cycle: the unit forgets its position
        nkrsim::replug(unit);
        ASSERT_EQ(NKROpen(id), NKR_SUCCESS);
        EXPECT_EQ(nkrtest::position(id), nkrtest::kPowerOnPosition) << "nothing usable to restore from";
        EXPECT_EQ(storetest::readFile(file), before) << "nothing touched at open";
        target += 100;
        EXPECT_EQ(NKRSetBacklash(id, 33) | NKRMove(id, target), NKR_SUCCESS);
        nkrsim::advanceMicros(20000000);
        int backlash = -1;
        EXPECT_EQ(NKRGetBacklash(id, &backlash), NKR_SUCCESS);
        EXPECT_EQ(std::make_pair(nkrtest::position(id), backlash), std::make_pair(target, 33));
        EXPECT_EQ(NKRClose(id), NKR_SUCCESS);
        const auto saved = savedRecord();
        EXPECT_EQ(saved && saved->position == target, c.saved);
        // The unit itself kept its state: an open without a power cycle finds it there.
        EXPECT_EQ(NKROpen(id), NKR_SUCCESS);
        EXPECT_EQ(nkrtest::position(id), target);
        EXPECT_EQ(NKRClose(id), NKR_SUCCESS);
        setenv("HOME", home_.c_str(), 1);
    }
    EXPECT_FALSE(storetest::exists("/nonexistent-nkr-home"));
    EXPECT_EQ(storetest::readFile(home_ + "/plain-file"), "x");
    // A failed save leaves no temporary file behind.
    EXPECT_EQ(listDir(storetest::configDir()), std::set<std::string>{"NKRconfig.xml"});
}

TEST_F(FaultHome, UnsetHomeFallsBackToThePasswordDatabase)
{
    const struct passwd* pw = getpwuid(getuid());
    if (pw == nullptr || pw->pw_dir == nullptr || pw->pw_dir[0] != '/')
        GTEST_SKIP() << "no home directory in the password database";
    const std::string pwHome = pw->pw_dir;
    // The fallback home is hidden behind a private tmpfs: the user's real
    // settings are never read or written.
    const int rc = faulttest::runWithPrivateTmp(
        [&]() -> int {
            unsetenv("HOME");
            if (int failed = usbSession(1500)) return failed;
            auto saved = savedRecord(pwHome + "/.HTX/NKRconfig.xml");
            FAULT_CHECK(saved && saved->position == 1500, 30);
            setenv("HOME", "", 1);  // empty counts as unset
            nkrsim::reset();
            nkr::setSleepHook(&nkrtest::advanceSimClock);
            if (int failed = usbSession(1700)) return failed;
            saved = savedRecord(pwHome + "/.HTX/NKRconfig.xml");
            FAULT_CHECK(saved && saved->position == 1700, 31);
            return 0;
        },
        pwHome);
    if (rc == faulttest::kNoPrivateTmp) GTEST_SKIP() << "no private mount namespace possible here";
    EXPECT_EQ(rc, 0) << "child failed; its check number is the exit code";
}

}  // namespace
