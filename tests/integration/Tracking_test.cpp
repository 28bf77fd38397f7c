// Every tracking call of the facade, end to end: recorded by the library, sent
// over loopback to the real collector, and checked in what the collector stored.
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <chrono>

using zubtest::CollectorProcess;
using zubtest::storedWhere;
using zubtest::waitForStored;
using namespace std::chrono_literals;

namespace {

#define REQUIRE_COLLECTOR() \
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

// Points the library at the collector, reports every event at once, starts it
// and waits for the device's mid.
void startAgainst(CollectorProcess& collector, const std::string& appKey) {
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(collector.url("/?t=ios&ver=2.0"));
    ZUBPro::setReportStrategy(1);
    ZUBPro::startWithAppKey(appKey);
    ASSERT_TRUE(ZUBProMid::getInstance().taskQueue().flush(15s));
    ASSERT_FALSE(ZUBDeviceIDDal::getInstance().getMID().empty()) << collector.log();
}

bool has(const zub::Value& e, const char* key, const zub::Value& value) {
    return e.contains(key) && e[key] == value;
}

}  // namespace

TEST(TrackingEndToEnd, PagesCustomEventsActiveTimeAndAccountsArriveAsRecorded) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    ASSERT_NO_FATAL_FAILURE(startAgainst(collector, "e2e-app"));

    ZUBPro::trackPageViewBegin("home");
    ZUBPro::trackPageViewEnd("home");
    ZUBPro::trackPage("list", 12);
    ZUBPro::trackPage("list", 3);
    ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}});
    ZUBPro::trackCustomEvent("launch");
    ZUBPro::trackCustomEventDuration("play", {{"song", "x"}}, 5);
    ZUBPro::trackCustomEventBegin("search", {{"q", "c++"}});
    ZUBPro::trackCustomEventEnd("search", {{"q", "c++"}});
    ZUBPro::trackActiveBegin();
    ZUBPro::trackActiveEnd();
    ZUBPro::reportLM("im-1");
    ZUBPro::reportAccount("u1", 2, "x");
    // Refused calls send nothing.
    ZUBPro::trackPageViewEnd("never-begun");
    ZUBPro::trackCustomEventEnd("search", {{"q", "c++"}});
    ZUBPro::reportLM(std::nullopt);
    ZUBPro::reportAccount(std::nullopt, 2, "x");

    auto pages = [](const zub::Value& e) { return has(e, "et", 1); };
    auto custom = [](const zub::Value& e) { return e.contains("ei"); };
    auto lm = [](const zub::Value& e) { return has(e, "et", 1001) && has(e, "lm", "im-1"); };
    auto account = [](const zub::Value& e) { return e.contains("acc"); };
    auto active = [](const zub::Value& e) { return has(e, "et", 4); };
    const zub::Value rows = waitForStored(collector, [&](const zub::Value& r) {
        return storedWhere(r, pages).size() >= 3 && storedWhere(r, custom).size() >= 4 &&
               storedWhere(r, lm).size() >= 1 && storedWhere(r, account).size() >= 1 &&
               storedWhere(r, active).size() >= 1;
    });

    // Every event exactly once, with the keys of its kind.
    const auto pageEvents = storedWhere(rows, pages);
    ASSERT_EQ(pageEvents.size(), 3u) << rows.dump(1);
    const auto home = storedWhere(rows, [](const zub::Value& e) { return has(e, "pi", "home"); });
    ASSERT_EQ(home.size(), 1u);
    EXPECT_FALSE(home[0].contains("rf")) << "the first page has no referrer";
    EXPECT_TRUE(home[0]["du"].is_number_integer());
    EXPECT_EQ(home[0]["ky"], "e2e-app");
    const auto lists = storedWhere(rows, [](const zub::Value& e) { return has(e, "pi", "list"); });
    ASSERT_EQ(lists.size(), 2u);
    const auto& list12 = has(lists[0], "du", 12) ? lists[0] : lists[1];
    const auto& list3 = has(lists[0], "du", 12) ? lists[1] : lists[0];
    EXPECT_EQ(list12["rf"], "home");
    EXPECT_EQ(list3["du"], 3);
    EXPECT_EQ(list3["rf"], "-");

    const auto customs = storedWhere(rows, custom);
    ASSERT_EQ(customs.size(), 4u) << rows.dump(1);
    auto byId = [&](const std::string& id) {
        auto found = storedWhere(rows, [&](const zub::Value& e) { return has(e, "ei", id); });
        EXPECT_EQ(found.size(), 1u) << id;
        return found.empty() ? zub::Value::object() : found[0];
    };
    const zub::Value buy = byId("buy");
    EXPECT_EQ(buy["et"], 1000);
    EXPECT_EQ(buy["kv"].dump(), R"({"item":"book","price":9.5})");
    EXPECT_FALSE(buy.contains("du"));
    EXPECT_GT(buy["ts"].get<std::int64_t>(), 0);
    EXPECT_FALSE(byId("launch").contains("kv"));
    const zub::Value play = byId("play");
    EXPECT_EQ(play["du"], 5);
    EXPECT_EQ(play["kv"]["song"], "x");
    const zub::Value search = byId("search");
    EXPECT_EQ(search["et"], 0) << "a timed custom event keeps the bare record's type";
    EXPECT_EQ(search["ts"], 0);
    EXPECT_EQ(search["ky"], "e2e-app") << "its key comes from the configuration";
    EXPECT_GE(search["du"].get<std::int64_t>(), 1);
    EXPECT_EQ(search["kv"]["q"], "c++");

    const auto actives = storedWhere(rows, active);
    ASSERT_EQ(actives.size(), 1u);
    EXPECT_GE(actives[0]["du"].get<std::int64_t>(), 1);
    EXPECT_GT(actives[0]["ts"].get<std::int64_t>(), 0);

    const auto lms = storedWhere(rows, lm);
    ASSERT_EQ(lms.size(), 1u);
    EXPECT_GT(lms[0]["ts"].get<std::int64_t>(), 0);

    const auto accounts = storedWhere(rows, account);
    ASSERT_EQ(accounts.size(), 1u);
    EXPECT_EQ(accounts[0]["et"], 2) << "the account type travels as the event type";
    EXPECT_EQ(accounts[0]["lm"], "u1");
    EXPECT_EQ(accounts[0]["acc"].dump(), R"({"a":"u1","t":0,"e":"x"})");

    // Every event of this run carries the registered mid and the session.
    const std::string mid = ZUBDeviceIDDal::getInstance().getMID();
    for (const auto& row : rows) {
        EXPECT_EQ(row["mid"], mid);
        EXPECT_EQ(row["ky"], "e2e-app");
    }
    EXPECT_EQ(collector.stop(), 0);
}
