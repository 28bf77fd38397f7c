// The facade's operations for plug-ins: the main service's information, event
// hand-in and the session id.
#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "Model/ZUBSessionEvent.h"
#include "Pro/ZUBEventLogic.h"
#include "Pro/ZUBOnlineConfig.h"
#include "Pro/ZUBProGuard.h"

#include <mutex>

namespace {

void putIfPresent(zub::Value& info, const char* key, const std::optional<std::string>& value) {
    if (value) info[key] = *value;
}

// The speed-test setting of the SDK block, when its content is a JSON object holding it.
void addSpeedTest(zub::Value& info) {
    auto sdk = ZUBOnlineConfig::getInstance().getConfig(1);
    if (!sdk || !sdk->content()) return;
    zub::Value content = zub::Value::parse(*sdk->content(), nullptr, /*allow_exceptions=*/false);
    if (!content.is_object()) return;
    if (auto it = content.find("__ZUB_TEST_SPEED__"); it != content.end()) info[kZUBInfoSpeedTest] = *it;
}

zub::Value buildServicesInfo() {
    ZUBProConfig& config = ZUBProConfig::getInstance();
    ZUBProEnv& env = ZUBProEnv::getInstance();
    zub::Value info = zub::Value::object();
    putIfPresent(info, kZUBInfoAppKey, config.appkey());
    putIfPresent(info, kZUBInfoChannel, config.zubChannel());
    putIfPresent(info, kZUBInfoCustomUserId, config.customUserID());
    if (const std::int64_t userType = ZUBProUser::getInstance().userType(); userType != 0) {
        info[kZUBInfoUserType] = userType;
    }
    putIfPresent(info, kZUBInfoDeviceId, env.deviceid());
    putIfPresent(info, kZUBInfoMid, env.idfv());  // the vendor identifier, kept so on purpose
    putIfPresent(info, kZUBInfoAppVer, env.app_version());
    putIfPresent(info, kZUBInfoOSVer, env.os_version());
    putIfPresent(info, kZUBInfoModelName, env.modulename());
    if (env.modulename()) putIfPresent(info, kZUBInfoNet, env.wf());  // tested on the model, deliberately
    putIfPresent(info, kZUBInfoSDKVer, env.sdk_version());
    putIfPresent(info, kZUBInfoDeviceName, env.devicename());
    putIfPresent(info, kZUBInfoPlatform, env.platform());
    putIfPresent(info, kZUBInfoTimeZone, env.timezone());
    putIfPresent(info, kZUBInfoLanguage, env.language());
    putIfPresent(info, kZUBInfoResolution, env.resolution());
    putIfPresent(info, kZUBInfoOperator, env.mccmnc());
    try {
        addSpeedTest(info);
    } catch (...) {
        // A configuration that cannot be read adds no speed-test key.
    }
    return info;
}

// The dictionary every plug-in shares. Plug-ins read and change it from any
// thread, so it lives under a lock of its own; recursive, so that an update whose
// function calls the info operations again does not wait on itself.
struct ServicesInfo {
    std::recursive_mutex mutex;
    zub::Value info;  // guarded by mutex
};

ServicesInfo& servicesInfo() {
    // Built once, at the first use, under the static's guard; never destroyed.
    static ServicesInfo* shared = [] {
        zub::Value built = zubGuarded("getMainServicesInfo", [] { return buildServicesInfo(); });
        auto* s = new ServicesInfo();
        s->info = built.is_object() ? std::move(built) : zub::Value::object();
        return s;
    }();
    return *shared;
}

}  // namespace

zub::Value ZUBPro::getMainServicesInfo() {
    return zubGuarded("getMainServicesInfo", [] {
        ServicesInfo& shared = servicesInfo();
        std::lock_guard lock(shared.mutex);
        return shared.info;
    });
}

void ZUBPro::setMainServicesInfo(zub::OptionalText key, zub::Value value) {
    if (!key.has_value()) {
        ZUBProHelper::LogDebug("[WARN]setMainServicesInfo: absent key ignored");
        return;
    }
    updateMainServicesInfo([&](zub::Value& info) {
        if (value.is_null()) {
            info.erase(*key.text());
        } else {
            info[*key.text()] = std::move(value);
        }
    });
}

void ZUBPro::updateMainServicesInfo(const std::function<void(zub::Value& info)>& update) {
    zubGuarded("updateMainServicesInfo", [&] {
        if (!update) return;
        ServicesInfo& shared = servicesInfo();
        std::lock_guard lock(shared.mutex);
        zub::Value changed = shared.info;  // the dictionary changes only when the update succeeds
        update(changed);
        if (!changed.is_object()) {
            ZUBProHelper::LogDebug("[WARN]updateMainServicesInfo: the result is no dictionary, nothing changed");
            return;
        }
        shared.info = std::move(changed);
    });
}

void ZUBPro::reportEvent(const std::shared_ptr<ZUBProEvent>& event) {
    zubGuarded("reportEvent", [&] {
        if (!event) return;
        if (!event->appkey()) event->setAppkey(ZUBProConfig::getInstance().appkey());
        ZUBEventLogic::getInstance().reportEvent(event);
    });
}

void ZUBPro::reportEvents(const std::vector<std::shared_ptr<ZUBProEvent>>& events) {
    zubGuarded("reportEvents", [&] {
        const auto appkey = ZUBProConfig::getInstance().appkey();
        for (const auto& event : events) {
            if (event && !event->appkey()) event->setAppkey(appkey);
        }
        ZUBEventLogic::getInstance().reportEvents(events);
    });
}

std::uint64_t ZUBPro::getSessionID(bool isActive) {
    return zubGuarded("getSessionID", [&] { return ZUBSessionEvent::getSessionID(isActive); });
}
