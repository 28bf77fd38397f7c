// Custom events: immediate, with a given duration, and timed between begin and
// end; timer keys, limits, the end path's bare record, and the log lines.
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBProCustomEvent.h"
#include "Platform/KeyedArchiver.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <limits>

using zubtest::filedEvents;
using zubtest::jsonOf;

namespace {

bool timerIsOpen(const std::string& key) {
    ZUBTimedTable& table = ZUBEventDal::getInstance().getTimeEventDic();
    std::lock_guard lock(table.mutex);
    return table.entries.contains(key);
}

}  // namespace

TEST(ZUBProCustomEvent, ImmediateEventsCarryTheirPairsAsGiven) {
    zubtest::SteppingClock clock(1'700'000'123);
    ZUBProConfig::getInstance().setAppkey("app-1");

    ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}, {"n", 2}});
    ZUBPro::trackCustomEvent("launch");                              // no pairs at all
    ZUBPro::trackCustomEvent("open", zub::Value::object());          // empty pairs
    ZUBPro::trackCustomEventDuration("play", {{"song", "x"}}, 5);
    ZUBPro::trackCustomEventDuration("skip", zub::Value(), 0);
    ZUBPro::trackCustomEvent(std::nullopt, {{"a", 1}});              // not checked: no "ei"
    ZUBPro::trackCustomEventDuration("rewind", zub::Value(), -5);   // sent as the unsigned number

    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 7u);
    for (const auto& e : events) {
        EXPECT_EQ(e->type(), 1000);
        EXPECT_TRUE(e->isImportant());
        EXPECT_EQ(e->appkey(), "app-1");
        EXPECT_EQ(e->ts(), 1'700'000'123u);
    }
    const zub::Value buy = jsonOf(*events[0]);
    EXPECT_EQ(buy["et"], 1000);
    EXPECT_EQ(buy["ei"], "buy");
    EXPECT_EQ(buy["kv"].dump(), R"({"item":"book","price":9.5,"n":2})");  // order kept
    EXPECT_FALSE(buy.contains("du"));

    const zub::Value launch = jsonOf(*events[1]);
    EXPECT_FALSE(launch.contains("kv")) << "absent pairs send no kv";
    EXPECT_EQ(jsonOf(*events[2])["kv"], zub::Value::object()) << "empty pairs send kv {}";

    const zub::Value play = jsonOf(*events[3]);
    EXPECT_EQ(play["du"], 5);
    EXPECT_EQ(play["kv"]["song"], "x");
    EXPECT_FALSE(jsonOf(*events[4]).contains("du"));

    const zub::Value anonymous = jsonOf(*events[5]);
    EXPECT_FALSE(anonymous.contains("ei"));
    EXPECT_EQ(anonymous["kv"]["a"], 1);

    const zub::Value rewind = jsonOf(*events[6]);
    ASSERT_TRUE(rewind["du"].is_number_unsigned());
    EXPECT_EQ(rewind["du"].get<std::uint64_t>(), 18446744073709551611u);
}

TEST(ZUBProCustomEvent, BracedPairsOfEveryKindSendWhatAValueWouldSend) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    const char* none = nullptr;
    const std::string owned = "owned";
    // Scalars only: packed. The same with nested values: kept as a Value. A
    // repeated key keeps its first value; a null text value is null.
    const auto scalars = [&](auto... more) {
        ZUBPro::trackCustomEvent("all", {{"s", "book"}, {"o", owned}, {"v", std::string_view("view")}, {"i", -7},
                                         {"c", 'x'}, {"u", std::numeric_limits<std::uint64_t>::max()}, {"d", 2.5},
                                         {"f", 0.5f}, {"b", true}, {"null", none}, {"s", "second"}, more...});
    };
    scalars();
    scalars(zub::Pair("nested", {{"a", 1}}), zub::Pair("list", {1, 2}));
    ZUBPro::trackCustomEvent("empty", {});
    ZUBPro::trackCustomEvent("keyless", {{none, 1}, {"kept", 2}});
    ZUBPro::trackCustomEventDuration("timed", {{"n", 1}}, 3);

    const auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 5u);
    const std::string flat = R"("s":"book","o":"owned","v":"view","i":-7,"c":120,"u":18446744073709551615,)"
                             R"("d":2.5,"f":0.5,"b":true,"null":null)";
    EXPECT_EQ(jsonOf(*events[0])["kv"].dump(), "{" + flat + "}");
    EXPECT_EQ(jsonOf(*events[1])["kv"].dump(), "{" + flat + R"(,"nested":{"a":1},"list":[1,2]})");
    EXPECT_FALSE(jsonOf(*events[2]).contains("kv")) << "an empty list sends no kv";
    EXPECT_EQ(jsonOf(*events[3])["kv"].dump(), R"({"kept":2})");
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]a pair of event keyless has a null key; it is left out"));
    EXPECT_EQ(jsonOf(*events[4])["kv"].dump(), R"({"n":1})");
    EXPECT_EQ(jsonOf(*events[4])["du"], 3);
}

TEST(ZUBProCustomEvent, TextThatIsNotUtf8IsNamedInTheLogAndNotSent) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBPro::trackCustomEvent("buy", {{"item", "caf\xe9"}});
    ZUBPro::trackCustomEvent("s\xffll");
    const auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->toJsonString(), "");
    EXPECT_EQ(events[1]->toJsonString(), "");
    // The platform's own line stays; the event, its key and the reason follow.
    EXPECT_TRUE(log.has("[ZUBDebug] exception :%"));
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]event of type 1000 (m5 " + events[0]->md5().value_or("?") +
                        ") cannot be written as JSON and is not sent: the text under \"kv.item\" is not UTF-8"));
    EXPECT_TRUE(log.contains("(m5 " + events[1]->md5().value_or("?") +
                             ") cannot be written as JSON and is not sent: the text under \"ei\" is not UTF-8"));
}

TEST(ZUBProCustomEvent, PairsThatAreNoDictionaryAreLoggedAndLeftOut) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBPro::trackCustomEvent("tag", {"item", "book"});  // an array, not pairs
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]pairs of event tag are not a dictionary (array); they are left out"));
    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(jsonOf(*events[0]).contains("kv"));
}

TEST(ZUBProCustomEvent, TimerKeysFollowThePairsInTheirOrder) {
    EXPECT_EQ(ZUBProCustomEvent::getCustomEventKey("buy", {{"item", "book"}}), "buy[itembook]");
    EXPECT_EQ(ZUBProCustomEvent::getCustomEventKey("buy", zub::Value()), "buy[]");
    EXPECT_EQ(ZUBProCustomEvent::getCustomEventKey("buy", zub::Value::object()), "buy[]");
    EXPECT_EQ(ZUBProCustomEvent::getCustomEventKey("e", {{"b", 2}, {"a", 1.5}, {"t", true}, {"z", nullptr}}),
              "e[b2a1.5t1z<null>]");
    EXPECT_NE(ZUBProCustomEvent::getCustomEventKey("e", {{"a", 1}, {"b", 2}}),
              ZUBProCustomEvent::getCustomEventKey("e", {{"b", 2}, {"a", 1}}));
}

TEST(ZUBProCustomEvent, BeginEndReportsTheSpanWithTheBareRecord) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBProConfig::getInstance().setAppkey("app-1");

    ZUBPro::trackCustomEventBegin("e", {{"a", "1"}});
    EXPECT_TRUE(log.has("[ZUBDebug] generated begin key is e[a1]"));
    EXPECT_TRUE(timerIsOpen("e[a1]"));
    EXPECT_TRUE(filedEvents<ZUBProCustomEvent>().empty()) << "a begin reports nothing";

    // Other pairs are another timer: nothing ends, the timer stays open.
    ZUBPro::trackCustomEventEnd("e", {{"a", "2"}});
    EXPECT_TRUE(log.has("[ZUBDebug] null key e[a2] for eventID:e"));
    EXPECT_TRUE(timerIsOpen("e[a1]"));

    ZUBPro::trackCustomEventEnd("e", {{"a", "1"}});  // within the same second
    EXPECT_TRUE(log.has("[ZUBDebug] end key is e[a1]"));
    EXPECT_FALSE(timerIsOpen("e[a1]"));

    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 1u);
    const auto& e = *events[0];
    EXPECT_EQ(e.eventID(), "e");
    EXPECT_EQ(e.duration(), 1) << "a timed custom event lasts at least a second";
    // The end path sets neither type, appkey, ts nor importance.
    EXPECT_EQ(e.type(), 0);
    EXPECT_FALSE(e.appkey().has_value());
    EXPECT_EQ(e.ts(), 0u);
    EXPECT_FALSE(e.isImportant());
    const zub::Value json = jsonOf(*events[0]);
    EXPECT_EQ(json["et"], 0);
    EXPECT_EQ(json["ky"], "app-1") << "the envelope falls back to the configured key";
    EXPECT_EQ(json["kv"]["a"], "1");
    EXPECT_EQ(json["du"], 1);
}

TEST(ZUBProCustomEvent, DuplicateBeginKeepsTheFirstStart) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBPro::trackCustomEventBegin("e", {{"a", "1"}});
    clock.advanceSeconds(3);
    ZUBPro::trackCustomEventBegin("e", {{"a", "1"}});
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]Duplicate key e[a1] for event_id:e"));
    clock.advanceSeconds(4);
    ZUBPro::trackCustomEventEnd("e", {{"a", "1"}});
    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->duration(), 7);

    // A clock set back still gives one second.
    ZUBPro::trackCustomEventBegin("back", zub::Value::object());
    clock.advanceSeconds(-10);
    ZUBPro::trackCustomEventEnd("back", zub::Value::object());
    events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1]->duration(), 1);
}

TEST(ZUBProCustomEvent, AnAbsentDictionaryEndsNothingButAnEmptyOneDoes) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBPro::trackCustomEventBegin("e");  // no pairs: key "e[]"
    EXPECT_TRUE(timerIsOpen("e[]"));

    ZUBPro::trackCustomEventEnd("e", zub::Value());
    EXPECT_TRUE(timerIsOpen("e[]"));
    EXPECT_FALSE(log.contains("null key")) << "an absent dictionary ends silently";
    EXPECT_FALSE(log.contains("end key"));

    ZUBPro::trackCustomEventEnd("e", zub::Value::object());
    EXPECT_FALSE(timerIsOpen("e[]"));
    auto events = filedEvents<ZUBProCustomEvent>();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(jsonOf(*events[0])["kv"], zub::Value::object());
}

TEST(ZUBProCustomEvent, AtMostTheLimitOfTimersAndEmptyIdentifiersRefused) {
    zubtest::SteppingClock clock;
    zubtest::LogCapture log;
    ZUBProConfig::getInstance().setMaxTimingEventCount(2);
    ZUBPro::trackCustomEventBegin("t0");
    ZUBPro::trackCustomEventBegin("t1");
    EXPECT_FALSE(log.has("[ZUBDebug] too many timing enents in memory"));
    ZUBPro::trackCustomEventBegin("t2");
    EXPECT_TRUE(log.has("[ZUBDebug] too many timing enents in memory"));
    EXPECT_FALSE(timerIsOpen("t2[]"));

    ZUBPro::trackCustomEventBegin("");
    EXPECT_TRUE(log.has("[ZUBDebug] eventID is empty"));
    log.clear();
    ZUBPro::trackCustomEventBegin(std::nullopt);
    EXPECT_TRUE(log.has("[ZUBDebug] eventID is empty"));
    ZUBPro::trackCustomEventEnd("", zub::Value::object());
    EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty event_id."));
    log.clear();
    ZUBPro::trackCustomEventEnd(std::nullopt, zub::Value::object());
    EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty event_id."));
    EXPECT_TRUE(filedEvents<ZUBProCustomEvent>().empty());
}

TEST(ZUBProCustomEvent, ArchiveKeepsIdentifierPairsAndDuration) {
    registerEventClasses();
    ZUBProCustomEvent withPairs;
    withPairs.setEventID("buy");
    withPairs.setArgs(ZUBEventArgs::pack({{"item", "book"}}, "buy"));  // packed pairs, as the facade keeps them
    withPairs.setDuration(42);
    withPairs.setType(1000);
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProCustomEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(withPairs));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->eventID(), "buy");
    EXPECT_EQ(restored->kvs(), (zub::Value{{"item", "book"}}));
    EXPECT_EQ(restored->duration(), 42);
    EXPECT_EQ(restored->type(), 1000);

    // Absent and empty pairs stay apart through the archive.
    ZUBProCustomEvent empty;
    empty.setKvs(zub::Value::object());
    auto restoredEmpty = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProCustomEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(empty));
    ASSERT_TRUE(restoredEmpty);
    EXPECT_EQ(restoredEmpty->kvs(), zub::Value::object());
    auto restoredAbsent = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProCustomEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(ZUBProCustomEvent()));
    ASSERT_TRUE(restoredAbsent);
    EXPECT_TRUE(restoredAbsent->kvs().is_null());
    EXPECT_FALSE(restoredAbsent->eventID().has_value());
}
