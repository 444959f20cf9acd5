// Every pause the library takes goes through here, so that tests can run the
// simulated units on their own clock instead of waiting in real time.
#pragma once

namespace nkr {
using SleepHook = void (*)(unsigned microseconds);
// Sleeps for the given time (or hands it to the installed hook).
void sleepMicros(unsigned microseconds);
// Installs a replacement for the real sleep; null restores it. For tests.
void setSleepHook(SleepHook hook);
}  // namespace nkr
