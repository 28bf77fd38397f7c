// The event journal's place in the report pipeline: every filed event is
// journalled, acknowledged and dropped ones are retired, memory holds a bounded
// number of waiting events and the rest wait on disk, and what a crash or kill
// left behind comes back at the next start.
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBProCustomEvent.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/AtomicFile.h"
#include "Platform/Clock.h"
#include "Pro/ZUBDeliverySettings.h"
#include "Pro/ZUBEventLogic.h"

#include <ZUBCocoa/ZUBDelivery.h>

#include <unordered_set>

namespace {

constexpr std::int64_t kStrategyAppLaunch = 8;
constexpr const char* kJournalDirectory = ".journal";

std::size_t heldCount(ZUBEventDal& store) {
    return store.toReportEvents().size() + store.retryEvents().size();
}

// The event held in memory under `key`, waiting or to be retried.
ZUBEventLogic::EventPtr heldEvent(ZUBEventDal& store, const std::string& key) {
    if (auto event = store.toReportEvents().get(key)) return event;
    return store.retryEvents().get(key);
}

// Keys of the events in the saved files that this start did not load (a
// strategy other than 8): their journal entries wait for the load that brings
// them back, so no event is sent twice.
std::unordered_set<std::string> keysOfUnloadedLogfiles() {
    std::unordered_set<std::string> keys;
    if (ZUBProConfig::getInstance().reportStrategy() == kStrategyAppLaunch) return keys;
    for (const char* name : {".toReportEvents.log", ".retryEvents.log"}) {
        int error = 0;
        auto bytes = zub::AtomicFile::read(ZUBProStore::getInstance().getLogfilePath(name), &error);
        if (!bytes || bytes->empty()) continue;
        if (auto events = ZUBEventDal::decodeLogfile(*bytes)) {
            for (const auto& [key, event] : *events) keys.emplace(key);
        }
    }
    return keys;
}

}  // namespace

bool ZUBEventLogic::journalReady() {
    if (!journalTried_ && ZUBDeliverySettings::getInstance().limits().journalEnabled) openJournal();
    if (!journal_) return false;
    const zub::DeliveryLimits limits = ZUBDeliverySettings::getInstance().limits();
    journal_->setBudget(limits.journalBudgetBytes);
    journal_->setSyncInterval(std::chrono::milliseconds(limits.syncIntervalMs));
    return true;
}

void ZUBEventLogic::startJournal() {
    queue_.async([this] {
        std::lock_guard lock(eventListLock_);
        journalReady();
    });
}

void ZUBEventLogic::openJournal() {
    journalTried_ = true;
    const zub::DeliveryLimits limits = ZUBDeliverySettings::getInstance().limits();
    auto journal = std::make_unique<ZUBEventJournal>(ZUBProStore::getInstance().getLogfilePath(kJournalDirectory),
                                                     limits.journalBudgetBytes,
                                                     std::chrono::milliseconds(limits.syncIntervalMs));
    std::vector<ZUBEventJournal::LiveEntry> live;
    if (!journal->open(live, unreportedDrops_)) {
        ZUBProHelper::LogDebug("[WARN]journal unavailable; unsent events are kept in memory only");
        return;
    }
    journal_ = std::move(journal);

    // Place what the last run left: events already back from the saved files are
    // the same events; those the files still hold wait for their load; the rest
    // come back into memory, oldest first, as far as the limit allows.
    ZUBEventDal& store = ZUBEventDal::getInstance();
    const std::unordered_set<std::string> unloaded = keysOfUnloadedLogfiles();
    std::size_t recovered = 0;
    for (const auto& entry : live) {
        if (EventPtr held = heldEvent(store, entry.md5)) {
            if (held->journalSeq() == 0) {
                journal_->setPlace(entry.seq, ZUBEventJournal::Place::Memory);
                held->setJournalSeq(entry.seq);
                continue;
            }
        } else if (unloaded.count(entry.md5) != 0) {
            parkedKeys_[entry.md5] = entry.seq;
            continue;
        }
        journal_->setPlace(entry.seq, ZUBEventJournal::Place::Overflow);
        ++recovered;
    }
    // Events held in memory that the journal does not know yet (loaded from the
    // saved files, or filed before it opened) are journalled now.
    for (ZUBEventDictionary* dict : {&store.toReportEvents(), &store.retryEvents()}) {
        for (const auto& [key, event] : *dict) {
            if (event->journalSeq() != 0) continue;
            ZUBEventJournal::Dropped dropped;
            if (auto seq = journal_->append(*event, ZUBEventJournal::Place::Memory, dropped)) {
                event->setJournalSeq(*seq);
            }
        }
    }
    refillFromJournal();
    queueJournalWrite();
    if (recovered > 0 || unreportedDrops_ > 0) {
        ZUBProHelper::LogDebug("journal: %@ unacknowledged events brought back, %@ on disk, %@ drops to report",
                               static_cast<std::uint64_t>(recovered),
                               static_cast<std::uint64_t>(journal_->overflowCount()), unreportedDrops_);
    }
    if (unreportedDrops_ > 0) reportDrops();
    if (recovered > 0 && queue_.isCurrent()) {
        // As the saved files are sent at start, so is what the journal brought back.
        queue_.async([this] {
            if (ZUBProConfig::getInstance().reportStrategy() == kStrategyAppLaunch) {
                reportEvents();
            } else {
                checkStrategyReport();
            }
        });
    }
}

void ZUBEventLogic::holdInMemory(const EventPtr& event, std::optional<std::uint64_t> seq) {
    ZUBEventDal::getInstance().toReportEvents().set(*event->md5(), event);
    if (seq) event->setJournalSeq(*seq);
}

void ZUBEventLogic::journalFile(const EventPtr& event) {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    const std::size_t limit = ZUBDeliverySettings::getInstance().limits().maxEventsInMemory;
    // Oldest first: while older events wait on disk, newer ones wait behind them.
    const bool inMemory = journal_->overflowCount() == 0 && heldCount(store) < limit;
    ZUBEventJournal::Dropped dropped;
    const auto seq =
        journal_->append(*event, inMemory ? ZUBEventJournal::Place::Memory : ZUBEventJournal::Place::Overflow, dropped);
    if (dropped.count > 0 && !dropped.inMemory.empty()) {
        // Drops are rare and memory holds a bounded number of events: the held
        // events are searched for the dropped records rather than indexed by them.
        std::unordered_set<std::uint64_t> droppedSeqs(dropped.inMemory.begin(), dropped.inMemory.end());
        // An event on its way to the collector is not taken back: it loses only
        // its journal record, and is not counted as dropped.
        for (const auto& sending : sendingEvents_) {
            if (sending->journalSeq() != 0 && droppedSeqs.erase(sending->journalSeq()) != 0) {
                sending->setJournalSeq(0);
                --dropped.count;
            }
        }
        std::vector<std::string> droppedKeys;
        for (ZUBEventDictionary* dict : {&store.toReportEvents(), &store.retryEvents()}) {
            for (const auto& [key, held] : *dict) {
                if (held->journalSeq() != 0 && droppedSeqs.count(held->journalSeq()) != 0) {
                    held->setJournalSeq(0);
                    droppedKeys.emplace_back(key);
                }
            }
        }
        for (const std::string& key : droppedKeys) {
            store.toReportEvents().erase(key);
            store.retryEvents().erase(key);
        }
    }
    if (dropped.count > 0) {
        unreportedDrops_ += dropped.count;
        ZUBDeliverySettings::getInstance().addDropped(dropped.count);
        ZUBProHelper::LogDebug("[WARN]journal full (budget %@ bytes): the %@ oldest unsent events were dropped",
                               journal_->diskBytes(), dropped.count);
        journal_->recordDrops(unreportedDrops_);
    }
    // An event the journal could not take stays in memory: nothing accepted is let go.
    if (inMemory || !seq) holdInMemory(event, seq);
    queueJournalWrite();
}

void ZUBEventLogic::queueJournalWrite() {
    if (journalWriteQueued_ || !journal_) return;
    journalWriteQueued_ = true;
    queue_.async([this] {
        std::lock_guard lock(eventListLock_);
        journalWriteQueued_ = false;
        if (journal_) journal_->flushWrites();
    });
}

void ZUBEventLogic::journalRetire(ZUBProEvent& event) {
    const std::uint64_t seq = event.journalSeq();
    if (!journal_ || seq == 0) return;
    event.setJournalSeq(0);
    journal_->retire({seq});
    queueJournalWrite();
}

void ZUBEventLogic::refillFromJournal() {
    if (!journal_) return;
    ZUBEventDal& store = ZUBEventDal::getInstance();
    const std::size_t limit = ZUBDeliverySettings::getInstance().limits().maxEventsInMemory;
    while (journal_->overflowCount() > 0 && heldCount(store) < limit) {
        auto restored = journal_->takeOverflow();
        if (!restored) break;
        assignFreeKey(*restored->event);
        if (!restored->event->md5()) continue;
        holdInMemory(restored->event, restored->seq);
    }
}

// After a load replaced the dictionaries: a loaded event that was held before
// keeps the record of the one it replaces; records of events no longer held wait
// on disk for the next start (the replacement itself is the store's rule); other
// loaded events are matched with parked records, or journalled anew.
void ZUBEventLogic::reconcileAfterLoad(const EventList& heldBefore) {
    if (!journal_) return;
    ZUBEventDal& store = ZUBEventDal::getInstance();
    for (const auto& before : heldBefore) {
        const std::uint64_t seq = before->journalSeq();
        if (seq == 0 || !before->md5()) continue;
        const EventPtr now = heldEvent(store, *before->md5());
        if (now && now != before && now->journalSeq() == 0) {
            now->setJournalSeq(seq);
        } else if (!now) {
            journal_->setPlace(seq, ZUBEventJournal::Place::Parked);
            parkedKeys_[*before->md5()] = seq;
            before->setJournalSeq(0);
        }
    }
    for (ZUBEventDictionary* dict : {&store.toReportEvents(), &store.retryEvents()}) {
        for (const auto& [key, event] : *dict) {
            if (event->journalSeq() != 0) continue;
            std::optional<std::uint64_t> seq;
            if (auto parked = parkedKeys_.find(std::string(key)); parked != parkedKeys_.end()) {
                seq = parked->second;
                journal_->setPlace(*seq, ZUBEventJournal::Place::Memory);
                parkedKeys_.erase(parked);
            } else {
                ZUBEventJournal::Dropped dropped;
                seq = journal_->append(*event, ZUBEventJournal::Place::Memory, dropped);
            }
            if (seq) event->setJournalSeq(*seq);
        }
    }
    queueJournalWrite();
}

// Dropped events are reported as an ordinary custom event, once the collector
// has shown it is reachable (or at start, for drops an earlier run left).
void ZUBEventLogic::reportDrops() {
    if (unreportedDrops_ == 0) return;
    auto event = std::make_shared<ZUBProCustomEvent>();
    event->setType(1000);
    event->setEventID(std::string(kZUBDroppedEventsID));
    zub::Value args = zub::Value::object();
    args["count"] = unreportedDrops_;
    event->setKvs(std::move(args));
    event->setTs(zub::Clock::nowSeconds());
    event->setAppkey(ZUBProConfig::getInstance().appkey());
    event->setIsImportant(true);
    event->setSid(ZUBSessionEvent::getSessionID(false));
    ZUBProHelper::LogDebug("reporting %@ dropped events", unreportedDrops_);
    unreportedDrops_ = 0;
    if (journal_) journal_->recordDrops(0);
    EventPtr drop = event;
    assignFreeKey(*drop);
    if (!drop->md5()) return;
    if (journal_) {
        journalFile(drop);
    } else {
        holdInMemory(drop, std::nullopt);
    }
}

void ZUBEventLogic::syncJournal() {
    std::lock_guard lock(eventListLock_);
    if (journal_) journal_->sync();
}

std::size_t ZUBEventLogic::journalBacklog() {
    std::lock_guard lock(eventListLock_);
    return journal_ ? journal_->overflowCount() + parkedKeys_.size() : 0;
}
