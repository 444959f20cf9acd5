// Runs the built nkr tool as a subprocess against its simulator, with a
// fresh HOME and state directory per test, and picks values out of its
// JSON output.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace nkrtest {

struct ToolRun {
    int status = -1;
    std::string out, err;

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);)
            if (!line.empty()) result.push_back(line);
        return result;
    }
};

// The text after "key": up to the next , } or ].
inline std::optional<std::string> jsonRaw(const std::string& doc, const std::string& key, size_t from = 0)
{
    std::string marker = "\"" + key + "\":";
    size_t at = doc.find(marker, from);
    if (at == std::string::npos) return std::nullopt;
    at += marker.size();
    size_t end = at;
    if (end < doc.size() && doc[end] == '"') {
        for (++end; end < doc.size() && doc[end] != '"'; ++end)
            if (doc[end] == '\\') ++end;
        return doc.substr(at, end + 1 - at);
    }
    while (end < doc.size() && doc[end] != ',' && doc[end] != '}' && doc[end] != ']') ++end;
    return doc.substr(at, end - at);
}

inline std::optional<long long> jsonInt(const std::string& doc, const std::string& key, size_t from = 0)
{
    auto raw = jsonRaw(doc, key, from);
    if (!raw || raw->empty() || raw->front() == '"' || *raw == "null") return std::nullopt;
    return std::stoll(*raw);
}

// A string member, still escaped as in the JSON text.
inline std::optional<std::string> jsonString(const std::string& doc, const std::string& key, size_t from = 0)
{
    auto raw = jsonRaw(doc, key, from);
    if (!raw || raw->size() < 2 || raw->front() != '"') return std::nullopt;
    return raw->substr(1, raw->size() - 2);
}

// Text output with its wrapped lines joined again: every run of spaces and
// newlines becomes one space.
inline std::string flat(const std::string& text)
{
    std::string out;
    for (char c : text) {
        bool space = c == ' ' || c == '\n';
        if (space && !out.empty() && out.back() == ' ') continue;
        out += space ? ' ' : c;
    }
    return out;
}

inline size_t countOf(const std::string& text, const std::string& piece)
{
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
    return n;
}

class ToolTest : public ::testing::Test {
protected:
    // The tool's HOME lies in the test process's own, which test_main.cpp
    // removes at the end.
    void SetUp() override
    {
#ifndef NKR_TOOL_PATH
        GTEST_SKIP() << "the nkr tool is not part of this build";
#else
        home_ = std::string(std::getenv("HOME")) + "/tool";
        ASSERT_EQ(mkdir(home_.c_str(), 0700), 0);
        ASSERT_EQ(mkdir((home_ + "/run").c_str(), 0700), 0);
#endif
    }

    // Runs "nkr --simulate <args>" (args are shell words) with a private
    // HOME, state and runtime directory (so the simulated world is the test's own); a hung tool is killed after 60 s. interruptAfter: seconds after
    // which the tool gets a SIGINT, as from Ctrl-C (empty: none).
    ToolRun run(const std::string& args, const std::string& interruptAfter = "")
    {
        return runTool("", "--simulate " + args, interruptAfter);
    }

    // Runs "nkr <args>" with extra environment assignments (shell words).
    ToolRun runTool(const std::string& environment, const std::string& args,
                    const std::string& interruptAfter = "")
    {
        ToolRun result;
#ifdef NKR_TOOL_PATH
        std::string errFile = home_ + "/stderr.txt";
        std::string interrupt =
            interruptAfter.empty() ? "" : "timeout --foreground --preserve-status -s INT " + interruptAfter + " ";
        std::string command = "cd '" + home_ + "' && env -u NKR_SIM_ACTIVE -u NKR_SIMULATE -u NKR_SIM_STATE HOME='" + home_ +
                              "' XDG_STATE_HOME='" + home_ + "/state' XDG_RUNTIME_DIR='" + home_ + "/run' " + environment + " timeout -k 5 60 " +
                              interrupt + "'" NKR_TOOL_PATH "' " + args + " 2>'" + errFile + "'";
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) return result;
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) result.out.append(buf, n);
        int raw = pclose(pipe);
        result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        std::ifstream err(errFile);
        result.err.assign(std::istreambuf_iterator<char>(err), std::istreambuf_iterator<char>());
#else
        (void)environment;
        (void)args;
        (void)interruptAfter;
#endif
        return result;
    }

    std::string home_;
};

}  // namespace nkrtest
