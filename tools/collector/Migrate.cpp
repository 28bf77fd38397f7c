#include "Migrate.h"

#include "Database.h"
#include "RequestDecoder.h"
#include "Rollups.h"
#include "Schema.h"

#include <filesystem>
#include <set>

namespace zubcollector {
namespace {

constexpr std::int64_t kChunk = 1000;
constexpr std::int64_t kDay = 86400;

struct Counts {
    std::int64_t devices = 0;
    std::int64_t configurations = 0;
    std::int64_t events = 0;
    std::int64_t alreadyThere = 0;
};

class Migration {
public:
    Migration(Database& from, Database& to, int fromVersion, std::string source)
        : from_(from), to_(to), fromVersion_(fromVersion), source_(std::move(source)) {}

    bool run(Counts& counts, std::string& error) {
        return copyDevices(counts, error) && copyConfigurations(counts, error) && copyEvents(counts, error);
    }

private:
    bool fail(Database& db, const std::string& what, std::string& error) {
        error = what + ": " + db.lastError();
        std::string ignored;
        if (&db == &to_) to_.exec("ROLLBACK", ignored);
        return false;
    }

    // Devices are merged: the widest span of sightings, identifiers filled in.
    bool copyDevices(Counts& counts, std::string& error) {
        Statement read = from_.prepare("SELECT mid, ifv, ioa, ui, first_seen, last_seen FROM devices", error);
        Statement write = to_.prepare(
            "INSERT INTO devices AS d (mid, ifv, ioa, ui, first_seen, last_seen) VALUES (?1, ?2, ?3, ?4, ?5, ?6) "
            "ON CONFLICT (mid) DO UPDATE SET ifv = COALESCE(d.ifv, excluded.ifv), ioa = COALESCE(d.ioa, excluded.ioa), "
            "ui = COALESCE(d.ui, excluded.ui), first_seen = LEAST(d.first_seen, excluded.first_seen), "
            "last_seen = GREATEST(d.last_seen, excluded.last_seen)",
            error);
        if (!read.ok() || !write.ok()) return false;
        if (!to_.exec("BEGIN", error)) return false;
        while (read.step()) {
            for (int column = 0; column < 4; ++column) {
                if (read.isNull(column)) write.bind(column + 1, std::optional<std::string>());
                else write.bind(column + 1, read.textView(column));
            }
            write.bind(5, read.integer(4));
            write.bind(6, read.integer(5));
            if (!write.run()) return fail(to_, "cannot copy a device", error);
            ++counts.devices;
        }
        if (read.failed()) return fail(from_, "cannot read the devices", error);
        return to_.exec("COMMIT", error);
    }

    // Configuration holdings: the newest version of each block a client holds.
    bool copyConfigurations(Counts& counts, std::string& error) {
        if (fromVersion_ < 2) return true;
        Statement read =
            from_.prepare("SELECT app_key, mid, sdk_version, app_version, updated FROM config_state", error);
        Statement write = to_.prepare(
            "INSERT INTO config_state AS c (app_key, mid, sdk_version, app_version, updated) "
            "VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (app_key, mid) DO UPDATE SET "
            "sdk_version = GREATEST(c.sdk_version, excluded.sdk_version), "
            "app_version = GREATEST(c.app_version, excluded.app_version), updated = GREATEST(c.updated, excluded.updated)",
            error);
        if (!read.ok() || !write.ok()) return false;
        if (!to_.exec("BEGIN", error)) return false;
        while (read.step()) {
            write.bind(1, read.textView(0));
            write.bind(2, read.textView(1));
            write.bind(3, read.isNull(2) ? std::optional<std::int64_t>() : read.integer(2));
            write.bind(4, read.isNull(3) ? std::optional<std::int64_t>() : read.integer(3));
            write.bind(5, read.integer(4));
            if (!write.run()) return fail(to_, "cannot copy configuration holdings", error);
            ++counts.configurations;
        }
        if (read.failed()) return fail(from_, "cannot read the configuration holdings", error);
        return to_.exec("COMMIT", error);
    }

    bool copyEvents(Counts& counts, std::string& error) {
        std::int64_t last = 0;
        Statement progress = to_.prepare("SELECT last_event_id FROM migrated WHERE source = ?1", error);
        if (!progress.ok()) return false;
        progress.bind(1, source_);
        if (progress.step()) last = progress.integer(0);
        if (progress.failed()) return fail(to_, "cannot read how far the copy came", error);
        progress.reset();

        Statement read = from_.prepare(
            fromVersion_ >= 4 ? "SELECT id, app_key, mid, et, si, ts, idx, body, received, event_key FROM events "
                                "WHERE id > ?1 ORDER BY id LIMIT ?2"
                              : "SELECT id, app_key, mid, et, si, ts, idx, body, received, NULL FROM events "
                                "WHERE id > ?1 ORDER BY id LIMIT ?2",
            error);
        Statement ensure = to_.prepare("SELECT zub_ensure_event_partition(?1)", error);
        Statement key = to_.prepare(
            "INSERT INTO event_keys (event_key, day) VALUES (?1, ?2) ON CONFLICT DO NOTHING", error);
        Statement insert = to_.prepare(
            "INSERT INTO events (app_key, mid, et, si, ts, idx, body, received) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
            error);
        Statement mark = to_.prepare(
            "INSERT INTO migrated (source, last_event_id, updated) VALUES (?1, ?2, ?3) "
            "ON CONFLICT (source) DO UPDATE SET last_event_id = excluded.last_event_id, updated = excluded.updated",
            error);
        auto rollups = RollupWriter::create(to_, error);
        if (!read.ok() || !ensure.ok() || !key.ok() || !insert.ok() || !mark.ok() || !rollups) return false;

        std::set<std::int64_t> daysMade;
        for (;;) {
            struct Row {
                std::int64_t id = 0, received = 0;
                std::optional<std::string> appKey, mid, eventKey;
                std::optional<std::int64_t> et, si, ts, idx;
                std::string body;
            };
            std::vector<Row> rows;
            read.bind(1, last);
            read.bind(2, kChunk);
            auto text = [&](int column) {
                return read.isNull(column) ? std::optional<std::string>() : std::optional<std::string>(read.text(column));
            };
            auto integer = [&](int column) {
                return read.isNull(column) ? std::optional<std::int64_t>() : std::optional<std::int64_t>(read.integer(column));
            };
            while (read.step()) {
                rows.push_back(Row{read.integer(0), read.integer(8), text(1), text(2), text(9), integer(3), integer(4),
                                   integer(5), integer(6), read.text(7)});
            }
            const bool readFailed = read.failed();
            read.reset();
            if (readFailed) return fail(from_, "cannot read the events", error);
            if (rows.empty()) return true;

            // The partitions of the chunk's days, each in a moment of its own: making
            // one locks the events table, which other collectors are writing to.
            for (const Row& row : rows) {
                const std::int64_t day = row.received / kDay;
                if (!daysMade.insert(day).second) continue;
                ensure.bind(1, day);
                if (!ensure.run()) return fail(to_, "cannot make a partition", error);
            }
            if (!to_.exec("BEGIN", error)) return false;
            for (const Row& row : rows) {
                if (row.eventKey) {
                    key.bind(1, *row.eventKey);
                    key.bind(2, row.received / kDay);
                    if (!key.run()) return fail(to_, "cannot copy an event", error);
                    if (to_.changes() == 0) {
                        ++counts.alreadyThere;
                        continue;
                    }
                }
                insert.bind(1, row.appKey);
                insert.bind(2, row.mid);
                insert.bind(3, row.et);
                insert.bind(4, row.si);
                insert.bind(5, row.ts);
                insert.bind(6, row.idx);
                insert.bind(7, row.body);
                insert.bind(8, row.received);
                if (!insert.run()) return fail(to_, "cannot copy an event", error);
                const zub::Value object = zub::Value::parse(row.body, nullptr, false);
                if (object.is_object()) rollups->collect(eventRecordOf(object), row.received);
                ++counts.events;
            }
            if (!rollups->flush(error)) return fail(to_, "cannot summarise the events", error);
            last = rows.back().id;
            mark.bind(1, source_);
            mark.bind(2, last);
            mark.bind(3, rows.back().received);
            if (!mark.run()) return fail(to_, "cannot record how far the copy came", error);
            if (!to_.exec("COMMIT", error)) return fail(to_, "cannot commit", error);
        }
    }

    Database& from_;
    Database& to_;
    int fromVersion_;
    std::string source_;
};

}  // namespace

int runMigrate(const MigrateOptions& options, std::ostream& out, std::ostream& err) {
    std::string error;
    if (Database::isPostgresUrl(options.from)) {
        err << "zub-collector: --from is an SQLite collector database, not " << options.from << "\n";
        return 2;
    }
    auto from = Database::open(options.from, Database::Mode::ReadOnly, error);
    if (!from) {
        err << "zub-collector: " << error << "\n";
        return 1;
    }
    int version = 0;
    if (!readSchemaVersion(*from, version, error) || version == 0 || version > kSchemaVersion) {
        err << "zub-collector: " << options.from << " is not a collector database this collector can read"
            << (error.empty() ? "" : ": " + error) << "\n";
        return 1;
    }
    auto to = Database::open(options.to, Database::Mode::ReadWrite, error);
    if (!to || !migrateSchema(*to, error)) {
        err << "zub-collector: " << error << "\n";
        return 1;
    }
    // The copy's progress is kept per source file, named by its full path.
    std::error_code ec;
    const std::string source = std::filesystem::canonical(options.from, ec).string();
    Counts counts;
    Migration migration(*from, *to, version, ec ? options.from : source);
    if (!migration.run(counts, error)) {
        err << "zub-collector: the copy stopped (run it again to resume): " << error << "\n";
        return 1;
    }
    out << "copied " << counts.events << " events (" << counts.alreadyThere << " already there), " << counts.devices
        << " devices, " << counts.configurations << " configuration holdings from " << options.from << "\n";
    return 0;
}

}  // namespace zubcollector
