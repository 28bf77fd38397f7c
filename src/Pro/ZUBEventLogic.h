// ZUBEventLogic: every recorded event passes through here on its way to the
// report server.
//
// reportEvent / reportEvents(list) return at once; on the serial queue
// "ZUBHttpDispatcher" each event gets its identity key (md5), is filed in the
// event store's waiting dictionary, and the report strategy decides whether a
// report cycle starts now:
//   smart reporting on Wi-Fi, or strategy 1: at once;
//   strategy 8 (default): at the next start or activation of the host;
//   strategy 5: only the stored period clock moves;
//   any other value: kept ("deprecated report strategy cache events").
// A cycle needs a registered mid. It takes up to maxOnceSendCount events, waiting
// ones first, then retry ones, posts them as one JSON array to reportURL (10 s
// limit), and settles the batch from the reply: "ret" "0" removes it; other
// failures count an attempt (3 for ordinary events, 10 for important ones) or,
// for network errors, only mark the events; a reply that is not a dictionary
// leaves the batch to be sent again. While the network is reachable, a cycle
// follows each reply until nothing eligible is left.
//
// Locking: the batch (sendingEvents) and both event dictionaries change only
// under the event store's lock. isSendingCacheEvent is set under that lock when
// a batch is taken, so two cycles never send at once; it is cleared once the
// reply has been handled. The flag, lastReportTs and the cached network status
// are atomics; instantEventList and ignoreEventList have a small lock of their own.
//
// Network status: asked once per filing call and once per reply, on the queue.
// Reading the kernel's tables costs a netlink round trip, so the status is kept up
// to date by a link monitor (a listener thread, started at the first check, that
// wakes only on the kernel's link, address and route notices) and read from
// memory; where no monitor can run, or once its listener has failed, every check
// asks the kernel.
#pragma once

#include "Dal/ZUBEventDictionary.h"
#include "Dal/ZUBEventJournal.h"
#include "Platform/LinkState.h"
#include "Platform/SerialQueue.h"

#include <ZUBCocoa/ZUBProEvent.h>
#include <ZUBCocoa/ZUBValue.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class ZUBProReachability;

class ZUBEventLogic {
public:
    using EventPtr = std::shared_ptr<ZUBProEvent>;
    using EventList = std::vector<EventPtr>;

    static ZUBEventLogic& getInstance();
    ZUBEventLogic(const ZUBEventLogic&) = delete;
    ZUBEventLogic& operator=(const ZUBEventLogic&) = delete;

    /// Files one event (on the queue) and checks the strategy. Null is ignored.
    void reportEvent(EventPtr event);
    /// Files each event in order, then checks the strategy once.
    void reportEvents(EventList events);
    /// Files the events handed over but not yet filed, on the calling thread.
    /// The host's background and terminate handlers call it before saving.
    void filePendingEvents();
    /// One report cycle on the calling thread (the post itself goes to the queue).
    void reportEvents();
    /// The host's flush: files what is pending, waits for a registration in
    /// progress, runs cycles until nothing sendable is left, up to `deadline`.
    /// True when nothing accepted is left unacknowledged.
    bool flushUntil(std::chrono::steady_clock::time_point deadline);
    /// Decides whether to start a cycle; runs on the queue.
    void checkStrategyReport();
    /// Moves up to `maximum` eligible waiting events into the batch (lock held).
    void addSendingEventFromToReportEvents(std::uint64_t maximum);
    /// The identity key of an event (and sets its eventIndex first).
    std::optional<std::string> generateMd5(ZUBProEvent& event);

    /// Posts the batch on the queue and handles the reply there.
    void doReportEvents(EventList batch);
    /// The request body "[e1,e2,...]"; events too long (except type 3) are dropped
    /// for good; nothing when no event contributes.
    std::optional<zub::Data> getRequestData(const EventList& batch);
    /// Settles the batch from the decoded reply and starts the next cycle.
    void doAfReceiveData(const std::optional<zub::Value>& reply);
    /// Counts a failed attempt for every event of the batch (or only marks them,
    /// for network failures).
    void handleReportFailed(const std::optional<zub::Value>& reply);

    EventList sendingEvents();
    void setSendingEvents(EventList v);
    bool isSendingCacheEvent() const { return isSendingCacheEvent_; }
    void setIsSendingCacheEvent(bool v) { isSendingCacheEvent_ = v; }
    std::uint64_t lastReportTs() const { return lastReportTs_; }
    void setLastReportTs(std::uint64_t v) { lastReportTs_ = v; }
    zub::Value instantEventList() const;
    void setInstantEventList(zub::Value v);
    zub::Value ignoreEventList() const;
    void setIgnoreEventList(zub::Value v);

    /// The queue "ZUBHttpDispatcher" (tests flush it).
    zub::SerialQueue& queue() { return queue_; }

    // ---- the event journal (ZUBEventLogic_journal.cpp) ----
    /// Opens the journal on the queue, if it is not open yet, and brings back the
    /// events an earlier run left unacknowledged. Called by the host's start.
    void startJournal();
    /// Makes the journal durable now (the saving handlers call it).
    void syncJournal();
    /// Events the journal holds on disk only (overflow and parked), for flush and tests.
    std::size_t journalBacklog();
    /// Events accepted and not yet acknowledged: on their way to the queue, held
    /// in memory or waiting on disk.
    std::size_t unacknowledgedCount();

private:
    ZUBEventLogic();
    void file(const EventPtr& event);
    void fileOnCallersThread();
    void queueFiling();
    /// Files the events (filingMutex_ held by the caller).
    void fileInOrder(const EventList& events);
    /// Files every pending event (filingMutex_ held); `calls`, when given, takes
    /// the count of calls not yet checked against the strategy.
    void filePending(std::size_t* calls);
    /// Events handed over but not yet filed, beyond which the caller files them.
    static constexpr std::size_t kMaxPendingEvents = 2048;
    /// Event blocks the queue keeps ready for the host's tracking calls.
    static constexpr std::size_t kStockedEventBlocks = 512;
    void stockEventBlocks();
    /// Gives the event a key no other held or just delivered event has (lock held).
    void assignFreeKey(ZUBProEvent& event);
    /// Keeps a delivered event's key for a few seconds (lock held).
    void rememberDelivered(const ZUBProEvent& event);
    // Journal steps; every one runs with eventListLock_ held.
    bool journalReady();
    void openJournal();
    void journalFile(const EventPtr& event);
    /// Retires the event's journal record, if it has one.
    void journalRetire(ZUBProEvent& event);
    void refillFromJournal();
    void reconcileAfterLoad(const EventList& heldBefore);
    void reportDrops();
    void holdInMemory(const EventPtr& event, std::optional<std::uint64_t> seq);
    /// Hands the journal's buffered records to the kernel once the queue has
    /// worked through what is already waiting on it (one write for a burst).
    void queueJournalWrite();
    /// The current reachability status (0, 1 or 2) of the internet target.
    std::int64_t networkStatus();
    void startStatusMonitor();

    zub::SerialQueue queue_{"ZUBHttpDispatcher"};
    std::recursive_mutex& eventListLock_;  // the event store's lock ("_eventListKey")
    EventList sendingEvents_;              // guarded by eventListLock_
    std::mutex pendingMutex_;
    EventList pending_;                    // guarded by pendingMutex_
    std::size_t uncheckedCalls_ = 0;       // calls whose strategy check is due; guarded by pendingMutex_
    std::mutex filingMutex_;               // held while pending events are filed
    EventList spareList_;                  // empty, capacity kept; guarded by filingMutex_
    std::atomic<bool> isSendingCacheEvent_{false};
    std::atomic<std::uint64_t> lastReportTs_{0};
    mutable std::mutex listsMutex_;
    zub::Value instantEventList_ = zub::Value::array();  // guarded by listsMutex_
    zub::Value ignoreEventList_ = zub::Value::array();   // guarded by listsMutex_
    // Made under statusOnce_ at the first status check, read-only after.
    std::once_flag statusOnce_;
    std::unique_ptr<ZUBProReachability> reachability_;
    std::unique_ptr<zub::LinkMonitor> statusMonitor_;
    // The status the monitor last reported; kStatusUnknown until it runs,
    // kStatusMonitorFailed once its listener has ended on an error.
    static constexpr std::int64_t kStatusUnknown = -1;
    static constexpr std::int64_t kStatusMonitorFailed = -2;
    std::atomic<std::int64_t> cachedStatus_{kStatusUnknown};

    // The journal and its bookkeeping, all guarded by eventListLock_.
    std::unique_ptr<ZUBEventJournal> journal_;
    bool journalTried_ = false;
    // An event held in memory carries its journal record (ZUBProEvent::journalSeq).
    std::unordered_map<std::string, std::uint64_t> parkedKeys_;  // on disk until the next start
    std::uint64_t unreportedDrops_ = 0;
    bool journalWriteQueued_ = false;
    // Keys delivered in the last seconds (second, key), oldest first, and a set of
    // views of them; guarded by eventListLock_. A deque keeps its elements in place.
    std::deque<std::pair<std::uint64_t, std::string>> delivered_;
    std::unordered_set<std::string_view> deliveredKeys_;
};
