// Every tracking call of the facade, end to end: recorded by the library, sent
// over loopback to the real collector, and checked in what the collector stored.
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>

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
    ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}});
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

    // Each kind of event, told apart by its keys (their values are pinned by the
    // model tests), with how many of it this run sends.
    const std::pair<std::function<bool(const zub::Value&)>, std::size_t> kinds[] = {
        {[](const zub::Value& e) { return has(e, "et", 1); }, 2},  // pages
        {[](const zub::Value& e) { return e.contains("ei"); }, 3},  // custom events
        {[](const zub::Value& e) { return has(e, "et", 1001) && has(e, "lm", "im-1"); }, 1},
        {[](const zub::Value& e) { return e.contains("acc"); }, 1},
        {[](const zub::Value& e) { return has(e, "et", 4); }, 1},  // active time
    };
    const zub::Value rows = waitForStored(collector, [&](const zub::Value& r) {
        return std::all_of(std::begin(kinds), std::end(kinds),
                           [&](const auto& kind) { return storedWhere(r, kind.first).size() >= kind.second; });
    });
    for (std::size_t i = 0; i < std::size(kinds); ++i) {
        EXPECT_EQ(storedWhere(rows, kinds[i].first).size(), kinds[i].second) << "kind " << i << ": " << rows.dump(1);
    }
    // What the host passed arrives as it was given.
    const auto buy = storedWhere(rows, [](const zub::Value& e) { return has(e, "ei", "buy"); });
    ASSERT_EQ(buy.size(), 1u);
    EXPECT_EQ(buy[0]["kv"].dump(), R"({"item":"book","price":9.5})");
    const auto play = storedWhere(rows, [](const zub::Value& e) { return has(e, "ei", "play"); });
    ASSERT_EQ(play.size(), 1u);
    EXPECT_EQ(play[0]["du"], 5);
    const auto accounts = storedWhere(rows, [](const zub::Value& e) { return e.contains("acc"); });
    ASSERT_EQ(accounts.size(), 1u);
    EXPECT_EQ(accounts[0]["acc"].dump(), R"({"a":"u1","t":0,"e":"x"})");

    // Every event of this run carries the registered mid and the application's key.
    const std::string mid = ZUBDeviceIDDal::getInstance().getMID();
    for (const auto& row : rows) {
        EXPECT_EQ(row["mid"], mid);
        EXPECT_EQ(row["ky"], "e2e-app");
    }
    EXPECT_EQ(collector.stop(), 0);
}
