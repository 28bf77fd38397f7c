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

void ZUBPro::startWithAppKey(const std::optional<std::string>& appKey) {
    zubGuarded("startWithAppKey", [&] {
        config().setAppkey(appKey);
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
void ZUBPro::setChannel(const std::optional<std::string>& channel) {
    config().setZubChannel(channel);
}
void ZUBPro::setCustomAppVersion(const std::optional<std::string>& version) {
    config().setCustomAppVersion(version);
}
void ZUBPro::setCustomUserID(const std::optional<std::string>& userID) {
    config().setCustomUserID(userID);
}
void ZUBPro::setPeriodSecs(std::uint64_t seconds) {
    config().setPeriodSecs(seconds);
}

zub::Value ZUBPro::getDeviceIDs() {
    return zubGuarded("getDeviceIDs", [] { return ZUBProMid::getInstance().getDeviceIDs(); });
}

zub::Value ZUBPro::getOnlineProperty(const std::string& key) {
    return zubGuarded("getOnlineProperty", [&] { return ZUBOnlineConfig::getInstance().getOnlineProperty(key); });
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

void ZUBPro::addNotification() {}

void ZUBPro::initialize() {}
