// The driver's host-side records: which unit closed last, the position to
// restore at connect, and the locks that keep two instances off one unit.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "close_note.h"
#include "file_lock.h"

using namespace nkrindi;

namespace {

// HOME and XDG_RUNTIME_DIR in a fresh temporary directory for one test.
class IndiHostRecords : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/nkr-indi-records.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        std::filesystem::create_directory(m_dir + "/run");
        std::filesystem::permissions(m_dir + "/run", std::filesystem::perms::owner_all);
        setenv("HOME", m_dir.c_str(), 1);
        setenv("XDG_RUNTIME_DIR", (m_dir + "/run").c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }

    std::string m_dir;
};

}  // namespace

TEST(IndiPositionRestore, OnlyTheSharedRecordOfAnotherUnitIsUndone)
{
    const CloseNote mine{"AAAAAAAAAAAAAAAA", 31000};
    const CloseNote other{"BBBBBBBBBBBBBBBB", 29000};
    // The SDK gave this unit the other unit's record: this instance's wins.
    EXPECT_EQ(positionToRestore(mine.serial, 29000, mine, other), 31000);
    // Where this instance left it, or moved since (by hand, by another program): kept.
    EXPECT_EQ(positionToRestore(mine.serial, 31000, mine, other), std::nullopt);
    EXPECT_EQ(positionToRestore(mine.serial, 25000, mine, other), std::nullopt);
    // This unit closed last: the SDK's record is its own.
    EXPECT_EQ(positionToRestore(mine.serial, 29000, mine, CloseNote{mine.serial, 29000}), std::nullopt);
    // A record of another unit, no record, no serial, no note: nothing to undo.
    EXPECT_EQ(positionToRestore(mine.serial, 29000, other, other), std::nullopt);
    EXPECT_EQ(positionToRestore(mine.serial, 29000, std::nullopt, other), std::nullopt);
    EXPECT_EQ(positionToRestore("", 29000, mine, other), std::nullopt);
    EXPECT_EQ(positionToRestore(mine.serial, 29000, mine, std::nullopt), std::nullopt);
}

TEST_F(IndiHostRecords, CloseNoteKeepsTheLastUnitClosed)
{
    EXPECT_EQ(lastClose(), std::nullopt);
    noteClose("AAAAAAAAAAAAAAAA", 31000);
    noteClose("", 5);  // a unit without serial leaves no note
    noteClose("BBBBBBBBBBBBBBBB", 29000);
    const auto note = lastClose();
    ASSERT_TRUE(note.has_value());
    EXPECT_EQ(note->serial, "BBBBBBBBBBBBBBBB");
    EXPECT_EQ(note->position, 29000);
}

TEST_F(IndiHostRecords, UnitLocksExcludeEachOtherAndNameTheirHolder)
{
    const std::string path = unitLockPath("AAAAAAAAAAAAAAAA");
    ASSERT_EQ(path, m_dir + "/run/nkr-focuser/unit-AAAAAAAAAAAAAAAA.lock");
    FileLock first;
    ASSERT_TRUE(first.lock(path, true, std::chrono::milliseconds(0)));
    first.write("Main Focuser (pid 1)");
    FileLock second;
    EXPECT_FALSE(second.lock(path, true, std::chrono::milliseconds(40)));
    EXPECT_EQ(FileLock::readText(path), "Main Focuser (pid 1)");
    first.unlock();
    EXPECT_TRUE(second.lock(path, true, std::chrono::milliseconds(0)));

    // Moves share the probe lock; a scan needs it alone.
    FileLock moveA, moveB, scan;
    ASSERT_TRUE(moveA.lock(probeLockPath(), false, std::chrono::milliseconds(0)));
    EXPECT_TRUE(moveB.lock(probeLockPath(), false, std::chrono::milliseconds(0)));
    EXPECT_FALSE(scan.lock(probeLockPath(), true, std::chrono::milliseconds(0)));
    moveA.unlock();
    moveB.unlock();
    EXPECT_TRUE(scan.lock(probeLockPath(), true, std::chrono::milliseconds(0)));
}

TEST_F(IndiHostRecords, LockDirectoryMustBePrivate)
{
    std::filesystem::create_directory(m_dir + "/run/nkr-focuser");
    std::filesystem::permissions(m_dir + "/run/nkr-focuser", std::filesystem::perms::all);
    EXPECT_EQ(lockDirectory(), "");
    EXPECT_EQ(unitLockPath("X"), "");
}
