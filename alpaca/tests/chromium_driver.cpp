#include "chromium_driver.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <thread>
#include <vector>

extern char** environ;

namespace alpaca::test {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr auto kAnswerLimit = std::chrono::seconds(30);

std::string fromBase64(const std::string& text)
{
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        int v = c >= 'A' && c <= 'Z' ? c - 'A' : c >= 'a' && c <= 'z' ? c - 'a' + 26 : c >= '0' && c <= '9' ? c - '0' + 52
              : c == '+' ? 62 : c == '/' ? 63 : -1;
        if (v < 0) continue;
        bits = (bits << 6) | static_cast<unsigned>(v);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xff));
        }
    }
    return out;
}

}  // namespace

Chromium::~Chromium() { stop(); }

bool Chromium::start(const std::string& executable, const std::filesystem::path& profile)
{
    std::signal(SIGPIPE, SIG_IGN);  // a browser that died is a failed call, not a dead test
    int commands[2], answers[2];
    if (pipe2(commands, O_CLOEXEC) != 0) return false;
    if (pipe2(answers, O_CLOEXEC) != 0) {
        close(commands[0]);
        close(commands[1]);
        return false;
    }
    // The browser reads commands on fd 3 and writes answers on fd 4.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int readEnd = fcntl(commands[0], F_DUPFD_CLOEXEC, 10), writeEnd = fcntl(answers[1], F_DUPFD_CLOEXEC, 10);
    posix_spawn_file_actions_adddup2(&actions, readEnd, 3);
    posix_spawn_file_actions_adddup2(&actions, writeEnd, 4);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> args = {executable,        "--headless",          "--no-sandbox",
                                     "--disable-gpu",   "--disable-quic",      "--no-first-run",
                                     "--disable-background-networking",      "--disable-component-update",
                                     "--disable-sync",  "--hide-scrollbars",   "--remote-debugging-pipe",
                                     "--user-data-dir=" + profile.string(),    "about:blank"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int spawned = posix_spawn(&pid_, executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : {commands[0], answers[1], readEnd, writeEnd}) close(fd);
    toBrowser_ = commands[1];
    fromBrowser_ = answers[0];
    if (spawned != 0) {
        pid_ = -1;
        return false;
    }
    return call("Browser.getVersion", json::object(), false).contains("product");
}

json Chromium::call(const std::string& method, json params, bool inPage)
{
    if (pid_ < 0) return {};
    const int id = nextId_++;
    json message = {{"id", id}, {"method", method}, {"params", std::move(params)}};
    if (inPage) message["sessionId"] = session_;
    std::string text = message.dump();
    text.push_back('\0');
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t n = write(toBrowser_, text.data() + sent, text.size() - sent);
        if (n <= 0) return {};
        sent += static_cast<std::size_t>(n);
    }
    // Events arrive between answers; only the answer with this id counts.
    const auto deadline = Clock::now() + kAnswerLimit;
    while (Clock::now() < deadline) {
        for (std::size_t end; (end = pending_.find('\0')) != std::string::npos;) {
            json answer = json::parse(pending_.substr(0, end), nullptr, false);
            pending_.erase(0, end + 1);
            if (answer.is_object() && answer.value("id", 0) == id) return answer.value("result", json());
        }
        pollfd p{fromBrowser_, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        char buffer[65536];
        const ssize_t n = read(fromBrowser_, buffer, sizeof buffer);
        if (n <= 0) return {};
        pending_.append(buffer, static_cast<std::size_t>(n));
    }
    return {};
}

bool Chromium::open(const std::string& url, int width, int height)
{
    const json target = call("Target.createTarget", {{"url", "about:blank"}}, false);
    if (!target.contains("targetId")) return false;
    const json attached = call("Target.attachToTarget", {{"targetId", target["targetId"]}, {"flatten", true}}, false);
    if (!attached.contains("sessionId")) return false;
    session_ = attached["sessionId"];
    if (!resize(width, height)) return false;
    if (!call("Page.navigate", {{"url", url}}).contains("frameId")) return false;
    return waitFor("document.readyState === 'complete' && location.href !== 'about:blank'");
}

bool Chromium::resize(int width, int height)
{
    return call("Emulation.setDeviceMetricsOverride",
                {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", false}})
        .is_object();
}

json Chromium::eval(const std::string& expression)
{
    const json answer =
        call("Runtime.evaluate", {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}});
    if (!answer.is_object() || answer.contains("exceptionDetails")) return {};
    return answer["result"].value("value", json());
}

bool Chromium::waitFor(const std::string& expression, std::chrono::milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    do {
        if (eval("Boolean(" + expression + ")") == true) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    } while (Clock::now() < deadline);
    return false;
}

bool Chromium::screenshot(const std::filesystem::path& file)
{
    const json shot = call("Page.captureScreenshot", {{"format", "png"}});
    if (!shot.contains("data")) return false;
    std::ofstream(file, std::ios::binary) << fromBase64(shot["data"]);
    return std::filesystem::file_size(file) > 0;
}

void Chromium::stop()
{
    if (pid_ > 0) {
        call("Browser.close", json::object(), false);
        // Closed on its own within a few seconds, or ended.
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        pid_ = -1;
    }
    for (int* fd : {&toBrowser_, &fromBrowser_})
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
}

}  // namespace alpaca::test
