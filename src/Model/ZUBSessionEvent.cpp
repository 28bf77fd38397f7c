#include "Model/ZUBSessionEvent.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "Model/ZUBSessionClock.h"
#include "Platform/Bundle.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"
#include "Pro/ZUBOnlineConfig.h"

#include <mutex>

namespace {

std::recursive_mutex& sessionLock() {
    static auto* lock = new std::recursive_mutex();
    return *lock;
}

}  // namespace

ZUBSessionEvent::ZUBSessionEvent() {
    setType(2);
}

std::uint64_t ZUBSessionEvent::generateSessionID() {
    return ZUBSessionClock::generateSessionID();
}

std::uint64_t ZUBSessionEvent::getSessionID(bool isActive) {
    return getSessionID(isActive, zub::Clock::nowSeconds());
}

std::uint64_t ZUBSessionEvent::getSessionID(bool isActive, const std::uint64_t now) {
    // Session events made here are reported after the lock is released, so the
    // report queue never waits on a host thread's session check.
    int newSessions = 0;
    std::uint64_t id = 0;
    {
        std::lock_guard lock(sessionLock());
        if (isActive && now - ZUBSessionClock::lastSessionTs() >= ZUBProConfig::getInstance().sessionTimeoutSecs()) {
            ZUBSessionClock::setSessionID(generateSessionID());
            ++newSessions;
        }
        if (now >= ZUBSessionClock::expireDayTimestamp()) {
            ZUBSessionClock::setSessionID(generateSessionID());
            ++newSessions;
        }
        ZUBSessionClock::setLastSessionTs(now);
        if (ZUBSessionClock::sessionID() == 0) {
            ZUBSessionClock::setSessionID(generateSessionID());
            ++newSessions;
        }
        id = ZUBSessionClock::sessionID();
    }
    for (int i = 0; i < newSessions; ++i) reportSessionEvent();
    return id;
}

void ZUBSessionEvent::reportSessionEvent() {
    auto event = std::make_shared<ZUBSessionEvent>();
    event->setSid(getSessionID(false));
    event->setAppkey(ZUBProConfig::getInstance().appkey());
    event->setIsImportant(true);
    event->setTs(zub::Clock::nowSeconds());
    event->setType(2);
    event->keyText_ = std::to_string(event->sid()) + std::to_string(event->ts()) + std::to_string(event->type()) +
                      std::to_string(generateSessionID());
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}

void ZUBSessionEvent::encode(zub::Value& envelope) {
    ZUBProEnv& env = ZUBProEnv::getInstance();
    ZUBProConfig& config = ZUBProConfig::getInstance();
    zub::Value ev = zub::Value::object();
    if (auto v = env.platform()) ev["pl"] = *v;
    if (auto v = env.timezone()) ev["tz"] = *v;
    if (auto v = env.os_version()) ev["ov"] = *v;
    if (auto custom = config.customAppVersion()) {
        ev["av"] = *custom;
    } else if (auto v = env.app_version()) {
        ev["av"] = *v;
    }
    ev["os"] = 2;
    if (auto v = env.sdk_version()) ev["sv"] = *v;
    if (auto v = env.language()) ev["lg"] = *v;
    if (auto v = env.resolution()) ev["sr"] = *v;
    if (auto v = env.mccmnc()) ev["op"] = *v;
    if (auto v = env.devicename()) ev["md"] = *v;
    if (auto v = env.modulename()) ev["mf"] = *v;
    if (auto v = env.wf()) ev["wf"] = *v;
    if (env.jailbroken()) envelope["jb"] = 1;
    if (auto v = config.zubChannel()) ev["ch"] = *v;
    envelope["ut"] = ZUBProUser::getInstance().userType();
    ev["cn"] = ZUBProHelper::getNetworkType();
    ZUBOnlineConfig::getInstance().encode(envelope);
    envelope["ev"] = std::move(ev);
    if (auto id = zub::Bundle::identifier()) envelope["bdid"] = *id;
}
