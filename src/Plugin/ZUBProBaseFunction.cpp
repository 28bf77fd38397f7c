#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProBaseFunction.h>

#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "Pro/ZUBProGuard.h"

void ZUBProBaseFunction::saveToKeyChain(zub::OptionalText key, const zub::Value& dict) {
    zubGuarded("saveToKeyChain", [&] {
        if (!key.has_value()) {
            ZUBProHelper::LogDebug("[WARN]saveToKeyChain: absent key, nothing stored");
            return;
        }
        ZUBProStore::getInstance().saveToKeyChain(*key.text(), dict);
    });
}

std::optional<zub::Value> ZUBProBaseFunction::loadFromKeyChain(zub::OptionalText key) {
    return zubGuarded("loadFromKeyChain", [&]() -> std::optional<zub::Value> {
        if (!key.has_value()) return std::nullopt;
        return ZUBProStore::getInstance().loadFromKeyChain(*key.text());
    });
}

void ZUBProBaseFunction::logDebug(zub::OptionalText format, const std::vector<std::string>& args) {
    if (!ZUBProConfig::getInstance().debugEnable()) return;
    // The platform writes an absent format as "(null)".
    std::string prefixed = "[ZUBDebug] ";
    prefixed.append(format.text().value_or("(null)"));
    zub::SystemLog::write(ZUBProHelper::formatMessage(prefixed, args));
}

std::optional<std::string> ZUBProBaseFunction::md5Encrypt(zub::OptionalText text) {
    return ZUBProHelper::md5encrypt(text.text());
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

zub::Value ZUBProBaseFunction::getOnlineProperty(zub::OptionalText key) {
    return ZUBPro::getOnlineProperty(std::move(key));
}
