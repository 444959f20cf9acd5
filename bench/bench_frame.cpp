// Diagnostic: the synchronisation every framed USB call must do, alone. The
// busy flag goes up with a full barrier before locks-ready is read (so that
// a concurrent close either waits for it or is seen), the slot lock of the
// export is taken, and the exchange holds the device lock. No call through
// the export can cost less than this.
#include <benchmark/benchmark.h>

#include "api/Registry.h"

namespace {

constexpr int kFrameIndex = 19;  // NKRGetPosition's

void frameSynchronisation(benchmark::State& state)
{
    static SlotLockRecord slot;
    static S_MUTEX_UNIX device;
    InitCriSecNKR(&slot.locks[kFrameIndex]);
    InitCriSecNKR(&device);
    slot.locksReady.store(1);
    for (auto _ : state) {
        slot.busy[kFrameIndex].store(1);
        const bool locked = slot.locksReady.load() == 1;
        if (locked) pthread_mutex_lock(&slot.locks[kFrameIndex].mutex);
        pthread_mutex_lock(&device.mutex);
        benchmark::ClobberMemory();
        pthread_mutex_unlock(&device.mutex);
        if (locked) pthread_mutex_unlock(&slot.locks[kFrameIndex].mutex);
        slot.busy[kFrameIndex].store(0);
    }
    DelCriSecNKR(&device);
    DelCriSecNKR(&slot.locks[kFrameIndex]);
}

}  // namespace

BENCHMARK(frameSynchronisation)->Name("usb/frame_synchronisation");
