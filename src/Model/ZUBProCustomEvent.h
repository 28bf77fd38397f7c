// ZUBProCustomEvent (type 1000): an event the host application defines, an
// identifier plus its own key-value pairs ("ei", "kv"), reported at once, with a
// duration the host measured, or timed between begin and end ("du").
//
// Timers live in the event store's timed-event table, keyed by the identifier
// and the pairs in their insertion order ("buy[itembook]"), so the same
// identifier with other pairs is another timer. At most maxTimingEventCount
// timers are open at once; a timed event lasts at least one second. An end call
// fills only the identifier, pairs, session and duration: its type, appkey, ts
// and importance stay as a new event has them.
#pragma once

#include "Model/ZUBEventArgs.h"

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstdint>
#include <optional>
#include <string>

class ZUBProCustomEvent : public ZUBProEvent {
public:
    ZUBProCustomEvent() = default;
    /// A new event made at `nowMicros` (see makeImmediate).
    explicit ZUBProCustomEvent(std::int64_t nowMicros) : ZUBProEvent(nowMicros) {}
    explicit ZUBProCustomEvent(const zub::Coder& coder);
    std::string className() const override { return "ZUBProCustomEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;
    void encode(zub::Value& envelope) override;

    /// `dict` null means absent; an object holds the pairs. Any other JSON value
    /// is no dictionary: it is logged and treated as absent.
    static void reportCustomEvent(const std::optional<std::string>& eventID, zub::Value dict);
    static void reportCustomEventDuration(const std::optional<std::string>& eventID, zub::Value dict,
                                          std::int64_t duration);
    /// The same, with the pairs already packed (ZUBEventArgs::pack).
    static void reportCustomEvent(const std::optional<std::string>& eventID, ZUBEventArgs args,
                                  std::int64_t duration = 0);
    static void reportCustomEventBegin(const std::optional<std::string>& eventID, const zub::Value& dict);
    static void reportCustomEventEnd(const std::optional<std::string>& eventID, zub::Value dict);
    /// The timer key: identifier + "[" + key and value texts of each pair + "]".
    static std::string getCustomEventKey(const std::optional<std::string>& eventID, const zub::Value& dict);

    const std::optional<std::string>& eventID() const { return eventID_; }
    void setEventID(std::optional<std::string> v) { eventID_ = std::move(v); }
    /// The pairs as a JSON object, or null when the event has none.
    zub::Value kvs() const { return args_.toValue(); }
    void setKvs(zub::Value v) { args_ = ZUBEventArgs(std::move(v)); }
    void setArgs(ZUBEventArgs args) { args_ = std::move(args); }
    std::int64_t duration() const { return duration_; }
    void setDuration(std::int64_t v) { duration_ = v; }

private:
    static std::shared_ptr<ZUBProCustomEvent> makeImmediate(const std::optional<std::string>& eventID);

    std::optional<std::string> eventID_;
    ZUBEventArgs args_;
    std::int64_t duration_ = 0;
};
