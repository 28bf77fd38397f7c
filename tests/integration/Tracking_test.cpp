// Every tracking call of the facade, end to end: recorded by the library, sent
// over loopback to the real collector, and checked in what the collector stored.
// The keys of each event class are pinned by the model tests; here each class is
// counted once it arrived, and what the host passed must arrive as it was given.
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>

using zubtest::CollectorProcess;

namespace {

// What kind of event a stored event is, by the keys that tell the kinds apart.
std::string kindOf(const zub::Value& e) {
    if (e.contains("ei")) return "custom " + e["ei"].get<std::string>();
    if (e.contains("acc")) return "account";
    if (e.contains("lm")) return "messenger";
    const std::int64_t type = e.value("et", std::int64_t{0});
    return type == 1 ? "page" : type == 4 ? "active" : "other " + std::to_string(type);
}

}  // namespace

TEST(TrackingEndToEnd, PagesCustomEventsActiveTimeAndAccountsArriveAsRecorded) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(collector.url("/?t=ios&ver=2.0"));
    ZUBPro::setReportStrategy(1);
    ZUBPro::startWithAppKey("e2e-app");
    ASSERT_TRUE(ZUBProMid::getInstance().taskQueue().flush(std::chrono::seconds(15)));
    const std::string mid = ZUBDeviceIDDal::getInstance().getMID();
    ASSERT_FALSE(mid.empty()) << collector.log();

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

    const std::map<std::string, int> expected{{"page", 2},         {"custom buy", 1}, {"custom play", 1},
                                              {"custom search", 1}, {"active", 1},     {"messenger", 1},
                                              {"account", 1}};
    std::map<std::string, int> got;
    const zub::Value rows = zubtest::waitForStored(collector, [&](const zub::Value& r) {
        got.clear();
        for (const auto& row : r) ++got[kindOf(row["event"])];
        got.erase("other 2");  // the session event
        return got == expected;
    });
    EXPECT_EQ(got, expected) << rows.dump(1);
    std::map<std::string, zub::Value> byKind;
    for (const auto& row : rows) {
        EXPECT_EQ(row["mid"], mid);
        EXPECT_EQ(row["ky"], "e2e-app");
        byKind[kindOf(row["event"])] = row["event"];
    }
    EXPECT_EQ(byKind["custom buy"]["kv"].dump(), R"({"item":"book","price":9.5})");
    EXPECT_EQ(byKind["custom play"]["du"], 5);
    EXPECT_EQ(byKind["account"]["acc"].dump(), R"({"a":"u1","t":0,"e":"x"})");
    EXPECT_EQ(collector.stop(), 0);
}
