#include "interrupt.h"

#include <csignal>
#include <ctime>

namespace nkrtool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int signalNumber)
{
    g_interrupted = 1;
    // A second Ctrl-C falls back to the default action.
    std::signal(signalNumber, SIG_DFL);
}

}  // namespace

void installInterruptHandler()
{
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return g_interrupted != 0; }

bool sleepUnlessInterrupted(int milliseconds)
{
    // Short slices keep the reaction to Ctrl-C prompt.
    constexpr int kSliceMs = 20;
    for (int waited = 0; waited < milliseconds; waited += kSliceMs) {
        if (interrupted()) return true;
        int slice = milliseconds - waited < kSliceMs ? milliseconds - waited : kSliceMs;
        timespec ts{0, static_cast<long>(slice) * 1000000L};
        nanosleep(&ts, nullptr);
    }
    return interrupted();
}

}  // namespace nkrtool
