#include "Platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using zub::Notification;
using zub::NotificationCenter;

TEST(NotificationCenter, DeliversByNameInOrderOnThePostingThreadToObserversThatMayRemoveAndPost) {
    NotificationCenter center;
    std::vector<std::string> calls;
    const auto poster = std::this_thread::get_id();
    center.addObserver("a", [&](const Notification& n) {
        EXPECT_EQ(std::this_thread::get_id(), poster);
        calls.push_back("a1:" + std::to_string(std::any_cast<int>(n.object)) + ":" + n.userInfo.dump());
    });
    center.addObserver("b", [&](const Notification&) { calls.push_back("b"); });
    center.addObserver("", [&](const Notification& n) { calls.push_back("all:" + n.name); });
    center.addObserver("a", [&](const Notification& n) { calls.push_back("a2:" + n.name); });
    EXPECT_EQ(center.addObserver("a", nullptr), 0u);

    center.post("a", 7, zub::Value{{"k", 1}});
    EXPECT_EQ(calls, (std::vector<std::string>{"a1:7:{\"k\":1}", "all:a", "a2:a"}));
    calls.clear();
    center.post("c");
    EXPECT_EQ(calls, (std::vector<std::string>{"all:c"}));
    EXPECT_EQ(center.observerCount(), 4u);

    calls.clear();
    center.removeObservers("a");
    center.post("a", 1);
    EXPECT_EQ(calls, (std::vector<std::string>{"all:a"}));
    center.removeObservers("");
    EXPECT_EQ(center.observerCount(), 0u);
    center.removeObserver(12345);  // unknown ids are ignored

    // Observers may remove observers and post while being called.
    int selfRemoving = 0, removedByOther = 0, nested = 0;
    NotificationCenter::ObserverId self = 0, victim = 0;
    self = center.addObserver("n", [&](const Notification&) {
        ++selfRemoving;
        center.removeObserver(self);  // does not wait for its own call
    });
    center.addObserver("n", [&](const Notification&) {
        center.removeObserver(victim);
        center.post("inner");
    });
    victim = center.addObserver("n", [&](const Notification&) { ++removedByOther; });
    center.addObserver("inner", [&](const Notification&) { ++nested; });

    center.post("n");
    center.post("n");
    EXPECT_EQ(selfRemoving, 1);
    EXPECT_EQ(removedByOther, 0) << "removed earlier in the same post";
    EXPECT_EQ(nested, 2);
    EXPECT_EQ(center.observerCount(), 2u);
}

TEST(NotificationCenterConcurrency, RemoveWaitsForCallsOnOtherThreads) {
    NotificationCenter center;
    std::promise<void> entered, release;
    auto releaseFuture = release.get_future().share();
    std::atomic<bool> finished{false};
    const auto id = center.addObserver("slow", [&](const Notification&) {
        entered.set_value();
        releaseFuture.wait();
        finished = true;
    });
    std::thread poster([&] { center.post("slow"); });
    entered.get_future().wait();
    std::thread remover([&] {
        center.removeObserver(id);
        EXPECT_TRUE(finished.load()) << "removeObserver returned while the observer still ran";
    });
    release.set_value();
    remover.join();
    poster.join();
    EXPECT_EQ(center.observerCount(), 0u);
}

TEST(NotificationCenterConcurrency, AddRemovePostFromManyThreads) {
    NotificationCenter& center = NotificationCenter::defaultCenter();
    constexpr int kThreads = 4, kRounds = 300;
    std::atomic<bool> stop{false};
    std::atomic<long> broadcastSeen{0};
    const auto watcher = center.addObserver("tick", [&](const Notification&) { ++broadcastSeen; });

    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string mine = "own-" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                // The observer uses state on this stack frame: after removeObserver
                // it must never run again (the sanitizers see a late call).
                int calls = 0;
                const auto id = center.addObserver(mine, [&calls](const Notification&) { ++calls; });
                center.post(mine);
                center.post("tick", t);
                // One that removes itself while other threads may be calling it.
                std::atomic<NotificationCenter::ObserverId> selfId{0};
                selfId = center.addObserver("tick", [&center, &selfId](const Notification&) {
                    center.removeObserver(selfId.load());
                });
                center.post("tick", t);
                center.removeObserver(selfId);
                center.removeObserver(id);
                if (calls != 1) ++failures;
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) center.post("tick", -1);
    });
    for (int t = 0; t < kThreads; ++t) threads[static_cast<std::size_t>(t)].join();
    stop = true;
    threads.back().join();
    center.removeObserver(watcher);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GE(broadcastSeen.load(), 2L * kThreads * kRounds);
    EXPECT_EQ(center.observerCount(), 0u);
}
