// The plug-in operations of the facade: the services info, event hand-in and the
// start notification as a plug-in sees it through the public headers.
#include "Common/ZUBProConfig.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "Pro/ZUBOnlineConfig.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

namespace {

class ProbeEvent : public ZUBProEvent {
public:
    explicit ProbeEvent(std::string tag) : tag_(std::move(tag)) { setType(4242); }
    std::string className() const override { return "ProbeEvent"; }
    void encode(zub::Value& envelope) override { envelope["tag"] = tag_; }
    std::string tag_;
};

void useSdkConfig(const std::string& content) {
    auto record = std::make_shared<ZUBProDataConfig>();
    record->setType(1);
    record->setContent(content);
    ZUBOnlineConfig::getInstance().setSdkCfg(record);
}

// Endpoints nobody listens on, so a start in a unit test sends nothing anywhere.
void useClosedEndpoints() {
    ZUBProConfig::getInstance().setReportURL("http://127.0.0.1:9/mstat/report");
    ZUBProConfig::getInstance().setMidURL("http://127.0.0.1:9/?t=ios&ver=2.0");
}

}  // namespace

TEST(ZUBProPlugin, ServicesInfoIsBuiltOnceWithWhatIsKnown) {
    ZUBProConfig::getInstance().setAppkey("app-1");
    ZUBProConfig::getInstance().setZubChannel("web");
    ZUBProEnv& env = ZUBProEnv::getInstance();
    env.setModulename(std::nullopt);
    env.setWf(R"({"ss":"home"})");
    env.setIdfv("IDFV-1");
    ZUBProUser::getInstance().setUserType(0);
    useSdkConfig(R"({"__ZUB_TEST_SPEED__":{"url":"http://speed"}})");

    const zub::Value info = ZUBPro::getMainServicesInfo();
    EXPECT_EQ(info[kZUBInfoAppKey], "app-1");
    EXPECT_EQ(info[kZUBInfoChannel], "web");
    EXPECT_EQ(info[kZUBInfoMid], "IDFV-1") << "the mid key holds the vendor identifier";
    EXPECT_FALSE(info.contains(kZUBInfoUserType)) << "a new user has no user type";
    EXPECT_FALSE(info.contains(kZUBInfoModelName));
    EXPECT_FALSE(info.contains(kZUBInfoNet)) << "no model name, no network name";
    EXPECT_FALSE(info.contains(kZUBInfoCustomUserId));
    EXPECT_EQ(info[kZUBInfoSpeedTest]["url"], "http://speed");
    EXPECT_EQ(std::string(kZUBInfoSDKVer), "KEY_ZUB_INF_SDK_VER");

    // Built once: later changes of the configuration do not show.
    ZUBProConfig::getInstance().setAppkey("app-2");
    EXPECT_EQ(ZUBPro::getMainServicesInfo(), info);

    // Plug-ins publish their own entries; a null value removes one; an update
    // whose result is no dictionary, or that throws, changes nothing.
    ZUBPro::setMainServicesInfo(kZUBInfoHotfix, {{"patch", 3}});
    ZUBPro::setMainServicesInfo(kZUBInfoChannel, zub::Value());
    ZUBPro::updateMainServicesInfo([](zub::Value& shared) { shared = 5; });
    ZUBPro::updateMainServicesInfo([](zub::Value& shared) {
        shared.clear();
        throw std::runtime_error("plug-in bug");
    });
    const zub::Value changed = ZUBPro::getMainServicesInfo();
    EXPECT_EQ(changed[kZUBInfoHotfix]["patch"], 3);
    EXPECT_FALSE(changed.contains(kZUBInfoChannel));
    EXPECT_EQ(changed[kZUBInfoAppKey], "app-1");
    EXPECT_EQ(changed.size(), info.size());
}

TEST(ZUBProPlugin, ReturningUserAndUnreadableSpeedConfig) {
    ZUBProUser::getInstance().setUserType(2);
    ZUBProEnv::getInstance().setModulename("Desk1,1");
    ZUBProEnv::getInstance().setWf("net");
    useSdkConfig(R"(["__ZUB_TEST_SPEED__"])");  // an array: no speed-test key
    const zub::Value info = ZUBPro::getMainServicesInfo();
    EXPECT_EQ(info[kZUBInfoUserType], 2);
    EXPECT_EQ(info[kZUBInfoNet], "net");
    EXPECT_FALSE(info.contains(kZUBInfoSpeedTest));
}

TEST(ZUBProPlugin, SpeedConfigThatIsNoJsonAddsNothing) {
    useSdkConfig("not json {");
    EXPECT_FALSE(ZUBPro::getMainServicesInfo().contains(kZUBInfoSpeedTest));
    EXPECT_TRUE(ZUBPro::getMainServicesInfo().is_object());
}

TEST(ZUBProPlugin, ReportedEventsGetOnlyAMissingAppKey) {
    zubtest::SteppingClock clock;
    ZUBProConfig::getInstance().setAppkey("main-app");
    auto own = std::make_shared<ProbeEvent>("own");
    own->setAppkey("plugin-app");
    auto bare = std::make_shared<ProbeEvent>("bare");
    ZUBPro::reportEvent(own);
    ZUBPro::reportEvent(bare);
    ZUBPro::reportEvent(nullptr);  // ignored
    auto first = std::make_shared<ProbeEvent>("list-1");
    auto second = std::make_shared<ProbeEvent>("list-2");
    second->setAppkey("x");
    ZUBPro::reportEvents({first, nullptr, second});

    auto events = zubtest::filedEvents<ProbeEvent>();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0]->appkey(), "plugin-app");
    EXPECT_EQ(events[1]->appkey(), "main-app");
    EXPECT_EQ(events[2]->tag_, "list-1");
    EXPECT_EQ(events[2]->appkey(), "main-app");
    EXPECT_EQ(events[3]->appkey(), "x");
    const zub::Value json = zubtest::jsonOf(*events[1]);
    EXPECT_EQ(json["et"], 4242);
    EXPECT_EQ(json["tag"], "bare");
    EXPECT_EQ(json["ts"], 0) << "nothing but the key is filled in";
}

TEST(ZUBProPlugin, StartNotificationReachesObserversBeforeStartReturns) {
    useClosedEndpoints();
    zubtest::LogCapture log;
    std::atomic<int> starts{0};
    std::atomic<int> all{0};
    std::string seenKey;
    const auto id = zub::addNotificationObserver(ZUBProMainServiceStartNotification, [&](const std::string& name) {
        EXPECT_EQ(name, "ZUB_MAIN_SERVICE_START_NOTIFICATION");
        seenKey = ZUBProConfig::getInstance().appkey().value_or("");
        ++starts;
    });
    ASSERT_NE(id, 0u);
    // A failing observer stays with itself: it is logged and the others still run.
    const auto failing = zub::addNotificationObserver(ZUBProMainServiceStartNotification,
                                                      [](const std::string&) { throw std::runtime_error("boom"); });
    const auto everything = zub::addNotificationObserver("", [&](const std::string&) { ++all; });
    EXPECT_EQ(zub::addNotificationObserver("x", nullptr), 0u);

    ZUBPro::startWithAppKey("started-app");
    EXPECT_EQ(starts, 1);
    EXPECT_EQ(seenKey, "started-app");
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]observer of ZUB_MAIN_SERVICE_START_NOTIFICATION failed: boom"));
    EXPECT_GE(all, 1);

    ZUBPro::startWithAppKey("started-app");  // every start posts again
    EXPECT_EQ(starts, 2);

    zub::removeNotificationObserver(id);
    zub::removeNotificationObserver(failing);
    zub::removeNotificationObserver(everything);
    zub::removeNotificationObserver(0);  // ignored
    ZUBPro::startWithAppKey("started-app");
    EXPECT_EQ(starts, 2);
}

TEST(ZUBProPluginConcurrency, PluginsOnManyThreadsShareOneInfoAndSeeEveryStart) {
    useClosedEndpoints();
    zubtest::SteppingClock clock;
    constexpr int kThreads = 8;
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    std::latch go(kThreads + 1);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            go.arrive_and_wait();
            // Every plug-in adds its own entry and counts in a shared one.
            const std::string own = "plugin-" + std::to_string(t);
            ZUBPro::setMainServicesInfo(own, t);
            // Observers come and go while the library starts on another thread.
            for (int i = 0; i < 50; ++i) {
                ZUBPro::updateMainServicesInfo([](zub::Value& info) {
                    info[kZUBInfoLM] = info.value(kZUBInfoLM, 0) + 1;
                });
                EXPECT_EQ(ZUBPro::getMainServicesInfo()[own], t);
                const auto id = zub::addNotificationObserver(ZUBProMainServiceStartNotification,
                                                             [&](const std::string&) { ++calls; });
                auto event = std::make_shared<ProbeEvent>("t" + std::to_string(t) + "-" + std::to_string(i));
                event->setSid(ZUBPro::getSessionID(false));
                ZUBPro::reportEvent(event);
                zub::removeNotificationObserver(id);
            }
        });
    }
    go.arrive_and_wait();
    ZUBPro::startWithAppKey("concurrent-app");
    ZUBPro::startWithAppKey("concurrent-app");
    for (auto& thread : threads) thread.join();

    const zub::Value info = ZUBPro::getMainServicesInfo();
    EXPECT_EQ(info[kZUBInfoLM], kThreads * 50) << "no update was lost";
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(info["plugin-" + std::to_string(t)], t);
    EXPECT_EQ(zubtest::filedEvents<ProbeEvent>().size(), static_cast<std::size_t>(kThreads * 50));
    // After every observer is removed, a start reaches none of them.
    const int before = calls.load();
    ZUBPro::startWithAppKey("concurrent-app");
    EXPECT_EQ(calls.load(), before);
}
