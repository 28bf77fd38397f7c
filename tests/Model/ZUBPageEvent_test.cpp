// Page views: timing between begin and end, the referrer chain, limits and logs.
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/KeyedArchiver.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

using zubtest::filedEvents;
using zubtest::jsonOf;

namespace {

bool pageIsOpen(const std::string& page) {
    ZUBTimedTable& table = ZUBEventDal::getInstance().getTimedPageDic();
    std::lock_guard lock(table.mutex);
    return table.entries.contains(page);
}

}  // namespace

TEST(ZUBPageEvent, BeginEndMeasuresSecondsAndChainsReferrers) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;

    ZUBPro::trackPageViewBegin("A");
    EXPECT_TRUE(log.has("[ZUBDebug] set page success,A"));
    EXPECT_EQ(ZUBPageEvent::currentPage(), "A");
    clock.advanceSeconds(7);
    ZUBPro::trackPageViewEnd("A");
    EXPECT_EQ(ZUBPageEvent::currentPage(), std::nullopt);
    EXPECT_FALSE(pageIsOpen("A"));

    ZUBPro::trackPageViewBegin("B");
    clock.advanceSeconds(2);
    ZUBPro::trackPageViewEnd("B");
    // The same page twice in a row: its referrer is written as "-".
    ZUBPro::trackPageViewBegin("B");
    ZUBPro::trackPageViewEnd("B");
    EXPECT_EQ(ZUBPageEvent::lastPage(), "B");

    auto pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 3u);
    const zub::Value a = jsonOf(*pages[0]);
    EXPECT_EQ(a["et"], 1);
    EXPECT_EQ(a["pi"], "A");
    EXPECT_EQ(a["du"], 7);
    EXPECT_FALSE(a.contains("rf")) << "the first page of the process has no referrer";
    // Page events take no timestamp, key or importance of their own.
    EXPECT_EQ(a["ts"], 0);
    EXPECT_FALSE(pages[0]->appkey().has_value());
    EXPECT_FALSE(pages[0]->isImportant());
    EXPECT_EQ(pages[0]->sid(), ZUBSessionEvent::getSessionID(false));

    const zub::Value b = jsonOf(*pages[1]);
    EXPECT_EQ(b["pi"], "B");
    EXPECT_EQ(b["du"], 2);
    EXPECT_EQ(b["rf"], "A");

    EXPECT_EQ(pages[2]->referPage(), "B");
    const zub::Value again = jsonOf(*pages[2]);
    EXPECT_EQ(again["rf"], "-");
    EXPECT_EQ(again["du"], 0);
    EXPECT_EQ(pages[2]->referPage(), "-") << "the event's own referrer is changed, not only its JSON";

    // The first begin opened a session, reported with its own event.
    EXPECT_EQ(filedEvents<ZUBSessionEvent>().size(), 1u);
}

TEST(ZUBPageEvent, DuplicateBeginKeepsFirstStartAndUnknownEndReportsNothing) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;

    ZUBPro::trackPageViewBegin("A");
    clock.advanceSeconds(5);
    ZUBPro::trackPageViewBegin("A");
    EXPECT_TRUE(log.has("[ZUBDebug] Duplicate entry page A"));
    clock.advanceSeconds(5);
    ZUBPro::trackPageViewEnd("A");

    ZUBPro::trackPageViewEnd("B");
    EXPECT_TRUE(log.has("[ZUBDebug] Null entry for page:B"));
    ZUBPro::trackPageViewEnd("A");  // already ended
    EXPECT_TRUE(log.has("[ZUBDebug] Null entry for page:A"));

    auto pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_EQ(pages[0]->duration(), 10);

    // A clock set back gives a negative duration: no lower bound for pages.
    ZUBPro::trackPageViewBegin("C");
    clock.advanceSeconds(-3);
    ZUBPro::trackPageViewEnd("C");
    pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 2u);
    EXPECT_EQ(jsonOf(*pages[1])["du"], -3);
}

TEST(ZUBPageEvent, NamesThatAreNullOrEmptyAreRefused) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;

    ZUBPro::trackPageViewBegin("");
    EXPECT_EQ(ZUBPageEvent::currentPage(), "") << "a begin sets the current page before any check";
    ZUBPro::trackPageViewBegin(std::nullopt);
    EXPECT_EQ(ZUBPageEvent::currentPage(), std::nullopt);
    ZUBPro::trackPageViewEnd("");
    ZUBPro::trackPageViewEnd(std::nullopt);
    ZUBPro::trackPage("", 3);
    ZUBPro::trackPage(std::nullopt, 3);

    const auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "[ZUBDebug] Failed to trace nil/empty page."), 6);
    EXPECT_FALSE(pageIsOpen(""));
    EXPECT_TRUE(filedEvents<ZUBPageEvent>().empty());
}

TEST(ZUBPageEvent, OneMoreOpenPageThanTheTimingLimit) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBProConfig::getInstance().setMaxTimingEventCount(3);

    for (int i = 0; i < 4; ++i) ZUBPro::trackPageViewBegin("p" + std::to_string(i));
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(pageIsOpen("p" + std::to_string(i))) << i;
    EXPECT_FALSE(log.has("[ZUBDebug] Too many page events in memory"));

    ZUBPro::trackPageViewBegin("p4");
    EXPECT_TRUE(log.has("[ZUBDebug] Too many page events in memory"));
    EXPECT_FALSE(log.has("[ZUBDebug] set page success,p4"));
    EXPECT_FALSE(pageIsOpen("p4"));

    // Ending one makes room again.
    ZUBPro::trackPageViewEnd("p0");
    ZUBPro::trackPageViewBegin("p4");
    EXPECT_TRUE(pageIsOpen("p4"));
}

TEST(ZUBPageEvent, ReportedDurationIsTakenAsGivenAndLeavesTimersAlone) {
    zubtest::SteppingClock clock;
    ZUBPro::trackPageViewBegin("open");
    ZUBPro::trackPage("list", static_cast<std::uint64_t>(-5));  // a negative duration, as the host gave it
    ZUBPro::trackPage("detail", 12);
    EXPECT_TRUE(pageIsOpen("open"));
    EXPECT_EQ(ZUBPageEvent::currentPage(), std::nullopt);
    EXPECT_EQ(ZUBPageEvent::lastPage(), "detail");

    auto pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 2u);
    const zub::Value list = jsonOf(*pages[0]);
    EXPECT_EQ(list["du"], -5);
    EXPECT_FALSE(list.contains("rf"));
    const zub::Value detail = jsonOf(*pages[1]);
    EXPECT_EQ(detail["du"], 12);
    EXPECT_EQ(detail["rf"], "list");

    // The timed page that ends now refers to the last reported one.
    ZUBPro::trackPageViewEnd("open");
    pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 3u);
    EXPECT_EQ(jsonOf(*pages[2])["rf"], "detail");
}

TEST(ZUBPageEvent, ArchiveKeepsPageDurationAndReferrer) {
    zubtest::SteppingClock clock;
    zub::ArchiveRegistry::registerType<ZUBPageEvent>("ZUBPageEvent");
    ZUBPageEvent page;
    page.setPage("home");
    page.setReferPage("login");
    page.setDuration(-4);
    page.setSid(99);
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBPageEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(page));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->page(), "home");
    EXPECT_EQ(restored->referPage(), "login");
    EXPECT_EQ(restored->duration(), -4);
    EXPECT_EQ(restored->type(), 1);
    EXPECT_EQ(restored->sid(), 99u);

    // No referrer: none is archived, none comes back, and an absent page and
    // referrer are not "the same page".
    ZUBPageEvent bare;
    bare.setReferPage(std::nullopt);
    const zub::Value json = jsonOf(bare);
    EXPECT_FALSE(json.contains("rf"));
    EXPECT_FALSE(json.contains("pi"));
    EXPECT_EQ(bare.referPage(), std::nullopt);
}
