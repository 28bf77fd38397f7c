// Metrics: the collector's ingestion counters, in Prometheus' text format.
//
//   zub_collector_requests_total{route,code}         report and identifier requests answered
//   zub_collector_events_stored_total                 events stored
//   zub_collector_bad_requests_total{reason}          requests refused, by the "ret" they got
//   zub_collector_mids_issued_total                   new devices given a mid
//   zub_collector_request_duration_seconds{route}     histogram of the time to answer
//   zub_collector_database_size_bytes                 the database file and its write-ahead log
//                                                     (PostgreSQL: the database, as its server counts it)
//
// Recording is lock-free (atomics) and safe from any request thread; rendering
// reads the counters without stopping the writers, so one scrape may see a
// request counted in one series and not yet in another.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace zubcollector {

class Metrics {
public:
    enum class Route { Report, Mid };

    explicit Metrics(std::string dbPath) : dbPath_(std::move(dbPath)) {}

    /// One answered request: its HTTP status, the "ret" it carried (none when the
    /// answer had none), how many events it stored, whether it issued a new mid,
    /// and how long it took.
    void recordRequest(Route route, int status, std::optional<int> ret, std::size_t eventsStored, bool newMid,
                       double seconds);

    /// The text a Prometheus scrape receives. The database's size is measured from
    /// its files unless the caller gives it (a PostgreSQL database has none here).
    std::string render(std::optional<std::uint64_t> databaseBytes = std::nullopt) const;

    /// Upper bounds of the latency histogram's buckets, in seconds.
    static constexpr std::array<double, 12> kLatencyBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                              0.1,   0.25,   0.5,   1,    2.5,   10};

private:
    static constexpr std::size_t kRoutes = 2;
    static constexpr std::size_t kStatusClasses = 6;  // index = status / 100 (0 for anything odd)
    static constexpr std::size_t kReasons = 6;        // "ret" 0 to 5

    struct RouteCounters {
        std::array<std::atomic<std::uint64_t>, kStatusClasses> byStatus{};
        std::array<std::atomic<std::uint64_t>, kLatencyBounds.size() + 1> latency{};
        std::atomic<std::uint64_t> latencyMicros{0};
    };

    std::string dbPath_;
    std::array<RouteCounters, kRoutes> routes_;
    std::array<std::atomic<std::uint64_t>, kReasons> badRequests_{};
    std::atomic<std::uint64_t> eventsStored_{0};
    std::atomic<std::uint64_t> midsIssued_{0};
};

}  // namespace zubcollector
