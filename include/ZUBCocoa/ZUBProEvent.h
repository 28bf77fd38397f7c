// ZUBProEvent: the base of every event the library reports, and the class a
// plug-in derives from to report events of its own.
//
// An event carries the common fields below, serialises itself to one JSON object
// (toJsonString: the envelope shared by all events, then the keys its class adds
// in encode()), and archives its common fields so that unsent events survive in
// the library's log files.
//
// Subclassing (what a plug-in does):
//
//   class SearchEvent : public ZUBProEvent {
//   public:
//       SearchEvent() { setType(3001); }
//       explicit SearchEvent(const zub::Coder& c) : ZUBProEvent(c), query_(c.decodeStringForKey("query")) {}
//       std::string className() const override { return "SearchEvent"; }
//       void encode(zub::Value& envelope) override { if (query_) envelope["q"] = *query_; }
//       void encodeWithCoder(zub::Coder& c) const override {
//           ZUBProEvent::encodeWithCoder(c);   // base fields first
//           c.encodeString(query_, "query");
//       }
//       std::optional<std::string> query_;
//   };
//   ZUB_REGISTER_ARCHIVABLE(SearchEvent);  // once, in a .cpp: lets saved events come back
//
//   auto e = std::make_shared<SearchEvent>();
//   e->setSid(ZUBPro::getSessionID(false)); e->setTs(now); e->query_ = "books";
//   ZUBPro::reportEvent(e);
//
// Rules for encode(): add keys, do not remove the envelope's; an exception thrown
// inside it is caught and logged, and the envelope keeps what was added before.
// Archiving: call the base encodeWithCoder first; the restoring constructor calls
// the base restoring constructor first. A restored event has no appkey (its "ky"
// then comes from the configuration) and no timeStr (its next "idx" is one digit).
//
// Threads: build an event on any thread, then hand it over with
// ZUBPro::reportEvent; from then on the library owns it: it sets the bookkeeping
// fields (md5, eventIndex, retryNum, lastReportTs, isWrongWifi) and serialises the
// event on its report queue, so the plug-in must not touch the event afterwards.
// encode() runs on that queue; encodeWithCoder() runs where the store is saved
// (the thread that calls ZUBPro::onWillApplicationEnterBackground or
// onWillApplicationWillTerminate).
//
// Cost: making an event reads the clock once; toJsonString builds a small JSON
// object and runs on the library's queue, never on the host's thread.
#pragma once

#include <ZUBCocoa/ZUBArchiving.h>
#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBValue.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

class ZUB_EXPORT ZUBProEvent : public zub::Archivable {
public:
    /// A new event: timeStr from the microsecond clock, every other field zero or null.
    ZUBProEvent();
    /// Restores the archived common fields (see above for what is deliberately not restored).
    explicit ZUBProEvent(const zub::Coder& coder);
    ~ZUBProEvent() override;

    std::string className() const override { return "ZUBProEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;

    /// The event as one JSON object; a fresh "idx" at every call. "" when the
    /// envelope cannot be written as JSON.
    std::optional<std::string> toJsonString();
    /// Adds the keys of the event's own class to the envelope. The base adds none.
    virtual void encode(zub::Value& envelope);

    /// A new index: a random digit 0-3, timeStr, and five digits of the clock's
    /// microseconds, read as a number; never -1.
    std::int32_t generateIDX();
    /// from + a uniformly random 32-bit value (cryptographic source) mod (to - from + 1).
    static std::int32_t getRandomNumber(std::int64_t from, std::int64_t to);
    /// How many times any event has been serialised in this process.
    static std::uint64_t idx();

    // ---- common fields ----
    const std::optional<std::string>& md5() const { return md5_; }
    void setMd5(std::optional<std::string> v) { md5_ = std::move(v); }
    std::int64_t type() const { return type_; }
    void setType(std::int64_t v) { type_ = v; }
    bool isImportant() const { return isImportant_; }
    void setIsImportant(bool v) { isImportant_ = v; }
    const std::optional<std::string>& appkey() const { return appkey_; }
    void setAppkey(std::optional<std::string> v) { appkey_ = std::move(v); }
    std::uint64_t sid() const { return sid_; }
    void setSid(std::uint64_t v) { sid_ = v; }
    std::uint64_t ts() const { return ts_; }
    void setTs(std::uint64_t v) { ts_ = v; }
    std::int64_t retryNum() const { return retryNum_; }
    void setRetryNum(std::int64_t v) { retryNum_ = v; }
    std::uint64_t lastReportTs() const { return lastReportTs_; }
    void setLastReportTs(std::uint64_t v) { lastReportTs_ = v; }
    std::int32_t eventIndex() const { return eventIndex_; }
    void setEventIndex(std::int32_t v) { eventIndex_ = v; }
    const std::optional<std::string>& timeStr() const { return timeStr_; }
    void setTimeStr(std::optional<std::string> v) { timeStr_ = std::move(v); }
    bool isWrongWifi() const { return isWrongWifi_; }
    void setIsWrongWifi(bool v) { isWrongWifi_ = v; }
    /// The record of this event in the library's journal of unsent events (0:
    /// none). The library's bookkeeping: never archived nor sent.
    std::uint64_t journalSeq() const { return journalSeq_; }
    void setJournalSeq(std::uint64_t v) { journalSeq_ = v; }

protected:
    /// An event made at `nowMicros` (a reading of the library's clock), for the
    /// library's own events, which take their timestamp from the same reading.
    explicit ZUBProEvent(std::int64_t nowMicros);

private:
    // Ordered so the small fields share one word: every waiting event holds them.
    std::optional<std::string> md5_;
    std::optional<std::string> appkey_;
    std::optional<std::string> timeStr_;
    std::int64_t type_ = 0;
    std::uint64_t sid_ = 0;
    std::uint64_t ts_ = 0;
    std::int64_t retryNum_ = 0;
    std::uint64_t lastReportTs_ = 0;
    std::uint64_t journalSeq_ = 0;
    std::int32_t eventIndex_ = 0;
    bool isImportant_ = false;
    bool isWrongWifi_ = false;
};
