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
#include "Platform/AtomicFile.h"
#include "Pro/ZUBEventLogic.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ReportPipeline.h"

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
    // Requests other than reports: the registrations (the server sees no query).
    std::size_t registrations() const { return server.requests().size() - server.reports().size(); }
    zubtest::WireServer server;
};

std::string logPath() { return ZUBProStore::getInstance().getLogfilePath(".toReportEvents.log"); }

}  // namespace

TEST(ZUBPro, EveryStartRepeatsEveryStepAndANullTextIsAbsentInEveryPublicCall) {
    zubtest::ManualClock clock;
    Servers s;
    zubtest::LogCapture log;
    const char* const none = nullptr;
    int starts = 0, all = 0;
    const auto id = zub::addNotificationObserver(ZUBProMainServiceStartNotification, [&](const std::string& name) {
        EXPECT_EQ(name, "ZUB_MAIN_SERVICE_START_NOTIFICATION");
        ++starts;
    });
    const auto everything = zub::addNotificationObserver(none, [&](const std::string&) { ++all; });
    // A failing observer stays with itself: it is logged and the others still run.
    const auto failing = zub::addNotificationObserver(ZUBProMainServiceStartNotification,
                                                      [](const std::string&) { throw std::runtime_error("boom"); });
    EXPECT_EQ(zub::addNotificationObserver("x", nullptr), 0u);
    ZUBPro::startWithAppKey("key-1");
    EXPECT_EQ(starts, 1);
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]observer of ZUB_MAIN_SERVICE_START_NOTIFICATION failed: boom"));
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_EQ(ZUBProConfig::getInstance().appkey(), "key-1");
    ZUBPro::startWithAppKey(none);  // no check of the key: stored as it is, and said
    EXPECT_EQ(starts, 2);
    EXPECT_GE(all, 2) << "no name observes every notification";
    EXPECT_EQ(ZUBProConfig::getInstance().appkey(), std::nullopt);
    EXPECT_TRUE(log.has(R"([ZUBDebug] [WARN]startWithAppKey: the application key is absent; events will carry no "ky")"));
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_EQ(s.registrations(), 2u);  // one registration per start
    EXPECT_EQ(ZUBPro::getDeviceIDs()["mid"], "wire-mid");
    for (const auto observer : {id, everything, failing}) zub::removeNotificationObserver(observer);
    ZUBPro::startWithAppKey("key-1");
    EXPECT_EQ(starts, 2) << "a removed observer is not called";

    EXPECT_TRUE(ZUBPro::getOnlineProperty(none) == "" && ZUBProBaseFunction::getOnlineProperty(none) == "");
    ZUBPro::setMainServicesInfo(none, 1);
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]setMainServicesInfo: absent key ignored"));
    EXPECT_FALSE(ZUBPro::getMainServicesInfo().contains(""));
    ZUBProBaseFunction::saveToKeyChain(none, {{"k", "v"}});
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]saveToKeyChain: absent key, nothing stored"));
    EXPECT_FALSE(ZUBProBaseFunction::loadFromKeyChain(none) || ZUBProBaseFunction::loadFromKeyChain(""));
    ZUBProBaseFunction::logDebug(none);
    EXPECT_TRUE(log.has("[ZUBDebug] (null)"));
    zub::setBundleInfo("CFBundleShortVersionString", "3.0");
    zub::setBundleInfo(none, "x");
    zub::setBundleInfo("CFBundleShortVersionString", none);
    EXPECT_EQ(zub::bundleInfo("CFBundleShortVersionString"), "3.0");
    EXPECT_FALSE(zub::bundleInfo(none) || ZUBProBaseFunction::md5Encrypt(none));
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]setBundleInfo: absent key ignored") &&
                log.has("[ZUBDebug] [WARN]setBundleInfo: absent value ignored"));
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
    const auto waiting = zubtest::waitingKeys();
    ASSERT_EQ(waiting.size(), 1u);

    // Activation with no mid does not register again: "" is not an absent mid.
    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(zubtest::settlePipeline());
    EXPECT_EQ(s.registrations(), 1u);

    // Background and termination only save; nothing is sent or cleared.
    for (auto handler : {&ZUBPro::onWillApplicationEnterBackground, &ZUBPro::onWillApplicationWillTerminate}) {
        std::filesystem::remove(logPath());
        handler();
        ASSERT_TRUE(zubtest::settlePipeline());
        EXPECT_TRUE(std::filesystem::exists(logPath()));
        EXPECT_EQ(zubtest::waitingKeys(), waiting);
    }
    EXPECT_EQ(s.server.reports().size(), 0u);

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
    for (std::uint64_t i = 0; i < 5; ++i) {
        auto event = std::make_shared<ZUBProEvent>();
        event->setType(3000);
        event->setTs(1700000000u + i);
        ZUBPro::reportEvent(event);
    }
    ZUBPro::onWillApplicationEnterBackground();
    gate.set_value();
    ASSERT_TRUE(ZUBEventLogic::getInstance().queue().flush(std::chrono::seconds(10)));

    auto bytes = zub::AtomicFile::read(logPath());
    auto saved = bytes ? ZUBEventDal::decodeLogfile(*bytes) : std::nullopt;
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->size(), 5u);
    std::uint64_t expectedTs = 1700000000u;
    for (const auto& [key, event] : *saved) EXPECT_EQ(event->ts(), expectedTs++);  // in the order tracked
    // Filed once: the queue found nothing left to file.
    std::lock_guard lock(ZUBEventDal::getInstance().eventListLock());
    EXPECT_EQ(ZUBEventDal::getInstance().toReportEvents().size(), 5u);
}
