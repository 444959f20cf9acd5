// Diagnostic log files shared by many processes in one directory: pruning
// spares the files of processes still running, and processes started in the
// same second never write into one file. The other process is a real child.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>

#include "log/Log.h"
#include "store_test_support.h"

namespace {
using storetest::listDir;

void touch(const std::string& path, time_t mtime)
{
    if (access(path.c_str(), F_OK) != 0) std::ofstream(path) << "x";
    struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
    utimes(path.c_str(), times);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// A child process that has claimed the log file of startTime in dir and holds
// it until release() (as a running program holds its log).
class RunningProcess {
public:
    RunningProcess(const std::string& dir, time_t startTime)
    {
        int toParent[2], toChild[2];
        if (pipe(toParent) != 0 || pipe(toChild) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(toParent[0]);
            close(toChild[1]);
            int fd = -1;
            std::string path = nkrlog::claimLogFile(dir, startTime, &fd);
            std::string line = path + "\n";
            if (write(toParent[1], line.data(), line.size()) < 0) _exit(1);
            char c;
            while (read(toChild[0], &c, 1) > 0) {
            }
            _exit(0);
        }
        close(toParent[1]);
        close(toChild[0]);
        release_ = toChild[1];
        char c;
        while (read(toParent[0], &c, 1) == 1 && c != '\n') path_ += c;
        close(toParent[0]);
    }
    ~RunningProcess() { release(); }
    void release()
    {
        if (release_ >= 0) close(release_);
        release_ = -1;
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    const std::string& path() const { return path_; }

private:
    pid_t pid_ = -1;
    int release_ = -1;
    std::string path_;
};

std::string freshDir(const char* name)
{
    const std::string dir = std::string(std::getenv("HOME")) + "/" + name + "/";
    mkdir(dir.c_str(), 0755);
    return dir;
}

TEST(LogClaim, PruningSparesTheFilesOfARunningProcess)
{
    const std::string dir = freshDir("running");
    const time_t base = 1700000000;
    RunningProcess running(dir, base);
    ASSERT_FALSE(running.path().empty());
    const std::string own = nameOf(running.path());
    const std::string rotated = own.substr(0, own.size() - 4) + ".1.txt";
    // The running process's file and its rotated file are the oldest of all.
    touch(running.path(), base - 100);
    touch(dir + rotated, base - 90);
    char name[32];
    for (int i = 1; i <= 24; ++i) {
        std::snprintf(name, sizeof name, "old_%02d.txt", i);
        touch(dir + name, base + 10 * i);
    }

    nkrlog::removeOldLogFiles(dir, 20);
    auto left = listDir(dir);
    EXPECT_EQ(left.count(own), 1u);
    EXPECT_EQ(left.count(rotated), 1u);
    for (const char* gone : {"old_01.txt", "old_02.txt", "old_03.txt", "old_04.txt"})
        EXPECT_EQ(left.count(gone), 0u) << gone;
    EXPECT_EQ(left.size(), 22u);

    // Once the process has ended its files are as old as they look.
    running.release();
    nkrlog::removeOldLogFiles(dir, 20);
    left = listDir(dir);
    EXPECT_EQ(left.count(own), 0u);
    EXPECT_EQ(left.count(rotated), 0u);
    EXPECT_EQ(left.size(), 20u);
}

TEST(LogClaim, ProcessesStartedInTheSameSecondGetFilesOfTheirOwn)
{
    const std::string dir = freshDir("same-second");
    const time_t start = 1700000000;
    RunningProcess first(dir, start);
    ASSERT_FALSE(first.path().empty());

    int fd = -1;
    const std::string second = nkrlog::claimLogFile(dir, start, &fd);
    ASSERT_FALSE(second.empty());
    EXPECT_NE(second, first.path());
    EXPECT_GE(fd, 0);
    // Still a name of the library's form, one second on.
    const std::regex form(R"(log_\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.txt)");
    EXPECT_TRUE(std::regex_match(nameOf(first.path()), form)) << first.path();
    EXPECT_TRUE(std::regex_match(nameOf(second), form)) << second;
    EXPECT_GT(nameOf(second), nameOf(first.path()));

    // A file a finished process left behind is not taken over either.
    first.release();
    int again = -1;
    const std::string third = nkrlog::claimLogFile(dir, start, &again);
    EXPECT_NE(third, first.path());
    EXPECT_NE(third, second);
    EXPECT_EQ(listDir(dir).size(), 3u);

    // The locks of this process protect its files from a pruning.
    for (const std::string& file : {first.path(), second, third}) touch(file, start);
    for (int i = 0; i < 30; ++i) touch(dir + "new_" + std::to_string(i) + ".txt", start + 60 + i);
    nkrlog::removeOldLogFiles(dir, 20);
    auto left = listDir(dir);
    EXPECT_EQ(left.count(nameOf(second)), 1u);
    EXPECT_EQ(left.count(nameOf(third)), 1u);
    EXPECT_EQ(left.count(nameOf(first.path())), 0u);
    close(fd);
    close(again);
}

}  // namespace
