// The example plug-in (examples/plugin) inside a host: it waits for the start,
// reads the services info and reports its own events, which reach the collector.
// (How the event store's log files keep unsent events, of any registered class,
// is checked by the event store's and the facade's tests.)
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "support/CollectorProcess.h"
#include "support/FiledEvents.h"
#include "support/ReportPipeline.h"
#include "support/StoredEvents.h"

#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <chrono>

#ifdef ZUB_HAVE_EXAMPLE_PLUGIN
#include "SearchPlugin.h"

using searchplugin::SearchEvent;
using searchplugin::SearchPlugin;
using namespace std::chrono_literals;

TEST(PluginExampleEndToEnd, WaitsForTheStartThenReportsItsSearches) {
    ZUB_START_COLLECTOR(collector);
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

    // Under strategy 1 the late search goes at once, with the early one that waited for the mid.
    ASSERT_TRUE(zubtest::settlePipeline());
    const zub::Value rows = collector.storedEvents();
    const auto found =
        zubtest::storedWhere(rows, [](const zub::Value& e) { return e.value("et", 0) == SearchEvent::kType; });
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

#else
TEST(PluginExample, NotBuilt) {
    GTEST_SKIP() << "this build has no examples";
}
#endif
