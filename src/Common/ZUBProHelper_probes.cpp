// Network and device probes of ZUBProHelper.
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProHelper.h"
#include "Platform/HostInfo.h"
#include "Platform/WifiInfo.h"

std::string ZUBProHelper::getNetworkType() {
    const auto reachability = ZUBProReachability::reachabilityForInternetConnection();
    if (!reachability) return "";
    switch (reachability->currentReachabilityStatus()) {
        case ZUBNetworkViaWiFi:
            return "WIFI";
        case ZUBNetworkViaWWAN:
            return "CellNetwork";
        default:
            return "";
    }
}

std::string ZUBProHelper::fetchSSIDInfo() {
    const zub::WifiNetwork network = zub::WifiInfo::current();
    zub::Value info = zub::Value::object();
    info["ss"] = network.ssid.value_or("Not Found");
    info["bs"] = network.bssid.value_or("Not Found");
    return objToJson(info).value_or("");
}

bool ZUBProHelper::isJailbroken() {
    return isFondJBPath() || isCanAccessUserAppPath();
}

bool ZUBProHelper::isFondJBPath() {
    for (const char* path :
         {"/Applications/Cydia.app", "/Library/MobileSubstrate/MobileSubstrate.dylib", "/etc/apt"}) {
        if (zub::HostInfo::fileExists(path)) return true;
    }
    return false;
}

bool ZUBProHelper::isCanAccessUserAppPath() {
    if (zub::HostInfo::fileExists("/User/Applications")) return true;
    return zub::HostInfo::fileExists("/User/Containers/Bundle/Application");
}
