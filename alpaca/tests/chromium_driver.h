// Headless Chromium driven over its DevTools pipe (--remote-debugging-pipe:
// JSON messages ending in a NUL byte, commands on fd 3, answers on fd 4), so
// a test can click in a page, read it and take screenshots. Every wait is
// bounded; the browser is always ended.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

namespace alpaca::test {

class Chromium {
public:
    Chromium() = default;
    ~Chromium();
    Chromium(const Chromium&) = delete;
    Chromium& operator=(const Chromium&) = delete;

    // Starts the browser with a fresh profile folder; false when it cannot.
    bool start(const std::string& executable, const std::filesystem::path& profile);
    // Opens url in a new page with this viewport; false when that fails.
    bool open(const std::string& url, int width, int height);
    bool resize(int width, int height);
    // The value of a JavaScript expression in the page (promises awaited);
    // null when it throws or the browser does not answer.
    nlohmann::json eval(const std::string& expression);
    // Evaluates the expression until it is true, for at most `limit`.
    bool waitFor(const std::string& expression, std::chrono::milliseconds limit = std::chrono::seconds(20));
    // Writes a PNG of the page as it is now.
    bool screenshot(const std::filesystem::path& file);

private:
    nlohmann::json call(const std::string& method, nlohmann::json params, bool inPage = true);
    void stop();

    pid_t pid_ = -1;
    int toBrowser_ = -1, fromBrowser_ = -1;
    int nextId_ = 1;
    std::string session_;
    std::string pending_;  // bytes read past the last message
};

}  // namespace alpaca::test
