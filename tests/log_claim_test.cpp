// Diagnostic log files shared by many processes in one directory: pruning
// spares the files of processes still running, processes started in one
// second write one file named after that second, and its writers never tear
// each other's lines, also across rotations. The other processes are real
// children.
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

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

// The library's name for a start time, written out independently.
std::string nameFor(time_t when)
{
    char stamp[64];
    struct tm local {};
    localtime_r(&when, &local);
    strftime(stamp, sizeof stamp, "log_%Y-%m-%d_%H-%M-%S.txt", &local);
    return stamp;
}

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

TEST(LogClaim, ProcessesStartedInOneSecondShareTheFileOfThatSecond)
{
    const std::string dir = freshDir("same-second");
    const time_t start = 1700000000;
    RunningProcess first(dir, start);
    EXPECT_EQ(nameOf(first.path()), nameFor(start));

    // Beside a running process, and after it ended: the name stays that of
    // the start second, never a later one.
    int fd = -1;
    EXPECT_EQ(nameOf(nkrlog::claimLogFile(dir, start, &fd)), nameFor(start));
    first.release();
    int again = -1;
    EXPECT_EQ(nameOf(nkrlog::claimLogFile(dir, start, &again)), nameFor(start));
    int later = -1;
    EXPECT_EQ(nameOf(nkrlog::claimLogFile(dir, start + 1, &later)), nameFor(start + 1));
    EXPECT_EQ(listDir(dir), (std::set<std::string>{nameFor(start), nameFor(start + 1)}));

    // The shared file stays in use while one of its writers runs.
    for (const std::string& file : listDir(dir)) touch(dir + file, start);
    for (int i = 0; i < 30; ++i) touch(dir + "new_" + std::to_string(i) + ".txt", start + 60 + i);
    close(again);
    close(later);
    nkrlog::removeOldLogFiles(dir, 20);
    auto left = listDir(dir);
    EXPECT_EQ(left.count(nameFor(start)), 1u);
    EXPECT_EQ(left.count(nameFor(start + 1)), 0u);
    close(fd);
    nkrlog::removeOldLogFiles(dir, 20);
    EXPECT_EQ(listDir(dir).count(nameFor(start)), 0u);
}

// Processes started in one second log into their shared file at once,
// lines of many lengths, through several rotations.
TEST(LogClaim, WritersOfOneFileNeverTearLinesAndRotateItTogether)
{
    const std::string dir = freshDir("two-writers");
    const time_t start = 1700000000;
    constexpr size_t kMaxSize = 4096, kMaxFiles = 200, kLongest = 600;
    constexpr int kWriters = 3, kLines = 400;
    // Line i of writer w: its own letter, a length that varies from line to line.
    auto payload = [](int w, int i) {
        return std::string(1 + (i * 37 + w * 101) % kLongest, static_cast<char>('a' + w));
    };
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        if (pid == 0) {
            close(go[1]);
            auto logger = nkrlog::openLogger(dir, start, kMaxSize, kMaxFiles);
            char c;
            if (!logger || read(go[0], &c, 1) != 0) _exit(1);  // all start together
            for (int i = 0; i < kLines; ++i)
                logger->info("w{} {} {}", w, i, payload(w, i));
            _exit(0);
        }
        writers.push_back(pid);
    }
    close(go[0]);
    close(go[1]);
    for (pid_t pid : writers) {
        int status = -1;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    // Oldest first: log_X.N.txt ... log_X.1.txt, log_X.txt.
    const std::string base = nameFor(start);
    const std::string stem = base.substr(0, base.size() - 4);
    std::vector<std::string> files;
    for (size_t n = kMaxFiles; n > 0; --n)
        if (storetest::exists(dir + stem + "." + std::to_string(n) + ".txt"))
            files.push_back(stem + "." + std::to_string(n) + ".txt");
    files.push_back(base);
    EXPECT_EQ(listDir(dir).size(), files.size()) << "only the file and its numbered rotations";
    EXPECT_GT(files.size(), 10u);

    const std::regex whole(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[info\] w(\d) (\d+) ([a-z]+)$)");
    std::map<int, int> next;  // per writer: the line it must write next
    for (const std::string& file : files) {
        const std::string text = storetest::readFile(dir + file);
        // Each writer may add one line past the limit; never a whole second share.
        EXPECT_LE(text.size(), kMaxSize + kWriters * (kLongest + 64)) << file;
        // Rotated once, when full: not again by the other writer, which finds it rotated.
        if (file != base) EXPECT_GE(text.size() + kLongest + 64, kMaxSize) << file;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, whole)) << file << ": " << line;
            const int w = std::stoi(m[1]), i = std::stoi(m[2]);
            EXPECT_EQ(m[3].str(), payload(w, i)) << line;
            EXPECT_EQ(i, next[w]) << "writer " << w << " in " << file;  // none lost, none out of order
            next[w] = i + 1;
        }
    }
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(next[w], kLines) << "writer " << w;
}

}  // namespace
