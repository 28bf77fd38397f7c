// Rollups: the summaries the dashboard reads instead of the events themselves.
//
// Every stored batch is summarised into small tables keyed by the hour (UTC) of
// the events' own "ts", so that a question over a month of data reads a few
// thousand summary rows instead of millions of events:
//
//   activity_hours   per hour, application, device and session: events, active
//                    seconds (type 4 "du"), events the client reported dropped
//   sessions         per application, device and session: first and last "ts"
//   app_devices      per application and device: first and last "ts", sessions,
//                    events, the latest application version it reported
//   named_hours      per hour, application, kind ('p' page "pi", 'c' custom event
//                    "ei") and name: count, sum and count of numeric "du", and a
//                    histogram of "du" (kDurationBuckets) for medians
//   referrer_hours   per hour, application, page and referrer ("rf"): views
//   argument_hours   per hour, application, custom event, argument key and value
//   referrer_days,   the same two per day (UTC): they have many rows per hour, so
//   argument_days    a range reads whole days from these and only its partial
//                    days at its ends from the hourly ones
//   audience_hours   per hour, application, dimension and value of the session
//                    events' environment ("ev"): sessions
//
// The kinds follow the query commands: a custom event is one with "ei" or with
// type 1000, the library's dropped-events reports excepted; a page is type 1.
// An event's time is its "ts", or, for an event sent without one (page and
// account events are sent with "ts" 0 on purpose), the time it was received:
// `stats --since/--until` counts by the same time. Writers run inside the
// caller's transaction, on the writer thread.
//
// The writer gathers what a whole group of stored batches adds and writes each
// summary row once for the group, in the order of its key: on PostgreSQL, where
// several collectors add to the same rows, every writer then takes its row locks
// in one order. There the rows are unique per key and added to with one upsert.
#pragma once

#include "Database.h"
#include "RequestDecoder.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zubcollector {

/// Upper bounds (exclusive, seconds) of the duration histogram's buckets; the
/// last bucket holds everything from the previous bound up.
inline constexpr std::array<double, 31> kDurationBounds = {
    1, 2, 3, 4, 5, 6, 8, 10, 13, 16, 20, 25, 30, 40, 50, 60, 90, 120, 180, 240, 300, 420, 600, 900,
    1200, 1800, 2700, 3600, 5400, 7200, 14400};
inline constexpr std::size_t kDurationBuckets = kDurationBounds.size() + 1;
using DurationHistogram = std::array<std::int64_t, kDurationBuckets>;

/// The bucket a duration falls in.
std::size_t durationBucket(double seconds);
/// The histogram as stored ("[n0,n1,...]") and back; a text that is not one
/// reads as all zeros. PostgreSQL's array text ("{n0,n1,...}") reads the same.
std::string histogramText(const DurationHistogram& histogram);
DurationHistogram histogramOf(const std::string& text);
/// The median a histogram implies: linear within the bucket that holds it.
/// Exact to the second below 6 s; nothing (false) for an empty histogram.
bool histogramMedian(const DurationHistogram& histogram, double& median);

/// The hour (whole hours since 1970, rounded down) of a time in seconds.
/// An event's time: its "ts", or when it was received if it has none (or 0).
inline std::int64_t eventTime(const std::optional<std::int64_t>& ts, std::int64_t received) {
    return ts && *ts != 0 ? *ts : received;
}

inline std::int64_t hourOf(std::int64_t seconds) {
    return seconds >= 0 ? seconds / 3600 : -((-seconds + 3599) / 3600);
}

/// The day (whole UTC days since 1970, rounded down) of an hour.
inline std::int64_t dayOfHour(std::int64_t hour) { return hour >= 0 ? hour / 24 : -((-hour + 23) / 24); }

class RollupWriter {
public:
    /// Prepares its statements on `db`; nothing (and a message) on failure.
    static std::unique_ptr<RollupWriter> create(Database& db, std::string& error);
    ~RollupWriter();
    RollupWriter(const RollupWriter&) = delete;
    RollupWriter& operator=(const RollupWriter&) = delete;

    /// Takes an event, received at `received` (seconds since 1970), into what the
    /// next flush() writes.
    void collect(const EventRecord& event, std::int64_t received);
    /// Writes what was collected into the summaries, inside the caller's
    /// transaction, and starts afresh (also when it fails).
    bool flush(std::string& error);
    /// Forgets what was collected.
    void discard();
    /// collect() for each event, then flush().
    bool add(const std::vector<EventRecord>& events, std::int64_t received, std::string& error);

private:
    struct Statements;
    struct Pending;
    RollupWriter(Database& db, std::unique_ptr<Statements> statements);
    bool flushSqlite(std::string& error);
    bool flushPostgres(std::string& error);
    Database& db_;
    std::unique_ptr<Statements> s_;
    std::unique_ptr<Pending> pending_;
};

/// Summarises every event the database holds (after a migration that added the
/// summary tables to a database with events), in one transaction.
bool summariseStoredEvents(Database& db, std::string& error);

}  // namespace zubcollector
