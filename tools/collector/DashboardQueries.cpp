#include "DashboardQueries.h"

#include "Rollups.h"

#include <algorithm>
#include <map>
#include <functional>
#include <vector>

namespace zubcollector {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 86400;
constexpr std::size_t kTopArgumentValues = 5;
constexpr std::size_t kSeriesLines = 6;  // custom events drawn over time

std::int64_t floorDiv(std::int64_t a, std::int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// The buckets of a range: hours, or the viewer's local days that the range touches.
class Buckets {
public:
    explicit Buckets(const DashboardRange& range) : range_(range) {
        first_ = key(range.fromHour);
        count_ = static_cast<std::size_t>(key(range.toHour - 1) - first_ + 1);
    }
    std::size_t size() const { return count_; }
    std::size_t ofHour(std::int64_t hour) const { return static_cast<std::size_t>(key(hour) - first_); }
    /// Start of bucket i, seconds since 1970.
    std::int64_t start(std::size_t i) const {
        const std::int64_t k = first_ + static_cast<std::int64_t>(i);
        return range_.byDay ? k * kDay - range_.tzMinutes * 60 : k * kHour;
    }
    zub::Value starts() const {
        zub::Value list = zub::Value::array();
        for (std::size_t i = 0; i < count_; ++i) list.push_back(start(i));
        return list;
    }

private:
    std::int64_t key(std::int64_t hour) const {
        return range_.byDay ? floorDiv(hour * kHour + range_.tzMinutes * 60, kDay) : hour;
    }
    const DashboardRange& range_;
    std::int64_t first_ = 0;
    std::size_t count_ = 0;
};

zub::Value textOrNull(const Statement& s, int column) {
    return s.isNull(column) ? zub::Value(nullptr) : zub::Value(s.text(column));
}

zub::Value integerOrNull(const Statement& s, int column) {
    return s.isNull(column) ? zub::Value(nullptr) : zub::Value(s.integer(column));
}

zub::Value meanOrNull(double sum, std::int64_t count) {
    return count > 0 ? zub::Value(sum / static_cast<double>(count)) : zub::Value(nullptr);
}

// Prepares a range question: ?1 first hour, ?2 end hour, ?3 application (all when NULL).
Statement rangeStatement(Database& db, const std::string& sql, const DashboardRange& range, std::string& error) {
    Statement s = db.prepare(sql, error);
    if (!s.ok()) return s;
    s.bind(1, range.fromHour);
    s.bind(2, range.toHour);
    s.bind(3, range.app);
    return s;
}

// A question over a table kept per hour and per day (referrers, arguments): the
// range's whole UTC days come from the daily table, the hours before the first
// and after the last whole day from the hourly one. Binds ?1 to ?3 as
// rangeStatement does, ?4 the end of the leading hours, ?5 the start of the
// trailing hours, ?6 and ?7 the whole days.
Statement splitStatement(Database& db, const std::string& sql, const DashboardRange& range, std::string& error) {
    Statement s = rangeStatement(db, sql, range, error);
    if (!s.ok()) return s;
    const std::int64_t firstDay = -floorDiv(-range.fromHour, 24);
    const std::int64_t endDay = floorDiv(range.toHour, 24);
    const bool wholeDays = firstDay < endDay;
    s.bind(4, wholeDays ? firstDay * 24 : range.toHour);
    s.bind(5, wholeDays ? endDay * 24 : range.toHour);
    s.bind(6, wholeDays ? firstDay : std::int64_t{0});
    s.bind(7, wholeDays ? endDay : std::int64_t{0});
    return s;
}

bool finished(Database& db, const Statement& s, std::string& error) {
    if (!s.failed()) return true;
    error = db.lastError();
    return false;
}

// What the dashboard says about one event in a list: its kind and its name.
zub::Value eventRow(const Statement& s, int idColumn) {
    // Columns from idColumn: id, received, app_key, mid, et, si, ts, body.
    zub::Value row = zub::Value::object();
    row["id"] = s.integer(idColumn);
    row["received"] = s.integer(idColumn + 1);
    row["app"] = textOrNull(s, idColumn + 2);
    row["mid"] = textOrNull(s, idColumn + 3);
    row["et"] = integerOrNull(s, idColumn + 4);
    row["si"] = integerOrNull(s, idColumn + 5);
    row["ts"] = integerOrNull(s, idColumn + 6);
    zub::Value event = zub::Value::parse(s.text(idColumn + 7), nullptr, false);
    if (event.is_discarded()) event = s.text(idColumn + 7);
    std::string kind = "other";
    const zub::Value et = row["et"];
    if (et == 1) kind = "page";
    else if (et == 2) kind = "session";
    else if (et == 4) kind = "active time";
    else if (event.is_object() && event.contains("ei")) kind = "custom";
    else if (et == 1000) kind = "custom";
    else if (event.is_object() && (event.contains("acc") || event.contains("lm"))) kind = "account";
    row["kind"] = kind;
    zub::Value name = nullptr;
    if (event.is_object()) {
        for (const char* key : {"pi", "ei", "lm"}) {
            if (event.contains(key)) {
                name = event[key];
                break;
            }
        }
        row["du"] = event.contains("du") ? event["du"] : zub::Value(nullptr);
    }
    row["name"] = std::move(name);
    row["event"] = std::move(event);
    return row;
}

}  // namespace

bool DashboardQueries::apps(zub::Value& out, std::string& error) {
    Statement s = db_.prepare(
        "SELECT app_key, COUNT(*), SUM(events) FROM app_devices GROUP BY app_key "
        "ORDER BY SUM(events) DESC, app_key NULLS FIRST",
        error);
    if (!s.ok()) return false;
    zub::Value list = zub::Value::array();
    while (s.step()) {
        zub::Value app = zub::Value::object();
        app["app"] = textOrNull(s, 0);
        app["devices"] = s.integer(1);
        app["events"] = s.integer(2);
        list.push_back(std::move(app));
    }
    if (!finished(db_, s, error)) return false;
    out = zub::Value::object();
    out["apps"] = std::move(list);
    return true;
}

bool DashboardQueries::overview(const DashboardRange& range, zub::Value& out, std::string& error) {
    const Buckets buckets(range);
    // Devices and sessions are told apart by a 64-bit digest of their keys: the
    // counts are exact unless two of a range's keys share a digest (about one
    // chance in 10^9 for a million keys), and no key text is copied.
    // Distinct keys are counted by sorting (bucket, digest) pairs: no node per key.
    struct Bucket {
        std::int64_t devices = 0, sessions = 0;
        std::int64_t events = 0, activeSeconds = 0, newDevices = 0, sessionsStarted = 0;
        double sessionSeconds = 0;
    };
    std::vector<Bucket> series(buckets.size());
    std::vector<std::pair<std::size_t, std::uint64_t>> deviceKeys, sessionKeys;
    std::int64_t events = 0, activeSeconds = 0, dropped = 0;

    // Devices and sessions count once however many hours they were active in.
    Statement activity = rangeStatement(
        db_,
        "SELECT hour, app_key, mid, si, events, active_seconds, dropped FROM activity_hours "
        "WHERE hour >= ?1 AND hour < ?2 AND (?3 IS NULL OR app_key = ?3)",
        range, error);
    if (!activity.ok()) return false;
    const std::hash<std::string_view> hashText;
    // NULL and "" differ: an absent text has a digest of its own.
    auto digest = [&](int column) -> std::uint64_t {
        return activity.isNull(column) ? 0x9e3779b97f4a7c15ULL : hashText(activity.textView(column));
    };
    auto combine = [](std::uint64_t seed, std::uint64_t value) {
        return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
    };
    while (activity.step()) {
        const std::size_t bucket = buckets.ofHour(activity.integer(0));
        Bucket& b = series[bucket];
        const std::int64_t n = activity.integer(4);
        b.events += n;
        events += n;
        b.activeSeconds += activity.integer(5);
        activeSeconds += activity.integer(5);
        dropped += activity.integer(6);
        const std::uint64_t mid = digest(2);
        if (!activity.isNull(2)) deviceKeys.emplace_back(bucket, mid);
        if (!activity.isNull(3)) {
            sessionKeys.emplace_back(
                bucket, combine(combine(digest(1), mid), static_cast<std::uint64_t>(activity.integer(3))));
        }
    }
    if (!finished(db_, activity, error)) return false;
    // Distinct per bucket, then distinct over the range.
    auto countDistinct = [&](std::vector<std::pair<std::size_t, std::uint64_t>>& keys,
                             std::int64_t Bucket::*perBucket) -> std::size_t {
        std::sort(keys.begin(), keys.end());
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
        std::vector<std::uint64_t> all;
        all.reserve(keys.size());
        for (const auto& [bucket, key] : keys) {
            ++(series[bucket].*perBucket);
            all.push_back(key);
        }
        std::sort(all.begin(), all.end());
        return static_cast<std::size_t>(std::unique(all.begin(), all.end()) - all.begin());
    };
    const std::size_t devices = countDistinct(deviceKeys, &Bucket::devices);
    const std::size_t sessions = countDistinct(sessionKeys, &Bucket::sessions);

    const std::int64_t from = range.fromHour * kHour;
    const std::int64_t to = range.toHour * kHour;
    // A device is new where its first event falls; over all applications, that
    // is its first event in any of them.
    Statement fresh = db_.prepare(
        range.app ? "SELECT first_ts FROM app_devices WHERE first_ts >= ?1 AND first_ts < ?2 AND app_key = ?3"
                  : "SELECT MIN(first_ts) FROM app_devices GROUP BY mid HAVING MIN(first_ts) >= ?1 AND MIN(first_ts) < ?2",
        error);
    if (!fresh.ok()) return false;
    fresh.bind(1, from);
    fresh.bind(2, to);
    if (range.app) fresh.bind(3, *range.app);
    std::int64_t newDevices = 0;
    while (fresh.step()) {
        ++series[buckets.ofHour(hourOf(fresh.integer(0)))].newDevices;
        ++newDevices;
    }
    if (!finished(db_, fresh, error)) return false;

    // A session's length is from its first event to its last, counted where it began.
    Statement lengths = db_.prepare(
        "SELECT first_ts, last_ts FROM sessions WHERE first_ts >= ?1 AND first_ts < ?2 AND (?3 IS NULL OR app_key = ?3)",
        error);
    if (!lengths.ok()) return false;
    lengths.bind(1, from);
    lengths.bind(2, to);
    lengths.bind(3, range.app);
    std::int64_t started = 0;
    double lengthSum = 0;
    while (lengths.step()) {
        Bucket& b = series[buckets.ofHour(hourOf(lengths.integer(0)))];
        const double length = static_cast<double>(lengths.integer(1) - lengths.integer(0));
        ++b.sessionsStarted;
        b.sessionSeconds += length;
        ++started;
        lengthSum += length;
    }
    if (!finished(db_, lengths, error)) return false;

    zub::Value totals = zub::Value::object();
    totals["events"] = events;
    totals["sessions"] = sessions;
    totals["devices"] = devices;
    totals["newDevices"] = newDevices;
    totals["activeSeconds"] = activeSeconds;
    totals["meanSessionSeconds"] = meanOrNull(lengthSum, started);
    totals["droppedEvents"] = dropped;
    zub::Value rows = zub::Value::array();
    for (std::size_t i = 0; i < series.size(); ++i) {
        const Bucket& b = series[i];
        zub::Value row = zub::Value::object();
        row["t"] = buckets.start(i);
        row["events"] = b.events;
        row["sessions"] = b.sessions;
        row["devices"] = b.devices;
        row["newDevices"] = b.newDevices;
        row["activeSeconds"] = b.activeSeconds;
        row["meanSessionSeconds"] = meanOrNull(b.sessionSeconds, b.sessionsStarted);
        rows.push_back(std::move(row));
    }
    out = zub::Value::object();
    out["totals"] = std::move(totals);
    out["series"] = std::move(rows);
    return true;
}

bool DashboardQueries::pages(const DashboardRange& range, std::size_t limit, zub::Value& out, std::string& error) {
    struct Page {
        std::int64_t views = 0, durationCount = 0;
        double durationSum = 0;
        DurationHistogram histogram{};
        std::pair<std::int64_t, std::optional<std::string>> topReferrer{0, std::nullopt};
    };
    std::map<std::optional<std::string>, Page> pages;
    Statement s = rangeStatement(db_,
                                 "SELECT name, count, du_sum, du_count, du_hist FROM named_hours "
                                 "WHERE hour >= ?1 AND hour < ?2 AND kind = 'p' AND (?3 IS NULL OR app_key = ?3)",
                                 range, error);
    if (!s.ok()) return false;
    while (s.step()) {
        Page& p = pages[s.isNull(0) ? std::nullopt : std::optional<std::string>(s.text(0))];
        p.views += s.integer(1);
        p.durationSum += s.real(2);
        p.durationCount += s.integer(3);
        const DurationHistogram h = histogramOf(s.text(4));
        for (std::size_t i = 0; i < h.size(); ++i) p.histogram[i] += h[i];
    }
    if (!finished(db_, s, error)) return false;

    Statement referrers = splitStatement(
        db_,
        "SELECT page, referrer, SUM(count) FROM ("
        "  SELECT page, referrer, count FROM referrer_hours WHERE ((hour >= ?1 AND hour < ?4) OR (hour >= ?5 AND hour < ?2))"
        "  AND (?3 IS NULL OR app_key = ?3)"
        "  UNION ALL SELECT page, referrer, count FROM referrer_days WHERE day >= ?6 AND day < ?7"
        "  AND (?3 IS NULL OR app_key = ?3)) AS r GROUP BY page, referrer",
        range, error);
    if (!referrers.ok()) return false;
    while (referrers.step()) {
        const auto page = pages.find(referrers.isNull(0) ? std::nullopt : std::optional<std::string>(referrers.text(0)));
        if (page == pages.end()) continue;
        const std::int64_t n = referrers.integer(2);
        auto& top = page->second.topReferrer;
        if (n > top.first) top = {n, referrers.text(1)};
    }
    if (!finished(db_, referrers, error)) return false;

    std::vector<std::pair<std::optional<std::string>, Page>> sorted(pages.begin(), pages.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
        return a.second.views != b.second.views ? a.second.views > b.second.views : a.first < b.first;
    });
    zub::Value list = zub::Value::array();
    for (std::size_t i = 0; i < sorted.size() && i < limit; ++i) {
        const auto& [name, p] = sorted[i];
        zub::Value row = zub::Value::object();
        row["pi"] = name ? zub::Value(*name) : zub::Value(nullptr);
        row["views"] = p.views;
        row["meanDuration"] = meanOrNull(p.durationSum, p.durationCount);
        double median = 0;
        row["medianDuration"] = histogramMedian(p.histogram, median) ? zub::Value(median) : zub::Value(nullptr);
        row["topReferrer"] = p.topReferrer.second ? zub::Value(*p.topReferrer.second) : zub::Value(nullptr);
        row["topReferrerViews"] = p.topReferrer.first;
        list.push_back(std::move(row));
    }
    out = zub::Value::object();
    out["pages"] = std::move(list);
    out["distinctPages"] = sorted.size();
    return true;
}

bool DashboardQueries::customEvents(const DashboardRange& range, std::size_t limit, zub::Value& out,
                                    std::string& error) {
    const Buckets buckets(range);
    struct Custom {
        std::int64_t count = 0, durationCount = 0;
        double durationSum = 0;
        std::vector<std::int64_t> series;
    };
    using Name = std::optional<std::string>;
    std::map<Name, Custom> events;
    Statement s = rangeStatement(db_,
                                 "SELECT name, hour, count, du_sum, du_count FROM named_hours "
                                 "WHERE hour >= ?1 AND hour < ?2 AND kind = 'c' AND (?3 IS NULL OR app_key = ?3)",
                                 range, error);
    if (!s.ok()) return false;
    while (s.step()) {
        Custom& c = events[s.isNull(0) ? std::nullopt : Name(s.text(0))];
        if (c.series.empty()) c.series.assign(buckets.size(), 0);
        c.count += s.integer(2);
        c.series[buckets.ofHour(s.integer(1))] += s.integer(2);
        c.durationSum += s.real(3);
        c.durationCount += s.integer(4);
    }
    if (!finished(db_, s, error)) return false;

    std::vector<std::pair<Name, Custom>> sorted(events.begin(), events.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
        return a.second.count != b.second.count ? a.second.count > b.second.count : a.first < b.first;
    });
    if (sorted.size() > limit) sorted.resize(limit);

    // The most frequent values of each argument of the events listed.
    std::map<Name, std::map<std::string, std::vector<std::pair<std::int64_t, std::string>>>> arguments;
    for (const auto& [name, c] : sorted) arguments[name];
    Statement args = splitStatement(
        db_,
        "SELECT event, key, value, SUM(count) FROM ("
        "  SELECT event, key, value, count FROM argument_hours WHERE ((hour >= ?1 AND hour < ?4) OR (hour >= ?5 AND hour < ?2))"
        "  AND (?3 IS NULL OR app_key = ?3)"
        "  UNION ALL SELECT event, key, value, count FROM argument_days WHERE day >= ?6 AND day < ?7"
        "  AND (?3 IS NULL OR app_key = ?3)) AS a GROUP BY event, key, value",
        range, error);
    if (!args.ok()) return false;
    while (args.step()) {
        const auto event = arguments.find(args.isNull(0) ? std::nullopt : Name(args.text(0)));
        if (event == arguments.end()) continue;
        event->second[args.text(1)].emplace_back(args.integer(3), args.text(2));
    }
    if (!finished(db_, args, error)) return false;

    zub::Value list = zub::Value::array();
    zub::Value lines = zub::Value::array();
    for (const auto& [name, c] : sorted) {
        zub::Value row = zub::Value::object();
        row["ei"] = name ? zub::Value(*name) : zub::Value(nullptr);
        row["count"] = c.count;
        row["timed"] = c.durationCount;
        row["meanDuration"] = meanOrNull(c.durationSum, c.durationCount);
        zub::Value argumentList = zub::Value::array();
        for (auto& [key, values] : arguments[name]) {
            std::sort(values.begin(), values.end(),
                      [](const auto& a, const auto& b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
            zub::Value top = zub::Value::array();
            for (std::size_t i = 0; i < values.size() && i < kTopArgumentValues; ++i) {
                top.push_back({{"value", values[i].second}, {"count", values[i].first}});
            }
            argumentList.push_back({{"key", key}, {"distinctValues", values.size()}, {"values", std::move(top)}});
        }
        row["arguments"] = std::move(argumentList);
        list.push_back(std::move(row));
        if (lines.size() < kSeriesLines) {
            lines.push_back({{"ei", name ? zub::Value(*name) : zub::Value(nullptr)}, {"counts", c.series}});
        }
    }
    out = zub::Value::object();
    out["events"] = std::move(list);
    out["buckets"] = buckets.starts();
    out["series"] = std::move(lines);
    return true;
}

bool DashboardQueries::audience(const DashboardRange& range, std::size_t limit, zub::Value& out,
                                std::string& error) {
    static constexpr const char* kDimensions[] = {"os_version", "app_version", "channel", "language",
                                                  "resolution", "network",     "timezone"};
    std::map<std::string, std::vector<std::pair<std::int64_t, std::string>>> values;
    Statement s = rangeStatement(db_,
                                 "SELECT dimension, value, SUM(count) FROM audience_hours "
                                 "WHERE hour >= ?1 AND hour < ?2 AND (?3 IS NULL OR app_key = ?3) "
                                 "GROUP BY dimension, value",
                                 range, error);
    if (!s.ok()) return false;
    while (s.step()) values[s.text(0)].emplace_back(s.integer(2), s.text(1));
    if (!finished(db_, s, error)) return false;

    zub::Value dimensions = zub::Value::array();
    for (const char* dimension : kDimensions) {
        auto& found = values[dimension];
        std::sort(found.begin(), found.end(),
                  [](const auto& a, const auto& b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
        std::int64_t total = 0;
        for (const auto& v : found) total += v.first;
        zub::Value list = zub::Value::array();
        std::int64_t shown = 0;
        for (std::size_t i = 0; i < found.size() && i < limit; ++i) {
            list.push_back({{"value", found[i].second}, {"sessions", found[i].first}});
            shown += found[i].first;
        }
        zub::Value row = zub::Value::object();
        row["dimension"] = dimension;
        row["sessions"] = total;
        row["values"] = std::move(list);
        row["otherSessions"] = total - shown;  // the values beyond the limit, together
        dimensions.push_back(std::move(row));
    }
    out = zub::Value::object();
    out["dimensions"] = std::move(dimensions);
    return true;
}

bool DashboardQueries::devices(const DashboardRange& range, const std::optional<std::string>& search,
                               std::size_t limit, std::size_t offset, zub::Value& out, std::string& error) {
    // Seen in the range: the span from a device's first to its last event meets it.
    const std::string where =
        std::string(" FROM app_devices WHERE last_ts >= ?1 AND first_ts < ?2 AND (?3 IS NULL OR app_key = ?3) ") +
        (db_.dialect() == Dialect::Postgres ? "AND (?4 IS NULL OR strpos(mid, ?4) > 0)"
                                            : "AND (?4 IS NULL OR instr(mid, ?4) > 0)");
    auto prepare = [&](const std::string& sql) {
        Statement s = db_.prepare(sql, error);
        if (!s.ok()) return s;
        s.bind(1, range.fromHour * kHour);
        s.bind(2, range.toHour * kHour);
        s.bind(3, range.app);
        s.bind(4, search);
        return s;
    };
    Statement count = prepare("SELECT COUNT(*)" + where);
    if (!count.ok()) return false;
    const std::int64_t total = count.step() ? count.integer(0) : 0;
    if (!finished(db_, count, error)) return false;

    Statement s = prepare("SELECT app_key, mid, first_ts, last_ts, sessions, events, app_version" + where +
                          " ORDER BY last_ts DESC NULLS LAST, mid LIMIT ?5 OFFSET ?6");
    if (!s.ok()) return false;
    s.bind(5, static_cast<std::int64_t>(limit));
    s.bind(6, static_cast<std::int64_t>(offset));
    zub::Value list = zub::Value::array();
    while (s.step()) {
        zub::Value row = zub::Value::object();
        row["app"] = textOrNull(s, 0);
        row["mid"] = s.text(1);
        row["firstSeen"] = integerOrNull(s, 2);
        row["lastSeen"] = integerOrNull(s, 3);
        row["sessions"] = s.integer(4);
        row["events"] = s.integer(5);
        row["appVersion"] = textOrNull(s, 6);
        list.push_back(std::move(row));
    }
    if (!finished(db_, s, error)) return false;
    out = zub::Value::object();
    out["total"] = total;
    out["devices"] = std::move(list);
    return true;
}

bool DashboardQueries::deviceTimeline(const std::optional<std::string>& app, const std::string& mid,
                                      std::size_t limit, zub::Value& out, std::string& error) {
    Statement summary = db_.prepare(
        "SELECT app_key, first_ts, last_ts, sessions, events, app_version FROM app_devices "
        "WHERE mid = ?1 AND (?2 IS NULL OR app_key = ?2) ORDER BY last_ts DESC NULLS LAST",
        error);
    if (!summary.ok()) return false;
    summary.bind(1, mid);
    summary.bind(2, app);
    zub::Value apps = zub::Value::array();
    while (summary.step()) {
        zub::Value row = zub::Value::object();
        row["app"] = textOrNull(summary, 0);
        row["firstSeen"] = integerOrNull(summary, 1);
        row["lastSeen"] = integerOrNull(summary, 2);
        row["sessions"] = summary.integer(3);
        row["events"] = summary.integer(4);
        row["appVersion"] = textOrNull(summary, 5);
        apps.push_back(std::move(row));
    }
    if (!finished(db_, summary, error)) return false;

    Statement s = db_.prepare(
        "SELECT id, received, app_key, mid, et, si, ts, body FROM events "
        "WHERE mid = ?1 AND (?2 IS NULL OR app_key = ?2) ORDER BY id DESC LIMIT ?3",
        error);
    if (!s.ok()) return false;
    s.bind(1, mid);
    s.bind(2, app);
    s.bind(3, static_cast<std::int64_t>(limit));
    zub::Value events = zub::Value::array();
    while (s.step()) events.push_back(eventRow(s, 0));
    if (!finished(db_, s, error)) return false;
    out = zub::Value::object();
    out["mid"] = mid;
    out["apps"] = std::move(apps);
    out["events"] = std::move(events);
    return true;
}

bool DashboardQueries::live(const std::optional<std::string>& app, std::optional<std::int64_t> afterId,
                            std::size_t limit, zub::Value& out, std::string& error) {
    Statement s = db_.prepare(
        "SELECT id, received, app_key, mid, et, si, ts, body FROM events "
        "WHERE (?1 IS NULL OR id > ?1) AND (?2 IS NULL OR app_key = ?2) ORDER BY id DESC LIMIT ?3",
        error);
    if (!s.ok()) return false;
    s.bind(1, afterId);
    s.bind(2, app);
    s.bind(3, static_cast<std::int64_t>(limit));
    zub::Value events = zub::Value::array();
    while (s.step()) events.push_back(eventRow(s, 0));
    if (!finished(db_, s, error)) return false;

    // The newest id overall, so that a client polls from there even when the
    // newest events are of other applications.
    Statement newest = db_.prepare("SELECT MAX(id) FROM events", error);
    if (!newest.ok()) return false;
    std::optional<std::int64_t> last;
    if (newest.step() && !newest.isNull(0)) last = newest.integer(0);
    if (!finished(db_, newest, error)) return false;
    out = zub::Value::object();
    out["events"] = std::move(events);
    out["lastId"] = last ? zub::Value(*last) : zub::Value(afterId ? zub::Value(*afterId) : zub::Value(nullptr));
    return true;
}

}  // namespace zubcollector
