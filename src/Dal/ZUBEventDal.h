// ZUBEventDal: the events recorded but not yet acknowledged by the report server.
//
// Two insertion-ordered dictionaries keyed by the event's md5: toReportEvents
// (waiting for their first or next report) and retryEvents (failed, waiting to be
// sent again). When the host goes to the background or terminates, saveLogfile
// writes both to ".toReportEvents.log" and ".retryEvents.log" (gzip of a keyed
// archive, written atomically); loadLogfile reads them back at the next start or
// activation, replacing what is in memory, and deletes the files.
//
// Locking: every read or change of the two dictionaries, here and in the report
// logic, holds eventListLock() (re-entrant). The timed page and custom-event
// tables carry their own locks. The last periodic send time lives in the
// key-value store under "zubLastSendTime".
#pragma once

#include "Dal/ZUBEventDictionary.h"
#include "Platform/SerialQueue.h"

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// A table of timed page views or custom events between their begin and end,
/// with the re-entrant lock that guards it.
struct ZUBTimedTable {
    std::recursive_mutex mutex;
    zub::Value entries = zub::Value::object();  // guarded by mutex
};

class ZUBEventDal {
public:
    static ZUBEventDal& getInstance();
    ZUBEventDal(const ZUBEventDal&) = delete;
    ZUBEventDal& operator=(const ZUBEventDal&) = delete;

    void saveLogfile();
    void loadLogfile();
    /// The events held before a load, handed to the load observer.
    using LoadObserver = std::function<void(std::vector<std::shared_ptr<ZUBProEvent>> heldBefore)>;
    /// Called (on the loading thread, lock held) after loadLogfile replaced the
    /// dictionaries, with the events they held before; the report pipeline
    /// matches both with its journal.
    void setLoadObserver(LoadObserver observer) {
        std::lock_guard lock(eventListLock_);
        loadObserver_ = std::move(observer);
    }

    ZUBTimedTable& getTimedPageDic() { return timePageDic_; }
    ZUBTimedTable& getTimeEventDic() { return timeEventDic_; }

    void saveLastSendTime(std::int64_t seconds);
    std::int64_t getLastSendTime();

    /// The lock of both event dictionaries ("_eventListKey").
    std::recursive_mutex& eventListLock() { return eventListLock_; }
    const std::string& eventListKey() const { return eventListKey_; }

    // Hold eventListLock() while using these.
    ZUBEventDictionary& toReportEvents() { return toReportEvents_; }
    void setToReportEvents(const ZUBEventDictionary& v) { toReportEvents_ = v; }
    ZUBEventDictionary& retryEvents() { return retryEvents_; }
    void setRetryEvents(const ZUBEventDictionary& v) { retryEvents_ = v; }

    /// Encodes a dictionary as log-file bytes (gzip of the keyed archive).
    static zub::Data encodeLogfile(const ZUBEventDictionary& events);
    /// Decodes log-file bytes; std::nullopt when they are damaged.
    static std::optional<ZUBEventDictionary> decodeLogfile(const zub::Data& bytes);

private:
    ZUBEventDal();
    void writeLogfile(const char* name, const ZUBEventDictionary& events);
    void readLogfile(const char* name, ZUBEventDictionary& events);

    zub::SerialQueue storeQueue_{"ZUBProStoreQueue"};  // kept for the platform build; no work is put on it
    const std::string eventListKey_ = "_eventListKey";
    std::recursive_mutex eventListLock_;
    ZUBEventDictionary toReportEvents_;  // guarded by eventListLock_
    ZUBEventDictionary retryEvents_;     // guarded by eventListLock_
    ZUBTimedTable timePageDic_;
    ZUBTimedTable timeEventDic_;
    LoadObserver loadObserver_;  // guarded by eventListLock_
};
