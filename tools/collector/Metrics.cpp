#include "Metrics.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace zubcollector {
namespace {

constexpr const char* kRouteNames[] = {"report", "mid"};
// What each refusal "ret" means, as the metric's reason label.
constexpr const char* kReasonNames[] = {"none", "wrapping", "not_json", "shape", "too_large", "storage"};

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

std::uint64_t fileSize(const std::string& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    return ec ? 0 : static_cast<std::uint64_t>(size);
}

}  // namespace

void Metrics::recordRequest(Route route, int status, std::optional<int> ret, std::size_t eventsStored, bool newMid,
                            double seconds) {
    RouteCounters& r = routes_[static_cast<std::size_t>(route)];
    const std::size_t statusClass = status >= 100 && status < 600 ? static_cast<std::size_t>(status / 100) : 0;
    r.byStatus[statusClass].fetch_add(1, std::memory_order_relaxed);
    const std::size_t bucket = static_cast<std::size_t>(
        std::lower_bound(kLatencyBounds.begin(), kLatencyBounds.end(), seconds) - kLatencyBounds.begin());
    r.latency[bucket].fetch_add(1, std::memory_order_relaxed);
    r.latencyMicros.fetch_add(static_cast<std::uint64_t>(std::max(0.0, seconds) * 1e6), std::memory_order_relaxed);
    if (ret && *ret > 0 && static_cast<std::size_t>(*ret) < kReasons) {
        badRequests_[static_cast<std::size_t>(*ret)].fetch_add(1, std::memory_order_relaxed);
    }
    eventsStored_.fetch_add(eventsStored, std::memory_order_relaxed);
    if (newMid) midsIssued_.fetch_add(1, std::memory_order_relaxed);
}

std::string Metrics::render(std::optional<std::uint64_t> databaseBytes) const {
    std::string out;
    out += "# HELP zub_collector_requests_total Report and identifier requests answered, by route and status class.\n"
           "# TYPE zub_collector_requests_total counter\n";
    for (std::size_t route = 0; route < kRoutes; ++route) {
        for (std::size_t c = 1; c < kStatusClasses; ++c) {
            out += "zub_collector_requests_total{route=\"" + std::string(kRouteNames[route]) + "\",code=\"" +
                   std::to_string(c) + "xx\"} " + std::to_string(routes_[route].byStatus[c].load()) + "\n";
        }
    }
    out += "# HELP zub_collector_events_stored_total Events stored.\n"
           "# TYPE zub_collector_events_stored_total counter\n"
           "zub_collector_events_stored_total " + std::to_string(eventsStored_.load()) + "\n";
    out += "# HELP zub_collector_bad_requests_total Requests refused, by reason.\n"
           "# TYPE zub_collector_bad_requests_total counter\n";
    for (std::size_t reason = 1; reason < kReasons; ++reason) {
        out += "zub_collector_bad_requests_total{reason=\"" + std::string(kReasonNames[reason]) + "\"} " +
               std::to_string(badRequests_[reason].load()) + "\n";
    }
    out += "# HELP zub_collector_mids_issued_total New devices given a mid.\n"
           "# TYPE zub_collector_mids_issued_total counter\n"
           "zub_collector_mids_issued_total " + std::to_string(midsIssued_.load()) + "\n";
    out += "# HELP zub_collector_request_duration_seconds Time from a request's arrival to its answer.\n"
           "# TYPE zub_collector_request_duration_seconds histogram\n";
    for (std::size_t route = 0; route < kRoutes; ++route) {
        const RouteCounters& r = routes_[route];
        const std::string label = "route=\"" + std::string(kRouteNames[route]) + "\"";
        std::uint64_t cumulative = 0;
        for (std::size_t b = 0; b < kLatencyBounds.size(); ++b) {
            cumulative += r.latency[b].load();
            out += "zub_collector_request_duration_seconds_bucket{" + label + ",le=\"" + number(kLatencyBounds[b]) +
                   "\"} " + std::to_string(cumulative) + "\n";
        }
        cumulative += r.latency[kLatencyBounds.size()].load();
        out += "zub_collector_request_duration_seconds_bucket{" + label + ",le=\"+Inf\"} " +
               std::to_string(cumulative) + "\n";
        out += "zub_collector_request_duration_seconds_sum{" + label + "} " +
               number(static_cast<double>(r.latencyMicros.load()) / 1e6) + "\n";
        out += "zub_collector_request_duration_seconds_count{" + label + "} " + std::to_string(cumulative) + "\n";
    }
    out += "# HELP zub_collector_database_size_bytes Size of the database (file and write-ahead log).\n"
           "# TYPE zub_collector_database_size_bytes gauge\n"
           "zub_collector_database_size_bytes " +
           std::to_string(databaseBytes ? *databaseBytes : fileSize(dbPath_) + fileSize(dbPath_ + "-wal")) + "\n";
    return out;
}

}  // namespace zubcollector
