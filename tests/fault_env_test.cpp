// A hostile or unusable log directory in /tmp (in child processes with a
// private /tmp), and a home that is unset, unwritable or holds a damaged
// settings file: the units keep working, nothing is written where it should
// not be and the record already there is never lost.
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <set>

#include "device/NKR.h"
#include "fault_support.h"
#include "log/Log.h"

namespace {
using faulttest::savedRecord;
using storetest::listDir;
using nkrtest::unitWithFirmware;

// One ordinary USB session (scan, open, move, read, close) on a unit that
// has just powered up; returns 0 or the code of the first failed step.
int usbSession(int target)
{
    nkrsim::addUnit(unitWithFirmware(382));
    int id = -1;
    FAULT_CHECK(NKRGetNum() == 1 && NKRGetID(0, &id) == NKR_SUCCESS && NKROpen(id) == NKR_SUCCESS, 10);
    FAULT_CHECK(NKRMove(id, target) == NKR_SUCCESS, 13);
    nkrsim::advanceMicros(20000000);
    FAULT_CHECK(nkrtest::position(id) == target && NKRClose(id) == NKR_SUCCESS, 14);
    return 0;
}

class FaultLog : public nkrtest::SimTest {};

constexpr const char *kHtx = "/tmp/htx", *kLog = "/tmp/htx/log", *kSdk = "/tmp/htx/log/nkr_sdk";
int dirs(std::initializer_list<const char*> paths)
{
    for (const char* p : paths)
        if (mkdir(p, 0755) != 0) return -1;
    return 0;
}
// World-writable and another user's: only the owner check keeps the library out.
int foreign(const char* dir) { return chmod(dir, 0777) || chown(dir, 65534, 65534); }

// Each planting in a fresh private /tmp: the units keep working, the log
// comes to exist only in a clean /tmp, and nothing is written through a link.
TEST_F(FaultLog, PlantedOrUnusableLogDirectoriesAreNeverWrittenInto)
{
    // The log is set up once per process: the children must start without one.
    if (!nkrlog::currentLogFile().empty()) GTEST_SKIP() << "needs a process of its own (ctest runs it so)";
    const std::pair<const char*, int (*)()> cases[] = {
        {"clean", []() -> int { return 0; }},
        {"link in place of /tmp/htx", []() -> int { return symlink("/tmp/victim", kHtx); }},
        {"link in place of nkr_sdk", []() -> int { return dirs({kHtx, kLog}) || symlink("/tmp/victim", kSdk); }},
        {"dangling link in place of log", []() -> int { return dirs({kHtx}) || symlink("/tmp/victim/missing", kLog); }},
        {"file in place of /tmp/htx/log", []() -> int { return dirs({kHtx}) || !(std::ofstream(kLog) << "x"); }},
        {"foreign htx", []() -> int { return dirs({kHtx}) || foreign(kHtx); }},
        {"foreign nkr_sdk", []() -> int { return dirs({kHtx, kLog, kSdk}) || foreign(kSdk); }},
        {"read-only /tmp/htx", []() -> int {  // "log" cannot be made below it
             return dirs({kHtx}) || mount(kHtx, kHtx, nullptr, MS_BIND, nullptr) ||
                    mount(nullptr, kHtx, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
         }},
    };
    for (const auto& [name, plant] : cases) {
        SCOPED_TRACE(name);
        const bool expectLog = plant == cases[0].second;
        if (std::strncmp(name, "foreign", 7) == 0 && geteuid() != 0) continue;  // only root can give a folder away
        const int rc = faulttest::runWithPrivateTmp([&]() -> int {
            FAULT_CHECK(mkdir("/tmp/home", 0700) == 0 && setenv("HOME", "/tmp/home", 1) == 0, 2);
            FAULT_CHECK(mkdir("/tmp/victim", 0755) == 0 && plant() == 0, 3);
            if (int failed = usbSession(1200)) return failed;
            auto saved = savedRecord();
            FAULT_CHECK(saved && saved->position == 1200, 20);
            const std::string file = nkrlog::currentLogFile();
            FAULT_CHECK(expectLog == (file.rfind("/tmp/htx/log/nkr_sdk/log_", 0) == 0), 21);
            FAULT_CHECK(!expectLog ? file.empty()
                                   : storetest::readFile(file).find("SetStep move to step: 1200") != std::string::npos, 22);
            FAULT_CHECK(listDir("/tmp/victim").empty(), 24);
            return 0;
        });
        if (rc == faulttest::kNoPrivateTmp) GTEST_SKIP() << "no private /tmp possible here";
        EXPECT_EQ(rc, 0) << "child failed; its check number is the exit code";
    }
}

// ---- home directory ---------------------------------------------------------

class FaultHome : public nkrtest::SimTest {};  // each test has a process (and HOME) of its own

// Each home in turn, over one unit power-cycled between sessions: the unit
// keeps working, the session's position comes back the next time (from the
// file when it could be saved, else from the unit itself), a damaged record
// is neither used nor touched at open, and nothing is written where it should not be.
TEST_F(FaultHome, UnusableHomesAndDamagedOrBlockedSettingsFiles)
{
    const std::string home = std::getenv("HOME"), file = faulttest::settingsPath();
    faulttest::writeSavedRecord({1000, 20, 1, 50000, 0});
    const std::string good = storetest::readFile(file);
    storetest::writeFile(home + "/plain-file", "x");
    const struct {
        const char* why;
        std::string home;
        std::function<void()> plant;
        bool saved;  // the close writes the record
    } cases[] = {
        {"missing home", "/nonexistent-nkr-home/deeper", [] {}, false},
        {"home is a file", home + "/plain-file", [] {}, false},
        {"half a record", home, [&] { storetest::writeFile(file, good.substr(0, good.size() / 2)); }, true},
        {"garbage", home, [&] { storetest::writeFile(file, "\x01\x02garbage"); }, true},
        {"empty file", home, [&] { storetest::writeFile(file, ""); }, true},
        {"a directory in its place", home, [&] { unlink(file.c_str()), mkdir(file.c_str(), 0700); }, false},
    };
    nkrsim::UnitId unit;
    const int id = plugAndScan(unitWithFirmware(382), &unit);
    int target = 2000, backlash = -1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        setenv("HOME", c.home.c_str(), 1);
        c.plant();
        const std::string before = storetest::readFile(file);
        nkrsim::unplug(unit);  // power cycle: the unit forgets its position
        nkrsim::replug(unit);
        ASSERT_EQ(NKROpen(id), NKR_SUCCESS);
        EXPECT_EQ(nkrtest::position(id), nkrtest::kPowerOnPosition) << "nothing usable to restore from";
        EXPECT_EQ(storetest::readFile(file), before) << "nothing touched at open";
        EXPECT_EQ(NKRSetBacklash(id, 33) | NKRMove(id, target += 100), NKR_SUCCESS);
        nkrsim::advanceMicros(20000000);
        EXPECT_EQ(NKRGetBacklash(id, &backlash), NKR_SUCCESS);
        EXPECT_EQ(std::make_pair(nkrtest::position(id), backlash), std::make_pair(target, 33));
        EXPECT_EQ(NKRClose(id), NKR_SUCCESS);
        const auto saved = savedRecord();
        EXPECT_EQ(saved && saved->position == target, c.saved);
        // The unit itself kept its state: an open without a power cycle finds it there.
        EXPECT_EQ(NKROpen(id), NKR_SUCCESS);
        EXPECT_EQ(nkrtest::position(id), target);
        EXPECT_EQ(NKRClose(id), NKR_SUCCESS);
        setenv("HOME", home.c_str(), 1);
    }
    EXPECT_FALSE(storetest::exists("/nonexistent-nkr-home"));
    EXPECT_EQ(storetest::readFile(home + "/plain-file"), "x");
    // A failed save leaves no temporary file behind.
    EXPECT_EQ(listDir(storetest::configDir()), std::set<std::string>{"NKRconfig.xml"});
}

TEST_F(FaultHome, UnsetOrEmptyHomeFallsBackToThePasswordDatabase)
{
    const struct passwd* pw = getpwuid(getuid());
    if (pw == nullptr || pw->pw_dir == nullptr || pw->pw_dir[0] != '/')
        GTEST_SKIP() << "no home directory in the password database";
    // That home is hidden behind a private tmpfs: the user's real settings are never read or written.
    const std::string pwHome = pw->pw_dir;
    const int rc = faulttest::runWithPrivateTmp(
        [&]() -> int {
            for (int target : {1500, 1700}) {
                target == 1500 ? unsetenv("HOME") : setenv("HOME", "", 1);
                nkrsim::reset();
                nkr::setSleepHook(&nkrtest::advanceSimClock);
                if (int failed = usbSession(target)) return failed;
                auto saved = savedRecord(pwHome + "/.HTX/NKRconfig.xml");
                FAULT_CHECK(saved && saved->position == target, 30);
            }
            return 0;
        },
        pwHome);
    if (rc == faulttest::kNoPrivateTmp) GTEST_SKIP() << "no private mount namespace possible here";
    EXPECT_EQ(rc, 0) << "child failed; its check number is the exit code";
}

}  // namespace
