#include "Model/ZUBProCustomEvent.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/BlockPool.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"

#include <charconv>

namespace {

constexpr std::int64_t kCustomEventType = 1000;

// A value's plain text in a timer key: strings as they are, numbers in decimal
// (shortest form for fractions), booleans as 1/0, nested values as compact JSON.
std::string keyText(const zub::Value& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "1" : "0";
    if (v.is_number_float()) {
        char buf[64];
        const auto r = std::to_chars(buf, buf + sizeof buf, v.get<double>());
        return std::string(buf, r.ptr);
    }
    if (v.is_null()) return "<null>";
    return v.dump();
}

// Pairs are a JSON object, or null for none. Anything else (an array, a string,
// ...) is no dictionary: it is logged and the event goes on without pairs.
bool arePairs(const std::optional<std::string>& eventID, const zub::Value& dict) {
    if (dict.is_null() || dict.is_object()) return true;
    ZUBProHelper::LogDebug("[WARN]pairs of event %@ are not a dictionary (%@); they are left out", eventID,
                           std::string_view(dict.type_name()));
    return false;
}

zub::Value pairsOf(const std::optional<std::string>& eventID, zub::Value dict) {
    return arePairs(eventID, dict) ? std::move(dict) : zub::Value();
}

}  // namespace

ZUBProCustomEvent::ZUBProCustomEvent(const zub::Coder& coder)
    : ZUBProEvent(coder),
      eventID_(coder.decodeStringForKey("eventID")),
      args_(coder.decodeObjectForKey("kvs").value_or(zub::Value())),
      duration_(coder.decodeInt64ForKey("duration")) {}

void ZUBProCustomEvent::encodeWithCoder(zub::Coder& coder) const {
    ZUBProEvent::encodeWithCoder(coder);
    coder.encodeString(eventID_, "eventID");
    if (!args_.absent()) coder.encodeObject(args_.toValue(), "kvs");
    coder.encodeInt64(duration_, "duration");
}

void ZUBProCustomEvent::encode(zub::Value& envelope) {
    if (eventID_) envelope["ei"] = *eventID_;
    if (!args_.absent()) envelope["kv"] = args_.toValue();
    if (duration_ != 0) envelope["du"] = static_cast<std::uint64_t>(duration_);
}

std::string ZUBProCustomEvent::getCustomEventKey(const std::optional<std::string>& eventID, const zub::Value& dict) {
    std::string key = eventID.value_or("");
    key += "[";
    if (dict.is_object()) {
        for (const auto& [k, v] : dict.items()) {
            key += k;
            key += keyText(v);
        }
    }
    key += "]";
    return key;
}

std::shared_ptr<ZUBProCustomEvent> ZUBProCustomEvent::makeImmediate(const std::optional<std::string>& eventID) {
    // One reading of the clock gives the event its digits, its timestamp and its session.
    const std::int64_t now = zub::Clock::nowMicros();
    auto event = zub::makePooled<ZUBProCustomEvent>(now);
    event->setEventID(eventID);
    event->setAppkey(ZUBProConfig::getInstance().appkey());
    event->setIsImportant(true);
    event->setTs(zub::Clock::secondsOf(now));
    event->setType(kCustomEventType);
    return event;
}

void ZUBProCustomEvent::reportCustomEvent(const std::optional<std::string>& eventID, zub::Value dict) {
    reportCustomEvent(eventID, ZUBEventArgs(pairsOf(eventID, std::move(dict))));
}

void ZUBProCustomEvent::reportCustomEventDuration(const std::optional<std::string>& eventID, zub::Value dict,
                                                  std::int64_t duration) {
    reportCustomEvent(eventID, ZUBEventArgs(pairsOf(eventID, std::move(dict))), duration);
}

void ZUBProCustomEvent::reportCustomEvent(const std::optional<std::string>& eventID, ZUBEventArgs args,
                                          std::int64_t duration) {
    auto event = makeImmediate(eventID);
    event->setDuration(duration);
    event->setArgs(std::move(args));
    event->setSid(ZUBSessionEvent::getSessionID(false, event->ts()));
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}

void ZUBProCustomEvent::reportCustomEventBegin(const std::optional<std::string>& eventID, const zub::Value& dict) {
    if (!eventID || eventID->empty()) {
        ZUBProHelper::LogDebug("eventID is empty");
        return;
    }
    // Never destroyed: a queue thread may still use it while the process exits.
    static const zub::Value* const kNoPairs = new zub::Value();
    const zub::Value& pairs = arePairs(eventID, dict) ? dict : *kNoPairs;
    ZUBTimedTable& table = ZUBEventDal::getInstance().getTimeEventDic();
    std::lock_guard lock(table.mutex);
    const std::string key = getCustomEventKey(eventID, pairs);
    if (table.entries.contains(key)) {
        ZUBProHelper::LogDebug("[ERROR]Duplicate key %@ for event_id:%@", key, *eventID);
        return;
    }
    if (table.entries.size() >= ZUBProConfig::getInstance().maxTimingEventCount()) {
        ZUBProHelper::LogDebug("too many timing enents in memory");
        return;
    }
    table.entries[key] = zub::Clock::nowSeconds();
    ZUBProHelper::LogDebug("generated begin key is %@", key);
}

void ZUBProCustomEvent::reportCustomEventEnd(const std::optional<std::string>& eventID, zub::Value dict) {
    if (!eventID || eventID->empty()) {
        ZUBProHelper::LogDebug("Failed to trace nil/empty event_id.");
        return;
    }
    dict = pairsOf(eventID, std::move(dict));
    // An absent dictionary ends nothing; a timer begun without pairs ends with an empty one.
    if (dict.is_null()) return;
    auto event = zub::makePooled<ZUBProCustomEvent>();
    const std::string key = getCustomEventKey(eventID, dict);
    {
        ZUBTimedTable& table = ZUBEventDal::getInstance().getTimeEventDic();
        std::lock_guard lock(table.mutex);
        auto start = table.entries.find(key);
        if (start == table.entries.end()) {
            ZUBProHelper::LogDebug("null key %@ for eventID:%@", key, *eventID);
            return;
        }
        event->setEventID(eventID);
        event->setKvs(std::move(dict));
        event->setSid(ZUBSessionEvent::getSessionID(false));
        const std::int64_t elapsed =
            static_cast<std::int64_t>(zub::Clock::nowSeconds()) - start->get<std::int64_t>();
        event->setDuration(elapsed > 0 ? elapsed : 1);
        table.entries.erase(key);
        ZUBProHelper::LogDebug("end key is %@", key);
    }
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}
