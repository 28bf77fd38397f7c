// The example plug-in (examples/plugin) inside a host: it waits for the start,
// reads the services info and reports its own events, which reach the collector
// and survive the event store's log files.
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBEventDal.h"
#include "support/CollectorProcess.h"
#include "support/FiledEvents.h"
#include "support/StoredEvents.h"

#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <chrono>

#ifdef ZUB_HAVE_EXAMPLE_PLUGIN
#include "SearchPlugin.h"

using searchplugin::SearchEvent;
using searchplugin::SearchPlugin;
using zubtest::CollectorProcess;
using namespace std::chrono_literals;

TEST(PluginExampleEndToEnd, WaitsForTheStartThenReportsItsSearches) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(collector.url("/?t=ios&ver=2.0"));
    ZUBPro::setReportStrategy(1);

    SearchPlugin plugin;
    plugin.install();
    plugin.recordSearch("early", 3);  // before the start: the plug-in keeps it
    EXPECT_FALSE(plugin.isStarted());
    EXPECT_TRUE(zubtest::filedEvents<SearchEvent>().empty());

    ZUBPro::startWithAppKey("plugin-app");
    ASSERT_TRUE(plugin.isStarted()) << "the plug-in starts before startWithAppKey returns";
    const zub::Value info = plugin.serviceInfo();
    EXPECT_EQ(info[kZUBInfoAppKey], "plugin-app");
    ASSERT_TRUE(info.contains(kZUBInfoDeviceId));
    ASSERT_TRUE(ZUBProMid::getInstance().taskQueue().flush(15s));
    plugin.recordSearch("late", 0);

    auto searches = [](const zub::Value& rows) {
        return zubtest::storedWhere(rows, [](const zub::Value& e) { return e.value("et", 0) == SearchEvent::kType; });
    };
    const zub::Value rows =
        zubtest::waitForStored(collector, [&](const zub::Value& r) { return searches(r).size() >= 2; });

    const auto found = searches(rows);
    ASSERT_EQ(found.size(), 2u) << rows.dump(1);
    const auto& early = found[0]["q"] == "early" ? found[0] : found[1];
    const auto& late = found[0]["q"] == "early" ? found[1] : found[0];
    EXPECT_EQ(early["n"], 3);
    EXPECT_EQ(late["q"], "late");
    EXPECT_EQ(late["n"], 0);
    for (const auto& e : found) {
        EXPECT_EQ(e["ky"], "plugin-app") << "the library fills in its key";
        EXPECT_EQ(e["did"], info[kZUBInfoDeviceId]);
        EXPECT_EQ(e["si"], ZUBPro::getSessionID(false));
        EXPECT_GT(e["ts"].get<std::int64_t>(), 0);
    }
    EXPECT_EQ(collector.stop(), 0);
}

TEST(PluginExample, UnsentSearchesSurviveTheLogFiles) {
    auto event = std::make_shared<SearchEvent>();
    event->query = "kept";
    event->results = 7;
    event->deviceId = "dev-1";
    event->setSid(55);
    ZUBPro::reportEvent(event);  // no mid in this process: it waits in the store
    ASSERT_EQ(zubtest::filedEvents<SearchEvent>().size(), 1u);

    ZUBPro::onWillApplicationEnterBackground();  // writes the log files
    zubtest::clearFiledEvents();
    ZUBEventDal::getInstance().loadLogfile();  // what the next run does at its start

    const auto restored = zubtest::filedEvents<SearchEvent>();
    ASSERT_EQ(restored.size(), 1u) << "the plug-in's class is registered for archiving";
    EXPECT_EQ(restored[0]->results, 7);
    EXPECT_EQ(restored[0]->sid(), 55u);
    EXPECT_EQ(restored[0]->type(), SearchEvent::kType);
    const zub::Value json = zubtest::jsonOf(*restored[0]);
    EXPECT_EQ(json["q"], "kept");
    EXPECT_EQ(json["did"], "dev-1");
}

#else
TEST(PluginExample, NotBuilt) {
    GTEST_SKIP() << "this build has no examples";
}
#endif
