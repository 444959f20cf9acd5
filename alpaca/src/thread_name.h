// Names the calling thread as `top -H`, `ps -L` and /proc show it (at most 15
// characters), so that a look at a server left running all night tells which
// of its threads is busy.
#pragma once

#include <pthread.h>

namespace alpaca {

inline void nameThisThread(const char* name) { pthread_setname_np(pthread_self(), name); }

}  // namespace alpaca
