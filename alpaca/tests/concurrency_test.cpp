// Calls on one unit wait for each other; calls on another unit do not.
#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "alpaca_fixture.h"

namespace alpaca::test {
namespace {

TEST_F(AlpacaTest, ConcurrencyASlowUnitNeverBlocksAnother)
{
    connect(0);
    connect(1);
    std::shared_ptr<Unit> slow = registry_->find(0);
    ASSERT_TRUE(slow);
    // Hold unit 0 inside an SDK call, as a slow Bluetooth exchange would.
    std::mutex m;
    std::condition_variable cv;
    bool inside = false, release = false;
    std::thread holder([&] {
        registry_->call(*slow, [&](int) {
            std::unique_lock lock(m);
            inside = true;
            cv.notify_all();
            cv.wait(lock, [&] { return release; });
            return 0;
        });
    });
    {
        std::unique_lock lock(m);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return inside; }));
    }
    // A client of unit 0 waits; a client of unit 1 is answered meanwhile.
    auto waiting = std::async(std::launch::async, [this] {
        httplib::Client other("127.0.0.1", port_);
        auto res = other.Get(device(0, "position"));
        return res ? json::parse(res->body, nullptr, false) : json();
    });
    EXPECT_EQ(get(device(1, "position"))["Value"], 30000);
    EXPECT_EQ(get(device(1, "temperature"))["ErrorNumber"], 0);
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    {
        std::lock_guard lock(m);
        release = true;
    }
    cv.notify_all();
    holder.join();
    EXPECT_EQ(waiting.get()["Value"], 30000);
}

}  // namespace
}  // namespace alpaca::test
