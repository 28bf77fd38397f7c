// Active time: the two-state machine on the start time, its log lines and the
// reported span.
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBProActiveEvent.h"
#include "Platform/KeyedArchiver.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

using zubtest::filedEvents;
using zubtest::jsonOf;

TEST(ZUBProActiveEvent, ShortSpanCountsOneSecondAndStartsTheEvent) {
    zubtest::SteppingClock clock(1'700'000'500);
    zubtest::LogCapture log;
    clock.advanceMicros(200'000);
    ZUBPro::trackActiveBegin();
    EXPECT_TRUE(log.has("[ZUBDebug] 开始统计活动时间"));
    clock.advanceMicros(400'000);  // under half a second
    ZUBPro::trackActiveEnd();
    EXPECT_TRUE(log.has("[ZUBDebug] 结束统计活动时间"));

    auto events = filedEvents<ZUBProActiveEvent>();
    ASSERT_EQ(events.size(), 1u);
    const zub::Value json = jsonOf(*events[0]);
    EXPECT_EQ(json["et"], 4);
    EXPECT_EQ(json["du"], 1);
    EXPECT_EQ(json["ts"], 1'700'000'500) << "ts is the start, in whole seconds";
}

TEST(ZUBProActiveEvent, SecondBeginKeepsTheStartAndEndWithoutBeginReportsNothing) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBPro::trackActiveEnd();
    EXPECT_TRUE(log.has("[ZUBDebug] 统计活动时间还没开始"));
    EXPECT_TRUE(filedEvents<ZUBProActiveEvent>().empty());

    ZUBPro::trackActiveBegin();
    clock.advanceSeconds(30);
    ZUBPro::trackActiveBegin();
    EXPECT_TRUE(log.has("[ZUBDebug] 统计活动时间已经开始"));
    clock.advanceSeconds(15);
    ZUBPro::trackActiveEnd();
    log.clear();
    ZUBPro::trackActiveEnd();  // back to "not started"
    EXPECT_TRUE(log.has("[ZUBDebug] 统计活动时间还没开始"));
    EXPECT_FALSE(log.contains("统计活动时间异常")) << "the sanity guard never fires in this build";

    auto events = filedEvents<ZUBProActiveEvent>();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->duration(), 45u);
}

TEST(ZUBProActiveEvent, ArchiveKeepsTheDuration) {
    registerEventClasses();
    ZUBProActiveEvent event;
    event.setDuration(77);
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProActiveEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(event));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->duration(), 77u);
    EXPECT_EQ(restored->type(), 4);
}
