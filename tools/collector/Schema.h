// The collector's database schema and its migrations.
//
// The version lives in the one-row table schema_version. Opening a database for
// writing brings it to kSchemaVersion, one migration per step, each in its own
// transaction; a database from a newer collector is refused, never altered. Each
// store has its own list of the same steps: a version means the same tables in
// both. On PostgreSQL, collectors starting together take the steps in turn.
//
// Tables (version 4):
//   devices(mid PRIMARY KEY, ifv, ioa, ui, first_seen, last_seen)
//   events(id, app_key, mid, et, si, ts, idx, body, received)   one row per event
//     SQLite: with event_key, unique when present (a resent event's identity);
//     PostgreSQL: partitioned by the day received, identities in
//     event_keys(event_key PRIMARY KEY, day), copies from SQLite in
//     migrated(source PRIMARY KEY, last_event_id, updated)
//   config_state(app_key, mid, sdk_version, app_version, updated)
//     the configuration block versions a client is known to hold.
//   activity_hours, sessions, app_devices, named_hours, referrer_hours,
//   argument_hours, audience_hours: the dashboard's summaries (Rollups.h).
// Times are whole seconds since 1970.
#pragma once

#include "Database.h"

#include <string>

namespace zubcollector {

inline constexpr int kSchemaVersion = 4;

/// Creates or upgrades the schema; false and a message when it cannot.
bool migrateSchema(Database& db, std::string& error);

/// The schema version of an existing database (0 when it has none); false and a
/// message when the version cannot be read.
bool readSchemaVersion(Database& db, int& version, std::string& error);

}  // namespace zubcollector
