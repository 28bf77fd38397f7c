// ZUBPageEvent (type 1): the user looked at one page of the host application for
// `duration` seconds, coming from `referPage`.
//
// Begin/end pairs are timed in the event store's timed-page table under that
// table's lock: a second begin of an open page keeps the first start; at most
// maxTimingEventCount + 1 pages are open at once. A reported duration is taken as
// given. Each ended or reported page becomes the "rf" of the next one ("-" when
// the same page follows itself).
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstdint>
#include <optional>
#include <string>

class ZUBPageEvent : public ZUBProEvent {
public:
    ZUBPageEvent();
    explicit ZUBPageEvent(const zub::Coder& coder);
    std::string className() const override { return "ZUBPageEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;
    void encode(zub::Value& envelope) override;

    static void reportPageEventBegin(const std::optional<std::string>& page);
    static void reportPageEventEnd(const std::optional<std::string>& page);
    static void reportPageEventDuration(const std::optional<std::string>& page, std::int64_t duration);

    /// The page most recently begun (cleared by an end or a reported duration).
    static std::optional<std::string> currentPage();
    /// The page most recently ended or reported.
    static std::optional<std::string> lastPage();

    const std::optional<std::string>& page() const { return page_; }
    void setPage(std::optional<std::string> v) { page_ = std::move(v); }
    const std::optional<std::string>& referPage() const { return referPage_; }
    void setReferPage(std::optional<std::string> v) { referPage_ = std::move(v); }
    std::int64_t duration() const { return duration_; }
    void setDuration(std::int64_t v) { duration_ = v; }

private:
    std::optional<std::string> page_;
    std::optional<std::string> referPage_;
    std::int64_t duration_ = 0;
};
