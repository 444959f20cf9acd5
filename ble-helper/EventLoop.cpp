#include "EventLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace blueshim {
namespace {

// Milliseconds until sd-bus's own next deadline (absolute CLOCK_MONOTONIC), or -1.
int pollTimeout(sd_bus* bus)
{
    uint64_t deadline = 0;
    if (sd_bus_get_timeout(bus, &deadline) < 0 || deadline == UINT64_MAX) {
        return -1;
    }
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    uint64_t now = static_cast<uint64_t>(ts.tv_sec) * 1'000'000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
    if (deadline <= now) {
        return 0;
    }
    uint64_t ms = (deadline - now + 999) / 1000;
    return ms > 60'000 ? 60'000 : static_cast<int>(ms);
}

}  // namespace

EventLoop::EventLoop(sd_bus* bus) : m_bus(bus) {}

EventLoop::~EventLoop() { stop(); }

bool EventLoop::start()
{
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wakeFd < 0) {
        return false;
    }
    try {
        m_thread = std::thread([this] { run(); });
    } catch (...) {
        close(m_wakeFd);
        m_wakeFd = -1;
        return false;
    }
    return true;
}

void EventLoop::stop()
{
    if (m_thread.joinable()) {
        uint64_t one = 1;
        ssize_t ignored = write(m_wakeFd, &one, sizeof one);
        (void)ignored;
        m_thread.join();
    }
    if (m_wakeFd >= 0) {
        close(m_wakeFd);
        m_wakeFd = -1;
    }
}

void EventLoop::exitAndThen(std::function<void()> last)
{
    m_last = std::move(last);
    m_exit = true;
    m_thread.detach();
}

void EventLoop::run()
{
    bool busAlive = true;
    for (;;) {
        if (m_exit) {
            // `last` frees this object: nothing may touch a member after it.
            std::function<void()> last = std::move(m_last);
            if (last) {
                last();
            }
            return;
        }
        if (busAlive) {
            int r = 0;
            while (!m_exit && (r = sd_bus_process(m_bus, nullptr)) > 0) {
            }
            // A broken connection stays broken: keep waiting for stop only.
            busAlive = r >= 0;
            if (m_exit) {
                continue;
            }
        }
        pollfd fds[2] = {};
        fds[0].fd = busAlive ? sd_bus_get_fd(m_bus) : -1;
        fds[0].events = busAlive ? static_cast<short>(sd_bus_get_events(m_bus)) : 0;
        fds[1].fd = m_wakeFd;
        fds[1].events = POLLIN;
        int timeout = busAlive ? pollTimeout(m_bus) : -1;
        if (poll(fds, 2, timeout) < 0 && errno != EINTR) {
            return;
        }
        if (fds[1].revents & POLLIN) {
            return;
        }
    }
}

}  // namespace blueshim
