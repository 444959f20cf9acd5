#include "interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace nkrtool {
namespace {

constexpr int kWatchedSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};

std::atomic<int> g_signal{0};
int g_pipe[2] = {-1, -1};

sigset_t watchedSet()
{
    sigset_t set;
    sigemptyset(&set);
    for (int s : kWatchedSignals) sigaddset(&set, s);
    return set;
}

void record(int signalNumber)
{
    int expected = 0;
    g_signal.compare_exchange_strong(expected, signalNumber);
    if (g_pipe[1] >= 0) {
        char byte = 1;
        [[maybe_unused]] ssize_t n = write(g_pipe[1], &byte, 1);
    }
}

void watch(sigset_t set)
{
    for (;;) {
        int signalNumber = 0;
        if (sigwait(&set, &signalNumber) != 0) continue;
        if (g_signal.load() != 0) {
            // The second signal: the person insists, end now.
            _exit(128 + signalNumber);
        }
        record(signalNumber);
    }
}

}  // namespace

void blockTerminatingSignals()
{
    sigset_t set = watchedSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void installInterruptHandler()
{
    static bool installed = false;
    if (installed) return;
    installed = true;
    // A write to a closed pipe then fails with EPIPE, which output.cpp turns
    // into noteBrokenPipe(); a SIGPIPE sent with kill still reaches sigwait.
    blockTerminatingSignals();
    if (pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_pipe[0] = g_pipe[1] = -1;
    std::thread(watch, watchedSet()).detach();
}

bool interrupted() { return g_signal.load() != 0; }

int receivedSignal() { return g_signal.load(); }

const char* signalName(int signalNumber)
{
    switch (signalNumber) {
    case 0: return "";
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    case SIGQUIT: return "SIGQUIT";
    case SIGPIPE: return "SIGPIPE";
    default: return "signal";
    }
}

const char* signalDescription(int signalNumber)
{
    switch (signalNumber) {
    case SIGINT: return "SIGINT (Ctrl-C)";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP (terminal closed)";
    case SIGQUIT: return "SIGQUIT";
    case SIGPIPE: return "SIGPIPE (output closed)";
    default: return "a signal";
    }
}

void noteBrokenPipe() { record(SIGPIPE); }

int interruptFd() { return g_pipe[0]; }

bool sleepUnlessInterrupted(int milliseconds)
{
    if (interrupted()) return true;
    if (g_pipe[0] < 0) {
        usleep(static_cast<useconds_t>(milliseconds) * 1000u);
        return interrupted();
    }
    pollfd fd{g_pipe[0], POLLIN, 0};
    poll(&fd, 1, milliseconds);
    return interrupted();
}

}  // namespace nkrtool
