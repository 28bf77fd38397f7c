#include "Common/DeviceID/ZUBProMid.h"

#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Platform/Clock.h"

namespace {

constexpr std::int64_t kMidTimeLimit = 5;

const char* typeName(const zub::Value& v) {
    return v.is_array() ? "NSArray" : v.is_string() ? "NSString" : v.is_number() ? "NSNumber" : "NSNull";
}

}  // namespace

ZUBProMid& ZUBProMid::getInstance() {
    static ZUBProMid* instance = new ZUBProMid();
    return *instance;
}

void ZUBProMid::reportMid() {
    taskQueue_.async([this] {
        const zub::Data body = getRequestData();
        const std::string url = ZUBProConfig::getInstance().midURL().value_or("");
        handleReply(ZUBHttp::getInstance().httpPost(body, kMidTimeLimit, url));
    });
}

zub::Data ZUBProMid::getRequestData() {
    ZUBDeviceIDDal& ids = ZUBDeviceIDDal::getInstance();
    zub::Value request = zub::Value::object();
    request["et"] = 5;
    request["ver"] = 1;
    request["ts"] = zub::Clock::nowSeconds();
    request["ifv"] = ids.getIdfv();
    request["ioa"] = ids.getOpenIDFA();
    request["mid"] = ids.getMID();
    request["ui"] = ids.getOpenUDID();
    const std::string json = ZUBProHelper::objToJson(request).value_or("");
    return zub::Data(json.begin(), json.end());
}

void ZUBProMid::handleReportFailed() {
    ZUBProHelper::LogDebug("mid failed");
}

void ZUBProMid::handleReply(const std::optional<zub::Value>& reply) {
    if (!reply) {
        handleReportFailed();
        return;
    }
    if (!reply->is_object()) {
        ZUBProHelper::LogDebug("Not NSDictionary for decoded object:%@", typeName(*reply));
        return;
    }
    auto ret = reply->find("ret");
    if (ret == reply->end()) {
        ZUBProHelper::LogDebug("no ret return");
        handleReportFailed();
        return;
    }
    if (ZUBProHelper::valueDescription(*ret) != "0") {
        handleReportFailed();
        return;
    }
    auto mid = reply->find("mid");
    if (mid == reply->end() || mid->is_null()) return;
    const std::string value = ZUBProHelper::valueDescription(*mid);
    ZUBDeviceIDDal::getInstance().saveMID(value);
    ZUBProHelper::LogDebug("mid is saved:%@", value);
}

zub::Value ZUBProMid::getDeviceIDs() {
    ZUBDeviceIDDal& ids = ZUBDeviceIDDal::getInstance();
    zub::Value dict = zub::Value::object();
    dict["mid"] = ids.getMID();
    dict["ifa"] = ids.getLocalIDFA();
    dict["oia"] = ids.getOpenIDFA();
    dict["ifv"] = ids.getIdfv();
    dict["oid"] = ids.getOpenUDID();
    if (auto token = ids.getRVToken()) dict["rvt"] = *token;
    return dict;
}
