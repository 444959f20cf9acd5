// Diagnostic log: pruning at start-up and the shape of a written line. The
// directory checks against a hostile /tmp run in whole sessions in FaultLog.
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <sys/time.h>
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
    std::ofstream(path) << "x";
    struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
    utimes(path.c_str(), times);
}

bool isRealDir(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(Log, PruningKeepsTheTwentyNewestTxtFiles)
{
    // The test process's own HOME (test_main.cpp) holds the directory.
    const std::string home = std::getenv("HOME");
    const std::string dir = home + "/logs/";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const time_t base = 1700000000;
    touch(dir + "notes.txt.bak", base);  // oldest, and counted: its name contains ".txt"
    char name[32];
    for (int i = 1; i <= 24; ++i) {
        std::snprintf(name, sizeof name, "log_%02d.txt", i);
        touch(dir + name, base + 10 * i);
    }
    // Not regular files or not ".txt": never counted (the newest two would push
    // log_05 out) and never deleted (old.log is the oldest of all).
    mkdir((dir + "x.txt").c_str(), 0755);
    touch(dir + "old.log", base - 50);
    touch(home + "/target", base - 60);
    symlink((home + "/target").c_str(), (dir + "link.txt").c_str());

    nkrlog::removeOldLogFiles(dir, 20);

    std::set<std::string> left = listDir(dir);
    for (const char* gone : {"notes.txt.bak", "log_01.txt", "log_02.txt", "log_03.txt", "log_04.txt"})
        EXPECT_EQ(left.count(gone), 0u) << gone;
    for (int i = 5; i <= 24; ++i) {
        std::snprintf(name, sizeof name, "log_%02d.txt", i);
        EXPECT_EQ(left.count(name), 1u) << name;
    }
    EXPECT_TRUE(isRealDir(dir + "x.txt"));
    EXPECT_EQ(left.count("old.log"), 1u);
    EXPECT_EQ(left.count("link.txt"), 1u);
    EXPECT_EQ(left.size(), 23u);

    // At or under the limit nothing goes.
    nkrlog::removeOldLogFiles(dir, 20);
    EXPECT_EQ(listDir(dir).size(), 23u);
    nkrlog::removeOldLogFiles(dir + "missing/", 20);  // only a message on stderr
}

TEST(Log, LinesCarryTimeLevelAndSourceInTheFileOfTheStartSecond)
{
    EXPECT_EQ(nkrlog::currentLogFile(), "");
    LogInfo("dropped before the logger exists", "log_test", 1, "f");

    if (!nkrlog::prepareLogDir()) GTEST_SKIP() << "log directory unusable on this machine";
    // Files of this second and the next ones, as ended processes leave them.
    const time_t before = time(nullptr);
    for (time_t t = before; t <= before + 2; ++t) nkrlog::claimLogFile(nkrlog::kLogDir, t, nullptr);
    InitLogger();
    const time_t after = time(nullptr);
    const std::string file = nkrlog::currentLogFile();
    if (file.empty()) GTEST_SKIP() << "log directory unusable on this machine";
    // Named after the second the logger started in, even though that file
    // exists already (the processes of one second share it).
    std::set<std::string> startSeconds;
    for (time_t t = before; t <= after; ++t) {
        char name[64];
        struct tm local {};
        localtime_r(&t, &local);
        strftime(name, sizeof name, "/tmp/htx/log/nkr_sdk/log_%Y-%m-%d_%H-%M-%S.txt", &local);
        startSeconds.insert(name);
    }
    EXPECT_EQ(startSeconds.count(file), 1u) << file;
    auto logger = spdlog::get("rotating_file_logger");
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger, spdlog::default_logger());

    // A second set-up (a second device object) keeps the same logger and file.
    InitLogger();
    EXPECT_EQ(nkrlog::currentLogFile(), file);
    EXPECT_EQ(spdlog::get("rotating_file_logger"), logger);

    const std::string marker = "marker-" + std::to_string(getpid()) + "-" +
                               std::to_string(reinterpret_cast<uintptr_t>(&marker));
    LogInfo(marker + "-info", "log_test", 42, "someFunc");
    LogDebug(marker + "-debug", "log_test", 43, "otherFunc");
    const int line = __LINE__ + 1;
    NKR_LOG("%s-macro %d", marker.c_str(), 7);
    logger->flush();

    const std::string stamp = "^\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\] ";
    const std::regex info(stamp + "\\[info\\] \\[log_test:42 someFunc\\] " + marker + "-info$");
    const std::regex debug(stamp + "\\[debug\\] \\[log_test:43 otherFunc\\] " + marker + "-debug$");
    const std::regex macro(stamp + "\\[info\\] \\[log_test:" + std::to_string(line) +
                           " TestBody\\] " + marker + "-macro 7$");
    int matched = 0;
    std::ifstream in(file);
    for (std::string text; std::getline(in, text);) {
        if (text.find(marker) == std::string::npos) continue;
        EXPECT_TRUE(std::regex_match(text, info) || std::regex_match(text, debug) ||
                    std::regex_match(text, macro))
            << text;
        ++matched;
    }
    EXPECT_EQ(matched, 3);
}

}  // namespace
