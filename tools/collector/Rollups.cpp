#include "Rollups.h"

#include <ZUBCocoa/ZUBDelivery.h>

#include <algorithm>
#include <map>
#include <optional>
#include <tuple>

namespace zubcollector {
namespace {

using OptText = std::optional<std::string>;
using OptInt = std::optional<std::int64_t>;

// Argument values are summarised as text of at most this many bytes, and at most
// this many arguments of one event are counted: one event with a huge or endless
// argument list must not flood the summaries.
constexpr std::size_t kMaxValueBytes = 120;
constexpr std::size_t kMaxArgumentsPerEvent = 32;

// The environment of a session event ("ev") that the audience view shows.
constexpr std::pair<const char*, const char*> kAudienceKeys[] = {
    {"os_version", "ov"}, {"app_version", "av"}, {"channel", "ch"}, {"language", "lg"},
    {"resolution", "sr"}, {"network", "cn"},     {"timezone", "tz"},
};

// A value as the summaries name it: text as it is, anything else as JSON.
OptText nameOf(const zub::Value& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return std::nullopt;
    if (it->is_string()) return it->get<std::string>();
    return it->dump(-1, ' ', false, zub::Value::error_handler_t::replace);
}

std::optional<double> numberOf(const zub::Value& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    return it->get<double>();
}

std::string clipped(std::string text) {
    if (text.size() <= kMaxValueBytes) return text;
    std::size_t end = kMaxValueBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;  // whole UTF-8 characters
    text.resize(end);
    return text + "…";
}

struct Activity {
    std::int64_t events = 0;
    std::int64_t activeSeconds = 0;
    std::int64_t dropped = 0;
};

struct Named {
    std::int64_t count = 0;
    double durationSum = 0;
    std::int64_t durationCount = 0;
    DurationHistogram histogram{};
};

struct Span {
    OptInt first, last;
    void take(std::int64_t time) {
        first = first ? std::min(*first, time) : time;
        last = last ? std::max(*last, time) : time;
    }
};

struct DeviceBatch {
    Span span;
    std::int64_t events = 0;
    std::int64_t newSessions = 0;
    OptText appVersion;
    OptInt appVersionTs;
};

// What one batch adds, gathered before anything is written, so that each summary
// row is read and written once per batch.
struct BatchSummary {
    std::map<std::tuple<std::int64_t, OptText, OptText, OptInt>, Activity> activity;
    std::map<std::tuple<OptText, OptText, std::int64_t>, Span> sessions;
    std::map<std::pair<OptText, std::string>, DeviceBatch> devices;
    std::map<std::tuple<std::int64_t, OptText, char, OptText>, Named> named;
    std::map<std::tuple<std::int64_t, OptText, OptText, std::string>, std::int64_t> referrers;
    std::map<std::tuple<std::int64_t, OptText, OptText, std::string, std::string>, std::int64_t> arguments;
    std::map<std::tuple<std::int64_t, OptText, std::string, std::string>, std::int64_t> audience;

    void add(const EventRecord& e, std::int64_t received) {
        const zub::Value& object = e.object;
        const std::int64_t time = eventTime(e.time, received);
        const OptText customId = nameOf(object, "ei");
        const bool droppedReport = customId && *customId == kZUBDroppedEventsID;
        if (e.mid) {
            DeviceBatch& device = devices[{e.appKey, *e.mid}];
            device.span.take(time);
            ++device.events;
            const zub::Value* versionHolder = &object;
            if (e.type == 2 && object.contains("ev")) versionHolder = &object["ev"];
            if (OptText version = nameOf(*versionHolder, "av"); version && (!device.appVersionTs || time >= *device.appVersionTs)) {
                device.appVersion = clipped(*version);
                device.appVersionTs = time;
            }
            if (e.session) sessions[{e.appKey, e.mid, *e.session}].take(time);
        } else if (e.session) {
            sessions[{e.appKey, std::nullopt, *e.session}].take(time);
        }
        const std::int64_t hour = hourOf(time);
        Activity& activity = this->activity[{hour, e.appKey, e.mid, e.session}];
        ++activity.events;
        if (e.type == 4) activity.activeSeconds += static_cast<std::int64_t>(numberOf(object, "du").value_or(0));
        if (droppedReport) {
            const auto kv = object.find("kv");
            if (kv != object.end() && kv->is_object()) {
                const auto count = kv->find("count");
                if (count != kv->end() && count->is_number_integer()) activity.dropped += count->get<std::int64_t>();
            }
        }

        const std::optional<double> duration = numberOf(object, "du");
        auto addNamed = [&](char kind, const OptText& name) {
            Named& n = named[{hour, e.appKey, kind, name}];
            ++n.count;
            if (duration) {
                n.durationSum += *duration;
                ++n.durationCount;
                ++n.histogram[durationBucket(*duration)];
            }
        };
        if (e.type == 1) {
            const OptText page = nameOf(object, "pi");
            addNamed('p', page);
            if (const OptText referrer = nameOf(object, "rf")) ++referrers[{hour, e.appKey, page, clipped(*referrer)}];
        }
        if ((e.type == 1000 || customId) && !droppedReport) {
            addNamed('c', customId);
            const auto kv = object.find("kv");
            if (kv != object.end() && kv->is_object()) {
                std::size_t counted = 0;
                for (auto it = kv->begin(); it != kv->end() && counted < kMaxArgumentsPerEvent; ++it, ++counted) {
                    const std::string value =
                        it->is_string() ? it->get<std::string>()
                                        : it->dump(-1, ' ', false, zub::Value::error_handler_t::replace);
                    ++arguments[{hour, e.appKey, customId, clipped(it.key()), clipped(value)}];
                }
            }
        }
        if (e.type == 2 && object.contains("ev")) {
            const zub::Value& env = object["ev"];
            for (const auto& [dimension, key] : kAudienceKeys) {
                if (const OptText value = nameOf(env, key)) ++audience[{hour, e.appKey, dimension, clipped(*value)}];
            }
        }
    }
};

}  // namespace

std::size_t durationBucket(double seconds) {
    return static_cast<std::size_t>(std::upper_bound(kDurationBounds.begin(), kDurationBounds.end(), seconds) -
                                    kDurationBounds.begin());
}

std::string histogramText(const DurationHistogram& histogram) {
    std::string text = "[";
    for (std::size_t i = 0; i < histogram.size(); ++i) {
        if (i) text += ',';
        text += std::to_string(histogram[i]);
    }
    return text + "]";
}

DurationHistogram histogramOf(const std::string& text) {
    DurationHistogram histogram{};
    std::string json = text;
    if (json.size() >= 2 && json.front() == '{' && json.back() == '}') {  // PostgreSQL's array text
        json.front() = '[';
        json.back() = ']';
    }
    const zub::Value parsed = zub::Value::parse(json, nullptr, false);
    if (!parsed.is_array()) return histogram;
    for (std::size_t i = 0; i < histogram.size() && i < parsed.size(); ++i) {
        if (parsed[i].is_number_integer()) histogram[i] = parsed[i].get<std::int64_t>();
    }
    return histogram;
}

bool histogramMedian(const DurationHistogram& histogram, double& median) {
    std::int64_t total = 0;
    for (const std::int64_t n : histogram) total += n;
    if (total <= 0) return false;
    // The middle position, counted from 0 in the sorted durations (for an even
    // count, between the two middle ones).
    const double middle = (static_cast<double>(total) - 1) / 2;
    std::int64_t before = 0;
    for (std::size_t i = 0; i < histogram.size(); ++i) {
        if (histogram[i] == 0) continue;
        if (middle < static_cast<double>(before + histogram[i])) {
            const double low = i == 0 ? 0 : kDurationBounds[i - 1];
            const double high = i < kDurationBounds.size() ? kDurationBounds[i] : low * 2;
            if (high - low <= 1) {
                median = low;  // one whole second: durations are whole seconds
            } else {
                median = low + (high - low) * ((middle - static_cast<double>(before) + 0.5) /
                                               static_cast<double>(histogram[i]));
            }
            return true;
        }
        before += histogram[i];
    }
    return false;
}

namespace {

// Rows per summary statement on PostgreSQL (one round trip each).
constexpr std::size_t kRowsPerUpsert = 64;

// A multi-row upsert into one summary table: rows unique per key (absent keys
// included: NULLS NOT DISTINCT) are added to when they are there. A column named
// with a type ("du_hist BIGINT[]") takes its value as text of that type.
struct Upsert {
    Upsert(std::string table, std::vector<std::string> columns, std::string key, std::string update,
           std::string returning = {})
        : table(std::move(table)), columns(std::move(columns)), key(std::move(key)), update(std::move(update)),
          returning(std::move(returning)) {}

    std::string table;
    std::vector<std::string> columns;
    std::string key;
    std::string update;
    std::string returning;
    std::map<std::size_t, Statement> byRows;

    Statement& statement(Database& db, std::size_t rows, std::string& error) {
        Statement& statement = byRows[rows];
        if (statement.ok()) return statement;
        std::string names;
        for (const std::string& column : columns) {
            if (!names.empty()) names.append(", ");
            names.append(column, 0, column.find(' '));
        }
        std::string values;
        int n = 0;
        for (std::size_t r = 0; r < rows; ++r) {
            values += r ? ", (" : "(";
            for (std::size_t c = 0; c < columns.size(); ++c) {
                const std::size_t space = columns[c].find(' ');
                if (c) values.append(", ");
                if (space != std::string::npos) values.append("CAST(");
                values.append("?").append(std::to_string(++n));
                if (space != std::string::npos) values.append(" AS ").append(columns[c], space + 1).append(")");
            }
            values += ")";
        }
        statement = db.prepare("INSERT INTO " + table + " AS t (" + names + ") VALUES " + values + " ON CONFLICT (" +
                                   key + ") DO UPDATE SET " + update + returning,
                               error);
        return statement;
    }

    // Writes `rows` (a map from key to what is added), `bind(statement, first
    // parameter, key, value)` binding one; `answer(statement)` reads each row a
    // RETURNING gives back.
    template <typename Rows, typename Bind, typename Answer>
    bool write(Database& db, const Rows& rows, Bind bind, Answer answer, std::string& error) {
        auto it = rows.begin();
        for (std::size_t left = rows.size(); left > 0;) {
            const std::size_t n = std::min(kRowsPerUpsert, left);
            Statement& st = statement(db, n, error);
            for (std::size_t r = 0; r < n; ++r, ++it) bind(st, static_cast<int>(r * columns.size()) + 1, it->first, it->second);
            while (st.step()) answer(st);
            const bool ok = st.done();
            st.reset();
            if (!ok) return false;
            left -= n;
        }
        return true;
    }
    template <typename Rows, typename Bind>
    bool write(Database& db, const Rows& rows, Bind bind, std::string& error) {
        return write(db, rows, bind, [](const Statement&) {}, error);
    }
};

}  // namespace

struct RollupWriter::Pending {
    BatchSummary batch;
};

struct RollupWriter::Statements {
    // PostgreSQL: each summary's rows of a group in a few statements.
    Upsert activity{"activity_hours", {"hour", "app_key", "mid", "si", "events", "active_seconds", "dropped"},
                    "hour, app_key, mid, si",
                    "events = t.events + excluded.events, active_seconds = t.active_seconds + excluded.active_seconds, "
                    "dropped = t.dropped + excluded.dropped"};
    // Answers which sessions are new to the table.
    Upsert sessions{"sessions", {"app_key", "mid", "si", "first_ts", "last_ts"}, "app_key, mid, si",
                    "first_ts = LEAST(t.first_ts, excluded.first_ts), last_ts = GREATEST(t.last_ts, excluded.last_ts)",
                    " RETURNING app_key, mid, CASE WHEN xmax = 0 THEN 1 ELSE 0 END"};
    Upsert devices{"app_devices", {"app_key", "mid", "first_ts", "last_ts", "sessions", "events", "app_version"},
                   "app_key, mid",
                   "first_ts = LEAST(t.first_ts, excluded.first_ts), last_ts = GREATEST(t.last_ts, excluded.last_ts), "
                   "sessions = t.sessions + excluded.sessions, events = t.events + excluded.events, "
                   "app_version = COALESCE(excluded.app_version, t.app_version)"};
    Upsert named{"named_hours", {"hour", "kind", "app_key", "name", "count", "du_sum", "du_count", "du_hist BIGINT[]"},
                 "hour, kind, app_key, name",
                 "count = t.count + excluded.count, du_sum = t.du_sum + excluded.du_sum, "
                 "du_count = t.du_count + excluded.du_count, du_hist = ARRAY(SELECT h.a + h.b FROM "
                 "unnest(t.du_hist, excluded.du_hist) WITH ORDINALITY AS h(a, b, n) ORDER BY h.n)"};
    Upsert referrers{"referrer_hours", {"hour", "app_key", "page", "referrer", "count"}, "hour, app_key, page, referrer",
                     "count = t.count + excluded.count"};
    Upsert referrerDays{"referrer_days", {"day", "app_key", "page", "referrer", "count"}, "day, app_key, page, referrer",
                        "count = t.count + excluded.count"};
    Upsert arguments{"argument_hours", {"hour", "app_key", "event", "key", "value", "count"},
                     "hour, app_key, event, key, value", "count = t.count + excluded.count"};
    Upsert argumentDays{"argument_days", {"day", "app_key", "event", "key", "value", "count"},
                        "day, app_key, event, key, value", "count = t.count + excluded.count"};
    Upsert audience{"audience_hours", {"hour", "app_key", "dimension", "value", "count"}, "hour, dimension, app_key, value",
                    "count = t.count + excluded.count"};
    // SQLite: found and updated, or inserted.
    Statement updateActivity, insertActivity;
    Statement findSession, updateSession, insertSession;
    Statement findDevice, updateDevice, insertDevice;
    Statement findNamed, updateNamed, insertNamed;
    Statement updateReferrer, insertReferrer, updateReferrerDay, insertReferrerDay;
    Statement updateArgument, insertArgument, updateArgumentDay, insertArgumentDay;
    Statement updateAudience, insertAudience;
};

std::unique_ptr<RollupWriter> RollupWriter::create(Database& db, std::string& error) {
    auto s = std::make_unique<Statements>();
    if (db.dialect() == Dialect::Postgres) {
        return std::unique_ptr<RollupWriter>(new RollupWriter(db, std::move(s)));
    }
    // Keys may be absent (NULL): rows are found with IS, which matches NULL to NULL.
    s->updateActivity = db.prepare(
        "UPDATE activity_hours SET events = events + ?5, active_seconds = active_seconds + ?6, dropped = dropped + ?7 "
        "WHERE hour = ?1 AND app_key IS ?2 AND mid IS ?3 AND si IS ?4",
        error);
    s->insertActivity = db.prepare(
        "INSERT INTO activity_hours (hour, app_key, mid, si, events, active_seconds, dropped) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
        error);
    s->findSession = db.prepare("SELECT rowid FROM sessions WHERE app_key IS ?1 AND mid IS ?2 AND si = ?3", error);
    s->updateSession = db.prepare(
        "UPDATE sessions SET first_ts = MIN(COALESCE(first_ts, ?2), COALESCE(?2, first_ts)), "
        "last_ts = MAX(COALESCE(last_ts, ?3), COALESCE(?3, last_ts)) WHERE rowid = ?1",
        error);
    s->insertSession =
        db.prepare("INSERT INTO sessions (app_key, mid, si, first_ts, last_ts) VALUES (?1, ?2, ?3, ?4, ?5)", error);
    s->findDevice = db.prepare("SELECT rowid FROM app_devices WHERE app_key IS ?1 AND mid = ?2", error);
    s->updateDevice = db.prepare(
        "UPDATE app_devices SET first_ts = MIN(COALESCE(first_ts, ?2), COALESCE(?2, first_ts)), "
        "last_ts = MAX(COALESCE(last_ts, ?3), COALESCE(?3, last_ts)), sessions = sessions + ?4, "
        "events = events + ?5, app_version = COALESCE(?6, app_version) WHERE rowid = ?1",
        error);
    s->insertDevice = db.prepare(
        "INSERT INTO app_devices (app_key, mid, first_ts, last_ts, sessions, events, app_version) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
        error);
    s->findNamed = db.prepare(
        "SELECT rowid, du_hist FROM named_hours WHERE hour = ?1 AND kind = ?2 AND app_key IS ?3 AND name IS ?4", error);
    s->updateNamed = db.prepare(
        "UPDATE named_hours SET count = count + ?2, du_sum = du_sum + ?3, du_count = du_count + ?4, du_hist = ?5 "
        "WHERE rowid = ?1",
        error);
    s->insertNamed = db.prepare(
        "INSERT INTO named_hours (hour, kind, app_key, name, count, du_sum, du_count, du_hist) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
        error);
    s->updateReferrer = db.prepare(
        "UPDATE referrer_hours SET count = count + ?5 WHERE hour = ?1 AND app_key IS ?2 AND page IS ?3 AND referrer = ?4",
        error);
    s->insertReferrer = db.prepare(
        "INSERT INTO referrer_hours (hour, app_key, page, referrer, count) VALUES (?1, ?2, ?3, ?4, ?5)", error);
    s->updateArgument = db.prepare(
        "UPDATE argument_hours SET count = count + ?6 "
        "WHERE hour = ?1 AND app_key IS ?2 AND event IS ?3 AND key = ?4 AND value = ?5",
        error);
    s->insertArgument = db.prepare(
        "INSERT INTO argument_hours (hour, app_key, event, key, value, count) VALUES (?1, ?2, ?3, ?4, ?5, ?6)", error);
    s->updateReferrerDay = db.prepare(
        "UPDATE referrer_days SET count = count + ?5 WHERE day = ?1 AND app_key IS ?2 AND page IS ?3 AND referrer = ?4",
        error);
    s->insertReferrerDay = db.prepare(
        "INSERT INTO referrer_days (day, app_key, page, referrer, count) VALUES (?1, ?2, ?3, ?4, ?5)", error);
    s->updateArgumentDay = db.prepare(
        "UPDATE argument_days SET count = count + ?6 "
        "WHERE day = ?1 AND app_key IS ?2 AND event IS ?3 AND key = ?4 AND value = ?5",
        error);
    s->insertArgumentDay = db.prepare(
        "INSERT INTO argument_days (day, app_key, event, key, value, count) VALUES (?1, ?2, ?3, ?4, ?5, ?6)", error);
    s->updateAudience = db.prepare(
        "UPDATE audience_hours SET count = count + ?5 WHERE hour = ?1 AND dimension = ?3 AND app_key IS ?2 AND value = ?4",
        error);
    s->insertAudience = db.prepare(
        "INSERT INTO audience_hours (hour, app_key, dimension, value, count) VALUES (?1, ?2, ?3, ?4, ?5)", error);
    for (const Statement* statement :
         {&s->updateActivity, &s->insertActivity, &s->findSession, &s->updateSession, &s->insertSession,
          &s->findDevice, &s->updateDevice, &s->insertDevice, &s->findNamed, &s->updateNamed, &s->insertNamed,
          &s->updateReferrer, &s->insertReferrer, &s->updateArgument, &s->insertArgument, &s->updateReferrerDay,
          &s->insertReferrerDay, &s->updateArgumentDay, &s->insertArgumentDay, &s->updateAudience,
          &s->insertAudience}) {
        if (!statement->ok()) {
            error = "cannot prepare the summary statements: " + error;
            return nullptr;
        }
    }
    return std::unique_ptr<RollupWriter>(new RollupWriter(db, std::move(s)));
}

RollupWriter::RollupWriter(Database& db, std::unique_ptr<Statements> statements)
    : db_(db), s_(std::move(statements)), pending_(std::make_unique<Pending>()) {}

RollupWriter::~RollupWriter() = default;

void RollupWriter::collect(const EventRecord& event, std::int64_t received) { pending_->batch.add(event, received); }

void RollupWriter::discard() { pending_ = std::make_unique<Pending>(); }

bool RollupWriter::add(const std::vector<EventRecord>& events, std::int64_t received, std::string& error) {
    for (const EventRecord& event : events) collect(event, received);
    return flush(error);
}

bool RollupWriter::flush(std::string& error) {
    const bool ok = db_.dialect() == Dialect::Postgres ? flushPostgres(error) : flushSqlite(error);
    discard();
    return ok;
}

bool RollupWriter::flushSqlite(std::string& error) {
    BatchSummary& batch = pending_->batch;
    Statements& s = *s_;
    auto fail = [&](const char* what) {
        error = std::string("storage: cannot summarise ") + what + ": " + db_.lastError();
        return false;
    };
    // Runs an UPDATE; when it touched no row, the INSERT.
    auto upsert = [&](Statement& update, Statement& insert) {
        if (!update.run()) return false;
        if (db_.changes() > 0) {
            insert.reset();
            return true;
        }
        return insert.run();
    };
    // Finds a row by its key: its rowid, or nothing (`ok` false on failure).
    auto find = [&](Statement& query, bool& ok) -> OptInt {
        OptInt rowid;
        if (query.step()) rowid = query.integer(0);
        ok = !query.failed();
        query.reset();
        return rowid;
    };

    for (const auto& [key, a] : batch.activity) {
        const auto& [hour, app, mid, si] = key;
        for (Statement* st : {&s.updateActivity, &s.insertActivity}) {
            st->bind(1, hour);
            st->bind(2, app);
            st->bind(3, mid);
            st->bind(4, si);
            st->bind(5, a.events);
            st->bind(6, a.activeSeconds);
            st->bind(7, a.dropped);
        }
        if (!upsert(s.updateActivity, s.insertActivity)) return fail("activity");
    }

    std::map<std::pair<OptText, std::string>, std::int64_t> newSessions;
    for (const auto& [key, span] : batch.sessions) {
        const auto& [app, mid, si] = key;
        bool ok = false;
        s.findSession.bind(1, app);
        s.findSession.bind(2, mid);
        s.findSession.bind(3, si);
        const OptInt rowid = find(s.findSession, ok);
        if (!ok) return fail("sessions");
        if (rowid) {
            s.updateSession.bind(1, *rowid);
            s.updateSession.bind(2, span.first);
            s.updateSession.bind(3, span.last);
            if (!s.updateSession.run()) return fail("sessions");
        } else {
            s.insertSession.bind(1, app);
            s.insertSession.bind(2, mid);
            s.insertSession.bind(3, si);
            s.insertSession.bind(4, span.first);
            s.insertSession.bind(5, span.last);
            if (!s.insertSession.run()) return fail("sessions");
            if (mid) ++newSessions[{app, *mid}];
        }
    }

    for (const auto& [key, d] : batch.devices) {
        const auto& [app, mid] = key;
        const std::int64_t sessionsAdded = newSessions[key];
        bool ok = false;
        s.findDevice.bind(1, app);
        s.findDevice.bind(2, mid);
        const OptInt rowid = find(s.findDevice, ok);
        if (!ok) return fail("devices");
        if (rowid) {
            s.updateDevice.bind(1, *rowid);
            s.updateDevice.bind(2, d.span.first);
            s.updateDevice.bind(3, d.span.last);
            s.updateDevice.bind(4, sessionsAdded);
            s.updateDevice.bind(5, d.events);
            s.updateDevice.bind(6, d.appVersion);
            if (!s.updateDevice.run()) return fail("devices");
        } else {
            s.insertDevice.bind(1, app);
            s.insertDevice.bind(2, mid);
            s.insertDevice.bind(3, d.span.first);
            s.insertDevice.bind(4, d.span.last);
            s.insertDevice.bind(5, sessionsAdded);
            s.insertDevice.bind(6, d.events);
            s.insertDevice.bind(7, d.appVersion);
            if (!s.insertDevice.run()) return fail("devices");
        }
    }

    for (const auto& [key, n] : batch.named) {
        const auto& [hour, app, kind, name] = key;
        const std::string kindText(1, kind);
        s.findNamed.bind(1, hour);
        s.findNamed.bind(2, kindText);
        s.findNamed.bind(3, app);
        s.findNamed.bind(4, name);
        OptInt rowid;
        DurationHistogram histogram = n.histogram;
        if (s.findNamed.step()) {
            rowid = s.findNamed.integer(0);
            const DurationHistogram stored = histogramOf(s.findNamed.text(1));
            for (std::size_t i = 0; i < histogram.size(); ++i) histogram[i] += stored[i];
        }
        const bool failed = s.findNamed.failed();
        s.findNamed.reset();
        if (failed) return fail("pages and custom events");
        if (rowid) {
            s.updateNamed.bind(1, *rowid);
            s.updateNamed.bind(2, n.count);
            s.updateNamed.bindReal(3, n.durationSum);
            s.updateNamed.bind(4, n.durationCount);
            s.updateNamed.bind(5, histogramText(histogram));
            if (!s.updateNamed.run()) return fail("pages and custom events");
        } else {
            s.insertNamed.bind(1, hour);
            s.insertNamed.bind(2, kindText);
            s.insertNamed.bind(3, app);
            s.insertNamed.bind(4, name);
            s.insertNamed.bind(5, n.count);
            s.insertNamed.bindReal(6, n.durationSum);
            s.insertNamed.bind(7, n.durationCount);
            s.insertNamed.bind(8, histogramText(histogram));
            if (!s.insertNamed.run()) return fail("pages and custom events");
        }
    }

    // Referrers and arguments go to their hour and to their day.
    std::map<std::tuple<std::int64_t, OptText, OptText, std::string>, std::int64_t> referrerDays;
    for (const auto& [key, count] : batch.referrers) {
        const auto& [hour, app, page, referrer] = key;
        referrerDays[{dayOfHour(hour), app, page, referrer}] += count;
    }
    for (auto* table : {&batch.referrers, &referrerDays}) {
        const bool days = table == &referrerDays;
        Statement& update = days ? s.updateReferrerDay : s.updateReferrer;
        Statement& insert = days ? s.insertReferrerDay : s.insertReferrer;
        for (const auto& [key, count] : *table) {
            const auto& [when, app, page, referrer] = key;
            for (Statement* st : {&update, &insert}) {
                st->bind(1, when);
                st->bind(2, app);
                st->bind(3, page);
                st->bind(4, referrer);
                st->bind(5, count);
            }
            if (!upsert(update, insert)) return fail("referrers");
        }
    }

    std::map<std::tuple<std::int64_t, OptText, OptText, std::string, std::string>, std::int64_t> argumentDays;
    for (const auto& [key, count] : batch.arguments) {
        const auto& [hour, app, event, argument, value] = key;
        argumentDays[{dayOfHour(hour), app, event, argument, value}] += count;
    }
    for (auto* table : {&batch.arguments, &argumentDays}) {
        const bool days = table == &argumentDays;
        Statement& update = days ? s.updateArgumentDay : s.updateArgument;
        Statement& insert = days ? s.insertArgumentDay : s.insertArgument;
        for (const auto& [key, count] : *table) {
            const auto& [when, app, event, argument, value] = key;
            for (Statement* st : {&update, &insert}) {
                st->bind(1, when);
                st->bind(2, app);
                st->bind(3, event);
                st->bind(4, argument);
                st->bind(5, value);
                st->bind(6, count);
            }
            if (!upsert(update, insert)) return fail("arguments");
        }
    }

    for (const auto& [key, count] : batch.audience) {
        const auto& [hour, app, dimension, value] = key;
        for (Statement* st : {&s.updateAudience, &s.insertAudience}) {
            st->bind(1, hour);
            st->bind(2, app);
            st->bind(3, dimension);
            st->bind(4, value);
            st->bind(5, count);
        }
        if (!upsert(s.updateAudience, s.insertAudience)) return fail("audience");
    }
    return true;
}

bool RollupWriter::flushPostgres(std::string& error) {
    BatchSummary& batch = pending_->batch;
    Statements& s = *s_;
    auto fail = [&](const char* what) {
        error = std::string("storage: cannot summarise ") + what + ": " + db_.lastError();
        return false;
    };
    if (!s.activity.write(
            db_, batch.activity,
            [](Statement& st, int p, const auto& key, const Activity& a) {
                const auto& [hour, app, mid, si] = key;
                st.bind(p, hour);
                st.bind(p + 1, app);
                st.bind(p + 2, mid);
                st.bind(p + 3, si);
                st.bind(p + 4, a.events);
                st.bind(p + 5, a.activeSeconds);
                st.bind(p + 6, a.dropped);
            },
            error)) {
        return fail("activity");
    }

    std::map<std::pair<OptText, std::string>, std::int64_t> newSessions;
    if (!s.sessions.write(
            db_, batch.sessions,
            [](Statement& st, int p, const auto& key, const Span& span) {
                const auto& [app, mid, si] = key;
                st.bind(p, app);
                st.bind(p + 1, mid);
                st.bind(p + 2, si);
                st.bind(p + 3, span.first);
                st.bind(p + 4, span.last);
            },
            [&](const Statement& st) {
                if (st.integer(2) == 1 && !st.isNull(1)) {
                    ++newSessions[{st.isNull(0) ? OptText() : OptText(st.text(0)), st.text(1)}];
                }
            },
            error)) {
        return fail("sessions");
    }

    if (!s.devices.write(
            db_, batch.devices,
            [&](Statement& st, int p, const auto& key, const DeviceBatch& d) {
                const auto& [app, mid] = key;
                st.bind(p, app);
                st.bind(p + 1, mid);
                st.bind(p + 2, d.span.first);
                st.bind(p + 3, d.span.last);
                st.bind(p + 4, newSessions[key]);
                st.bind(p + 5, d.events);
                st.bind(p + 6, d.appVersion);
            },
            error)) {
        return fail("devices");
    }

    if (!s.named.write(
            db_, batch.named,
            [](Statement& st, int p, const auto& key, const Named& n) {
                const auto& [hour, app, kind, name] = key;
                std::string histogram = histogramText(n.histogram);
                histogram.front() = '{';  // PostgreSQL's array text
                histogram.back() = '}';
                st.bind(p, hour);
                st.bind(p + 1, std::string(1, kind));
                st.bind(p + 2, app);
                st.bind(p + 3, name);
                st.bind(p + 4, n.count);
                st.bindReal(p + 5, n.durationSum);
                st.bind(p + 6, n.durationCount);
                st.bind(p + 7, histogram);
            },
            error)) {
        return fail("pages and custom events");
    }

    std::map<std::tuple<std::int64_t, OptText, OptText, std::string>, std::int64_t> referrerDays;
    for (const auto& [key, count] : batch.referrers) {
        const auto& [hour, app, page, referrer] = key;
        referrerDays[{dayOfHour(hour), app, page, referrer}] += count;
    }
    auto bindReferrer = [](Statement& st, int p, const auto& key, std::int64_t count) {
        const auto& [when, app, page, referrer] = key;
        st.bind(p, when);
        st.bind(p + 1, app);
        st.bind(p + 2, page);
        st.bind(p + 3, referrer);
        st.bind(p + 4, count);
    };
    if (!s.referrers.write(db_, batch.referrers, bindReferrer, error) ||
        !s.referrerDays.write(db_, referrerDays, bindReferrer, error)) {
        return fail("referrers");
    }

    std::map<std::tuple<std::int64_t, OptText, OptText, std::string, std::string>, std::int64_t> argumentDays;
    for (const auto& [key, count] : batch.arguments) {
        const auto& [hour, app, event, argument, value] = key;
        argumentDays[{dayOfHour(hour), app, event, argument, value}] += count;
    }
    auto bindArgument = [](Statement& st, int p, const auto& key, std::int64_t count) {
        const auto& [when, app, event, argument, value] = key;
        st.bind(p, when);
        st.bind(p + 1, app);
        st.bind(p + 2, event);
        st.bind(p + 3, argument);
        st.bind(p + 4, value);
        st.bind(p + 5, count);
    };
    if (!s.arguments.write(db_, batch.arguments, bindArgument, error) ||
        !s.argumentDays.write(db_, argumentDays, bindArgument, error)) {
        return fail("arguments");
    }

    if (!s.audience.write(
            db_, batch.audience,
            [](Statement& st, int p, const auto& key, std::int64_t count) {
                const auto& [hour, app, dimension, value] = key;
                st.bind(p, hour);
                st.bind(p + 1, app);
                st.bind(p + 2, dimension);
                st.bind(p + 3, value);
                st.bind(p + 4, count);
            },
            error)) {
        return fail("audience");
    }
    return true;
}

bool summariseStoredEvents(Database& db, std::string& error) {
    if (!db.exec("BEGIN IMMEDIATE", error)) return false;
    auto rollback = [&] {
        std::string ignored;
        db.exec("ROLLBACK", ignored);
        return false;
    };
    auto writer = RollupWriter::create(db, error);
    if (!writer) return rollback();
    // Events are summarised in runs received in the same second.
    Statement query = db.prepare("SELECT body, received FROM events ORDER BY id", error);
    if (!query.ok()) return rollback();
    constexpr std::size_t kChunk = 1000;
    std::vector<EventRecord> chunk;
    std::int64_t received = 0;
    while (query.step()) {
        if (!chunk.empty() && (chunk.size() == kChunk || query.integer(1) != received)) {
            if (!writer->add(chunk, received, error)) return rollback();
            chunk.clear();
        }
        received = query.integer(1);
        const zub::Value event = zub::Value::parse(query.text(0), nullptr, false);
        if (event.is_object()) chunk.push_back(eventRecordOf(event));
    }
    if (query.failed()) {
        error = db.lastError();
        return rollback();
    }
    if (!writer->add(chunk, received, error)) return rollback();
    query = Statement();
    writer.reset();
    if (!db.exec("COMMIT", error)) return rollback();
    return true;
}

}  // namespace zubcollector
