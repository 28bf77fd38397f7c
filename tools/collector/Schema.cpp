#include "Schema.h"

#include "Rollups.h"

namespace zubcollector {
namespace {

// Migration N takes the schema from version N-1 to N.
const char* const kMigrations[] = {
    // 1: devices and events.
    "CREATE TABLE devices ("
    "  mid TEXT PRIMARY KEY NOT NULL,"
    "  ifv TEXT, ioa TEXT, ui TEXT,"
    "  first_seen INTEGER NOT NULL,"
    "  last_seen INTEGER NOT NULL);"
    "CREATE INDEX devices_ui ON devices(ui);"
    "CREATE INDEX devices_ioa ON devices(ioa);"
    "CREATE INDEX devices_ifv ON devices(ifv);"
    "CREATE TABLE events ("
    "  id INTEGER PRIMARY KEY,"
    "  app_key TEXT, mid TEXT,"
    "  et INTEGER, si INTEGER, ts INTEGER, idx INTEGER,"
    "  body TEXT NOT NULL,"
    "  received INTEGER NOT NULL);"
    "CREATE INDEX events_et ON events(et);",

    // 2: what each client holds of the online configuration; events by time.
    "CREATE TABLE config_state ("
    "  app_key TEXT NOT NULL, mid TEXT NOT NULL,"
    "  sdk_version INTEGER, app_version INTEGER,"
    "  updated INTEGER NOT NULL,"
    "  PRIMARY KEY (app_key, mid));"
    "CREATE INDEX events_ts ON events(ts);",

    // 3: the dashboard's summaries, kept up to date with every stored batch (see
    // Rollups.h), and events by device for a device's timeline. The rows of a
    // database from before are summarised once, after this step. The summaries'
    // indexes hold every column a question reads, so that a range is read from
    // consecutive index pages instead of rows scattered through a large file.
    "CREATE INDEX events_mid ON events(mid);"
    "CREATE TABLE activity_hours ("
    "  hour INTEGER NOT NULL, app_key TEXT, mid TEXT, si INTEGER,"
    "  events INTEGER NOT NULL, active_seconds INTEGER NOT NULL, dropped INTEGER NOT NULL);"
    "CREATE INDEX activity_hours_key ON activity_hours(hour, app_key, mid, si, events, active_seconds, dropped);"
    "CREATE TABLE sessions ("
    "  app_key TEXT, mid TEXT, si INTEGER NOT NULL, first_ts INTEGER, last_ts INTEGER);"
    "CREATE INDEX sessions_key ON sessions(app_key, mid, si);"
    "CREATE INDEX sessions_first ON sessions(first_ts, last_ts, app_key);"
    "CREATE TABLE app_devices ("
    "  app_key TEXT, mid TEXT NOT NULL, first_ts INTEGER, last_ts INTEGER,"
    "  sessions INTEGER NOT NULL, events INTEGER NOT NULL, app_version TEXT);"
    "CREATE INDEX app_devices_key ON app_devices(app_key, mid);"
    "CREATE INDEX app_devices_mid ON app_devices(mid);"
    "CREATE INDEX app_devices_last ON app_devices(last_ts);"
    "CREATE INDEX app_devices_first ON app_devices(first_ts, app_key, mid);"
    "CREATE TABLE named_hours ("
    "  hour INTEGER NOT NULL, app_key TEXT, kind TEXT NOT NULL, name TEXT,"
    "  count INTEGER NOT NULL, du_sum REAL NOT NULL, du_count INTEGER NOT NULL, du_hist TEXT NOT NULL);"
    "CREATE INDEX named_hours_key ON named_hours(hour, kind, app_key, name, count, du_sum, du_count, du_hist);"
    "CREATE TABLE referrer_hours ("
    "  hour INTEGER NOT NULL, app_key TEXT, page TEXT, referrer TEXT, count INTEGER NOT NULL);"
    "CREATE INDEX referrer_hours_key ON referrer_hours(hour, app_key, page, referrer, count);"
    "CREATE TABLE argument_hours ("
    "  hour INTEGER NOT NULL, app_key TEXT, event TEXT, key TEXT NOT NULL, value TEXT NOT NULL,"
    "  count INTEGER NOT NULL);"
    "CREATE INDEX argument_hours_key ON argument_hours(hour, app_key, event, key, value, count);"
    "CREATE TABLE argument_days ("
    "  day INTEGER NOT NULL, app_key TEXT, event TEXT, key TEXT NOT NULL, value TEXT NOT NULL,"
    "  count INTEGER NOT NULL);"
    "CREATE INDEX argument_days_key ON argument_days(day, app_key, event, key, value, count);"
    "CREATE TABLE referrer_days ("
    "  day INTEGER NOT NULL, app_key TEXT, page TEXT, referrer TEXT, count INTEGER NOT NULL);"
    "CREATE INDEX referrer_days_key ON referrer_days(day, app_key, page, referrer, count);"
    "CREATE TABLE audience_hours ("
    "  hour INTEGER NOT NULL, app_key TEXT, dimension TEXT NOT NULL, value TEXT NOT NULL,"
    "  count INTEGER NOT NULL);"
    "CREATE INDEX audience_hours_key ON audience_hours(hour, dimension, app_key, value, count);",
};
static_assert(std::size(kMigrations) == kSchemaVersion);

// The first version with the dashboard's summaries: events stored before it are
// summarised when a database is brought to it.
constexpr int kFirstSummarisedVersion = 3;

bool tableExists(Database& db, const char* name, bool& exists, std::string& error) {
    Statement query = db.prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1", error);
    if (!query.ok()) return false;
    query.bind(1, std::string_view(name));
    exists = query.step();
    const bool ok = !query.failed();
    if (!ok) error = db.lastError();
    query.reset();
    return ok;
}

}  // namespace

bool readSchemaVersion(Database& db, int& version, std::string& error) {
    bool exists = false;
    if (!tableExists(db, "schema_version", exists, error)) return false;
    if (!exists) {
        version = 0;
        return true;
    }
    Statement query = db.prepare("SELECT version FROM schema_version", error);
    if (!query.ok()) return false;
    version = query.step() ? static_cast<int>(query.integer(0)) : 0;
    if (query.failed()) {
        error = db.lastError();
        return false;
    }
    return true;
}

bool migrateSchema(Database& db, std::string& error) {
    int version = 0;
    if (!db.exec("BEGIN IMMEDIATE", error)) return false;
    if (!readSchemaVersion(db, version, error) ||
        !db.exec("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)", error)) {
        std::string ignored;
        db.exec("ROLLBACK", ignored);
        return false;
    }
    db.exec("COMMIT", error);
    if (version > kSchemaVersion) {
        error = "database schema version " + std::to_string(version) + " is newer than this collector's (" +
                std::to_string(kSchemaVersion) + ")";
        return false;
    }
    for (int next = version + 1; next <= kSchemaVersion; ++next) {
        if (!db.exec("BEGIN IMMEDIATE", error)) return false;
        bool ok = db.exec(kMigrations[next - 1], error);
        if (ok) {
            Statement clear = db.prepare("DELETE FROM schema_version", error);
            Statement set = db.prepare("INSERT INTO schema_version (version) VALUES (?1)", error);
            ok = clear.ok() && set.ok() && clear.run();
            if (ok) {
                set.bind(1, static_cast<std::int64_t>(next));
                ok = set.run();
            }
            if (!ok && error.empty()) error = db.lastError();
        }
        if (!ok || !db.exec("COMMIT", error)) {
            const std::string cause = error;
            std::string ignored;
            db.exec("ROLLBACK", ignored);
            error = "schema migration to version " + std::to_string(next) + " failed: " + cause;
            return false;
        }
        if (next == kFirstSummarisedVersion && version > 0 && !summariseStoredEvents(db, error)) {
            error = "summarising the stored events failed: " + error;
            return false;
        }
    }
    return true;
}

}  // namespace zubcollector
