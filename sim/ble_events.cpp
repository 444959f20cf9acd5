#include "ble_events.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace nkrsim::detail {
namespace {

struct Event {
    void* manager;
    BleConnectStateFn callback;
    bool connected;
};

struct EventQueue {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<Event> events;
    void* inFlight = nullptr;
    bool delivering = false;
    bool stopping = false;
    std::thread thread;
};

// Never destroyed: it is stopped explicitly, also at exit.
EventQueue& queue()
{
    static EventQueue* q = new EventQueue;
    return *q;
}

void run(EventQueue& q)
{
    std::unique_lock<std::mutex> guard(q.lock);
    for (;;) {
        q.changed.wait(guard, [&] { return q.stopping || !q.events.empty(); });
        if (q.stopping) return;
        Event e = q.events.front();
        q.events.pop_front();
        q.inFlight = e.manager;
        q.delivering = true;
        guard.unlock();
        e.callback(e.connected);
        guard.lock();
        q.inFlight = nullptr;
        q.delivering = false;
        q.changed.notify_all();
    }
}

__attribute__((destructor)) void stopAtExit() { stopConnectionEvents(); }

}  // namespace

void postConnectionEvent(void* manager, BleConnectStateFn callback, bool connected)
{
    if (callback == nullptr) return;
    EventQueue& q = queue();
    std::lock_guard<std::mutex> guard(q.lock);
    if (!q.thread.joinable()) {
        q.stopping = false;
        q.thread = std::thread(run, std::ref(q));
    }
    q.events.push_back({manager, callback, connected});
    q.changed.notify_all();
}

void flushConnectionEvents()
{
    EventQueue& q = queue();
    std::unique_lock<std::mutex> guard(q.lock);
    if (q.thread.joinable() && q.thread.get_id() == std::this_thread::get_id()) return;
    q.changed.wait(guard, [&] { return q.stopping || (q.events.empty() && !q.delivering); });
}

void forgetConnectionEvents(void* manager)
{
    EventQueue& q = queue();
    std::unique_lock<std::mutex> guard(q.lock);
    std::erase_if(q.events, [&](const Event& e) { return e.manager == manager; });
    if (q.thread.joinable() && q.thread.get_id() == std::this_thread::get_id()) return;
    q.changed.wait(guard, [&] { return q.inFlight != manager; });
}

void stopConnectionEvents()
{
    EventQueue& q = queue();
    std::thread worker;
    {
        std::lock_guard<std::mutex> guard(q.lock);
        if (!q.thread.joinable() || q.thread.get_id() == std::this_thread::get_id()) return;
        q.stopping = true;
        q.events.clear();
        q.changed.notify_all();
        worker = std::move(q.thread);
    }
    worker.join();
    std::lock_guard<std::mutex> guard(q.lock);
    q.stopping = false;
}

}  // namespace nkrsim::detail
