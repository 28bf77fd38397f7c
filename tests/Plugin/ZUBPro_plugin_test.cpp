// What plug-ins get from the library: the shared services info, event hand-in and
// the basic functions lent to them.
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProConfig.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "Pro/ZUBOnlineConfig.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/ModelFixtures.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBEndpoints.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProBaseFunction.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <gtest/gtest.h>

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

    // The mid key holds the vendor identifier; a new user has no user type; no
    // model name, no network name.
    const zub::Value info = ZUBPro::getMainServicesInfo();
    zubtest::expectKeys(info,
                        {{kZUBInfoAppKey, "app-1"}, {kZUBInfoChannel, "web"}, {kZUBInfoMid, "IDFV-1"},
                         {kZUBInfoSpeedTest, {{"url", "http://speed"}}}},
                        {kZUBInfoUserType, kZUBInfoModelName, kZUBInfoNet, kZUBInfoCustomUserId});

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
    zubtest::expectKeys(changed, {{kZUBInfoHotfix, {{"patch", 3}}}, {kZUBInfoAppKey, "app-1"}}, {kZUBInfoChannel});
    EXPECT_EQ(changed.size(), info.size());
}

TEST(ZUBProPlugin, ReturningUserAndUnreadableSpeedConfig) {
    ZUBProUser::getInstance().setUserType(2);
    ZUBProEnv::getInstance().setModulename("Desk1,1");
    ZUBProEnv::getInstance().setWf("net");
    useSdkConfig(R"(["__ZUB_TEST_SPEED__"])");  // an array: no speed-test key
    zubtest::expectKeys(ZUBPro::getMainServicesInfo(), {{kZUBInfoUserType, 2}, {kZUBInfoNet, "net"}}, {kZUBInfoSpeedTest});
}

TEST(ZUBProPlugin, ReportedEventsGetOnlyAMissingAppKey) {
    zubtest::SteppingClock clock;
    ZUBProConfig::getInstance().setAppkey("main-app");
    auto own = std::make_shared<ProbeEvent>("own"), second = std::make_shared<ProbeEvent>("list-2");
    own->setAppkey("plugin-app");
    second->setAppkey("x");
    ZUBPro::reportEvent(own);
    ZUBPro::reportEvent(std::make_shared<ProbeEvent>("bare"));
    ZUBPro::reportEvent(nullptr);  // ignored
    ZUBPro::reportEvents({std::make_shared<ProbeEvent>("list-1"), nullptr, second});

    auto events = zubtest::filedEvents<ProbeEvent>();
    std::vector<std::string> keys;
    for (const auto& e : events) keys.push_back(e->tag_ + "=" + e->appkey().value_or("(none)"));
    EXPECT_EQ(keys, (std::vector<std::string>{"own=plugin-app", "bare=main-app", "list-1=main-app", "list-2=x"}));
    ASSERT_EQ(events.size(), 4u);
    // Nothing but the key is filled in.
    zubtest::expectKeys(zubtest::jsonOf(*events[1]), {{"et", 4242}, {"tag", "bare"}, {"ts", 0}});
}

TEST(ZUBProBaseFunction, DebugLogOnlyWhenEnabledAndTheNetworkCodesSwapped) {
    zubtest::LogCapture log(/*enableDebug=*/false);
    ZUBProBaseFunction::logDebug("plugin %@ ready", {"search"});
    EXPECT_TRUE(log.lines().empty());
    ZUBProConfig::getInstance().setDebugEnable(true);
    ZUBProBaseFunction::logDebug("plugin %@ ready in %d ms", {"search", "12"});
    EXPECT_TRUE(log.has("[ZUBDebug] plugin search ready in 12 ms"));

    ZUBProBaseFunction::saveToKeyChain("plugin.state", {{"n", 3}});
    EXPECT_EQ(ZUBProBaseFunction::loadFromKeyChain("plugin.state"), (zub::Value{{"n", 3}}));
    EXPECT_EQ(ZUBProBaseFunction::md5Encrypt("abc"), "900150983cd24fb0d6963f7d28e17f72");
    // The two reachable codes come out swapped: Wi-Fi (status 1) is 2, cellular 1.
    const auto status = static_cast<int>(ZUBProReachability::reachabilityForInternetConnection()->currentReachabilityStatus());
    EXPECT_EQ(ZUBProBaseFunction::currentNetwork(), status == 1 ? 2 : status == 2 ? 1 : 0) << "status " << status;
}

TEST(ZUBProPluginConcurrency, PluginsOnManyThreadsShareOneInfo) {
    zub::setCollectorAddress("http://127.0.0.1:9");  // nobody listens
    zubtest::SteppingClock clock;
    constexpr int kThreads = 8;
    std::vector<std::thread> threads;
    std::latch go(kThreads + 1);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            go.arrive_and_wait();
            // Every plug-in adds its own entry and counts in a shared one.
            const std::string own = "plugin-" + std::to_string(t);
            ZUBPro::setMainServicesInfo(own, t);
            for (int i = 0; i < 50; ++i) {
                ZUBPro::updateMainServicesInfo([](zub::Value& info) {
                    info[kZUBInfoLM] = info.value(kZUBInfoLM, 0) + 1;
                });
                EXPECT_EQ(ZUBPro::getMainServicesInfo()[own], t);
                auto event = std::make_shared<ProbeEvent>("t" + std::to_string(t) + "-" + std::to_string(i));
                event->setSid(ZUBPro::getSessionID(false));
                ZUBPro::reportEvent(event);
            }
        });
    }
    go.arrive_and_wait();
    ZUBPro::startWithAppKey("concurrent-app");  // while the plug-ins work
    for (auto& thread : threads) thread.join();

    const zub::Value info = ZUBPro::getMainServicesInfo();
    EXPECT_EQ(info[kZUBInfoLM], kThreads * 50) << "no update was lost";
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(info["plugin-" + std::to_string(t)], t);
    EXPECT_EQ(zubtest::filedEvents<ProbeEvent>().size(), static_cast<std::size_t>(kThreads * 50));
}
