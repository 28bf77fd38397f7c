#include "EventStore.h"

#include "Rollups.h"
#include "Schema.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <utility>

namespace zubcollector {
namespace {

constexpr std::size_t kMaxJobsPerCommit = 512;

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
    Statement insertEvent;
    Statement touchDevice;      // insert a device seen in events, or move its last_seen
    Statement findByMid;
    Statement findByUi;
    Statement findByIoa;
    Statement findByIfv;
    Statement updateDevice;
    Statement insertDevice;
    Statement readConfigState;
    Statement writeConfigState;  // sets the versions that are given, keeps the others
    std::unique_ptr<RollupWriter> rollups;  // the dashboard's summaries
};

std::unique_ptr<EventStore> EventStore::open(const std::string& path, std::string& error) {
    std::unique_ptr<EventStore> store(new EventStore());
    store->db_ = Database::open(path, Database::Mode::ReadWrite, error);
    if (!store->db_) return nullptr;
    if (!migrateSchema(*store->db_, error)) return nullptr;
    if (!store->prepare(error)) return nullptr;
    store->writer_ = std::thread([s = store.get()] { s->writerLoop(); });
    return store;
}

bool EventStore::prepare(std::string& error) {
    statements_ = std::make_unique<Statements>();
    Statements& s = *statements_;
    Database& db = *db_;
    s.insertEvent = db.prepare(
        "INSERT INTO events (app_key, mid, et, si, ts, idx, body, received) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
        error);
    s.touchDevice = db.prepare(
        "INSERT INTO devices (mid, ifv, ioa, ui, first_seen, last_seen) VALUES (?1, ?2, ?3, ?4, ?5, ?5) "
        "ON CONFLICT (mid) DO UPDATE SET last_seen = MAX(last_seen, excluded.last_seen)",
        error);
    s.findByMid = db.prepare("SELECT mid FROM devices WHERE mid = ?1", error);
    s.findByUi = db.prepare("SELECT mid FROM devices WHERE ui = ?1 ORDER BY last_seen DESC LIMIT 1", error);
    s.findByIoa = db.prepare("SELECT mid FROM devices WHERE ioa = ?1 ORDER BY last_seen DESC LIMIT 1", error);
    s.findByIfv = db.prepare("SELECT mid FROM devices WHERE ifv = ?1 ORDER BY last_seen DESC LIMIT 1", error);
    s.updateDevice = db.prepare(
        "UPDATE devices SET ifv = COALESCE(?2, ifv), ioa = COALESCE(?3, ioa), ui = COALESCE(?4, ui), "
        "last_seen = MAX(last_seen, ?5) WHERE mid = ?1",
        error);
    s.insertDevice = db.prepare(
        "INSERT INTO devices (mid, ifv, ioa, ui, first_seen, last_seen) VALUES (?1, ?2, ?3, ?4, ?5, ?5)", error);
    s.readConfigState =
        db.prepare("SELECT sdk_version, app_version FROM config_state WHERE app_key = ?1 AND mid = ?2", error);
    s.writeConfigState = db.prepare(
        "INSERT INTO config_state (app_key, mid, sdk_version, app_version, updated) VALUES (?1, ?2, ?3, ?4, ?5) "
        "ON CONFLICT (app_key, mid) DO UPDATE SET "
        "sdk_version = COALESCE(excluded.sdk_version, sdk_version), "
        "app_version = COALESCE(excluded.app_version, app_version), updated = excluded.updated",
        error);
    s.rollups = RollupWriter::create(db, error);
    if (!s.rollups) return false;
    for (const Statement* statement :
         {&s.insertEvent, &s.touchDevice, &s.findByMid, &s.findByUi, &s.findByIoa, &s.findByIfv, &s.updateDevice,
          &s.insertDevice, &s.readConfigState, &s.writeConfigState}) {
        if (!statement->ok()) {
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
        // Leave one self-contained file in rollback-journal mode: the query commands
        // and copies then read it without making any file beside it. A reader that
        // holds it open keeps it in WAL mode; then the log is at least emptied.
        std::string ignored;
        Statement toRollbackJournal = db_->prepare("PRAGMA journal_mode=DELETE", ignored);
        const bool switched = toRollbackJournal.ok() && toRollbackJournal.step() && toRollbackJournal.text(0) == "delete";
        toRollbackJournal = Statement();
        if (!switched) db_->exec("PRAGMA wal_checkpoint(TRUNCATE)", ignored);
        db_.reset();
    }
}

bool EventStore::submit(std::function<bool(std::string&)> work, std::string& error) {
    Job job;
    job.work = std::move(work);
    std::unique_lock lock(mutex_);
    if (closing_) {
        error = "the collector is shutting down";
        return false;
    }
    pending_.push_back(&job);
    workReady_.notify_one();
    jobsDone_.wait(lock, [&job] { return job.done; });
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
        runJobs(jobs);
        {
            std::lock_guard lock(mutex_);
            for (Job* job : jobs) job->done = true;
        }
        jobsDone_.notify_all();
        jobs.clear();
    }
}

void EventStore::runJobs(std::vector<Job*>& jobs) {
    Database& db = *db_;
    std::string error;
    if (!db.exec("BEGIN IMMEDIATE", error)) {
        for (Job* job : jobs) job->error = "storage: " + error;
        return;
    }
    for (Job* job : jobs) {
        std::string ignored;
        if (!db.exec("SAVEPOINT job", job->error)) {
            job->error = "storage: " + job->error;
            continue;
        }
        job->ok = job->work(job->error);
        if (!job->ok) db.exec("ROLLBACK TO job", ignored);
        db.exec("RELEASE job", ignored);
    }
    if (!db.exec("COMMIT", error)) {
        std::string ignored;
        db.exec("ROLLBACK", ignored);
        for (Job* job : jobs) {
            job->ok = false;
            job->error = "storage: commit failed: " + error;
        }
    }
}

StoreOutcome EventStore::storeBatch(const std::vector<EventRecord>& events, std::int32_t offeredSdk,
                                    std::int32_t offeredApp) {
    StoreOutcome outcome;
    std::string error;
    outcome.ok = submit(
        [&](std::string& jobError) { return storeBatchNow(events, offeredSdk, offeredApp, outcome, jobError); }, error);
    if (!outcome.ok) {
        outcome = StoreOutcome{};
        outcome.error = error;
        return outcome;
    }
    storedEvents_ += outcome.stored;
    return outcome;
}

bool EventStore::storeBatchNow(const std::vector<EventRecord>& events, std::int32_t offeredSdk,
                               std::int32_t offeredApp, StoreOutcome& outcome, std::string& error) {
    Statements& s = *statements_;
    const std::int64_t now = nowSeconds();
    std::set<std::string> devicesSeen;
    for (const EventRecord& event : events) {
        s.insertEvent.bind(1, event.appKey);
        s.insertEvent.bind(2, event.mid);
        s.insertEvent.bind(3, event.type);
        s.insertEvent.bind(4, event.session);
        s.insertEvent.bind(5, event.time);
        s.insertEvent.bind(6, event.index);
        s.insertEvent.bind(7, std::string_view(event.json));
        s.insertEvent.bind(8, now);
        if (!s.insertEvent.run()) {
            error = "storage: cannot store an event: " + db_->lastError();
            return false;
        }
        if (event.mid && !event.mid->empty() && devicesSeen.insert(*event.mid).second) {
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
    if (!s.rollups->add(events, now, error)) return false;
    outcome.stored = events.size();
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
    std::string error;
    outcome.ok = submit([&](std::string& jobError) { return registerDeviceNow(request, outcome, jobError); }, error);
    if (!outcome.ok) {
        outcome = MidOutcome{};
        outcome.error = error;
    }
    return outcome;
}

bool EventStore::registerDeviceNow(const MidRequest& request, MidOutcome& outcome, std::string& error) {
    Statements& s = *statements_;
    const std::int64_t now = nowSeconds();
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

    // A new device: keep the mid it brings, or make one nobody has.
    std::string fresh = request.mid;
    while (fresh.empty() || lookup(s.findByMid, fresh)) {
        if (!error.empty()) return false;
        fresh = newMid();
    }
    s.insertDevice.bind(1, fresh);
    s.insertDevice.bind(2, ifv);
    s.insertDevice.bind(3, ioa);
    s.insertDevice.bind(4, ui);
    s.insertDevice.bind(5, now);
    if (!s.insertDevice.run()) {
        error = "storage: cannot register a device: " + db_->lastError();
        return false;
    }
    outcome.mid = fresh;
    outcome.created = true;
    return true;
}

}  // namespace zubcollector
