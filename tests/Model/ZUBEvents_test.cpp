// The event classes the facade files: what each archives and writes to its JSON,
// then each tracker's own rules (timers, limits, refusals, log lines).
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBLMEvent.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProAccountEvent.h"
#include "Model/ZUBProActiveEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/KeyedArchiver.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/ModelFixtures.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <limits>

using zubtest::filedEvents;
using zubtest::expectKeys;
using zubtest::jsonOf;

namespace {

bool isOpen(ZUBTimedTable& table, const std::string& key) {
    std::lock_guard lock(table.mutex);
    return table.entries.contains(key);
}
bool pageIsOpen(const std::string& page) { return isOpen(ZUBEventDal::getInstance().getTimedPageDic(), page); }
bool timerIsOpen(const std::string& key) { return isOpen(ZUBEventDal::getInstance().getTimeEventDic(), key); }

template <class T, class Fill>
std::shared_ptr<ZUBProEvent> made(Fill fill) {
    auto event = std::make_shared<T>();
    return fill(*event), event;
}

}  // namespace

TEST(ZUBEventClasses, ArchiveRoundTripKeepsWhatTheJsonShows) {
    registerEventClasses();
    // Each event, the keys its JSON holds before and after the archive, and keys it must not hold.
    struct Row { const char* name; std::shared_ptr<ZUBProEvent> event; zub::Value json; std::vector<const char*> absent; };
    const Row rows[] = {
        {"LM", made<ZUBLMEvent>([](auto& e) { e.setLm("im-42"); }), {{"et", 1001}, {"lm", "im-42"}}, {}},
        {"LM bare", std::make_shared<ZUBLMEvent>(), {{"et", 1001}}, {"lm"}},
        {"account", made<ZUBProAccountEvent>([](auto& e) { e.setZubAccount("u9"); e.setAccountType(7); e.setExt("vip"); e.setType(3); }),
         {{"et", 3}, {"lm", "u9"}, {"acc", {{"a", "u9"}, {"t", 7}, {"e", "vip"}}}}, {}},
        {"account bare", std::make_shared<ZUBProAccountEvent>(), {{"et", 1001}, {"acc", {{"t", 0}}}}, {"lm"}},
        {"active", made<ZUBProActiveEvent>([](auto& e) { e.setDuration(77); }), {{"et", 4}, {"du", 77}}, {}},
        {"page", made<ZUBPageEvent>([](auto& e) { e.setPage("home"); e.setReferPage("login"); e.setDuration(-4); e.setSid(99); }),
         {{"et", 1}, {"pi", "home"}, {"rf", "login"}, {"du", -4}, {"si", 99}}, {}},
        // An absent page and referrer are not "the same page".
        {"page bare", made<ZUBPageEvent>([](auto& e) { e.setReferPage(std::nullopt); }), {{"du", 0}}, {"pi", "rf"}},
        // Pairs packed, as the facade keeps them.
        {"custom", made<ZUBProCustomEvent>([](auto& e) {
             e.setEventID("buy"); e.setArgs(ZUBEventArgs::pack({{"item", "book"}}, "buy")); e.setDuration(42); e.setType(1000);
         }),
         {{"et", 1000}, {"ei", "buy"}, {"kv", {{"item", "book"}}}, {"du", 42}}, {}},
        // Empty and absent pairs stay apart.
        {"custom empty", made<ZUBProCustomEvent>([](auto& e) { e.setKvs(zub::Value::object()); }),
         {{"kv", zub::Value::object()}}, {"ei", "du"}},
        {"custom bare", std::make_shared<ZUBProCustomEvent>(), zub::Value::object(), {"ei", "kv", "du"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProEvent>(
            zub::KeyedArchiver::archivedDataWithRootObject(row.event));
        ASSERT_TRUE(restored && restored->className() == row.event->className());
        for (ZUBProEvent* e : {row.event.get(), restored.get()}) {
            expectKeys(jsonOf(*e), row.json);
            for (const char* key : row.absent) EXPECT_FALSE(jsonOf(*e).contains(key)) << key;
        }
    }
}

TEST(ZUBAccountAndActiveEvents, MessengerAndAccountReportsThenActiveTimeInTwoStates) {
    zubtest::SteppingClock clock(1'700'000'500);
    ZUBPro::reportLM(std::nullopt);  // nothing
    ZUBPro::reportLM("im-42");
    ASSERT_EQ(filedEvents<ZUBLMEvent>().size(), 1u);
    expectKeys(jsonOf(*filedEvents<ZUBLMEvent>()[0]), {{"lm", "im-42"}, {"ts", 1'700'000'500}});

    // The account type travels as the event type; the account twice.
    ZUBPro::reportAccount("u1", 2, "x");
    ZUBPro::reportAccount("u2", 1001, std::nullopt);
    ZUBPro::reportAccount(std::nullopt, 2, "ignored");  // no account: nothing
    auto events = filedEvents<ZUBProAccountEvent>();
    ASSERT_EQ(events.size(), 2u);
    // An account event keeps the base record's time (0).
    expectKeys(jsonOf(*events[0]), {{"et", 2}, {"lm", "u1"}, {"acc", {{"a", "u1"}, {"t", 0}, {"e", "x"}}}, {"ts", 0}});
    expectKeys(jsonOf(*events[1]), {{"et", 1001}, {"acc", {{"a", "u2"}, {"t", 0}}}});

    zubtest::LogCapture log;
    ZUBPro::trackActiveEnd();
    EXPECT_TRUE(log.has("[ZUBDebug] 统计活动时间还没开始"));

    // Under half a second counts as one; ts is the start in whole seconds.
    clock.advanceMicros(200'000);
    ZUBPro::trackActiveBegin();
    EXPECT_TRUE(log.has("[ZUBDebug] 开始统计活动时间"));
    clock.advanceMicros(400'000);
    ZUBPro::trackActiveEnd();
    EXPECT_TRUE(log.has("[ZUBDebug] 结束统计活动时间"));

    // A second begin keeps the first start.
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

    auto active = filedEvents<ZUBProActiveEvent>();
    ASSERT_EQ(active.size(), 2u);
    expectKeys(jsonOf(*active[0]), {{"du", 1}, {"ts", 1'700'000'500}});
    EXPECT_EQ(active[1]->duration(), 45u);
}

TEST(ZUBPageEvent, BeginEndMeasuresSecondsChainsReferrersAndRefusesNamesAndPagesPastTheLimit) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;

    ZUBPro::trackPageViewBegin("A");
    EXPECT_TRUE(log.has("[ZUBDebug] set page success,A"));
    EXPECT_EQ(ZUBPageEvent::currentPage(), "A");
    clock.advanceSeconds(5);
    ZUBPro::trackPageViewBegin("A");  // a duplicate keeps the first start
    EXPECT_TRUE(log.has("[ZUBDebug] Duplicate entry page A"));
    clock.advanceSeconds(2);
    ZUBPro::trackPageViewEnd("A");
    EXPECT_FALSE(ZUBPageEvent::currentPage() || pageIsOpen("A"));
    ZUBPro::trackPageViewEnd("A");  // already ended
    EXPECT_TRUE(log.has("[ZUBDebug] Null entry for page:A"));

    ZUBPro::trackPageViewBegin("B");
    clock.advanceSeconds(2);
    ZUBPro::trackPageViewEnd("B");
    // The same page twice in a row: its referrer is written as "-".
    ZUBPro::trackPageViewBegin("B");
    ZUBPro::trackPageViewEnd("B");
    EXPECT_EQ(ZUBPageEvent::lastPage(), "B");
    // A clock set back gives a negative duration: no lower bound for pages.
    ZUBPro::trackPageViewBegin("C");
    clock.advanceSeconds(-3);
    ZUBPro::trackPageViewEnd("C");

    auto pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 4u);
    // The first page of the process has no referrer; page events take no
    // timestamp, key or importance of their own.
    expectKeys(jsonOf(*pages[0]), {{"et", 1}, {"pi", "A"}, {"du", 7}, {"ts", 0}}, {"rf"});
    EXPECT_FALSE(pages[0]->appkey() || pages[0]->isImportant());
    EXPECT_EQ(pages[0]->sid(), ZUBSessionEvent::getSessionID(false));

    expectKeys(jsonOf(*pages[1]), {{"du", 2}, {"rf", "A"}});
    EXPECT_EQ(pages[2]->referPage(), "B");
    EXPECT_EQ(jsonOf(*pages[2])["rf"], "-");
    EXPECT_EQ(pages[2]->referPage(), "-") << "the event's own referrer is changed, not only its JSON";
    EXPECT_EQ(jsonOf(*pages[3])["du"], -3);
    // The first begin opened a session, reported with its own event.
    EXPECT_EQ(filedEvents<ZUBSessionEvent>().size(), 1u);

    // Refused names.
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

    // One more open page than the limit.
    ZUBProConfig::getInstance().setMaxTimingEventCount(3);
    for (int i = 0; i < 4; ++i) ZUBPro::trackPageViewBegin("p" + std::to_string(i));
    EXPECT_FALSE(log.has("[ZUBDebug] Too many page events in memory"));
    ZUBPro::trackPageViewBegin("p4");
    EXPECT_TRUE(log.has("[ZUBDebug] Too many page events in memory"));
    EXPECT_FALSE(pageIsOpen("p4"));

    // A reported duration is taken as given, leaves the timers alone and chains the referrer.
    ZUBPro::trackPage("list", static_cast<std::uint64_t>(-5));
    ZUBPro::trackPage("detail", 12);
    EXPECT_TRUE(pageIsOpen("p3"));
    EXPECT_EQ(ZUBPageEvent::currentPage(), std::nullopt);
    EXPECT_EQ(ZUBPageEvent::lastPage(), "detail");
    ZUBPro::trackPageViewEnd("p0");  // makes room again, and refers to the last reported page
    ZUBPro::trackPageViewBegin("p4");
    EXPECT_TRUE(pageIsOpen("p4"));

    pages = filedEvents<ZUBPageEvent>();
    ASSERT_EQ(pages.size(), 7u);
    expectKeys(jsonOf(*pages[4]), {{"du", -5}, {"rf", "C"}});
    expectKeys(jsonOf(*pages[5]), {{"du", 12}, {"rf", "list"}});
    EXPECT_EQ(jsonOf(*pages[6])["rf"], "detail");
}

TEST(ZUBProCustomEvent, ImmediateEventsCarryTheirPairsAsGivenUnlessNotUtf8) {
    zubtest::SteppingClock clock(1'700'000'123);
    zubtest::LogCapture log;
    ZUBProConfig::getInstance().setAppkey("app-1");
    const char* none = nullptr;
    const std::string owned = "owned";
    // Scalars only are packed; with nested values they stay a Value. A repeated key
    // keeps its first value; a null text value is null.
    const auto scalars = [&](auto... more) {
        ZUBPro::trackCustomEvent("all", {{"s", "book"}, {"o", owned}, {"v", std::string_view("view")}, {"i", -7},
                                         {"c", 'x'}, {"u", std::numeric_limits<std::uint64_t>::max()}, {"d", 2.5},
                                         {"f", 0.5f}, {"b", true}, {"null", none}, {"s", "second"}, more...});
    };
    scalars();
    scalars(zub::Pair("nested", {{"a", 1}}), zub::Pair("list", {1, 2}));
    ZUBPro::trackCustomEvent("launch");                              // no pairs at all
    ZUBPro::trackCustomEvent("open", zub::Value::object());          // empty pairs
    ZUBPro::trackCustomEvent("empty", {});
    const std::string longKey(200, 'k'), longText(300, 'v');  // lengths past one length byte
    ZUBPro::trackCustomEvent("keyless", {{none, 1}, {"kept", 2}, {longKey, longText}});
    ZUBPro::trackCustomEventDuration("play", {{"song", "x"}}, 5);
    ZUBPro::trackCustomEventDuration("skip", zub::Value(), 0);  // no "du"
    ZUBPro::trackCustomEvent(std::nullopt, {{"a", 1}});              // not checked: no "ei"
    ZUBPro::trackCustomEventDuration("rewind", zub::Value(), -5);   // sent as the unsigned number
    ZUBPro::trackCustomEvent("tag", {"item", "book"});              // an array, not pairs

    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 11u);
    std::vector<zub::Value> json;
    for (const auto& e : events) {
        EXPECT_TRUE(e->type() == 1000 && e->isImportant() && e->appkey() == "app-1" && e->ts() == 1'700'000'123u);
        json.push_back(jsonOf(*e));
    }
    const std::string flat = R"("s":"book","o":"owned","v":"view","i":-7,"c":120,"u":18446744073709551615,)"
                             R"("d":2.5,"f":0.5,"b":true,"null":null)";
    expectKeys(json[0], {{"ei", "all"}}, {"du"});
    EXPECT_EQ(json[0]["kv"].dump(), "{" + flat + "}");
    EXPECT_EQ(json[1]["kv"].dump(), "{" + flat + R"(,"nested":{"a":1},"list":[1,2]})");
    // Absent pairs and an empty list send no kv; empty pairs send kv {}.
    EXPECT_FALSE(json[2].contains("kv") || json[4].contains("kv"));
    EXPECT_EQ(json[3]["kv"], zub::Value::object());
    EXPECT_EQ(json[5]["kv"].dump(), R"({"kept":2,")" + longKey + R"(":")" + longText + R"("})");
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]a pair of event keyless has a null key; it is left out"));
    expectKeys(json[6], {{"du", 5}, {"kv", {{"song", "x"}}}});
    expectKeys(json[7], {{"ei", "skip"}}, {"du"});
    expectKeys(json[8], {{"kv", {{"a", 1}}}}, {"ei"});
    EXPECT_EQ(json[9]["du"].dump(), "18446744073709551611");
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]pairs of event tag are not a dictionary (array); they are left out"));
    EXPECT_FALSE(json[10].contains("kv"));

    // Text that is not UTF-8: not sent; the platform's own line stays, then the
    // event, its key and the reason.
    ZUBPro::trackCustomEvent("buy", {{"item", "caf\xe9"}});
    ZUBPro::trackCustomEvent("s\xffll");
    events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 13u);
    EXPECT_TRUE(events[11]->toJsonString() == "" && events[12]->toJsonString() == "");
    EXPECT_TRUE(log.has("[ZUBDebug] exception :%"));
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]event of type 1000 (m5 " + events[11]->md5().value_or("?") +
                        ") cannot be written as JSON and is not sent: the text under \"kv.item\" is not UTF-8"));
    EXPECT_TRUE(log.contains("(m5 " + events[12]->md5().value_or("?") +
                             ") cannot be written as JSON and is not sent: the text under \"ei\" is not UTF-8"));
}

TEST(ZUBProCustomEvent, TimersKeyedOnThePairsAtMostTheLimitReportTheSpanWithTheBareRecord) {
    EXPECT_EQ(ZUBProCustomEvent::getCustomEventKey("buy", zub::Value()), "buy[]");
    EXPECT_EQ(ZUBProCustomEvent::getCustomEventKey("e", {{"s", "x"}, {"b", 2}, {"a", 1.5}, {"t", true}, {"f", false},
                                                         {"z", nullptr}, {"n", zub::Value::array({1})}}),
              "e[sxb2a1.5t1f0z<null>n[1]]");
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBProConfig::getInstance().setAppkey("app-1");

    ZUBPro::trackCustomEventBegin("e", {{"a", "1"}});
    EXPECT_TRUE(log.has("[ZUBDebug] generated begin key is e[a1]"));
    EXPECT_TRUE(filedEvents<ZUBProCustomEvent>().empty()) << "a begin reports nothing";
    ZUBPro::trackCustomEventEnd("e", {{"a", "2"}});  // other pairs are another timer
    EXPECT_TRUE(log.has("[ZUBDebug] null key e[a2] for eventID:e"));
    EXPECT_TRUE(timerIsOpen("e[a1]"));
    ZUBPro::trackCustomEventEnd("e", {{"a", "1"}});  // within the same second
    EXPECT_TRUE(log.has("[ZUBDebug] end key is e[a1]"));
    EXPECT_FALSE(timerIsOpen("e[a1]"));

    // A duplicate begin keeps the first start.
    ZUBPro::trackCustomEventBegin("d", {{"a", "1"}});
    clock.advanceSeconds(3);
    ZUBPro::trackCustomEventBegin("d", {{"a", "1"}});
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]Duplicate key d[a1] for event_id:d"));
    clock.advanceSeconds(4);
    ZUBPro::trackCustomEventEnd("d", {{"a", "1"}});
    // A clock set back still gives one second. An absent dictionary ends nothing,
    // silently; an empty one ends the timer begun without pairs.
    ZUBPro::trackCustomEventBegin("back");
    clock.advanceSeconds(-10);
    log.clear();
    ZUBPro::trackCustomEventEnd("back", zub::Value());
    EXPECT_TRUE(timerIsOpen("back[]"));
    EXPECT_FALSE(log.contains("null key") || log.contains("end key"));
    ZUBPro::trackCustomEventEnd("back", zub::Value::object());

    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 3u);
    // A timed custom event lasts at least a second. The end path sets neither
    // type, appkey, ts nor importance: the envelope falls back to the configured key.
    const auto& e = *events[0];
    EXPECT_TRUE(e.type() == 0 && !e.appkey() && e.ts() == 0u && !e.isImportant());
    expectKeys(jsonOf(*events[0]), {{"ei", "e"}, {"ky", "app-1"}, {"kv", {{"a", "1"}}}, {"du", 1}});
    EXPECT_EQ(events[1]->duration(), 7);
    expectKeys(jsonOf(*events[2]), {{"du", 1}, {"kv", zub::Value::object()}});

    // At most the limit of open timers; empty identifiers refused.
    ZUBProConfig::getInstance().setMaxTimingEventCount(2);
    ZUBPro::trackCustomEventBegin("t0");
    ZUBPro::trackCustomEventBegin("t1");
    EXPECT_FALSE(log.has("[ZUBDebug] too many timing enents in memory"));
    ZUBPro::trackCustomEventBegin("t2");
    EXPECT_TRUE(log.has("[ZUBDebug] too many timing enents in memory"));
    EXPECT_FALSE(timerIsOpen("t2[]"));
    for (const std::optional<std::string>& id : {std::optional<std::string>(""), std::optional<std::string>()}) {
        log.clear();
        ZUBPro::trackCustomEventBegin(id);
        ZUBPro::trackCustomEventEnd(id, zub::Value::object());
        EXPECT_TRUE(log.has("[ZUBDebug] eventID is empty"));
        EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty event_id."));
    }
    EXPECT_EQ(filedEvents<ZUBProCustomEvent>().size(), 3u);
}
