// The facade's start, queries and lifecycle handlers, against a wire-speaking
// loopback server for both endpoints.
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProBaseFunction.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBLMEvent.h"
#include "Model/ZUBProAccountEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Platform/AtomicFile.h"
#include "Pro/ZUBEventLogic.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ReportPipeline.h"
#include "support/SteppingClock.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>

namespace {

struct Servers {
    Servers() {
        server.start();
        ZUBProConfig::getInstance().setReportURL(server.url("/mstat/report"));
        ZUBProConfig::getInstance().setMidURL(server.url("/?t=ios&ver=2.0"));
        ZUBPro::setSmartReport(false);
    }
    std::size_t count(const std::string& prefix) const {
        std::size_t n = 0;
        for (const auto& r : server.requests()) n += r.path.rfind(prefix, 0) == 0;
        return n;
    }
    zubtest::WireServer server;
};

std::string logPath() {
    return ZUBProStore::getInstance().getLogfilePath(".toReportEvents.log");
}

}  // namespace

TEST(ZUBPro, EveryStartRepeatsEveryStepIncludingTheNotification) {
    zubtest::ManualClock clock;
    Servers s;
    int starts = 0;
    const auto id = zub::addNotificationObserver(ZUBProMainServiceStartNotification, [&](const std::string& name) {
        EXPECT_EQ(name, "ZUB_MAIN_SERVICE_START_NOTIFICATION");
        ++starts;
    });
    ZUBPro::startWithAppKey("key-1");
    EXPECT_EQ(starts, 1);
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_EQ(ZUBProConfig::getInstance().appkey(), "key-1");
    ZUBPro::startWithAppKey(std::nullopt);  // no check of the key: stored as it is
    EXPECT_EQ(starts, 2);
    EXPECT_EQ(ZUBProConfig::getInstance().appkey(), std::nullopt);
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_EQ(s.count("/?"), 2u);  // one registration per start
    EXPECT_EQ(ZUBPro::getDeviceIDs()["mid"], "wire-mid");
    EXPECT_EQ(ZUBPro::getOnlineProperty("nothing"), "");
    zub::removeNotificationObserver(id);
}

TEST(ZUBPro, AnotherStrategyNeitherLoadsNorSendsStoredEventsAtTheStart) {
    zubtest::ManualClock clock;
    Servers s;
    // An earlier run left one event in the log file, and the device is registered.
    ZUBDeviceIDDal::getInstance().saveMID("mid-x");
    ZUBPro::startWithAppKey("key");
    ASSERT_TRUE(zubtest::settlePipeline());
    ZUBPro::onWillApplicationEnterBackground();
    ASSERT_TRUE(std::filesystem::exists(logPath()));
    {
        ZUBEventDal& store = ZUBEventDal::getInstance();
        std::lock_guard lock(store.eventListLock());
        store.toReportEvents().clear();
    }
    const std::size_t midRequests = s.count("/?");

    ZUBPro::setReportStrategy(5);
    const std::uint64_t before = ZUBPro::getSessionID(false);
    clock.advanceSeconds(3600);  // long enough for a new session
    ZUBPro::startWithAppKey("key");
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_TRUE(std::filesystem::exists(logPath()));  // not loaded
    EXPECT_EQ(s.count("/mstat/report"), 0u);
    EXPECT_EQ(s.count("/?"), midRequests + 1);      // still registers
    EXPECT_NE(ZUBPro::getSessionID(false), before);  // and opens a session
    EXPECT_EQ(zubtest::waitingKeys().size(), 1u);    // its session event only
}

TEST(ZUBPro, LifecycleHandlersDoWhatEachPromisesAndNoMore) {
    zubtest::ManualClock clock;
    Servers s;
    // The identifier server refuses: the device stays without a mid.
    s.server.setHandler([](const zubtest::WireRequest& r) -> std::string {
        return r.path.rfind("/mstat/report", 0) == 0 ? R"({"ret":0})" : R"({"ret":1})";
    });
    ZUBPro::startWithAppKey("key");
    ASSERT_TRUE(zubtest::settlePipeline());
    ASSERT_EQ(ZUBDeviceIDDal::getInstance().getMID(), "");
    EXPECT_EQ(s.count("/?"), 1u);
    const auto waiting = zubtest::waitingKeys();
    ASSERT_EQ(waiting.size(), 1u);

    // Activation with no mid does not register again: "" is not an absent mid.
    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_EQ(s.count("/?"), 1u);

    // Background and termination only save; nothing is sent or cleared.
    for (auto handler : {&ZUBPro::onWillApplicationEnterBackground, &ZUBPro::onWillApplicationWillTerminate}) {
        std::filesystem::remove(logPath());
        handler();
        ASSERT_TRUE(zubtest::settlePipeline());
        EXPECT_TRUE(std::filesystem::exists(logPath()));
        EXPECT_EQ(zubtest::waitingKeys(), waiting);
    }
    EXPECT_EQ(s.count("/mstat/report"), 0u);

    // Resigning refreshes the activity time, so a later activation within the
    // time-out keeps the session.
    const std::uint64_t session = ZUBPro::getSessionID(false);
    clock.advanceSeconds(25);
    ZUBPro::onWillApplicationResignActive();
    clock.advanceSeconds(25);
    ZUBPro::onDidApplicationBecomeActive();
    EXPECT_EQ(ZUBPro::getSessionID(false), session);
    clock.advanceSeconds(30);
    ZUBPro::onDidApplicationBecomeActive();
    EXPECT_NE(ZUBPro::getSessionID(false), session);
}

TEST(ZUBPro, EventsStillOnTheirWayAreSavedWhenTheHostGoesToTheBackground) {
    ZUBPro::setReportStrategy(8);
    ZUBPro::setSmartReport(false);
    // Hold the report queue, so the events below are handed over but not yet filed.
    std::promise<void> gate;
    auto opened = gate.get_future().share();
    ZUBEventLogic::getInstance().queue().async([opened] { opened.wait(); });
    for (int i = 0; i < 5; ++i) {
        auto event = std::make_shared<ZUBProEvent>();
        event->setType(3000);
        event->setTs(1700000000u + static_cast<std::uint64_t>(i));
        event->setSid(static_cast<std::uint64_t>(i + 1));
        ZUBPro::reportEvent(event);
    }
    ZUBPro::onWillApplicationEnterBackground();
    gate.set_value();
    ASSERT_TRUE(ZUBEventLogic::getInstance().queue().flush(std::chrono::seconds(10)));

    auto bytes = zub::AtomicFile::read(logPath());
    ASSERT_TRUE(bytes);
    auto saved = ZUBEventDal::decodeLogfile(*bytes);
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->size(), 5u);
    std::uint64_t expectedTs = 1700000000u;
    for (const auto& [key, event] : *saved) EXPECT_EQ(event->ts(), expectedTs++);  // in the order tracked
    // Filed once: the queue found nothing left to file.
    std::lock_guard lock(ZUBEventDal::getInstance().eventListLock());
    EXPECT_EQ(ZUBEventDal::getInstance().toReportEvents().size(), 5u);
}

TEST(ZUBPro, ANullPointerIsAnAbsentTextInEveryPublicCall) {
    zubtest::SteppingClock clock;  // no two events share an identity key
    Servers s;
    zubtest::LogCapture log;
    const char* const none = nullptr;
    ZUBProConfig& config = ZUBProConfig::getInstance();
    const auto custom = [](std::size_t i) { return zubtest::jsonOf(*zubtest::filedEvents<ZUBProCustomEvent>().at(i)); };
    int observed = 0;
    std::uint64_t observer = 0;

    // Each call with a null text, then what the absent value does by its call's rule.
    const struct {
        const char* call;
        std::function<void()> run;
        std::function<void()> check;
    } table[] = {
        {"startWithAppKey", [&] { ZUBPro::startWithAppKey(none); },
         [&] {
             EXPECT_EQ(config.appkey(), std::nullopt);
             EXPECT_TRUE(log.has(R"([ZUBDebug] [WARN]startWithAppKey: the application key is absent; events will carry no "ky")"));
         }},
        {"setChannel", [&] { ZUBPro::setChannel(none); }, [&] { EXPECT_EQ(config.zubChannel(), std::nullopt); }},
        {"setCustomAppVersion", [&] { ZUBPro::setCustomAppVersion(none); },
         [&] { EXPECT_EQ(config.customAppVersion(), std::nullopt); }},
        {"setCustomUserID", [&] { ZUBPro::setCustomUserID(none); }, [&] { EXPECT_EQ(config.customUserID(), std::nullopt); }},
        {"trackPageViewBegin", [&] { ZUBPro::trackPageViewBegin(none); },
         [&] { EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty page.")); }},
        {"trackPageViewEnd", [&] { ZUBPro::trackPageViewEnd(none); },
         [&] { EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty page.")); }},
        {"trackPage", [&] { ZUBPro::trackPage(none, 5); },
         [&] { EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty page.")); }},
        {"trackCustomEvent", [&] { ZUBPro::trackCustomEvent(none, {{"a", 1}}); },
         [&] {
             const zub::Value e = custom(0);
             EXPECT_FALSE(e.contains("ei"));
             EXPECT_EQ(e["kv"]["a"], 1);
         }},
        {"trackCustomEventBegin", [&] { ZUBPro::trackCustomEventBegin(none); },
         [&] { EXPECT_TRUE(log.has("[ZUBDebug] eventID is empty")); }},
        {"trackCustomEventEnd", [&] { ZUBPro::trackCustomEventEnd(none, zub::Value::object()); },
         [&] { EXPECT_TRUE(log.has("[ZUBDebug] Failed to trace nil/empty event_id.")); }},
        {"trackCustomEventDuration", [&] { ZUBPro::trackCustomEventDuration(none, zub::Value(), 3); },
         [&] {
             const zub::Value e = custom(1);
             EXPECT_FALSE(e.contains("ei"));
             EXPECT_EQ(e["du"], 3);
         }},
        {"reportLM", [&] { ZUBPro::reportLM(none); },
         [&] { EXPECT_TRUE(zubtest::filedEvents<ZUBLMEvent>().empty()); }},
        {"reportAccount", [&] {
             ZUBPro::reportAccount(none, 1001, "x");
             ZUBPro::reportAccount("ada", 1001, none);
         },
         [&] {
             const auto accounts = zubtest::filedEvents<ZUBProAccountEvent>();
             ASSERT_EQ(accounts.size(), 1u);
             EXPECT_EQ(zubtest::jsonOf(*accounts[0])["acc"].dump(), R"({"a":"ada","t":0})");
         }},
        {"getOnlineProperty", [] {}, [&] {
             EXPECT_EQ(ZUBPro::getOnlineProperty(none), "");
             EXPECT_EQ(ZUBProBaseFunction::getOnlineProperty(none), "");
         }},
        {"setMainServicesInfo", [&] { ZUBPro::setMainServicesInfo(none, 1); },
         [&] {
             EXPECT_TRUE(log.has("[ZUBDebug] [WARN]setMainServicesInfo: absent key ignored"));
             EXPECT_FALSE(ZUBPro::getMainServicesInfo().contains(""));
         }},
        {"saveToKeyChain", [&] { ZUBProBaseFunction::saveToKeyChain(none, {{"k", "v"}}); },
         [&] {
             EXPECT_TRUE(log.has("[ZUBDebug] [WARN]saveToKeyChain: absent key, nothing stored"));
             EXPECT_EQ(ZUBProBaseFunction::loadFromKeyChain(none), std::nullopt);
             EXPECT_EQ(ZUBProBaseFunction::loadFromKeyChain(""), std::nullopt);
         }},
        {"logDebug", [&] { ZUBProBaseFunction::logDebug(none); },
         [&] { EXPECT_TRUE(log.has("[ZUBDebug] (null)")); }},
        {"md5Encrypt", [] {}, [&] { EXPECT_EQ(ZUBProBaseFunction::md5Encrypt(none), std::nullopt); }},
        {"setBundleInfo", [&] {
             zub::setBundleInfo("CFBundleShortVersionString", "3.0");
             zub::setBundleInfo(none, "x");
             zub::setBundleInfo("CFBundleShortVersionString", none);
         },
         [&] {
             EXPECT_EQ(zub::bundleInfo("CFBundleShortVersionString"), "3.0");
             EXPECT_EQ(zub::bundleInfo(none), std::nullopt);
             EXPECT_TRUE(log.has("[ZUBDebug] [WARN]setBundleInfo: absent key ignored"));
             EXPECT_TRUE(log.has("[ZUBDebug] [WARN]setBundleInfo: absent value ignored"));
         }},
        {"addNotificationObserver", [&] {
             observer = zub::addNotificationObserver(none, [&](const std::string&) { ++observed; });
             ZUBPro::startWithAppKey("key");  // posts the start notification
         },
         [&] {
             EXPECT_NE(observer, 0u);
             EXPECT_GE(observed, 1) << "no name observes every notification";
             zub::removeNotificationObserver(observer);
         }},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.call);
        row.run();
        ASSERT_TRUE(zubtest::settlePipeline());
        row.check();
    }
}
