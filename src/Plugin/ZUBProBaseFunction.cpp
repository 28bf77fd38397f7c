#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProBaseFunction.h>

#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "Pro/ZUBProGuard.h"

void ZUBProBaseFunction::saveToKeyChain(const std::string& key, const zub::Value& dict) {
    zubGuarded("saveToKeyChain", [&] { ZUBProStore::getInstance().saveToKeyChain(key, dict); });
}

std::optional<zub::Value> ZUBProBaseFunction::loadFromKeyChain(const std::string& key) {
    return zubGuarded("loadFromKeyChain", [&] { return ZUBProStore::getInstance().loadFromKeyChain(key); });
}

void ZUBProBaseFunction::logDebug(std::string_view format, const std::vector<std::string>& args) {
    if (!ZUBProConfig::getInstance().debugEnable()) return;
    std::string prefixed = "[ZUBDebug] ";
    prefixed.append(format);
    zub::SystemLog::write(ZUBProHelper::formatMessage(prefixed, args));
}

std::optional<std::string> ZUBProBaseFunction::md5Encrypt(const std::optional<std::string>& text) {
    return ZUBProHelper::md5encrypt(text);
}

std::optional<std::string> ZUBProBaseFunction::objToJson(const zub::Value& object) {
    return ZUBProHelper::objToJson(object);
}

std::int64_t ZUBProBaseFunction::currentNetwork() {
    return zubGuarded("currentNetwork", [] {
        auto reachability = ZUBProReachability::reachabilityForInternetConnection();
        const auto status = reachability ? static_cast<std::int64_t>(reachability->currentReachabilityStatus()) : 0;
        return status == 1 ? std::int64_t{2} : status == 2 ? std::int64_t{1} : std::int64_t{0};
    });
}

bool ZUBProBaseFunction::isJailBroken() {
    return zubGuarded("isJailBroken", [] { return ZUBProHelper::isJailbroken(); });
}

double ZUBProBaseFunction::getTimeStamp() {
    return zub::Clock::nowDouble();
}

zub::Value ZUBProBaseFunction::getOnlineProperty(const std::string& key) {
    return ZUBPro::getOnlineProperty(key);
}
