#include "Queries.h"

#include "Database.h"
#include "Schema.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdio>
#include <ctime>
#include <limits>
#include <memory>
#include <vector>

namespace zubcollector {
namespace {

std::unique_ptr<Database> openForQuery(const std::string& path, std::ostream& err) {
    std::string error;
    auto db = Database::open(path, Database::Mode::ReadOnly, error);
    if (!db) {
        err << "zub-collector: " << error << "\n";
        return nullptr;
    }
    int version = 0;
    if (!readSchemaVersion(*db, version, error)) {
        err << "zub-collector: " << Database::displayName(path) << " is not a collector database: " << error << "\n";
        return nullptr;
    }
    if (version == 0) {
        err << "zub-collector: " << Database::displayName(path) << " is not a collector database (no schema version)\n";
        return nullptr;
    }
    if (version > kSchemaVersion) {
        err << "zub-collector: " << Database::displayName(path) << " has schema version " << version << ", newer than this collector's ("
            << kSchemaVersion << ")\n";
        return nullptr;
    }
    return db;
}

std::string typeName(std::int64_t type) {
    switch (type) {
        case 1: return "page";
        case 2: return "session";
        case 4: return "active time";
        case 1000: return "custom";
        case 1001: return "account / messenger";
        default: return "other";
    }
}

std::string utcText(std::int64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    if (!gmtime_r(&t, &tm)) return std::to_string(seconds);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

std::string fixed1(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// A plain text table: a title, a header row and left-aligned columns.
class Table {
public:
    explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void print(std::ostream& out, const std::string& title) const {
        out << title << "\n";
        if (rows_.size() == 1) {
            out << "  (none)\n\n";
            return;
        }
        std::vector<std::size_t> widths(rows_.front().size(), 0);
        for (const auto& row : rows_) {
            for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) {
                widths[i] = std::max(widths[i], row[i].size());
            }
        }
        for (const auto& row : rows_) {
            out << " ";
            for (std::size_t i = 0; i < row.size(); ++i) {
                out << " " << row[i];
                if (i + 1 < row.size()) out << std::string(widths[i] - row[i].size(), ' ');
            }
            out << "\n";
        }
        out << "\n";
    }

private:
    std::vector<std::vector<std::string>> rows_;
};

struct NamedCount {
    std::string name;
    bool nameMissing = false;
    std::int64_t count = 0;
    std::optional<double> meanDuration;
};

struct Stats {
    std::int64_t events = 0;
    std::int64_t sessions = 0;
    std::int64_t devicesRegistered = 0;
    std::int64_t devicesReporting = 0;
    std::int64_t apps = 0;
    std::int64_t droppedEvents = 0;  // the "count"s of the library's dropped-events reports
    std::optional<std::int64_t> firstTs, lastTs, firstReceived, lastReceived;
    std::vector<std::pair<std::optional<std::int64_t>, std::int64_t>> byType;
    std::vector<NamedCount> customEvents;
    std::vector<NamedCount> pages;
};

std::optional<std::int64_t> optionalInteger(const Statement& s, int column) {
    if (s.isNull(column)) return std::nullopt;
    return s.integer(column);
}

// What the stats ask of an event's JSON text, as each store says it.
struct JsonSql {
    std::string events;       // the table the questions read (with the parsed body where needed)
    std::string ei;           // the custom event identifier, NULL when absent
    std::string pi;           // the page identifier
    std::string duration;     // "du" when it is a number, else NULL
    std::string count;        // "kv"."count" when it is a whole number, else NULL
};

JsonSql jsonSql(Dialect dialect) {
    if (dialect == Dialect::Postgres) {
        return {"(SELECT app_key, mid, et, si, ts, received, body::json AS j FROM events) AS events",
                "((j->>'ei') COLLATE \"C\")", "((j->>'pi') COLLATE \"C\")",
                "(CASE WHEN json_typeof(j->'du') = 'number' THEN (j->>'du')::float8 END)",
                "(CASE WHEN json_typeof(j->'kv'->'count') = 'number' AND (j->'kv'->>'count') ~ '^-?[0-9]+$' "
                "THEN (j->'kv'->>'count')::numeric END)"};
    }
    return {"events", "json_extract(body, '$.ei')", "json_extract(body, '$.pi')", "json_extract(body, '$.du')",
            "(CASE WHEN json_type(body, '$.kv.count') = 'integer' THEN json_extract(body, '$.kv.count') END)"};
}

bool collect(Database& db, const StatsOptions& options, Stats& stats, std::string& error) {
    const JsonSql json = jsonSql(db.dialect());
    // The application and the range of the events' times (?5 inclusive, ?6
    // exclusive): an event's "ts", or when it was received for one sent without
    // (page and account events come with "ts" 0), as the dashboard counts them.
    constexpr const char* kApp =
        "(?1 IS NULL OR app_key = ?1) AND (?5 IS NULL OR COALESCE(NULLIF(ts, 0), received) >= ?5) "
        "AND (?6 IS NULL OR COALESCE(NULLIF(ts, 0), received) < ?6)";
    auto prepare = [&](const std::string& sql) {
        Statement s = db.prepare(sql, error);
        if (s.ok()) {
            s.bind(1, options.app);
            s.bind(5, options.since);
            s.bind(6, options.until);
        }
        return s;
    };

    // Some kinds of event are sent with "ts" 0 on purpose: they have no time of
    // their own, so the event times leave them out (as they do events without "ts").
    Statement totals = prepare(std::string("SELECT COUNT(*), COUNT(DISTINCT mid), COUNT(DISTINCT app_key), "
                                           "MIN(NULLIF(ts, 0)), MAX(NULLIF(ts, 0)), MIN(received), MAX(received) "
                                           "FROM events WHERE ") +
                               kApp);
    if (!totals.ok()) return false;
    if (totals.step()) {
        stats.events = totals.integer(0);
        stats.devicesReporting = totals.integer(1);
        stats.apps = totals.integer(2);
        stats.firstTs = optionalInteger(totals, 3);
        stats.lastTs = optionalInteger(totals, 4);
        stats.firstReceived = optionalInteger(totals, 5);
        stats.lastReceived = optionalInteger(totals, 6);
    }
    if (totals.failed()) return error = db.lastError(), false;

    Statement sessions = prepare(std::string("SELECT COUNT(*) FROM (SELECT DISTINCT app_key, mid, si FROM events "
                                             "WHERE si IS NOT NULL AND ") +
                                 kApp + ") AS s");
    if (!sessions.ok()) return false;
    if (sessions.step()) stats.sessions = sessions.integer(0);
    if (sessions.failed()) return error = db.lastError(), false;

    Statement devices = db.prepare("SELECT COUNT(*) FROM devices", error);
    if (!devices.ok()) return false;
    if (devices.step()) stats.devicesRegistered = devices.integer(0);
    if (devices.failed()) return error = db.lastError(), false;

    Statement types = prepare(std::string("SELECT et, COUNT(*) FROM events WHERE ") + kApp +
                              " GROUP BY et ORDER BY COUNT(*) DESC, et NULLS FIRST");
    if (!types.ok()) return false;
    while (types.step()) stats.byType.emplace_back(optionalInteger(types, 0), types.integer(1));
    if (types.failed()) return error = db.lastError(), false;

    // The library reports events it had to drop as a custom event with a reserved
    // identifier and the number dropped since its last report as "count".
    Statement dropped = prepare("SELECT COALESCE(SUM(" + json.count + "), 0) FROM " + json.events + " WHERE " +
                                json.ei + " = ?2 AND " + kApp);
    if (!dropped.ok()) return false;
    dropped.bind(2, kZUBDroppedEventsID);
    if (dropped.step()) stats.droppedEvents = dropped.integer(0);
    if (dropped.failed()) return error = db.lastError(), false;

    // `which` selects the events of the kind (?2 being its event type); an event
    // whose identifier is ?4 is left out.
    auto named = [&](std::int64_t type, const std::string& name, const std::string& which,
                     std::optional<std::string> excluded, std::vector<NamedCount>& into) {
        Statement s = prepare("SELECT " + name + " AS name, COUNT(*), AVG(" + json.duration + ") FROM " +
                              json.events + " WHERE (" + which + ") AND (?4 IS NULL OR " + json.ei +
                              " IS DISTINCT FROM ?4) AND " + kApp +
                              " GROUP BY name ORDER BY COUNT(*) DESC, name NULLS FIRST LIMIT ?3");
        if (!s.ok()) return false;
        s.bind(2, type);
        s.bind(3, static_cast<std::int64_t>(options.top));
        s.bind(4, excluded);
        while (s.step()) {
            NamedCount row;
            row.nameMissing = s.isNull(0);
            row.name = row.nameMissing ? "(no name)" : s.text(0);
            row.count = s.integer(1);
            if (!s.isNull(2)) row.meanDuration = s.real(2);
            into.push_back(std::move(row));
        }
        if (s.failed()) return error = db.lastError(), false;
        return true;
    };
    // A custom event ended by a timer arrives without its type ("et" 0) but with
    // its identifier: an event is a custom event by its "ei" as much as by its type.
    // The dropped-events reports are the library's, not the application's.
    return named(1000, json.ei, "et = ?2 OR " + json.ei + " IS NOT NULL", kZUBDroppedEventsID, stats.customEvents) &&
           named(1, json.pi, "et = ?2", std::nullopt, stats.pages);
}

zub::Value namedJson(const std::vector<NamedCount>& rows, const char* nameKey, const char* countKey) {
    zub::Value list = zub::Value::array();
    for (const NamedCount& row : rows) {
        zub::Value item = zub::Value::object();
        item[nameKey] = row.nameMissing ? zub::Value(nullptr) : zub::Value(row.name);
        item[countKey] = row.count;
        item["meanDuration"] = row.meanDuration ? zub::Value(*row.meanDuration) : zub::Value(nullptr);
        list.push_back(std::move(item));
    }
    return list;
}

void printStatsJson(const Stats& stats, std::ostream& out) {
    zub::Value json = zub::Value::object();
    json["events"] = stats.events;
    json["sessions"] = stats.sessions;
    json["devicesRegistered"] = stats.devicesRegistered;
    json["devicesReporting"] = stats.devicesReporting;
    json["apps"] = stats.apps;
    json["droppedEvents"] = stats.droppedEvents;
    zub::Value types = zub::Value::array();
    for (const auto& [type, count] : stats.byType) {
        zub::Value item = zub::Value::object();
        item["et"] = type ? zub::Value(*type) : zub::Value(nullptr);
        item["name"] = type ? typeName(*type) : "none";
        item["count"] = count;
        types.push_back(std::move(item));
    }
    json["byType"] = std::move(types);
    json["topCustomEvents"] = namedJson(stats.customEvents, "ei", "count");
    json["topPages"] = namedJson(stats.pages, "pi", "views");
    out << json.dump(2, ' ', false, zub::Value::error_handler_t::replace) << "\n";
}

void printStatsTable(const Stats& stats, const StatsOptions& options, std::ostream& out) {
    out << "Collector database " << Database::displayName(options.dbPath);
    if (options.app) out << ", application " << *options.app;
    if (options.since) out << ", events from " << utcText(*options.since) << " UTC";
    if (options.until) out << ", events before " << utcText(*options.until) << " UTC";
    out << "\n\n";
    Table summary({"what", "count"});
    summary.add({"events", std::to_string(stats.events)});
    summary.add({"sessions", std::to_string(stats.sessions)});
    summary.add({"devices registered", std::to_string(stats.devicesRegistered)});
    summary.add({"devices reporting", std::to_string(stats.devicesReporting)});
    summary.add({"applications", std::to_string(stats.apps)});
    if (stats.firstTs) summary.add({"first event time", utcText(*stats.firstTs) + " UTC"});
    if (stats.lastTs) summary.add({"last event time", utcText(*stats.lastTs) + " UTC"});
    if (stats.lastReceived) summary.add({"last received", utcText(*stats.lastReceived) + " UTC"});
    summary.print(out, "Summary");
    out << "dropped events: " << stats.droppedEvents << " (discarded unsent by clients, as they reported)\n\n";

    Table types({"et", "type", "events"});
    for (const auto& [type, count] : stats.byType) {
        types.add({type ? std::to_string(*type) : "-", type ? typeName(*type) : "none", std::to_string(count)});
    }
    types.print(out, "Events by type");

    Table custom({"event id", "count", "mean du (s)"});
    for (const NamedCount& row : stats.customEvents) {
        custom.add({row.name, std::to_string(row.count), row.meanDuration ? fixed1(*row.meanDuration) : "-"});
    }
    custom.print(out, "Top custom events");

    Table pages({"page", "views", "mean du (s)"});
    for (const NamedCount& row : stats.pages) {
        pages.add({row.name, std::to_string(row.count), row.meanDuration ? fixed1(*row.meanDuration) : "-"});
    }
    pages.print(out, "Top pages");
}

std::string shortText(const zub::Value& event, const char* key) {
    const auto it = event.find(key);
    if (it == event.end()) return {};
    std::string text = it->is_string() ? it->get<std::string>() : it->dump();
    return std::string(key) + "=" + text;
}

}  // namespace

int runStats(const StatsOptions& options, std::ostream& out, std::ostream& err) {
    auto db = openForQuery(options.dbPath, err);
    if (!db) return 1;
    Stats stats;
    std::string error;
    if (!collect(*db, options, stats, error)) {
        err << "zub-collector: query failed: " << error << "\n";
        return 1;
    }
    if (options.json) {
        printStatsJson(stats, out);
    } else {
        printStatsTable(stats, options, out);
    }
    return 0;
}

int runEvents(const EventsOptions& options, std::ostream& out, std::ostream& err) {
    auto db = openForQuery(options.dbPath, err);
    if (!db) return 1;
    std::string error;
    Statement query = db->prepare(
        "SELECT id, received, app_key, mid, et, si, ts, idx, body FROM events "
        "WHERE (?1 IS NULL OR ts >= ?1) AND (?2 IS NULL OR ts < ?2) AND (?3 IS NULL OR et = ?3) "
        "AND (?4 IS NULL OR app_key = ?4) AND (?5 IS NULL OR mid = ?5) ORDER BY id LIMIT ?6",
        error);
    if (!query.ok()) {
        err << "zub-collector: query failed: " << error << "\n";
        return 1;
    }
    query.bind(1, options.since);
    query.bind(2, options.until);
    query.bind(3, options.type);
    query.bind(4, options.app);
    query.bind(5, options.mid);
    query.bind(6, options.limit.value_or(std::numeric_limits<std::int64_t>::max()));

    auto nullableInteger = [&](int column) {
        return query.isNull(column) ? zub::Value(nullptr) : zub::Value(query.integer(column));
    };
    auto nullableText = [&](int column) {
        return query.isNull(column) ? zub::Value(nullptr) : zub::Value(query.text(column));
    };
    auto parsedBody = [&] {
        const std::string body = query.text(8);
        try {
            return zub::Value::parse(body);
        } catch (const std::exception&) {
            return zub::Value(body);
        }
    };

    Table table({"id", "received (UTC)", "ky", "mid", "et", "si", "ts", "idx", "details"});
    bool first = true;
    if (options.json) out << "[";
    while (query.step()) {
        if (options.json) {
            zub::Value row = zub::Value::object();
            row["id"] = query.integer(0);
            row["received"] = query.integer(1);
            row["ky"] = nullableText(2);
            row["mid"] = nullableText(3);
            row["et"] = nullableInteger(4);
            row["si"] = nullableInteger(5);
            row["ts"] = nullableInteger(6);
            row["idx"] = nullableInteger(7);
            row["event"] = parsedBody();
            out << (first ? "\n" : ",\n") << row.dump(-1, ' ', false, zub::Value::error_handler_t::replace);
            first = false;
        } else {
            const zub::Value event = parsedBody();
            std::string details;
            if (event.is_object()) {
                for (const char* key : {"pi", "ei", "du", "lm"}) {
                    const std::string part = shortText(event, key);
                    if (!part.empty()) details += (details.empty() ? "" : " ") + part;
                }
            }
            // A column stays empty when the value did not fit it (a number too large,
            // a text where a number belongs): the value is then shown as it came.
            auto cell = [&](int column, const char* key) {
                if (!query.isNull(column)) return query.text(column);
                const auto sent = event.is_object() ? event.find(key) : event.end();
                if (sent == event.end() || sent->is_null()) return std::string("-");
                return sent->dump(-1, ' ', false, zub::Value::error_handler_t::replace);
            };
            table.add({query.text(0), utcText(query.integer(1)), cell(2, "ky"), cell(3, "mid"), cell(4, "et"),
                       cell(5, "si"), cell(6, "ts"), cell(7, "idx"), details});
        }
    }
    if (query.failed()) {
        if (options.json) out << "]\n";
        err << "zub-collector: query failed: " << db->lastError() << "\n";
        return 1;
    }
    if (options.json) {
        out << (first ? "]\n" : "\n]\n");
    } else {
        table.print(out, "Events");
    }
    return 0;
}

}  // namespace zubcollector
