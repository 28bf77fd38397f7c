// DashboardQueries: every question the dashboard and its JSON API ask of the
// database, in one place, with bound parameters only.
//
// Time questions read the hourly summaries (Rollups.h), never the events, so an
// answer costs the same whatever the number of events: a range is whole hours
// (UTC), and its buckets are hours or the viewer's local days (the viewer's
// offset from UTC, in minutes, shifts the day boundaries). The device timeline
// and the live view read the newest events through their indexes.
//
// Each call answers with the JSON value the API sends (shapes in the collector's
// README). One instance works on one read-only connection, on one thread.
#pragma once

#include "Database.h"

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>

namespace zubcollector {

struct DashboardRange {
    std::int64_t fromHour = 0;  // first hour in the range, whole hours since 1970 (UTC)
    std::int64_t toHour = 0;    // first hour after it
    int tzMinutes = 0;          // the viewer's offset from UTC, minutes east
    bool byDay = true;          // buckets of local days; else of hours
    std::optional<std::string> app;
};

class DashboardQueries {
public:
    explicit DashboardQueries(Database& db) : db_(db) {}

    /// The application keys that reported, with their devices and events.
    bool apps(zub::Value& out, std::string& error);
    /// Totals and a series per bucket: devices, new devices, sessions, events,
    /// active seconds; mean session length; events the clients reported dropped.
    bool overview(const DashboardRange& range, zub::Value& out, std::string& error);
    /// The most viewed pages: views, mean and median duration, top referrer.
    bool pages(const DashboardRange& range, std::size_t limit, zub::Value& out, std::string& error);
    /// The most frequent custom events: count, mean duration of the timed ones,
    /// the most frequent values of each argument, and counts per bucket.
    bool customEvents(const DashboardRange& range, std::size_t limit, zub::Value& out, std::string& error);
    /// Shares of sessions by each environment dimension (system and application
    /// version, channel, language, resolution, network, time zone).
    bool audience(const DashboardRange& range, std::size_t limit, zub::Value& out, std::string& error);
    /// Devices seen in the range (newest first), optionally those whose mid
    /// contains `search`; with the total that match.
    bool devices(const DashboardRange& range, const std::optional<std::string>& search, std::size_t limit,
                 std::size_t offset, zub::Value& out, std::string& error);
    /// One device: its summary per application and its newest events.
    bool deviceTimeline(const std::optional<std::string>& app, const std::string& mid, std::size_t limit,
                        zub::Value& out, std::string& error);
    /// The newest events, those after event id `afterId` only when it is given.
    bool live(const std::optional<std::string>& app, std::optional<std::int64_t> afterId, std::size_t limit,
              zub::Value& out, std::string& error);

private:
    Database& db_;
};

}  // namespace zubcollector
