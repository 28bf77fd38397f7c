// The facade's tracking calls from many threads at once: the timing tables stay
// consistent and every event is recorded exactly once.
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProActiveEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <latch>
#include <map>
#include <thread>

TEST(ZUBProTrackingConcurrency, EightThreadsTimePagesAndEventsWithoutLossOrDoubles) {
    // Every clock reading differs, so no two events share an identity key and the
    // store keeps all of them; whole seconds stand still.
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    constexpr int kThreads = 8;
    constexpr int kRounds = 120;

    std::latch go(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &go] {
            go.arrive_and_wait();
            const std::string own = "e-" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                const std::string page = "p-" + std::to_string(t) + "-" + std::to_string(i);
                // Keys of this thread's own, and keys every thread fights over.
                ZUBPro::trackPageViewBegin(page);
                ZUBPro::trackCustomEventBegin(own, {{"i", i}});
                ZUBPro::trackPageViewBegin("shared");
                ZUBPro::trackCustomEventBegin("shared", zub::Value::object());
                ZUBPro::trackActiveBegin();
                ZUBPro::trackPageViewEnd(page);
                ZUBPro::trackCustomEventEnd(own, {{"i", i}});
                ZUBPro::trackPageViewEnd("shared");
                ZUBPro::trackCustomEventEnd("shared", zub::Value::object());
                ZUBPro::trackActiveEnd();
            }
        });
    }
    for (auto& thread : threads) thread.join();

    std::map<std::string, int> pageCount;
    for (const auto& e : zubtest::filedEvents<ZUBPageEvent>()) ++pageCount[e->page().value_or("<none>")];
    std::map<std::string, int> customCount;
    for (const auto& e : zubtest::filedEvents<ZUBProCustomEvent>()) {
        const std::string id = e->eventID().value_or("<none>");
        ++customCount[id == "shared" ? id : id + "/" + e->kvs()["i"].dump()];
        EXPECT_EQ(e->duration(), 1);
    }

    // Each private key: begun once, ended once, reported once.
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kRounds; ++i) {
            const std::string page = "p-" + std::to_string(t) + "-" + std::to_string(i);
            EXPECT_EQ(pageCount[page], 1) << page;
            const std::string custom = "e-" + std::to_string(t) + "/" + std::to_string(i);
            EXPECT_EQ(customCount[custom], 1) << custom;
        }
    }
    // Shared keys: exactly one event for every begin that was accepted.
    const auto lines = log.lines();
    auto countLines = [&](const std::string& line) { return std::count(lines.begin(), lines.end(), line); };
    const auto sharedTimersBegun = countLines("[ZUBDebug] generated begin key is shared[]");
    const auto activeBegun = countLines("[ZUBDebug] 开始统计活动时间");
    EXPECT_GE(pageCount["shared"], 1);
    EXPECT_EQ(pageCount["shared"], countLines("[ZUBDebug] set page success,shared"));
    EXPECT_EQ(customCount["shared"], sharedTimersBegun);
    EXPECT_EQ(countLines("[ZUBDebug] end key is shared[]"), sharedTimersBegun);
    EXPECT_EQ(static_cast<long>(zubtest::filedEvents<ZUBProActiveEvent>().size()), activeBegun);
    EXPECT_EQ(countLines("[ZUBDebug] 结束统计活动时间"), activeBegun);
    EXPECT_EQ(pageCount.size(), static_cast<std::size_t>(kThreads * kRounds + 1));

    // Nothing is left open.
    for (ZUBTimedTable* table : {&ZUBEventDal::getInstance().getTimedPageDic(), &ZUBEventDal::getInstance().getTimeEventDic()}) {
        std::lock_guard lock(table->mutex);
        EXPECT_TRUE(table->entries.empty()) << table->entries.dump();
    }
}
