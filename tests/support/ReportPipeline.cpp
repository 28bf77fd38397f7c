#include "support/ReportPipeline.h"

#include "Common/DeviceID/ZUBProMid.h"
#include "Common/Network/ZUBProReachability.h"
#include "Common/Network/ZUBWireCodec.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Pro/ZUBEventLogic.h"

#include <ZUBCocoa/ZUBPro.h>

#include <chrono>

namespace zubtest {

bool settlePipeline() {
    using namespace std::chrono_literals;
    zub::SerialQueue& mid = ZUBProMid::getInstance().taskQueue();
    zub::SerialQueue& report = ZUBEventLogic::getInstance().queue();
    const auto deadline = std::chrono::steady_clock::now() + 5min;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!mid.flush(60s) || !report.flush(60s)) return false;
        // A flush ends when what was queued before it has run, but the last task
        // may have queued the next link of a chain. Registrations start no
        // cycles, so both queues idle at once means nothing more will come.
        if (mid.idle() && report.idle()) return true;
    }
    return false;
}

bool reportTo(const std::string& base, bool registerFirst) {
    ZUBProConfig::getInstance().setReportURL(base + "/mstat/report");
    ZUBProConfig::getInstance().setMidURL(base + "/?t=ios&ver=2.0");
    ZUBPro::setSmartReport(false);
    if (!registerFirst) return true;
    ZUBProMid::getInstance().reportMid();
    return settlePipeline() && !ZUBDeviceIDDal::getInstance().getMID().empty();
}

bool networkReachable() {
    auto reachability = ZUBProReachability::reachabilityForInternetConnection();
    return reachability && reachability->currentReachabilityStatus() != ZUBNetworkNotReachable;
}

namespace {
std::vector<std::string> keysOf(const ZUBEventDictionary& events) {
    std::vector<std::string> keys;
    for (const auto& [key, event] : events) keys.emplace_back(key);
    return keys;
}
}  // namespace

std::vector<std::string> waitingKeys() {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    return keysOf(store.toReportEvents());
}

std::vector<std::string> retryKeys() {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    return keysOf(store.retryEvents());
}

WireServer::WireServer() {
    handler_ = [](const WireRequest& request) -> std::string {
        if (request.path.rfind("/mstat/report", 0) == 0) return R"({"ret":0})";
        return R"({"ret":0,"mid":"wire-mid"})";
    };
    auto serve = [this](const httplib::Request& req, httplib::Response& res) {
        const std::string key = ZUBProConfig::getInstance().rc4Key().value_or("");
        WireRequest request;
        request.path = req.target;  // as sent: path and query
        request.encoding = req.get_header_value("Content-Encoding");
        auto unwrapped = zub::WireCodec::unwrapRequest(zub::Data(req.body.begin(), req.body.end()), request.encoding, key);
        if (unwrapped.plain) {
            request.text.assign(unwrapped.plain->begin(), unwrapped.plain->end());
            zub::Value parsed = zub::Value::parse(request.text, nullptr, false);
            if (!parsed.is_discarded()) request.json = std::move(parsed);
        }
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            handler = handler_;
        }
        const zub::Data wire = zub::WireCodec::wrapReplyText(handler(request), key);
        res.set_content(std::string(wire.begin(), wire.end()), "application/octet-stream");
    };
    server_.server().Post("/mstat/report", serve);
    server_.server().Post("/", serve);
}

WireServer::~WireServer() {
    server_.stop();
}

void WireServer::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void WireServer::start() {
    server_.start();
}

std::vector<WireRequest> WireServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<WireRequest> WireServer::reports() const {
    std::vector<WireRequest> out;
    for (auto& r : requests()) {
        if (r.path.rfind("/mstat/report", 0) == 0) out.push_back(r);
    }
    return out;
}

std::vector<std::string> m5sOf(const zub::Value& batch) {
    std::vector<std::string> out;
    if (!batch.is_array()) return out;
    for (const auto& e : batch) {
        if (e.is_object() && e.contains("m5") && e["m5"].is_string()) out.push_back(e["m5"].get<std::string>());
    }
    return out;
}

}  // namespace zubtest
