#include "SearchPlugin.h"

#include <ZUBCocoa/ZUBArchiving.h>
#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProBaseFunction.h>

namespace searchplugin {

namespace {

std::optional<std::string> deviceIdOf(const zub::Value& info) {
    auto it = info.find(kZUBInfoDeviceId);
    if (it == info.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

}  // namespace

// Lets the library bring back searches saved in its log files by an earlier run.
ZUB_REGISTER_ARCHIVABLE(SearchEvent)

SearchEvent::SearchEvent() {
    setType(kType);
}

SearchEvent::SearchEvent(const zub::Coder& coder)
    : ZUBProEvent(coder),
      query(coder.decodeStringForKey("query")),
      results(coder.decodeInt64ForKey("results")),
      deviceId(coder.decodeStringForKey("deviceId")) {}

void SearchEvent::encodeWithCoder(zub::Coder& coder) const {
    ZUBProEvent::encodeWithCoder(coder);  // the common fields first
    coder.encodeString(query, "query");
    coder.encodeInt64(results, "results");
    coder.encodeString(deviceId, "deviceId");
}

void SearchEvent::encode(zub::Value& envelope) {
    if (query) envelope["q"] = *query;
    envelope["n"] = results;
    if (deviceId) envelope["did"] = *deviceId;
}

SearchPlugin::~SearchPlugin() {
    uninstall();
}

void SearchPlugin::install() {
    std::lock_guard lock(mutex_);
    if (observer_ != 0) return;
    observer_ = zub::addNotificationObserver(ZUBProMainServiceStartNotification,
                                             [this](const std::string&) { onMainServiceStart(); });
}

void SearchPlugin::uninstall() {
    std::uint64_t observer = 0;
    {
        std::lock_guard lock(mutex_);
        observer = observer_;
        observer_ = 0;
        waiting_.clear();
    }
    // Outside the lock: removal waits for a running call, which takes the lock.
    zub::removeNotificationObserver(observer);
}

bool SearchPlugin::isStarted() const {
    std::lock_guard lock(mutex_);
    return started_;
}

zub::Value SearchPlugin::serviceInfo() const {
    std::lock_guard lock(mutex_);
    return info_;
}

std::shared_ptr<SearchEvent> SearchPlugin::makeEvent(std::string query, std::int64_t results) const {
    auto event = std::make_shared<SearchEvent>();
    event->query = std::move(query);
    event->results = results;
    event->setTs(static_cast<std::uint64_t>(ZUBProBaseFunction::getTimeStamp()));
    return event;
}

void SearchPlugin::recordSearch(std::string query, std::int64_t results) {
    auto event = makeEvent(std::move(query), results);
    std::optional<std::string> deviceId;
    {
        std::lock_guard lock(mutex_);
        if (!started_) {
            waiting_.push_back(std::move(event));
            return;
        }
        deviceId = deviceIdOf(info_);
    }
    event->deviceId = std::move(deviceId);
    event->setSid(ZUBPro::getSessionID(false));
    ZUBPro::reportEvent(event);
}

void SearchPlugin::onMainServiceStart() {
    // Runs on the thread that started the library, before its start call returns.
    const zub::Value& info = ZUBPro::getMainServicesInfo();
    std::vector<std::shared_ptr<ZUBProEvent>> handOver;
    {
        std::lock_guard lock(mutex_);
        if (started_) return;  // a second start of the library changes nothing here
        started_ = true;
        info_ = info;
        const std::uint64_t sid = ZUBPro::getSessionID(false);
        for (auto& event : waiting_) {
            event->deviceId = deviceIdOf(info_);
            event->setSid(sid);
            handOver.push_back(std::move(event));
        }
        waiting_.clear();
    }
    ZUBProBaseFunction::logDebug("search plug-in started, %@ searches waited",
                                 {std::to_string(handOver.size())});
    if (!handOver.empty()) ZUBPro::reportEvents(handOver);
}

}  // namespace searchplugin
