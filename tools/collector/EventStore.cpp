#include "EventStore.h"

#include "Rollups.h"
#include "Schema.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <utility>

namespace zubcollector {
namespace {

constexpr std::size_t kMaxJobsPerCommit = 512;
// A group that met another writer's locks in a deadlock is run again this often.
constexpr int kAttempts = 5;
// Rows per multi-row INSERT on PostgreSQL (one round trip each).
constexpr std::size_t kRowsPerInsert = 64;
constexpr std::int64_t kDay = 86400;

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// 32 lower-case hex digits from the system's random source.
std::string newMid() {
    std::random_device random;
    std::string mid;
    mid.reserve(32);
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(random()));
        mid += part;
    }
    return mid;
}

// Identifier values that many machines send alike: the temporary UDID of a
// machine without an "en0" interface is the SHA-1 of no bytes, and an application
// that opted out of OpenUDID sends forty "0" characters (an all-zero UUID is the
// same kind of value). Such a value says nothing about which device sent it.
bool isPlaceholder(std::string_view value) {
    constexpr std::string_view kSha1OfNothing = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
    if (value.size() == kSha1OfNothing.size() &&
        std::equal(value.begin(), value.end(), kSha1OfNothing.begin(),
                   [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; })) {
        return true;
    }
    return value.find_first_not_of("0-") == std::string_view::npos;  // also true for ""
}

// The identifier as a key to find its device by: absent when empty or a placeholder.
std::optional<std::string> matchingKey(const std::string& value) {
    if (isPlaceholder(value)) return std::nullopt;
    return value;
}

std::optional<std::string> matchingKey(const std::optional<std::string>& value) {
    return value ? matchingKey(*value) : std::nullopt;
}

}  // namespace

struct EventStore::Statements {
    Statement insertEvent;      // SQLite: one event, unless its identity is stored
    Statement touchDevice;      // SQLite: insert a device seen in events, or move its last_seen
    std::map<std::size_t, Statement> insertEvents;  // PostgreSQL: N events, answering those new
    std::map<std::size_t, Statement> touchDevices;  // PostgreSQL: N devices seen in events
    Statement findByMid;
    Statement findByUi;
    Statement findByIoa;
    Statement findByIfv;
    Statement updateDevice;
    Statement insertDevice;     // nothing when the mid is taken
    Statement readConfigState;
    Statement writeConfigState;  // sets the versions that are given, keeps the others
    Statement lockIdentifier;    // PostgreSQL: a lock on one identifier, to the commit
    Statement savepoint, releaseSavepoint, rollbackToSavepoint;  // SQLite: one request of a group
    std::unique_ptr<RollupWriter> rollups;  // the dashboard's summaries
};

std::unique_ptr<EventStore> EventStore::open(const std::string& location, std::string& error, StoreSettings settings) {
    std::unique_ptr<EventStore> store(new EventStore());
    store->settings_ = settings;
    store->db_ = Database::open(location, Database::Mode::ReadWrite, error);
    if (!store->db_) return nullptr;
    if (!migrateSchema(*store->db_, error)) return nullptr;
    if (!store->prepare(error)) return nullptr;
    store->maintain(nowSeconds());
    store->writer_ = std::thread([s = store.get()] { s->writerLoop(); });
    return store;
}

bool EventStore::prepare(std::string& error) {
    statements_ = std::make_unique<Statements>();
    Statements& s = *statements_;
    Database& db = *db_;
    const bool postgres = db.dialect() == Dialect::Postgres;
    if (!postgres) {
        s.insertEvent = db.prepare(
            "INSERT INTO events (app_key, mid, et, si, ts, idx, body, received, event_key) "
            "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9) ON CONFLICT DO NOTHING",
            error);
        s.touchDevice = db.prepare(
            "INSERT INTO devices (mid, ifv, ioa, ui, first_seen, last_seen) VALUES (?1, ?2, ?3, ?4, ?5, ?5) "
            "ON CONFLICT (mid) DO UPDATE SET last_seen = MAX(last_seen, excluded.last_seen)",
            error);
        s.savepoint = db.prepare("SAVEPOINT job", error);
        s.releaseSavepoint = db.prepare("RELEASE SAVEPOINT job", error);
        s.rollbackToSavepoint = db.prepare("ROLLBACK TO SAVEPOINT job", error);
    }
    s.findByMid = db.prepare("SELECT mid FROM devices WHERE mid = ?1", error);
    s.findByUi = db.prepare("SELECT mid FROM devices WHERE ui = ?1 ORDER BY last_seen DESC LIMIT 1", error);
    s.findByIoa = db.prepare("SELECT mid FROM devices WHERE ioa = ?1 ORDER BY last_seen DESC LIMIT 1", error);
    s.findByIfv = db.prepare("SELECT mid FROM devices WHERE ifv = ?1 ORDER BY last_seen DESC LIMIT 1", error);
    s.updateDevice = db.prepare(
        postgres ? "UPDATE devices SET ifv = COALESCE(?2, ifv), ioa = COALESCE(?3, ioa), ui = COALESCE(?4, ui), "
                   "last_seen = GREATEST(last_seen, ?5) WHERE mid = ?1"
                 : "UPDATE devices SET ifv = COALESCE(?2, ifv), ioa = COALESCE(?3, ioa), ui = COALESCE(?4, ui), "
                   "last_seen = MAX(last_seen, ?5) WHERE mid = ?1",
        error);
    s.insertDevice = db.prepare(
        "INSERT INTO devices (mid, ifv, ioa, ui, first_seen, last_seen) VALUES (?1, ?2, ?3, ?4, ?5, ?5) "
        "ON CONFLICT (mid) DO NOTHING",
        error);
    s.readConfigState =
        db.prepare("SELECT sdk_version, app_version FROM config_state WHERE app_key = ?1 AND mid = ?2", error);
    s.writeConfigState = db.prepare(
        "INSERT INTO config_state AS c (app_key, mid, sdk_version, app_version, updated) VALUES (?1, ?2, ?3, ?4, ?5) "
        "ON CONFLICT (app_key, mid) DO UPDATE SET "
        "sdk_version = COALESCE(excluded.sdk_version, c.sdk_version), "
        "app_version = COALESCE(excluded.app_version, c.app_version), updated = excluded.updated",
        error);
    if (postgres) s.lockIdentifier = db.prepare("SELECT pg_advisory_xact_lock(hashtextextended(?1, 0))", error);
    s.rollups = RollupWriter::create(db, error);
    if (!s.rollups) return false;
    for (const Statement* statement : {&s.findByMid, &s.findByUi, &s.findByIoa, &s.findByIfv, &s.updateDevice,
                                       &s.insertDevice, &s.readConfigState, &s.writeConfigState}) {
        if (!statement->ok() || (!postgres && (!s.insertEvent.ok() || !s.touchDevice.ok() || !s.savepoint.ok() ||
                                               !s.releaseSavepoint.ok() || !s.rollbackToSavepoint.ok()))) {
            error = "cannot prepare statements: " + error;
            return false;
        }
    }
    return true;
}

EventStore::~EventStore() { close(); }

void EventStore::close() {
    {
        std::lock_guard lock(mutex_);
        if (closing_ && !writer_.joinable()) return;
        closing_ = true;
    }
    workReady_.notify_all();
    if (writer_.joinable()) writer_.join();
    if (db_) {
        statements_.reset();
        if (db_->dialect() == Dialect::Sqlite) {
            // Leave one self-contained file in rollback-journal mode: the query
            // commands and copies then read it without making any file beside it. A
            // reader that holds it open keeps it in WAL mode; then the log is at
            // least emptied.
            std::string ignored;
            Statement toRollbackJournal = db_->prepare("PRAGMA journal_mode=DELETE", ignored);
            const bool switched =
                toRollbackJournal.ok() && toRollbackJournal.step() && toRollbackJournal.text(0) == "delete";
            toRollbackJournal = Statement();
            if (!switched) db_->exec("PRAGMA wal_checkpoint(TRUNCATE)", ignored);
        }
        db_.reset();
    }
}

bool EventStore::submit(Job& job, std::string& error) {
    std::unique_lock lock(mutex_);
    if (closing_) {
        error = "the collector is shutting down";
        return false;
    }
    pending_.push_back(&job);
    workReady_.notify_one();
    job.finished.wait(lock, [&job] { return job.done; });
    if (!job.ok) error = job.error;
    return job.ok;
}

void EventStore::writerLoop() {
    std::vector<Job*> jobs;
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            workReady_.wait(lock, [this] { return !pending_.empty() || closing_; });
            if (pending_.empty()) return;  // closing, and nothing left to do
            while (!pending_.empty() && jobs.size() < kMaxJobsPerCommit) {
                jobs.push_back(pending_.front());
                pending_.pop_front();
            }
        }
        maintain(nowSeconds());
        runJobs(jobs);
        {
            // Each submitter is woken alone, by its own condition; under the lock,
            // since a submitter that sees `done` returns and its job is gone.
            std::lock_guard lock(mutex_);
            for (Job* job : jobs) {
                job->done = true;
                job->finished.notify_one();
            }
        }
        jobs.clear();
    }
}

void EventStore::maintain(std::int64_t now) {
    const std::int64_t today = now / kDay;
    if (today == maintainedDay_) return;
    Database& db = *db_;
    std::string error;
    bool ok = true;
    if (db.dialect() == Dialect::Postgres) {
        // Today's partition and tomorrow's, made ahead so that midnight finds it.
        Statement ensure = db.prepare("SELECT zub_ensure_event_partition(?1)", error);
        for (std::int64_t day = today; ok && day <= today + 1; ++day) {
            ensure.bind(1, day);
            ok = ensure.run();
        }
        if (ok && settings_.retentionDays) {
            Statement drop = db.prepare("SELECT zub_drop_event_partitions(?1)", error);
            Statement forget = db.prepare("DELETE FROM event_keys WHERE day < ?1", error);
            drop.bind(1, today - *settings_.retentionDays);
            forget.bind(1, today - *settings_.retentionDays);
            ok = drop.run() && forget.run();
        }
    } else if (settings_.retentionDays) {
        Statement drop = db.prepare("DELETE FROM events WHERE received < ?1", error);
        ok = drop.ok();
        if (ok) {
            drop.bind(1, (today - *settings_.retentionDays) * kDay);
            ok = drop.run();
        }
    }
    if (!ok) {
        // Tried again with the next group; events still have the default partition.
        std::fprintf(stderr, "zub-collector: storage upkeep failed: %s\n", db.lastError().c_str());
        return;
    }
    maintainedDay_ = today;
}

void EventStore::runJobs(std::vector<Job*>& jobs) {
    const std::int64_t now = nowSeconds();
    std::vector<Job*> active = jobs;
    std::string error;
    bool groupInsert = db_->dialect() == Dialect::Postgres;
    for (int attempt = 1; !active.empty();) {
        for (Job* job : active) {
            job->ok = false;
            job->error.clear();
        }
        error.clear();
        if (!db_->reconnect()) {  // the server went away: the clients will send again
            error = "the database cannot be reached: " + db_->lastError();
            break;
        }
        bool transient = false;
        Job* culprit = nullptr;
        bool groupInsertFailed = false;
        if (tryJobs(active, now, groupInsert, transient, culprit, groupInsertFailed, error)) return;
        std::string ignored;
        db_->exec("ROLLBACK", ignored);
        statements_->rollups->discard();
        if (groupInsertFailed && !transient) {
            // Again with each request's events on their own, to find the one at fault.
            groupInsert = false;
            continue;
        }
        if (culprit) {
            // That request is answered with its failure; the others run again without it.
            active.erase(std::find(active.begin(), active.end(), culprit));
            continue;
        }
        if (!transient || ++attempt > kAttempts) break;
    }
    for (Job* job : active) {
        job->ok = false;
        job->error = "storage: " + error;
    }
}

bool EventStore::tryJobs(std::vector<Job*>& jobs, std::int64_t now, bool groupInsert, bool& transient,
                         Job*& culprit, bool& groupInsertFailed, std::string& error) {
    Database& db = *db_;
    // SQLite's savepoints cost nothing; on PostgreSQL each is a round trip, so a
    // group runs without them and, when one request fails, again without that one.
    const bool savepoints = db.dialect() == Dialect::Sqlite;
    keysThisGroup_.clear();
    devicesThisGroup_.clear();
    auto failed = [&](const std::string& what) {
        error = what + db.lastError();
        transient = db.lastFailureIsTransient();
        return false;
    };
    if (!db.exec(savepoints ? "BEGIN IMMEDIATE" : "BEGIN", error)) return failed("");
    if (!lockIdentifiers(jobs, error)) return failed("cannot lock device identifiers: ");
    for (Job* job : jobs) job->inserted = false;
    if (groupInsert && !savepoints) {
        // One statement per 64 events of the whole group rather than one per request.
        std::vector<const EventRecord*> events;
        for (const Job* job : jobs) {
            if (!job->events) continue;
            for (const EventRecord& event : *job->events) events.push_back(&event);
        }
        std::vector<bool> fresh;
        if (!insertEventsPostgres(events, now, fresh, error)) {
            groupInsertFailed = true;
            return failed("");
        }
        std::size_t at = 0;
        for (Job* job : jobs) {
            if (!job->events) continue;
            job->fresh.assign(fresh.begin() + static_cast<std::ptrdiff_t>(at),
                              fresh.begin() + static_cast<std::ptrdiff_t>(at + job->events->size()));
            at += job->events->size();
            job->inserted = true;
        }
    }
    Statements& s = *statements_;
    for (Job* job : jobs) {
        if (savepoints && !s.savepoint.run()) {
            job->error = db.lastError();
            return failed("");
        }
        job->ok = job->events ? storeBatchNow(*job, now, job->error)
                              : registerDeviceNow(*job->request, now, *job->registration, job->error);
        if (!job->ok) {
            if (db.lastFailureIsTransient()) return failed("");
            if (!savepoints) {
                culprit = job;
                return false;
            }
            s.rollbackToSavepoint.run();
        } else if (job->events) {
            for (std::size_t i = 0; i < job->events->size(); ++i) {
                if (job->fresh[i]) s.rollups->collect((*job->events)[i], now);
            }
        }
        if (savepoints) s.releaseSavepoint.run();
    }
    if (!touchDevices(now, error)) return failed("cannot record devices: ");
    if (!statements_->rollups->flush(error)) {
        transient = db.lastFailureIsTransient();
        return false;
    }
    if (!db.exec("COMMIT", error)) return failed("commit failed: ");
    return true;
}

bool EventStore::touchDevices(std::int64_t now, std::string& error) {
    // PostgreSQL: the devices the group's events came from, in one statement per
    // 64, in the order of their mids (SQLite records them with each request).
    std::vector<const std::pair<const std::string, DeviceSeen>*> devices;
    for (const auto& device : devicesThisGroup_) devices.push_back(&device);
    for (std::size_t start = 0; start < devices.size(); start += kRowsPerInsert) {
        const std::size_t rows = std::min(kRowsPerInsert, devices.size() - start);
        Statement& touch = statements_->touchDevices[rows];
        if (!touch.ok()) {
            std::string sql = "INSERT INTO devices AS d (mid, ifv, ioa, ui, first_seen, last_seen) VALUES ";
            for (std::size_t r = 0; r < rows; ++r) {
                sql += (r ? ", (?" : "(?") + std::to_string(4 * r + 1) + ", ?" + std::to_string(4 * r + 2) + ", ?" +
                       std::to_string(4 * r + 3) + ", ?" + std::to_string(4 * r + 4) + ", ?" +
                       std::to_string(4 * rows + 1) + ", ?" + std::to_string(4 * rows + 1) + ")";
            }
            touch = db_->prepare(sql + " ON CONFLICT (mid) DO UPDATE SET last_seen = GREATEST(d.last_seen, excluded.last_seen)",
                                 error);
        }
        for (std::size_t r = 0; r < rows; ++r) {
            const auto& [mid, seen] = *devices[start + r];
            const int base = static_cast<int>(4 * r);
            touch.bind(base + 1, mid);
            touch.bind(base + 2, seen.ifv);
            touch.bind(base + 3, seen.ioa);
            touch.bind(base + 4, seen.ui);
        }
        touch.bind(static_cast<int>(4 * rows + 1), now);
        if (!touch.run()) return false;
    }
    return true;
}

bool EventStore::lockIdentifiers(const std::vector<Job*>& jobs, std::string& error) {
    if (db_->dialect() != Dialect::Postgres) return true;  // SQLite: one writer holds the whole file
    // Two collectors registering one device at once must give it one mid: a
    // registration holds a lock on each of its identifiers until its commit, so
    // the second one finds the device the first made. Locks are taken in one
    // order, before any row lock of the group, so that groups never wait in a circle.
    std::set<std::string> identifiers;
    for (const Job* job : jobs) {
        if (!job->request) continue;
        const MidRequest& r = *job->request;
        if (!r.mid.empty()) identifiers.insert("mid:" + r.mid);
        if (const auto ui = matchingKey(r.ui)) identifiers.insert("ui:" + *ui);
        if (const auto ioa = matchingKey(r.ioa)) identifiers.insert("ioa:" + *ioa);
        if (const auto ifv = matchingKey(r.ifv)) identifiers.insert("ifv:" + *ifv);
    }
    for (const std::string& identifier : identifiers) {
        statements_->lockIdentifier.bind(1, identifier);
        if (!statements_->lockIdentifier.run()) {
            error = db_->lastError();
            return false;
        }
    }
    return true;
}

StoreOutcome EventStore::storeBatch(const std::vector<EventRecord>& events, std::int32_t offeredSdk,
                                    std::int32_t offeredApp) {
    StoreOutcome outcome;
    Job job;
    job.events = &events;
    job.offeredSdk = offeredSdk;
    job.offeredApp = offeredApp;
    job.report = &outcome;
    std::string error;
    if (!submit(job, error)) {
        outcome = StoreOutcome{};
        outcome.error = error;
        return outcome;
    }
    outcome.ok = true;
    storedEvents_ += outcome.stored;
    return outcome;
}

bool EventStore::insertEvents(const std::vector<EventRecord>& events, std::int64_t now, std::vector<bool>& fresh,
                              std::string& error) {
    Statements& s = *statements_;
    Database& db = *db_;
    fresh.assign(events.size(), false);
    if (db.dialect() == Dialect::Sqlite) {
        for (std::size_t i = 0; i < events.size(); ++i) {
            const EventRecord& event = events[i];
            s.insertEvent.bind(1, event.appKey);
            s.insertEvent.bind(2, event.mid);
            s.insertEvent.bind(3, event.type);
            s.insertEvent.bind(4, event.session);
            s.insertEvent.bind(5, event.time);
            s.insertEvent.bind(6, event.index);
            s.insertEvent.bind(7, std::string_view(event.json));
            s.insertEvent.bind(8, now);
            s.insertEvent.bind(9, event.key);
            if (!s.insertEvent.run()) {
                error = "storage: cannot store an event: " + db.lastError();
                return false;
            }
            fresh[i] = db.changes() > 0;  // none when its identity was stored before
        }
        return true;
    }

    std::vector<const EventRecord*> pointers;
    pointers.reserve(events.size());
    for (const EventRecord& event : events) pointers.push_back(&event);
    return insertEventsPostgres(pointers, now, fresh, error);
}

bool EventStore::insertEventsPostgres(const std::vector<const EventRecord*>& events, std::int64_t now,
                                      std::vector<bool>& fresh, std::string& error) {
    Statements& s = *statements_;
    Database& db = *db_;
    fresh.assign(events.size(), false);
    // PostgreSQL: one statement per 64 events stores the identities that are new
    // and the events that are new (those without an identity, or with one stored
    // neither before nor by this group), and answers which those were.
    std::vector<std::size_t> toSend;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (!events[i]->key || keysThisGroup_.insert(*events[i]->key).second) toSend.push_back(i);
    }
    constexpr int kColumns = 9;
    for (std::size_t start = 0; start < toSend.size(); start += kRowsPerInsert) {
        const std::size_t rows = std::min(kRowsPerInsert, toSend.size() - start);
        const int day = static_cast<int>(rows) * kColumns + 1;
        Statement& insert = s.insertEvents[rows];
        if (!insert.ok()) {
            std::string values;
            for (std::size_t r = 0; r < rows; ++r) {
                values += r ? ", (" : "(";
                for (int c = 1; c <= kColumns; ++c) {
                    values += (c > 1 ? ", ?" : "?") + std::to_string(static_cast<int>(r) * kColumns + c);
                }
                values += ")";
            }
            const std::string isNew = " WHERE k IS NULL OR k IN (SELECT event_key FROM fresh)";
            insert = db.prepare(
                "WITH v (n, k, app_key, mid, et, si, ts, idx, body) AS (VALUES " + values + "), "
                "fresh AS (INSERT INTO event_keys (event_key, day) SELECT k, ?" + std::to_string(day) +
                    " FROM v WHERE k IS NOT NULL ON CONFLICT DO NOTHING RETURNING event_key), "
                "stored AS (INSERT INTO events (app_key, mid, et, si, ts, idx, body, received) "
                "SELECT app_key, mid, et, si, ts, idx, body, ?" + std::to_string(day + 1) + " FROM v" + isNew +
                    " ORDER BY n) "
                "SELECT n FROM v" + isNew,
                error);
        }
        for (std::size_t r = 0; r < rows; ++r) {
            const std::size_t i = toSend[start + r];
            const EventRecord& event = *events[i];
            const int base = static_cast<int>(r) * kColumns;
            insert.bind(base + 1, static_cast<std::int64_t>(i));
            insert.bind(base + 2, event.key);
            insert.bind(base + 3, event.appKey);
            insert.bind(base + 4, event.mid);
            insert.bind(base + 5, event.type);
            insert.bind(base + 6, event.session);
            insert.bind(base + 7, event.time);
            insert.bind(base + 8, event.index);
            insert.bind(base + 9, std::string_view(event.json));
        }
        insert.bind(day, now / kDay);
        insert.bind(day + 1, now);
        while (insert.step()) {
            const std::int64_t stored = insert.integer(0);
            if (stored >= 0 && static_cast<std::size_t>(stored) < fresh.size()) fresh[static_cast<std::size_t>(stored)] = true;
        }
        const bool ok = insert.done();
        insert.reset();
        if (!ok) {
            error = "storage: cannot store an event: " + db.lastError();
            return false;
        }
    }
    return true;
}

bool EventStore::storeBatchNow(Job& job, std::int64_t now, std::string& error) {
    Statements& s = *statements_;
    const std::vector<EventRecord>& events = *job.events;
    StoreOutcome& outcome = *job.report;
    if (!job.inserted && !insertEvents(events, now, job.fresh, error)) return false;
    std::set<std::string> devicesSeen;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const EventRecord& event = events[i];
        if (event.mid && !event.mid->empty() && db_->dialect() == Dialect::Postgres) {
            devicesThisGroup_.try_emplace(*event.mid, DeviceSeen{matchingKey(event.ifv), matchingKey(event.ioa),
                                                                  matchingKey(event.ui)});
        } else if (event.mid && !event.mid->empty() && devicesSeen.insert(*event.mid).second) {
            s.touchDevice.bind(1, *event.mid);
            s.touchDevice.bind(2, matchingKey(event.ifv));
            s.touchDevice.bind(3, matchingKey(event.ioa));
            s.touchDevice.bind(4, matchingKey(event.ui));
            s.touchDevice.bind(5, now);
            if (!s.touchDevice.run()) {
                error = "storage: cannot record a device: " + db_->lastError();
                return false;
            }
        }
        // A session event tells which configuration versions this client holds.
        if (event.type == 2 && event.appKey && event.mid && !event.mid->empty() &&
            (event.sdkConfigVersion || event.appConfigVersion)) {
            s.writeConfigState.bind(1, *event.appKey);
            s.writeConfigState.bind(2, *event.mid);
            s.writeConfigState.bind(3, event.sdkConfigVersion);
            s.writeConfigState.bind(4, event.appConfigVersion);
            s.writeConfigState.bind(5, now);
            if (!s.writeConfigState.run()) {
                error = "storage: cannot record configuration versions: " + db_->lastError();
                return false;
            }
        }
    }
    // Every event of the batch counts as stored, those sent before included: the
    // client is told they are kept, and they are, once.
    outcome.stored = events.size();
    const std::int32_t offeredSdk = job.offeredSdk;
    const std::int32_t offeredApp = job.offeredApp;
    if (offeredSdk <= 0 && offeredApp <= 0) return true;

    // The client the reply goes to: the application of the batch's session event
    // (the host application's own key), else of its first event, on its device.
    const EventRecord* keyed = nullptr;
    for (const EventRecord& event : events) {
        if (event.type == 2 && event.appKey) {
            keyed = &event;
            break;
        }
    }
    if (!keyed && !events.empty()) keyed = &events.front();
    std::optional<std::string> mid;
    for (const EventRecord& event : events) {
        if (event.mid && !event.mid->empty()) {
            mid = event.mid;
            break;
        }
    }
    std::optional<std::int64_t> heldSdk;
    std::optional<std::int64_t> heldApp;
    const bool known = keyed && keyed->appKey && mid;
    if (known) {
        s.readConfigState.bind(1, *keyed->appKey);
        s.readConfigState.bind(2, *mid);
        if (s.readConfigState.step()) {
            if (!s.readConfigState.isNull(0)) heldSdk = s.readConfigState.integer(0);
            if (!s.readConfigState.isNull(1)) heldApp = s.readConfigState.integer(1);
        }
        const bool failed = s.readConfigState.failed();
        s.readConfigState.reset();
        if (failed) {
            error = "storage: cannot read configuration versions: " + db_->lastError();
            return false;
        }
    }
    outcome.sendSdk = offeredSdk > 0 && (!heldSdk || *heldSdk < offeredSdk);
    outcome.sendApp = offeredApp > 0 && (!heldApp || *heldApp < offeredApp);
    if (known && (outcome.sendSdk || outcome.sendApp)) {
        s.writeConfigState.bind(1, *keyed->appKey);
        s.writeConfigState.bind(2, *mid);
        if (outcome.sendSdk) s.writeConfigState.bind(3, static_cast<std::int64_t>(offeredSdk));
        if (outcome.sendApp) s.writeConfigState.bind(4, static_cast<std::int64_t>(offeredApp));
        s.writeConfigState.bind(5, now);
        if (!s.writeConfigState.run()) {
            error = "storage: cannot record configuration versions: " + db_->lastError();
            return false;
        }
    }
    return true;
}

MidOutcome EventStore::registerDevice(const MidRequest& request) {
    MidOutcome outcome;
    Job job;
    job.request = &request;
    job.registration = &outcome;
    std::string error;
    if (!submit(job, error)) {
        outcome = MidOutcome{};
        outcome.error = error;
        return outcome;
    }
    outcome.ok = true;
    return outcome;
}

bool EventStore::registerDeviceNow(const MidRequest& request, std::int64_t now, MidOutcome& outcome,
                                   std::string& error) {
    Statements& s = *statements_;
    outcome = MidOutcome{};
    auto lookup = [&](Statement& statement, const std::optional<std::string>& value) -> std::optional<std::string> {
        if (!value || value->empty()) return std::nullopt;
        statement.bind(1, std::string_view(*value));
        std::optional<std::string> found;
        if (statement.step()) found = statement.text(0);
        if (statement.failed()) error = "storage: cannot look up a device: " + db_->lastError();
        statement.reset();
        return found;
    };

    // Placeholder identifiers are shared by unrelated machines: they neither find
    // a device nor are recorded as one's identifiers.
    const std::optional<std::string> ifv = matchingKey(request.ifv);
    const std::optional<std::string> ioa = matchingKey(request.ioa);
    const std::optional<std::string> ui = matchingKey(request.ui);
    std::optional<std::string> mid = lookup(s.findByMid, request.mid);
    if (!mid) mid = lookup(s.findByUi, ui);
    if (!mid) mid = lookup(s.findByIoa, ioa);
    if (!mid) mid = lookup(s.findByIfv, ifv);
    if (!error.empty()) return false;

    if (mid) {
        s.updateDevice.bind(1, *mid);
        s.updateDevice.bind(2, ifv);
        s.updateDevice.bind(3, ioa);
        s.updateDevice.bind(4, ui);
        s.updateDevice.bind(5, now);
        if (!s.updateDevice.run()) {
            error = "storage: cannot update a device: " + db_->lastError();
            return false;
        }
        outcome.mid = *mid;
        return true;
    }

    // A new device: keep the mid it brings, or make one nobody has (a mid taken
    // meanwhile, by a device seen in events or on another collector, is not).
    std::string fresh = request.mid;
    for (;;) {
        if (fresh.empty()) fresh = newMid();
        s.insertDevice.bind(1, fresh);
        s.insertDevice.bind(2, ifv);
        s.insertDevice.bind(3, ioa);
        s.insertDevice.bind(4, ui);
        s.insertDevice.bind(5, now);
        if (!s.insertDevice.run()) {
            error = "storage: cannot register a device: " + db_->lastError();
            return false;
        }
        if (db_->changes() > 0) break;
        fresh.clear();
    }
    outcome.mid = fresh;
    outcome.created = true;
    return true;
}

}  // namespace zubcollector
