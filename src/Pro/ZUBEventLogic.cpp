// Filing, strategy and batching of the report pipeline.
#include "Pro/ZUBEventLogic.h"

#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/BlockPool.h"
#include "Platform/Clock.h"

#include <algorithm>
#include <utility>

ZUBEventLogic& ZUBEventLogic::getInstance() {
    static ZUBEventLogic* instance = new ZUBEventLogic();
    return *instance;
}

ZUBEventLogic::ZUBEventLogic() : eventListLock_(ZUBEventDal::getInstance().eventListLock()) {
    // Events a load put in place of those in memory are matched with the journal
    // on the queue, before any reply can settle them.
    ZUBEventDal::getInstance().setLoadObserver([this](EventList heldBefore) {
        queue_.async([this, heldBefore = std::move(heldBefore)] {
            std::lock_guard lock(eventListLock_);
            reconcileAfterLoad(heldBefore);
        });
    });
}

void ZUBEventLogic::startStatusMonitor() {
    reachability_ = ZUBProReachability::reachabilityForInternetConnection();
    if (!reachability_) return;
    const ZUBProReachability* reachability = reachability_.get();
    statusMonitor_ = std::make_unique<zub::LinkMonitor>(
        reachability->handle(),
        [this, reachability](std::uint32_t flags) {
            cachedStatus_.store(static_cast<std::int64_t>(reachability->networkStatusForFlags(flags)));
        },
        [this, reachability](int error) {
            // The cached status would never change again: from now on every check
            // asks the kernel. The monitor fails at most once, so this logs once.
            cachedStatus_.store(kStatusMonitorFailed);
            ZUBProHelper::LogDebug("[WARN]reachability: watching %@ failed (error %@), asking at every check",
                                   reachability->handle().description(), error);
            statusMonitor_->stop();  // from its own thread: lets that thread end on its own
        });
    if (!statusMonitor_->start()) {
        ZUBProHelper::LogDebug("reachability: cannot watch %@, asking at every check",
                               reachability->handle().description());
        return;
    }
    // Read after the monitor runs, so no change can fall between the two. A value
    // the monitor stored meanwhile (or its failure) is kept: any change after it
    // brings another notice.
    std::int64_t unknown = kStatusUnknown;
    cachedStatus_.compare_exchange_strong(unknown,
                                          static_cast<std::int64_t>(reachability->currentReachabilityStatus()));
}

std::int64_t ZUBEventLogic::networkStatus() {
    // Made at the first check, on the queue: a host's start never waits for the
    // kernel's tables or for the monitor's thread.
    std::call_once(statusOnce_, [this] { startStatusMonitor(); });
    const std::int64_t cached = cachedStatus_.load();
    if (cached >= 0) return cached;
    return reachability_ ? static_cast<std::int64_t>(reachability_->currentReachabilityStatus()) : 0;
}

std::optional<std::string> ZUBEventLogic::generateMd5(ZUBProEvent& event) {
    event.setEventIndex(event.generateIDX());
    const std::string text = std::to_string(event.sid()) + std::to_string(event.ts()) + std::to_string(event.type()) +
                             std::to_string(ZUBSessionEvent::generateSessionID()) +
                             std::to_string(static_cast<std::uint64_t>(static_cast<std::int64_t>(event.eventIndex())));
    return ZUBProHelper::md5encrypt(text);
}

namespace {
constexpr int kFreshIndexAttempts = 8;
}  // namespace

// Two events made in the same microsecond window of one session can come out
// with the same key; the newcomer then gets a fresh index, and so a fresh key,
// instead of replacing the event already held.
void ZUBEventLogic::assignFreeKey(ZUBProEvent& event) {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    auto takenByOther = [&](const std::string& key) {
        for (ZUBEventDictionary* dict : {&store.toReportEvents(), &store.retryEvents()}) {
            if (auto held = dict->get(key); held && held.get() != &event) return true;
        }
        // A key just delivered is taken too: the collector recognises a resent event
        // by its key, and would take a new event under it for the old one.
        return deliveredKeys_.contains(std::string_view(key));
    };
    if (!event.md5()) {
        const auto* session = event.type() == 2 ? dynamic_cast<const ZUBSessionEvent*>(&event) : nullptr;
        event.setMd5(session != nullptr && session->keyText() ? ZUBProHelper::md5encrypt(session->keyText())
                                                               : generateMd5(event));
    }
    for (int attempt = 0; event.md5() && takenByOther(*event.md5()); ++attempt) {
        if (attempt == 0) ZUBProHelper::LogDebug("event key %@ is taken; the newer event gets a fresh index", *event.md5());
        if (attempt < kFreshIndexAttempts) {
            event.setMd5(generateMd5(event));
        } else {
            // A clock that stands still leaves only four indices: derive a new key
            // from the taken one instead.
            event.setMd5(ZUBProHelper::md5encrypt(*event.md5() + "#" + std::to_string(attempt)));
        }
    }
}

void ZUBEventLogic::rememberDelivered(const ZUBProEvent& event) {
    // A key holds its event's second, so a key can come again only for an event of
    // the same second: keys of the last few seconds suffice, up to a bound.
    constexpr std::uint64_t kSeconds = 3;
    constexpr std::size_t kMostKeys = 16384;
    const std::uint64_t newest = std::max(event.ts(), delivered_.empty() ? 0 : delivered_.back().first);
    delivered_.emplace_back(newest, *event.md5());
    deliveredKeys_.insert(std::string_view(delivered_.back().second));
    while (!delivered_.empty() &&
           (delivered_.size() > kMostKeys || delivered_.front().first + kSeconds < newest)) {
        deliveredKeys_.erase(std::string_view(delivered_.front().second));
        delivered_.pop_front();
    }
}

void ZUBEventLogic::file(const EventPtr& event) {
    std::lock_guard lock(eventListLock_);
    assignFreeKey(*event);
    if (!event->md5()) return;
    if (journalReady()) {
        journalFile(event);
    } else {
        ZUBEventDal::getInstance().toReportEvents().set(*event->md5(), event);
    }
}

// Events handed over wait in `pending_` until filed. The queue files them in
// order; a host that is about to save the store files them first on its own
// thread (filePendingEvents), so an event tracked just before the application
// goes to the background is saved with the others instead of being lost.
void ZUBEventLogic::reportEvent(EventPtr event) {
    if (!event) return;
    std::size_t waiting = 0;
    bool filerQueued = false;
    {
        std::lock_guard lock(pendingMutex_);
        pending_.push_back(std::move(event));
        waiting = pending_.size();
        filerQueued = uncheckedCalls_++ != 0;
    }
    if (!filerQueued) queueFiling();
    if (waiting >= kMaxPendingEvents) fileOnCallersThread();
}

// One filing task serves every call made until it runs: the call that finds no
// task waiting queues one, and it files all that arrived meanwhile, then checks
// the strategy once per call. A burst from the host so costs the queue's lock
// and a task once, not per event.
void ZUBEventLogic::queueFiling() {
    queue_.async([this] {
        std::size_t calls = 0;
        {
            std::lock_guard filing(filingMutex_);
            filePending(&calls);
        }
        stockEventBlocks();
        for (std::size_t i = 0; i < calls; ++i) checkStrategyReport();
    });
}

void ZUBEventLogic::reportEvents(EventList events) {
    std::size_t waiting = 0;
    bool filerQueued = false;
    {
        std::lock_guard lock(pendingMutex_);
        for (auto& event : events) {
            if (event) pending_.push_back(std::move(event));
        }
        waiting = pending_.size();
        filerQueued = uncheckedCalls_++ != 0;
    }
    if (!filerQueued) queueFiling();
    if (waiting >= kMaxPendingEvents) fileOnCallersThread();
}

// A host that tracks faster than the queue can file would otherwise pile up
// events in memory without limit: past the limit, the tracking thread files the
// waiting events itself (in order, under the same locks), and so is slowed to
// the pace the library can keep.
void ZUBEventLogic::fileOnCallersThread() {
    if (queue_.isCurrent()) return;
    filePendingEvents();
}

// Memory for the events the host's threads make most, made and touched here on
// the queue, so that a tracking call takes a block that is already in place
// (BlockPool.h) instead of touching a fresh heap page on the host's thread.
void ZUBEventLogic::stockEventBlocks() {
    zub::stockPooled<ZUBProCustomEvent>(kStockedEventBlocks, std::int64_t{0});
    zub::stockPooled<ZUBPageEvent>(kStockedEventBlocks / 4);
}

void ZUBEventLogic::filePendingEvents() {
    // One filer at a time, so events are filed in the order they were handed over.
    std::lock_guard filing(filingMutex_);
    filePending(nullptr);
}

// The list filed last keeps its capacity and becomes the next pending list: a
// burst of tracking calls then appends to memory the filer has used before, not
// to a list that grows (and touches fresh pages) on the host's thread.
void ZUBEventLogic::filePending(std::size_t* calls) {
    EventList events = std::move(spareList_);
    {
        std::lock_guard lock(pendingMutex_);
        events.swap(pending_);
        if (calls) *calls = std::exchange(uncheckedCalls_, 0);
    }
    fileInOrder(events);
    events.clear();
    spareList_ = std::move(events);
}

void ZUBEventLogic::fileInOrder(const EventList& events) {
    for (const auto& event : events) file(event);
    std::lock_guard lock(eventListLock_);
    if (journal_ && queue_.isCurrent()) refillFromJournal();
}

void ZUBEventLogic::checkStrategyReport() {
    ZUBProConfig& config = ZUBProConfig::getInstance();
    bool startCycle = networkStatus() == 1 && config.isSmartReport();
    if (!startCycle) {
        const std::int64_t strategy = config.reportStrategy();
        if (strategy == 1) {
            startCycle = true;
        } else if (strategy == 8) {
            ZUBProHelper::LogDebug("cache events");
        } else if (strategy == 5) {
            // The period only moves the stored clock; it never starts a cycle itself.
            ZUBEventDal& store = ZUBEventDal::getInstance();
            const std::uint64_t now = zub::Clock::nowSeconds();
            const auto last = static_cast<std::uint64_t>(store.getLastSendTime());
            if (last == 0) {
                store.saveLastSendTime(static_cast<std::int64_t>(now));
            } else if (now - last >= config.periodSecs()) {
                store.saveLastSendTime(static_cast<std::int64_t>(now));
                ZUBProHelper::LogDebug("cache events");
            }
        } else {
            ZUBProHelper::LogDebug("deprecated report strategy cache events");
        }
    }
    if (startCycle) queue_.async([this] { reportEvents(); });
}

void ZUBEventLogic::addSendingEventFromToReportEvents(std::uint64_t maximum) {
    if (maximum == 0) return;
    std::lock_guard lock(eventListLock_);
    const std::uint64_t vacuum = ZUBProConfig::getInstance().vacuumTimeLength();
    std::uint64_t taken = 0;
    for (const auto& [key, event] : ZUBEventDal::getInstance().toReportEvents()) {
        const std::uint64_t now = zub::Clock::nowSeconds();
        const std::uint64_t last = event->lastReportTs();
        if (last == 0 || (now - last > vacuum && event->isWrongWifi())) {
            event->setLastReportTs(now);
            sendingEvents_.push_back(event);
            if (++taken == maximum) break;
        }
    }
}

void ZUBEventLogic::reportEvents() {
    if (isSendingCacheEvent_) {
        ZUBProHelper::LogDebug("sending cache event, return");
        return;
    }
    const std::string mid = ZUBDeviceIDDal::getInstance().getMID();
    if (mid.empty()) {
        ZUBProHelper::LogDebug("mid is empty, events is cached");
        return;
    }

    EventList batch;
    {
        std::lock_guard lock(eventListLock_);
        // Checked again under the lock: a cycle on another thread may have taken a batch.
        if (isSendingCacheEvent_) {
            ZUBProHelper::LogDebug("sending cache event, return");
            return;
        }
        if (sendingEvents_.empty()) {
            ZUBProConfig& config = ZUBProConfig::getInstance();
            const std::uint64_t n = config.maxOnceSendCount();
            ZUBEventDal& store = ZUBEventDal::getInstance();
            ZUBEventDictionary& waiting = store.toReportEvents();
            ZUBEventDictionary& retry = store.retryEvents();
            if (waiting.empty() && retry.empty()) {
                lastReportTs_ = zub::Clock::nowSeconds();
                return;
            }
            if (waiting.size() < n) {
                addSendingEventFromToReportEvents(waiting.size());
                const std::uint64_t vacuum = config.vacuumTimeLength();
                std::uint64_t k = std::min<std::uint64_t>(retry.size(), n - waiting.size());
                // Every examined retry event uses up its place, taken or not.
                for (auto it = retry.begin(); it != retry.end() && k > 0; ++it, --k) {
                    const auto& event = it->second;
                    const std::uint64_t now = zub::Clock::nowSeconds();
                    const std::uint64_t last = event->lastReportTs();
                    if (last == 0 || (now - last > vacuum && event->retryNum() > 0)) {
                        event->setLastReportTs(now);
                        sendingEvents_.push_back(event);
                    }
                }
            } else {
                addSendingEventFromToReportEvents(n);
            }
            if (sendingEvents_.empty()) return;
        }
        isSendingCacheEvent_ = true;
        batch = sendingEvents_;
    }
    doReportEvents(std::move(batch));
}

zub::Value ZUBEventLogic::instantEventList() const {
    std::lock_guard lock(listsMutex_);
    return instantEventList_;
}
void ZUBEventLogic::setInstantEventList(zub::Value v) {
    std::lock_guard lock(listsMutex_);
    instantEventList_ = std::move(v);
}
zub::Value ZUBEventLogic::ignoreEventList() const {
    std::lock_guard lock(listsMutex_);
    return ignoreEventList_;
}
void ZUBEventLogic::setIgnoreEventList(zub::Value v) {
    std::lock_guard lock(listsMutex_);
    ignoreEventList_ = std::move(v);
}

ZUBEventLogic::EventList ZUBEventLogic::sendingEvents() {
    std::lock_guard lock(eventListLock_);
    return sendingEvents_;
}

void ZUBEventLogic::setSendingEvents(EventList v) {
    std::lock_guard lock(eventListLock_);
    sendingEvents_ = std::move(v);
}
