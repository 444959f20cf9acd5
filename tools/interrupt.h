// Terminating signals (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE): they are
// blocked in every thread and taken by one watcher thread with sigwait, which
// only records the signal and wakes a self-pipe. Long-running commands poll
// interrupted() so they can stop the motor and close the unit (which saves
// its position); main then exits with 128 + the signal number. A second
// signal ends the tool at once.
#pragma once

namespace nkrtool {

// Blocks the terminating signals in the calling thread (and so in every
// thread started later, and across the simulator's re-exec). Call first
// thing in main.
void blockTerminatingSignals();
// Starts the watcher thread. Call once, after the re-exec decision.
void installInterruptHandler();

bool interrupted();
// The signal that arrived first, or 0.
int receivedSignal();
// "SIGINT", "SIGTERM", ... ("" for 0).
const char* signalName(int signalNumber);
// "SIGINT (Ctrl-C)", "SIGTERM", ...
const char* signalDescription(int signalNumber);
// Records a broken pipe found by a failed write (SIGPIPE itself is ignored,
// since a signal caused by a write belongs to the writing thread).
void noteBrokenPipe();

// A descriptor that becomes readable once a signal has arrived, for poll().
int interruptFd();

// Sleeps up to the given time, returning early (true) on a signal.
bool sleepUnlessInterrupted(int milliseconds);

}  // namespace nkrtool
