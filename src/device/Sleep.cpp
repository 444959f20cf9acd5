#include "Sleep.h"

#include <atomic>
#include <unistd.h>

namespace nkr {
namespace {
std::atomic<SleepHook> g_sleepHook{nullptr};
}

void sleepMicros(unsigned microseconds)
{
    if (SleepHook hook = g_sleepHook.load(std::memory_order_acquire)) {
        hook(microseconds);
        return;
    }
    usleep(microseconds);
}

void setSleepHook(SleepHook hook) { g_sleepHook.store(hook, std::memory_order_release); }
}  // namespace nkr
