#include "Model/ZUBSessionClock.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

using zubtest::ManualClock;

namespace {

void useZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

// What the C library's process-wide generator gives for a seed.
std::uint64_t referenceId(std::uint64_t seed) {
    srandom(static_cast<unsigned>(seed));
    return static_cast<std::uint64_t>(random());
}

}  // namespace

TEST(ZUBSessionClock, SameSecondSameIdNextSecondAnother) {
    EXPECT_EQ(ZUBSessionClock::sessionID(), 0u);
    EXPECT_EQ(ZUBSessionClock::lastSessionTs(), 0u);
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), 0u);

    ManualClock clock;
    clock.setSeconds(1719837000.000);
    const std::uint64_t first = ZUBSessionClock::generateSessionID();
    clock.setSeconds(1719837000.999);
    EXPECT_EQ(ZUBSessionClock::generateSessionID(), first);
    EXPECT_EQ(first, referenceId(1719837000));
    EXPECT_LE(first, 2147483647u);

    clock.setSeconds(1719837001.0);
    const std::uint64_t next = ZUBSessionClock::generateSessionID();
    EXPECT_NE(next, first);
    EXPECT_EQ(next, referenceId(1719837001));

    // Generation moves only the midnight; the other state is the session rules'.
    EXPECT_EQ(ZUBSessionClock::sessionID(), 0u);
    ZUBSessionClock::setSessionID(next);
    ZUBSessionClock::setLastSessionTs(1719837001);
    EXPECT_EQ(ZUBSessionClock::sessionID(), next);
    EXPECT_EQ(ZUBSessionClock::lastSessionTs(), 1719837001u);
}

TEST(ZUBSessionClock, ExpiryIsTheNextLocalMidnight) {
    ManualClock clock;
    useZone("JST-9");  // UTC+9, no daylight saving time
    // 2024-03-10 23:59:59 in Tokyo.
    clock.setSeconds(1710082799);
    ZUBSessionClock::generateSessionID();
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), 1710082799u + 1);
    // 2024-03-11 00:00:00 in Tokyo.
    clock.setSeconds(1710082800);
    ZUBSessionClock::generateSessionID();
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), 1710082800u + 86400);
    // Noon.
    EXPECT_EQ(ZUBSessionClock::nextLocalMidnight(1710082800 + 12 * 3600), 1710082800u + 86400);

    useZone("UTC0");
    EXPECT_EQ(ZUBSessionClock::nextLocalMidnight(1710082799), 1710115200u);
    clock.setSeconds(1710115200 - 1);
    ZUBSessionClock::generateSessionID();
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), 1710115200u);
    unsetenv("TZ");
    tzset();
}

TEST(ZUBSessionClockConcurrency, ConcurrentGenerationsAgreeWithinASecond) {
    ManualClock clock;
    clock.setSeconds(1719837000.5);
    const std::uint64_t expected = referenceId(1719837000);
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                if (ZUBSessionClock::generateSessionID() != expected) ++mismatches;
                ZUBSessionClock::setLastSessionTs(static_cast<std::uint64_t>(i));
                ZUBSessionClock::setSessionID(ZUBSessionClock::sessionID() + 0);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(ZUBSessionClock::expireDayTimestamp(), ZUBSessionClock::nextLocalMidnight(1719837000));
}
