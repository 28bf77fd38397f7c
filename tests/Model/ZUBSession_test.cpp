// Session identifiers and the session event: one identifier per second of the
// clock, time-outs, local midnight, the event's own fields, and one session for
// one gap however many threads ask.
#include "Model/ZUBSessionClock.h"
#include "Model/ZUBSessionEvent.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBProEnv.h"
#include "support/FiledEvents.h"
#include "support/ManualClock.h"
#include "support/ModelFixtures.h"
#include "support/ReportPipeline.h"

#include <ZUBCocoa/ZUBPlatform.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <thread>

using zubtest::ManualClock;

namespace {

// 2024-07-01 12:00:00 UTC: far from midnight.
constexpr double kNoon = 1719835200.0;

void useZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
    ZUBProConfig::getInstance().setIsSmartReport(false);  // no report cycles: events only wait
}

// What the C library's process-wide generator gives for a seed.
std::uint64_t referenceId(std::uint64_t seed) {
    srandom(static_cast<unsigned>(seed));
    return static_cast<std::uint64_t>(random());
}

// The session events filed so far, in order.
std::vector<std::shared_ptr<ZUBProEvent>> sessionEvents() {
    EXPECT_TRUE(zubtest::settlePipeline());
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    std::vector<std::shared_ptr<ZUBProEvent>> out;
    for (const auto& [key, e] : store.toReportEvents()) {
        if (e->type() == 2) out.push_back(e);
    }
    return out;
}

}  // namespace

TEST(ZUBSessionClock, OneIdPerSecondAndExpiryAtTheNextLocalMidnight) {
    ManualClock clock;
    clock.setSeconds(1719837000.000);
    EXPECT_EQ(ZUBSessionClock::generateSessionID(), referenceId(1719837000));
    clock.setSeconds(1719837000.999);
    EXPECT_EQ(ZUBSessionClock::generateSessionID(), referenceId(1719837000));
    clock.setSeconds(1719837001.0);
    EXPECT_EQ(ZUBSessionClock::generateSessionID(), referenceId(1719837001));
    EXPECT_EQ(ZUBSessionClock::sessionID(), 0u) << "generation moves only the midnight";

    useZone("JST-9");  // UTC+9, no daylight saving time
    clock.setSeconds(1710082799);  // 2024-03-10 23:59:59 in Tokyo
    ZUBSessionClock::generateSessionID();
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), 1710082799u + 1);
    clock.setSeconds(1710082800);  // 00:00:00
    ZUBSessionClock::generateSessionID();
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), 1710082800u + 86400);
    EXPECT_EQ(ZUBSessionClock::nextLocalMidnight(1710082800 + 12 * 3600 + 61), 1710082800u + 86400);
    useZone("UTC0");
    EXPECT_EQ(ZUBSessionClock::nextLocalMidnight(1710082799), 1710115200u);
}

TEST(ZUBSessionEvent, TimeOutAndLocalMidnightOpenSessionsWhoseEventsCarryTheirKeys) {
    useZone("UTC");
    ManualClock clock;
    clock.setSeconds(kNoon);
    ZUBProConfig::getInstance().setAppkey(std::string("app-session"));
    zub::setBundleInfo("CFBundleIdentifier", "com.example.session");

    const std::uint64_t first = ZUBSessionEvent::getSessionID(true);  // none yet: opens one
    EXPECT_NE(first, 0u);
    ASSERT_EQ(sessionEvents().size(), 1u);
    clock.advanceSeconds(29);
    EXPECT_EQ(ZUBSessionEvent::getSessionID(true), first);
    clock.advanceSeconds(29);  // 29 s after the last call, 58 after the first: still the same
    EXPECT_EQ(ZUBSessionEvent::getSessionID(true), first);
    clock.advanceSeconds(300);
    EXPECT_EQ(ZUBSessionEvent::getSessionID(false), first);  // asking never opens one by time-out
    ASSERT_EQ(sessionEvents().size(), 1u);
    clock.advanceSeconds(30);
    const std::uint64_t second = ZUBSessionEvent::getSessionID(true);
    EXPECT_NE(second, first);
    auto events = sessionEvents();
    ASSERT_EQ(events.size(), 2u);

    // The session event: important, of type 2, with the key's sid and time, and the
    // md5 of sid, ts, type and the session identifier of that second.
    const auto& e = events[1];
    EXPECT_EQ(e->sid(), second);
    EXPECT_EQ(e->ts(), static_cast<std::uint64_t>(kNoon) + 388);
    EXPECT_TRUE(e->isImportant());
    EXPECT_EQ(e->appkey(), "app-session");
    const std::string text =
        std::to_string(second) + std::to_string(e->ts()) + "2" + std::to_string(ZUBSessionEvent::generateSessionID());
    EXPECT_EQ(e->md5(), ZUBProHelper::md5encrypt(text));
    // "jb" only on a jailbroken machine (the probe itself is the environment's test).
    ZUBProEnv::getInstance().setJailbroken(false);
    zubtest::expectKeys(zubtest::jsonOf(*e), {{"bdid", "com.example.session"}}, {"jb"});
    ZUBProEnv::getInstance().setJailbroken(true);
    EXPECT_EQ(zubtest::jsonOf(*e)["jb"], 1);

    // Local midnight ends a session whichever the flag.
    clock.setSeconds(kNoon + 12 * 3600 - 1);  // 23:59:59
    EXPECT_EQ(ZUBSessionEvent::getSessionID(false), second);
    clock.advanceSeconds(1);  // 00:00:00
    EXPECT_NE(ZUBSessionEvent::getSessionID(false), second);
    EXPECT_EQ(sessionEvents().size(), 3u);
}

TEST(ZUBSessionEventConcurrency, ThreadsMeetingOneGapOpenOneSession) {
    useZone("UTC");
    ManualClock clock;
    clock.setSeconds(kNoon);
    const std::uint64_t before = ZUBSessionEvent::getSessionID(true);
    clock.advanceSeconds(45);

    std::vector<std::uint64_t> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < seen.size(); ++t) {
        threads.emplace_back([&seen, t] {
            std::uint64_t id = 0;
            for (int i = 0; i < 50; ++i) id = ZUBSessionEvent::getSessionID(i % 2 == 0);
            seen[t] = id;
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_NE(seen[0], before);
    for (auto id : seen) EXPECT_EQ(id, seen[0]);
    EXPECT_EQ(sessionEvents().size(), 2u);  // the first session and the one after the gap
}
