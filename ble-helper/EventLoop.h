// The thread that dispatches one bus connection's signals. It sleeps in
// poll() on the bus fd and an eventfd, so it costs nothing while idle.
#pragma once
#include <systemd/sd-bus.h>

#include <atomic>
#include <functional>
#include <thread>

namespace blueshim {

class EventLoop {
public:
    // `bus` stays owned by the caller and must outlive stop().
    explicit EventLoop(sd_bus* bus);
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    bool start();
    // Wakes the thread and joins it; safe to call twice.
    void stop();

    bool onLoopThread() const { return std::this_thread::get_id() == m_thread.get_id(); }
    // For a stop asked from inside a handler (a callback that destroys its
    // manager): the thread leaves its loop after the handler and runs `last`
    // as its final act, instead of being joined.
    void exitAndThen(std::function<void()> last);

private:
    void run();

    sd_bus* m_bus;
    int m_wakeFd = -1;
    std::thread m_thread;
    std::atomic<bool> m_exit{false};
    std::function<void()> m_last;
};

}  // namespace blueshim
