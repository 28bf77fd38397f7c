#include "Platform/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

using namespace std::chrono_literals;

TEST(SerialQueue, RunsInOrderOnItsOwnNamedThreadSyncAndFlush) {
    zub::SerialQueue queue("ZUBHttpDispatcher");
    std::vector<int> order;
    std::string name;
    for (int i = 0; i < 100; ++i) queue.async([&order, i] { order.push_back(i); });
    queue.async([&] {
        char buf[32] = {0};
        pthread_getname_np(pthread_self(), buf, sizeof buf);
        name = buf;
        EXPECT_TRUE(queue.isCurrent());
    });
    ASSERT_TRUE(queue.flush(10s));
    EXPECT_FALSE(queue.isCurrent());
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(name, "ZUBHttpDispatch");  // truncated to the kernel's 15 characters
    EXPECT_TRUE(queue.flush(1ms));      // nothing left

    int value = 0;
    queue.async([] { throw std::runtime_error("boom"); });
    queue.sync([&] { value = 1; });
    EXPECT_EQ(value, 1);
    // sync from the worker runs in place instead of deadlocking.
    queue.sync([&] { queue.sync([&] { value = 2; }); });
    EXPECT_EQ(value, 2);
    EXPECT_THROW(queue.sync([] { throw std::logic_error("to caller"); }), std::logic_error);

    // flush gives up when a task outlasts the timeout, and catches up afterwards.
    std::promise<void> gate;
    auto opened = gate.get_future().share();
    queue.async([opened] { opened.wait(); });
    EXPECT_FALSE(queue.flush(20ms));
    gate.set_value();
    EXPECT_TRUE(queue.flush(10s));
}

TEST(SerialQueueConcurrency, ManyProducersLoseNothing) {
    std::atomic<int> sum{0};
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    {
        zub::SerialQueue queue("producers");
        std::vector<std::thread> producers;
        for (int t = 0; t < 8; ++t) {
            producers.emplace_back([&] {
                for (int i = 0; i < 2000; ++i) {
                    queue.async([&] {
                        if (running.fetch_add(1) != 0) overlapped = true;
                        sum.fetch_add(1);
                        running.fetch_sub(1);
                    });
                }
            });
        }
        for (auto& p : producers) p.join();
        // Destruction runs what was submitted, then joins.
    }
    EXPECT_EQ(sum.load(), 16000);
    EXPECT_FALSE(overlapped.load());
}
