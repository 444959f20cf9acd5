#include "ConnectStateTrampolines.h"

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

namespace bletrampoline {

namespace {

using Callable = IBluetoothLEManager::ConnectStateCallback;

struct Slot {
    std::mutex lock;
    std::condition_variable idle;
    // Shared so that a report in progress keeps its copy alive while the
    // owner replaces or drops it.
    std::shared_ptr<const Callable> callable;
    int running = 0;  // reports currently inside the callable
    bool taken = false;
};

// Never destroyed: a helper thread may still report while the process exits.
Slot& slotAt(int index)
{
    static Slot* const slots = new Slot[kSlotCount];
    return slots[index];
}
// The reports the current thread is running, innermost first.
struct ActiveReport {
    int slot;
    bool unbound;  // the slot was unbound while this report ran
    ActiveReport* outer;
};
thread_local ActiveReport* t_innermost = nullptr;

void dispatch(int index, bool connected)
{
    Slot& slot = slotAt(index);
    std::shared_ptr<const Callable> callable;
    {
        std::lock_guard<std::mutex> hold(slot.lock);
        if (!slot.callable) return;
        callable = slot.callable;
        ++slot.running;
    }
    ActiveReport me{index, false, t_innermost};
    t_innermost = &me;
    try {
        (*callable)(connected);
    } catch (...) {
        // Nothing may unwind into the helper library's thread.
    }
    t_innermost = me.outer;
    callable.reset();
    std::lock_guard<std::mutex> hold(slot.lock);
    --slot.running;
    slot.idle.notify_all();
}

template <int N>
void trampoline(bool connected)
{
    dispatch(N, connected);
}

template <int... I>
constexpr std::array<BleConnectStateFn, sizeof...(I)> makeTable(std::integer_sequence<int, I...>)
{
    return {&trampoline<I>...};
}

constexpr auto kTrampolines = makeTable(std::make_integer_sequence<int, kSlotCount>{});

bool validSlot(int slot) { return slot >= 0 && slot < kSlotCount; }

}  // namespace

int acquire()
{
    for (int i = 0; i < kSlotCount; ++i) {
        Slot& slot = slotAt(i);
        std::lock_guard<std::mutex> hold(slot.lock);
        if (!slot.taken) {
            slot.taken = true;
            return i;
        }
    }
    return -1;
}

BleConnectStateFn function(int slot)
{
    return validSlot(slot) ? kTrampolines[static_cast<size_t>(slot)] : nullptr;
}

void bind(int slot, Callable callable)
{
    if (!validSlot(slot)) return;
    auto fresh = std::make_shared<const Callable>(std::move(callable));
    Slot& s = slotAt(slot);
    std::lock_guard<std::mutex> hold(s.lock);
    fresh.swap(s.callable);  // the old callable is released outside the lock
}

void unbind(int slot)
{
    if (!validSlot(slot)) return;
    Slot& s = slotAt(slot);
    std::shared_ptr<const Callable> old;
    {
        std::unique_lock<std::mutex> hold(s.lock);
        old.swap(s.callable);
        int mine = 0;
        for (ActiveReport* r = t_innermost; r != nullptr; r = r->outer) {
            if (r->slot != slot) continue;
            r->unbound = true;
            ++mine;
        }
        s.idle.wait(hold, [&] { return s.running <= mine; });
    }
}

bool reportCancelled()
{
    return t_innermost != nullptr && t_innermost->unbound;
}

void release(int slot)
{
    if (!validSlot(slot)) return;
    Slot& s = slotAt(slot);
    std::lock_guard<std::mutex> hold(s.lock);
    s.callable.reset();
    s.taken = false;
}

}  // namespace bletrampoline
