// Host threads tracking while report cycles run and the host drives the
// lifecycle: run under ThreadSanitizer as well. (First calls from many threads
// and tracking alone have their own concurrency tests; this one turns the whole
// lifecycle against real report cycles.)
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"
#include "support/CollectorProcess.h"
#include "support/LogCapture.h"
#include "support/ReportPipeline.h"

#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

namespace {

using Events = std::vector<std::shared_ptr<ZUBProEvent>>;

// Eight threads report plain events (as a plug-in does) and ask for the session id.
Events trackOnThreads(int each) {
    std::vector<Events> made(8);
    std::vector<std::thread> workers;
    for (int t = 0; t < 8; ++t) {
        workers.emplace_back([&made, t, each] {
            for (int i = 0; i < each; ++i) {
                auto e = std::make_shared<ZUBProEvent>();
                e->setType(4000 + t);
                e->setSid(ZUBPro::getSessionID(i % 16 == 0));
                e->setTs(zub::Clock::nowSeconds());
                ZUBPro::reportEvent(e);
                made[static_cast<std::size_t>(t)].push_back(std::move(e));
            }
        });
    }
    for (auto& w : workers) w.join();
    Events all;
    for (auto& events : made) all.insert(all.end(), events.begin(), events.end());
    return all;
}

// The keys the filed events got.
std::set<std::string> keysOf(const Events& events) {
    std::set<std::string> keys;
    for (const auto& e : events) keys.insert(e->md5().value_or("<none>"));
    return keys;
}

}  // namespace

TEST(ReportPipelineConcurrency, HostThreadsTrackWhileCyclesRunAndTheLifecycleTurns) {
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    ZUB_START_COLLECTOR(collector, {"--quiet"});
    zubtest::LogCapture quiet(false);  // the base event's "super encode" lines stay here
    ZUBPro::setReportStrategy(1);
    ASSERT_TRUE(zubtest::reportTo(collector.url("")));
    ZUBPro::startWithAppKey("app-threads");

    // Phase one: the threads track while the host turns the lifecycle. Saving and
    // then loading replaces the dictionaries by design, so this phase checks only
    // that nothing races, crashes or arrives that was never reported.
    std::atomic<bool> tracking{true};
    std::thread host([&] {
        while (tracking.load()) {
            ZUBPro::onWillApplicationResignActive();
            ZUBPro::onWillApplicationEnterBackground();
            ZUBPro::onApplicationDidBecomeActive();
            ZUBPro::onDidApplicationBecomeActive();
            ZUBPro::onWillApplicationWillTerminate();
            (void)ZUBPro::getDeviceIDs();
        }
    });
    const Events first = trackOnThreads(150);
    tracking = false;
    host.join();
    // Phase two: no lifecycle calls, so every event must arrive.
    const Events second = trackOnThreads(50);
    ASSERT_TRUE(zubtest::settlePipeline());
    std::set<std::string> reported = keysOf(first);
    const std::set<std::string> secondKeys = keysOf(second);
    reported.insert(secondKeys.begin(), secondKeys.end());
    ASSERT_EQ(reported.size(), 8u * 200u);  // every event got its own key

    std::set<std::string> stored;
    for (const auto& row : collector.storedEvents()) {
        const zub::Value& e = row["event"];
        if (e["et"].get<std::int64_t>() == 2) continue;  // session events
        const std::string m5 = e["m5"].get<std::string>();
        EXPECT_TRUE(reported.count(m5)) << "never reported: " << e;
        stored.insert(m5);
    }
    for (const auto& key : secondKeys) EXPECT_TRUE(stored.count(key)) << "lost: " << key;
    EXPECT_FALSE(ZUBEventLogic::getInstance().isSendingCacheEvent());
}
