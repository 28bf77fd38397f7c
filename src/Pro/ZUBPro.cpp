// The facade's start, settings, queries and lifecycle handlers.
#include <ZUBCocoa/ZUBPro.h>

#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/NotificationCenter.h"
#include "Pro/ZUBEventLogic.h"
#include "Pro/ZUBOnlineConfig.h"
#include "Pro/ZUBProGuard.h"


const char* const ZUBProMainServiceStartNotification = "ZUB_MAIN_SERVICE_START_NOTIFICATION";

namespace {

constexpr std::int64_t kStrategyAppLaunch = 8;

ZUBProConfig& config() {
    return ZUBProConfig::getInstance();
}

void loadAndSendStoredEvents() {
    if (config().reportStrategy() != kStrategyAppLaunch) return;
    ZUBEventDal::getInstance().loadLogfile();
    ZUBEventLogic::getInstance().reportEvents();
}

// Saves the store with every event tracked so far, including those still on
// their way to the report queue.
void saveStore() {
    ZUBEventLogic& logic = ZUBEventLogic::getInstance();
    logic.filePendingEvents();
    ZUBEventDal::getInstance().saveLogfile();
    logic.syncJournal();
}

}  // namespace

void ZUBPro::startWithAppKey(zub::OptionalText appKey) {
    zubGuarded("startWithAppKey", [&] {
        // Stored as given, without a check; only said, since such events go out
        // without an application key and the collector cannot tell whose they are.
        if (!appKey.has_value()) {
            ZUBProHelper::LogDebug("[WARN]startWithAppKey: the application key is absent; events will carry no \"ky\"");
        } else if (appKey.text()->empty()) {
            ZUBProHelper::LogDebug("[WARN]startWithAppKey: the application key is empty; events will carry \"ky\":\"\"");
        }
        config().setAppkey(std::move(appKey).text());
        addNotification();
        ZUBOnlineConfig& online = ZUBOnlineConfig::getInstance();
        online.loadSDKConfig();
        online.loadAppConfig();
        online.updateReportStrategy();
        loadAndSendStoredEvents();
        ZUBEventLogic::getInstance().startJournal();
        ZUBProMid::getInstance().reportMid();
        ZUBSessionEvent::getSessionID(true);
        zub::NotificationCenter::defaultCenter().post(ZUBProMainServiceStartNotification,
                                                      std::string("ZUBPro"));
    });
}

void ZUBPro::setDebugEnable(bool enable) {
    config().setDebugEnable(enable);
}
void ZUBPro::setSmartReport(bool enable) {
    config().setIsSmartReport(enable);
}
void ZUBPro::setSessionTimeoutSecs(std::uint64_t seconds) {
    config().setSessionTimeoutSecs(seconds);
}
void ZUBPro::setReportStrategy(std::int64_t strategy) {
    config().setReportStrategy(strategy);
}
void ZUBPro::setChannel(zub::OptionalText channel) {
    config().setZubChannel(std::move(channel).text());
}
void ZUBPro::setCustomAppVersion(zub::OptionalText version) {
    config().setCustomAppVersion(std::move(version).text());
}
void ZUBPro::setCustomUserID(zub::OptionalText userID) {
    config().setCustomUserID(std::move(userID).text());
}
void ZUBPro::setPeriodSecs(std::uint64_t seconds) {
    config().setPeriodSecs(seconds);
}

zub::Value ZUBPro::getDeviceIDs() {
    return zubGuarded("getDeviceIDs", [] { return ZUBProMid::getInstance().getDeviceIDs(); });
}

zub::Value ZUBPro::getOnlineProperty(zub::OptionalText key) {
    return zubGuarded("getOnlineProperty", [&] {
        // An absent key names no property.
        return key.has_value() ? ZUBOnlineConfig::getInstance().getOnlineProperty(*key.text()) : zub::Value("");
    });
}

void ZUBPro::onDidApplicationBecomeActive() {
    zubGuarded("onDidApplicationBecomeActive", [] { ZUBSessionEvent::getSessionID(true); });
}

void ZUBPro::onWillApplicationResignActive() {
    zubGuarded("onWillApplicationResignActive", [] { ZUBSessionEvent::getSessionID(false); });
}

void ZUBPro::onApplicationDidBecomeActive() {
    zubGuarded("onApplicationDidBecomeActive", [] {
        loadAndSendStoredEvents();
        ZUBSessionEvent::getSessionID(true);
        // Registration on activation is meant for a device whose mid is absent; the
        // device store answers "" (never absent) when no mid is known, so activation
        // does not register again: each start does.
    });
}

void ZUBPro::onWillApplicationEnterBackground() {
    zubGuarded("onWillApplicationEnterBackground", [] { saveStore(); });
}

void ZUBPro::onWillApplicationWillTerminate() {
    zubGuarded("onWillApplicationWillTerminate", [] { saveStore(); });
}

// Hooks of the platform build: this build attaches nothing.
void ZUBPro::addNotification() {}

void ZUBPro::initialize() {}
