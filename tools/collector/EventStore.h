// EventStore: the collector's one database connection and the thread that writes
// through it.
//
// Request threads hand their work to the writer and wait for it. The writer takes
// everything that is waiting, runs it in one transaction (each piece of work in
// its own savepoint, so one failure does not undo the others) and commits before
// it wakes the waiters: a request is answered only once what it brought is on
// disk, and many concurrent requests share one commit. close() finishes all
// pending work before the connection is closed, so an orderly shutdown loses
// nothing that was acknowledged.
#pragma once

#include "Database.h"
#include "RequestDecoder.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
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

struct MidOutcome {
    bool ok = false;
    std::string error;
    std::string mid;
    bool created = false;  // a device the collector had not seen before
};

class EventStore {
public:
    /// Opens the database (creating and migrating its schema) and starts the writer.
    static std::unique_ptr<EventStore> open(const std::string& path, std::string& error);
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

    /// Finishes pending work, stops the writer and closes the database, leaving it
    /// in rollback-journal mode (one self-contained file) unless a reader holds it
    /// open. Later calls of the operations above fail. Idempotent.
    void close();

    /// Events stored since open().
    std::uint64_t storedEvents() const { return storedEvents_.load(); }

private:
    struct Job {
        std::function<bool(std::string& error)> work;
        bool done = false;  // guarded by mutex_
        bool ok = false;
        std::string error;
    };
    struct Statements;

    EventStore() = default;
    bool prepare(std::string& error);
    /// Hands the work to the writer and waits for its commit.
    bool submit(std::function<bool(std::string&)> work, std::string& error);
    void writerLoop();
    void runJobs(std::vector<Job*>& jobs);

    bool storeBatchNow(const std::vector<EventRecord>& events, std::int32_t offeredSdk, std::int32_t offeredApp,
                       StoreOutcome& outcome, std::string& error);
    bool registerDeviceNow(const MidRequest& request, MidOutcome& outcome, std::string& error);

    std::unique_ptr<Database> db_;          // used by the writer thread only (and by open/close)
    std::unique_ptr<Statements> statements_;  // idem

    std::mutex mutex_;
    std::condition_variable workReady_;  // the writer waits here for jobs
    std::condition_variable jobsDone_;   // submitters wait here for their commit
    std::deque<Job*> pending_;           // guarded by mutex_
    bool closing_ = false;               // guarded by mutex_
    std::thread writer_;
    std::atomic<std::uint64_t> storedEvents_{0};
};

}  // namespace zubcollector
