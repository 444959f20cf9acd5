// A running nkr tool: started in the background with pipes on stdout and
// stderr, so a test can read its lines as they come, send it a real signal
// or close its output, then collect its exit status.
#pragma once
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace nkrtest {

class LiveTool {
public:
    // Runs "sh -c 'exec env ... nkr ARGS'": the shell is replaced, so pid()
    // is the tool's own process (its --simulate re-exec keeps the pid).
    LiveTool(const std::string& home, const std::string& toolPath, const std::string& args)
    {
        int out[2], err[2];
        if (pipe(out) != 0 || pipe(err) != 0) return;
        std::string command = "exec env -u NKR_SIM_ACTIVE -u NKR_SIMULATE -u NKR_SIM_STATE HOME='" + home +
                              "' XDG_STATE_HOME='" + home + "/state' XDG_RUNTIME_DIR='" + home + "/run' '" + toolPath + "' " + args;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            close(err[0]);
            close(err[1]);
            // The test runner may block or ignore signals; the tool must see them as a shell would.
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            signal(SIGPIPE, SIG_DFL);
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }

    ~LiveTool()
    {
        if (pid_ > 0 && status_ < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        closeOutput();
        if (err_ >= 0) close(err_);
    }

    LiveTool(const LiveTool&) = delete;
    LiveTool& operator=(const LiveTool&) = delete;

    pid_t pid() const { return pid_; }

    // The next line of stdout, waiting at most the given time ("" on
    // time-out or end of output).
    std::string readLine(int timeoutMs = 20000)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            size_t newline = pending_.find('\n');
            if (newline != std::string::npos) {
                std::string line = pending_.substr(0, newline);
                pending_.erase(0, newline + 1);
                return line;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || out_ < 0) return "";
            pollfd fd{out_, POLLIN, 0};
            if (poll(&fd, 1, static_cast<int>(left.count())) <= 0) continue;
            char buf[1024];
            ssize_t n = read(out_, buf, sizeof buf);
            if (n <= 0) return "";
            pending_.append(buf, static_cast<size_t>(n));
        }
    }

    // Reads until a line contains the text; false on time-out.
    bool waitForLine(const std::string& text, std::string* line = nullptr)
    {
        for (int k = 0; k < 400; ++k) {
            std::string l = readLine();
            if (l.find(text) != std::string::npos) {
                if (line != nullptr) *line = l;
                return true;
            }
            if (l.empty()) return false;
        }
        return false;
    }

    void sendSignal(int signalNumber) { kill(pid_, signalNumber); }

    // The reader goes away, as "nkr watch | head" does.
    void closeOutput()
    {
        if (out_ >= 0) close(out_);
        out_ = -1;
    }

    // Waits (bounded: 30 s, then SIGKILL) for the tool to end; returns its
    // exit status, or -1 when it did not exit normally. Collects the rest of
    // stdout and all of stderr.
    int finish()
    {
        std::string rest;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (;;) {
            drain(out_, rest);
            drain(err_, errors_);
            int raw = 0;
            pid_t done = waitpid(pid_, &raw, WNOHANG);
            if (done == pid_) {
                drain(out_, rest);
                drain(err_, errors_);
                status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
                pending_ += rest;
                return status_;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, nullptr, 0);
                status_ = -1;
                return status_;
            }
            usleep(20000);
        }
    }

    // stdout that was not read line by line; stderr (after finish()).
    const std::string& rest() const { return pending_; }
    const std::string& errors() const { return errors_; }

private:
    static void drain(int fd, std::string& into)
    {
        if (fd < 0) return;
        int flags = fcntl(fd, F_GETFL);
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
        char buf[4096];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) into.append(buf, static_cast<size_t>(n));
    }

    pid_t pid_ = -1;
    int out_ = -1, err_ = -1;
    int status_ = -1;
    std::string pending_, errors_;
};

}  // namespace nkrtest
