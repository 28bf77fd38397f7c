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

    // 4: an event's identity across resends (RequestDecoder.h): one row per event
    // however often it was sent. Events stored before have none.
    "ALTER TABLE events ADD COLUMN event_key TEXT;"
    "CREATE UNIQUE INDEX events_key ON events(event_key) WHERE event_key IS NOT NULL;",
};
static_assert(std::size(kMigrations) == kSchemaVersion);

// The same steps for PostgreSQL. Text compares byte by byte (COLLATE "C"), as in
// SQLite, so that lists sort the same in both stores. Events are partitioned by
// the day they were received (events_d<day>, made ahead by
// zub_ensure_event_partition, dropped whole by zub_drop_event_partitions), with a
// default partition that catches anything outside them. Summary rows are unique
// per key (absent keys included), so that several collectors add to one row.
const char* const kPostgresMigrations[] = {
    // 1: devices and events.
    "CREATE TABLE devices ("
    "  mid TEXT COLLATE \"C\" PRIMARY KEY NOT NULL,"
    "  ifv TEXT COLLATE \"C\", ioa TEXT COLLATE \"C\", ui TEXT COLLATE \"C\","
    "  first_seen BIGINT NOT NULL,"
    "  last_seen BIGINT NOT NULL);"
    "CREATE INDEX devices_ui ON devices(ui);"
    "CREATE INDEX devices_ioa ON devices(ioa);"
    "CREATE INDEX devices_ifv ON devices(ifv);"
    "CREATE SEQUENCE events_id_seq AS BIGINT;"
    "CREATE TABLE events ("
    "  id BIGINT NOT NULL DEFAULT nextval('events_id_seq'),"
    "  app_key TEXT COLLATE \"C\", mid TEXT COLLATE \"C\","
    "  et BIGINT, si BIGINT, ts BIGINT, idx BIGINT,"
    "  body TEXT NOT NULL,"
    "  received BIGINT NOT NULL) PARTITION BY RANGE (received);"
    "CREATE TABLE events_default PARTITION OF events DEFAULT;"
    "CREATE INDEX events_id ON events(id);"
    "CREATE INDEX events_et ON events(et);"
    // Makes the partition of one day (whole days since 1970, UTC) unless it is
    // there; collectors may race to make it, so they take turns.
    "CREATE FUNCTION zub_ensure_event_partition(day BIGINT) RETURNS VOID LANGUAGE plpgsql AS $$"
    "BEGIN"
    "  PERFORM pg_advisory_xact_lock(hashtext('zub_event_partitions'));"
    "  IF to_regclass(format('events_d%s', day)) IS NULL THEN"
    "    EXECUTE format('CREATE TABLE %I PARTITION OF events FOR VALUES FROM (%s) TO (%s)',"
    "                   'events_d' || day, day * 86400, (day + 1) * 86400);"
    "  END IF;"
    "EXCEPTION WHEN check_violation THEN"
    "  NULL;"  // the default partition already holds rows of that day: they stay there
    "END $$;"
    // Drops the partitions of the days before `day`, and such rows of the default one.
    "CREATE FUNCTION zub_drop_event_partitions(day BIGINT) RETURNS BIGINT LANGUAGE plpgsql AS $$"
    "DECLARE part RECORD; dropped BIGINT := 0;"
    "BEGIN"
    "  PERFORM pg_advisory_xact_lock(hashtext('zub_event_partitions'));"
    "  FOR part IN SELECT c.relname FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid"
    "              WHERE i.inhparent = 'events'::regclass AND c.relname ~ '^events_d[0-9]+$'"
    "              AND substr(c.relname, 9)::BIGINT < day LOOP"
    "    EXECUTE format('DROP TABLE %I', part.relname);"
    "    dropped := dropped + 1;"
    "  END LOOP;"
    "  DELETE FROM events_default WHERE received < day * 86400;"
    "  RETURN dropped;"
    "END $$;",

    // 2: what each client holds of the online configuration; events by time.
    "CREATE TABLE config_state ("
    "  app_key TEXT COLLATE \"C\" NOT NULL, mid TEXT COLLATE \"C\" NOT NULL,"
    "  sdk_version BIGINT, app_version BIGINT,"
    "  updated BIGINT NOT NULL,"
    "  PRIMARY KEY (app_key, mid));"
    "CREATE INDEX events_ts ON events(ts);",

    // 3: the dashboard's summaries and events by device.
    "CREATE INDEX events_mid ON events(mid);"
    "CREATE TABLE activity_hours ("
    "  hour BIGINT NOT NULL, app_key TEXT COLLATE \"C\", mid TEXT COLLATE \"C\", si BIGINT,"
    "  events BIGINT NOT NULL, active_seconds BIGINT NOT NULL, dropped BIGINT NOT NULL,"
    "  UNIQUE NULLS NOT DISTINCT (hour, app_key, mid, si));"
    "CREATE TABLE sessions ("
    "  app_key TEXT COLLATE \"C\", mid TEXT COLLATE \"C\", si BIGINT NOT NULL, first_ts BIGINT, last_ts BIGINT,"
    "  UNIQUE NULLS NOT DISTINCT (app_key, mid, si));"
    "CREATE INDEX sessions_first ON sessions(first_ts, last_ts, app_key);"
    "CREATE TABLE app_devices ("
    "  app_key TEXT COLLATE \"C\", mid TEXT COLLATE \"C\" NOT NULL, first_ts BIGINT, last_ts BIGINT,"
    "  sessions BIGINT NOT NULL, events BIGINT NOT NULL, app_version TEXT COLLATE \"C\","
    "  UNIQUE NULLS NOT DISTINCT (app_key, mid));"
    "CREATE INDEX app_devices_mid ON app_devices(mid);"
    "CREATE INDEX app_devices_last ON app_devices(last_ts);"
    "CREATE INDEX app_devices_first ON app_devices(first_ts, app_key, mid);"
    "CREATE TABLE named_hours ("
    "  hour BIGINT NOT NULL, app_key TEXT COLLATE \"C\", kind TEXT COLLATE \"C\" NOT NULL, name TEXT COLLATE \"C\","
    "  count BIGINT NOT NULL, du_sum DOUBLE PRECISION NOT NULL, du_count BIGINT NOT NULL, du_hist BIGINT[] NOT NULL,"
    "  UNIQUE NULLS NOT DISTINCT (hour, kind, app_key, name));"
    "CREATE TABLE referrer_hours ("
    "  hour BIGINT NOT NULL, app_key TEXT COLLATE \"C\", page TEXT COLLATE \"C\", referrer TEXT COLLATE \"C\","
    "  count BIGINT NOT NULL, UNIQUE NULLS NOT DISTINCT (hour, app_key, page, referrer));"
    "CREATE TABLE argument_hours ("
    "  hour BIGINT NOT NULL, app_key TEXT COLLATE \"C\", event TEXT COLLATE \"C\", key TEXT COLLATE \"C\" NOT NULL,"
    "  value TEXT COLLATE \"C\" NOT NULL, count BIGINT NOT NULL,"
    "  UNIQUE NULLS NOT DISTINCT (hour, app_key, event, key, value));"
    "CREATE TABLE argument_days ("
    "  day BIGINT NOT NULL, app_key TEXT COLLATE \"C\", event TEXT COLLATE \"C\", key TEXT COLLATE \"C\" NOT NULL,"
    "  value TEXT COLLATE \"C\" NOT NULL, count BIGINT NOT NULL,"
    "  UNIQUE NULLS NOT DISTINCT (day, app_key, event, key, value));"
    "CREATE TABLE referrer_days ("
    "  day BIGINT NOT NULL, app_key TEXT COLLATE \"C\", page TEXT COLLATE \"C\", referrer TEXT COLLATE \"C\","
    "  count BIGINT NOT NULL, UNIQUE NULLS NOT DISTINCT (day, app_key, page, referrer));"
    "CREATE TABLE audience_hours ("
    "  hour BIGINT NOT NULL, app_key TEXT COLLATE \"C\", dimension TEXT COLLATE \"C\" NOT NULL,"
    "  value TEXT COLLATE \"C\" NOT NULL, count BIGINT NOT NULL,"
    "  UNIQUE NULLS NOT DISTINCT (hour, dimension, app_key, value));",

    // 4: an event's identity across resends. The events table is partitioned by
    // the day received, which a resend does not share, so the identities have a
    // table of their own (kept as long as the day's events are). `migrated`
    // records how far a copy from an SQLite database has come.
    "CREATE TABLE event_keys ("
    "  event_key TEXT COLLATE \"C\" PRIMARY KEY, day BIGINT NOT NULL);"
    "CREATE INDEX event_keys_day ON event_keys(day);"
    "CREATE TABLE migrated ("
    "  source TEXT COLLATE \"C\" PRIMARY KEY, last_event_id BIGINT NOT NULL, updated BIGINT NOT NULL);",
};
static_assert(std::size(kPostgresMigrations) == kSchemaVersion);

// The first version with the dashboard's summaries: events stored before it are
// summarised when a database is brought to it.
constexpr int kFirstSummarisedVersion = 3;

bool tableExists(Database& db, const char* name, bool& exists, std::string& error) {
    Statement query = db.prepare(db.dialect() == Dialect::Sqlite
                                     ? "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1"
                                     : "SELECT 1 FROM pg_tables WHERE schemaname = current_schema() AND tablename = ?1",
                                 error);
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
    const bool postgres = db.dialect() == Dialect::Postgres;
    const char* const* migrations = postgres ? kPostgresMigrations : kMigrations;
    // Writers of one database take turns: SQLite's write lock; on PostgreSQL, where
    // several collectors may start at once, a lock held to the end of each step.
    const char* begin = postgres ? "BEGIN; SELECT pg_advisory_xact_lock(hashtext('zub_schema'))" : "BEGIN IMMEDIATE";
    int version = 0;
    if (!db.exec(begin, error)) return false;
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
        if (!db.exec(begin, error)) return false;
        int current = 0;
        if (!readSchemaVersion(db, current, error)) {
            std::string ignored;
            db.exec("ROLLBACK", ignored);
            return false;
        }
        if (current >= next) {  // another collector took this step meanwhile
            db.exec("COMMIT", error);
            continue;
        }
        bool ok = db.exec(migrations[next - 1], error);
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
        if (!postgres && next == kFirstSummarisedVersion && version > 0 && !summariseStoredEvents(db, error)) {
            error = "summarising the stored events failed: " + error;
            return false;
        }
    }
    return true;
}

}  // namespace zubcollector
