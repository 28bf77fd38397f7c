#include "Model/ZUBPageEvent.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/BlockPool.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"

#include <mutex>

namespace {

// The tracker's process-wide page names; a small lock keeps host threads from
// racing on them (the timed table has its own lock).
struct PageNames {
    std::mutex mutex;
    std::optional<std::string> current;  // guarded by mutex
    std::optional<std::string> last;     // guarded by mutex
};

PageNames& names() {
    static auto* n = new PageNames();
    return *n;
}

std::optional<std::string> lastPageName() {
    std::lock_guard lock(names().mutex);
    return names().last;
}

void finishPage(const std::string& page) {
    std::lock_guard lock(names().mutex);
    names().last = page;
    names().current.reset();
}

}  // namespace

ZUBPageEvent::ZUBPageEvent() {
    setType(1);
}

ZUBPageEvent::ZUBPageEvent(const zub::Coder& coder)
    : ZUBProEvent(coder),
      page_(coder.decodeStringForKey("page")),
      referPage_(coder.decodeStringForKey("referPage")),
      duration_(coder.decodeInt64ForKey("duration")) {}

void ZUBPageEvent::encodeWithCoder(zub::Coder& coder) const {
    ZUBProEvent::encodeWithCoder(coder);
    coder.encodeString(page_, "page");
    coder.encodeInt64(duration_, "duration");
    coder.encodeString(referPage_, "referPage");
}

void ZUBPageEvent::encode(zub::Value& envelope) {
    if (page_) envelope["pi"] = *page_;
    envelope["du"] = duration_;
    // The same page twice in a row refers to "-"; the event itself keeps that.
    // Only two present names can be equal: an absent page or referrer changes nothing.
    if (page_ && referPage_ && *page_ == *referPage_) referPage_.emplace(1, '-');
    if (referPage_) envelope["rf"] = *referPage_;
}

std::optional<std::string> ZUBPageEvent::currentPage() {
    std::lock_guard lock(names().mutex);
    return names().current;
}

std::optional<std::string> ZUBPageEvent::lastPage() {
    return lastPageName();
}

void ZUBPageEvent::reportPageEventBegin(const std::optional<std::string>& page) {
    {
        std::lock_guard lock(names().mutex);
        names().current = page;
    }
    if (!page || page->empty()) {
        ZUBProHelper::LogDebug("Failed to trace nil/empty page.");
        return;
    }
    ZUBTimedTable& table = ZUBEventDal::getInstance().getTimedPageDic();
    std::lock_guard lock(table.mutex);
    if (table.entries.contains(*page)) {
        ZUBProHelper::LogDebug("Duplicate entry page %@", *page);
        return;
    }
    // One more page than the limit may be open; the custom-event limit is stricter.
    if (table.entries.size() <= ZUBProConfig::getInstance().maxTimingEventCount()) {
        ZUBProHelper::LogDebug("set page success,%@", *page);
        table.entries[*page] = zub::Clock::nowSeconds();
        ZUBSessionEvent::getSessionID(true);
    } else {
        ZUBProHelper::LogDebug("Too many page events in memory");
    }
}

void ZUBPageEvent::reportPageEventEnd(const std::optional<std::string>& page) {
    if (!page || page->empty()) {
        ZUBProHelper::LogDebug("Failed to trace nil/empty page.");
        return;
    }
    std::shared_ptr<ZUBPageEvent> event;
    {
        ZUBTimedTable& table = ZUBEventDal::getInstance().getTimedPageDic();
        std::lock_guard lock(table.mutex);
        auto start = table.entries.find(*page);
        if (start == table.entries.end()) {
            ZUBProHelper::LogDebug("Null entry for page:%@", *page);
            return;
        }
        const auto now = static_cast<std::int64_t>(zub::Clock::nowSeconds());
        event = zub::makePooled<ZUBPageEvent>();
        event->setPage(*page);
        event->setReferPage(lastPageName());
        event->setSid(ZUBSessionEvent::getSessionID(false));
        // No lower bound: a clock set back gives 0 or a negative duration.
        event->setDuration(now - start->get<std::int64_t>());
        table.entries.erase(*page);
        finishPage(*page);
    }
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}

void ZUBPageEvent::reportPageEventDuration(const std::optional<std::string>& page, std::int64_t duration) {
    if (!page || page->empty()) {
        ZUBProHelper::LogDebug("Failed to trace nil/empty page.");
        return;
    }
    auto event = zub::makePooled<ZUBPageEvent>();
    event->setPage(*page);
    event->setReferPage(lastPageName());
    event->setSid(ZUBSessionEvent::getSessionID(false));
    event->setDuration(duration);
    finishPage(*page);
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}
