// EventStore: the collector's one database connection and the thread that writes
// through it.
//
// Request threads hand their work to the writer and wait for it. The writer takes
// everything that is waiting, runs it in one transaction and commits before it
// wakes the waiters: a request is answered only once what it brought is
// committed, and many concurrent requests share one commit. One failing request
// does not undo the others: on SQLite each runs in its own savepoint; on
// PostgreSQL (where a savepoint costs a round trip) the group runs again without
// it. The dashboard's summaries of the whole group are written once, at its end. close() finishes all
// pending work before the connection is closed, so an orderly shutdown loses
// nothing that was acknowledged.
//
// The database is an SQLite file or a PostgreSQL database (Database.h), which
// several collectors may share: there a group that meets another collector's
// locks in a deadlock is undone and run again, registrations of one device take
// turns (a lock per identifier, held to the commit), and a broken connection is
// opened again before the next group. In both stores an event sent again (its
// identity, EventRecord::key, already stored) is acknowledged without a second row.
#pragma once

#include "Database.h"
#include "RequestDecoder.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace zubcollector {

struct StoreOutcome {
    bool ok = false;
    std::string error;
    std::size_t stored = 0;
    /// Whether the reply should carry the SDK / application configuration block.
    bool sendSdk = false;
    bool sendApp = false;
};

/// How the store looks after itself.
struct StoreSettings {
    /// Events received more than this many whole days before today (UTC) are
    /// dropped, once a day (PostgreSQL: whole daily partitions). None: kept.
    std::optional<int> retentionDays;
};

struct MidOutcome {
    bool ok = false;
    std::string error;
    std::string mid;
    bool created = false;  // a device the collector had not seen before
};

class EventStore {
public:
    /// Opens the database at `location` (an SQLite path or a PostgreSQL URL),
    /// creating and migrating its schema, and starts the writer.
    static std::unique_ptr<EventStore> open(const std::string& location, std::string& error,
                                            StoreSettings settings = {});
    ~EventStore();
    EventStore(const EventStore&) = delete;
    EventStore& operator=(const EventStore&) = delete;

    /// Stores every event of a batch (all or none) and decides which configuration
    /// blocks to send: a block of version `offered*` (0 = none) goes to a client
    /// that is not known to hold that version, and is then taken as held. The
    /// client's holdings come from the "cfg" versions its session events report.
    /// Blocks until committed. Any thread.
    StoreOutcome storeBatch(const std::vector<EventRecord>& events, std::int32_t offeredSdk, std::int32_t offeredApp);

    /// Finds the device by its mid or identifiers (OpenUDID, then the temporary
    /// UDID, then idfv) or registers it with a new mid; a device that brings a mid
    /// the collector does not know keeps it. Empty and placeholder identifiers
    /// (values many machines share) neither match nor are recorded. Blocks until
    /// committed. Any thread.
    MidOutcome registerDevice(const MidRequest& request);

    /// Finishes pending work, stops the writer and closes the database, leaving an
    /// SQLite file in rollback-journal mode (one self-contained file) unless a
    /// reader holds it open. Later calls of the operations above fail. Idempotent.
    void close();

    /// Events stored since open().
    std::uint64_t storedEvents() const { return storedEvents_.load(); }

private:
    struct Job {
        // A report (events set) or a registration (request set), and its outcome.
        const std::vector<EventRecord>* events = nullptr;
        std::int32_t offeredSdk = 0;
        std::int32_t offeredApp = 0;
        StoreOutcome* report = nullptr;
        const MidRequest* request = nullptr;
        MidOutcome* registration = nullptr;
        std::vector<bool> fresh;  // per event: stored now (not sent before); writer thread only
        bool inserted = false;    // PostgreSQL: its events were stored with the group's; writer thread only
        bool done = false;  // guarded by mutex_
        std::condition_variable finished;  // the submitter waits here for `done`
        bool ok = false;
        std::string error;
    };
    struct Statements;

    EventStore() = default;
    bool prepare(std::string& error);
    /// Hands the job to the writer and waits for its commit.
    bool submit(Job& job, std::string& error);
    void writerLoop();
    void runJobs(std::vector<Job*>& jobs);
    /// One attempt at the group in one transaction; false when the whole
    /// transaction failed (`transient` when a retry may succeed).
    /// On PostgreSQL a request that fails undoes the whole attempt: it is named
    /// in `culprit`, to be left out of the next.
    /// On PostgreSQL the events of all the group's reports are stored together
    /// (`groupInsert`); when that fails for a reason a retry does not cure, the
    /// group runs again with each request's events stored on their own, which
    /// names the request at fault.
    bool tryJobs(std::vector<Job*>& jobs, std::int64_t now, bool groupInsert, bool& transient, Job*& culprit,
                 bool& groupInsertFailed, std::string& error);
    /// Records the devices the group's events came from (PostgreSQL).
    bool touchDevices(std::int64_t now, std::string& error);
    /// Today's and tomorrow's partitions, and the retention, once a day.
    void maintain(std::int64_t now);
    bool lockIdentifiers(const std::vector<Job*>& jobs, std::string& error);

    bool storeBatchNow(Job& job, std::int64_t now, std::string& error);
    /// Stores the events that are not there yet; `fresh` tells which were stored.
    bool insertEvents(const std::vector<EventRecord>& events, std::int64_t now, std::vector<bool>& fresh,
                      std::string& error);
    /// PostgreSQL: stores `events` (of one or several requests) that are not there
    /// yet, in one statement per 64; `fresh` tells which were stored.
    bool insertEventsPostgres(const std::vector<const EventRecord*>& events, std::int64_t now,
                              std::vector<bool>& fresh, std::string& error);
    bool registerDeviceNow(const MidRequest& request, std::int64_t now, MidOutcome& outcome, std::string& error);

    StoreSettings settings_;
    std::int64_t maintainedDay_ = -1;         // writer thread only
    std::set<std::string> keysThisGroup_;     // writer thread only: identities stored by the group so far
    struct DeviceSeen {
        std::optional<std::string> ifv, ioa, ui;
    };
    std::map<std::string, DeviceSeen> devicesThisGroup_;  // writer thread only: by mid (PostgreSQL)
    std::unique_ptr<Database> db_;          // used by the writer thread only (and by open/close)
    std::unique_ptr<Statements> statements_;  // idem

    std::mutex mutex_;
    std::condition_variable workReady_;  // the writer waits here for jobs
    std::deque<Job*> pending_;           // guarded by mutex_
    bool closing_ = false;               // guarded by mutex_
    std::thread writer_;
    std::atomic<std::uint64_t> storedEvents_{0};
};

}  // namespace zubcollector
