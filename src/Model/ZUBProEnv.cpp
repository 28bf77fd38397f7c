#include "Model/ZUBProEnv.h"

#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Platform/Bundle.h"
#include "Platform/HostInfo.h"
#include "Platform/UserDefaults.h"

#include <cstdio>

namespace {

std::optional<std::string> languageFromDefaults() {
    const auto languages = zub::UserDefaults::standard().objectForKey("AppleLanguages");
    if (!languages || !languages->is_array() || languages->empty()) return std::nullopt;
    const zub::Value& first = (*languages)[0];
    if (!first.is_string()) return std::nullopt;
    return first.get<std::string>();
}

}  // namespace

ZUBProEnv& ZUBProEnv::getInstance() {
    static ZUBProEnv* instance = [] {
        auto* env = new ZUBProEnv();  // never destroyed
        env->getEnvInfo();
        return env;
    }();
    return *instance;
}

std::string ZUBProEnv::resolutionText(double width, double height, std::int32_t depth) {
    const double d = static_cast<double>(depth);
    char text[128];
    std::snprintf(text, sizeof text, "%.fx%.f", width * d, d * height);
    return text;
}

void ZUBProEnv::getEnvInfo() {
    setPlatform(zub::HostInfo::computerName());
    setDevicename(zub::HostInfo::machine().value_or(""));
    const OptString model = zub::HostInfo::model();
    setModulename(model);
    if (model) {
        std::fputs((*model + "\n").c_str(), stdout);
        std::fflush(stdout);
    }
    setOs_version(zub::HostInfo::osVersion());
    setJailbroken(ZUBProHelper::isJailbroken());
    setTimezone(zub::HostInfo::timeZoneName());
    const auto screen = zub::HostInfo::mainScreen();
    setResolution(screen ? resolutionText(screen->width, screen->height, screen->depth) : resolutionText(0, 0, 0));
    setDeviceid(ZUBDeviceIDDal::getInstance().getOpenUDID());
    setIdfa(std::string());
    setIdfv(ZUBDeviceIDDal::getInstance().getIdfv());
    OptString language = languageFromDefaults();
    if (!language) language = zub::HostInfo::preferredLanguage();
    setLanguage(language);
    setMccmnc(std::string());
    if (!app_version()) setApp_version(zub::Bundle::shortVersion());
    setSdk_version(std::string("1.0.0"));
    setWf(ZUBProHelper::fetchSSIDInfo());
    ZUBProHelper::LogDebug("environment: %@ %@ %@ %@ %@", platform(), devicename(), os_version(), timezone(),
                           resolution());
}

#define ZUB_ENV_PROPERTY(Type, name, Setter)             \
    Type ZUBProEnv::name() const {                       \
        std::lock_guard<std::mutex> lock(mutex_);        \
        return name##_;                                  \
    }                                                    \
    void ZUBProEnv::Setter(const Type& v) {              \
        std::lock_guard<std::mutex> lock(mutex_);        \
        name##_ = v;                                     \
    }

ZUB_ENV_PROPERTY(ZUBProEnv::OptString, platform, setPlatform)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, devicename, setDevicename)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, modulename, setModulename)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, os_version, setOs_version)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, timezone, setTimezone)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, resolution, setResolution)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, deviceid, setDeviceid)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, idfa, setIdfa)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, idfv, setIdfv)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, language, setLanguage)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, mccmnc, setMccmnc)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, app_version, setApp_version)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, sdk_version, setSdk_version)
ZUB_ENV_PROPERTY(ZUBProEnv::OptString, wf, setWf)

#undef ZUB_ENV_PROPERTY

bool ZUBProEnv::jailbroken() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return jailbroken_;
}

void ZUBProEnv::setJailbroken(bool v) {
    std::lock_guard<std::mutex> lock(mutex_);
    jailbroken_ = v;
}
