// DashboardServer: the collector's read-only dashboard, its JSON API and its
// metrics, on a port of their own (never the one devices report to).
//
//   GET /                 the dashboard (HTML, script, styles and the charting
//   GET /assets/NAME      library, all built into the binary)
//   GET /api/v1/VIEW      the JSON API (DashboardApi.h)
//   GET /metrics          Prometheus text (Metrics.h)
//   GET /healthz          "ok", without a token (for load balancers)
//
// Access: when a token is set (it must be, to listen beyond loopback) every
// request but /healthz and /assets/ (code and styles, no data) must carry it, as "Authorization: Bearer TOKEN", as the cookie
// the dashboard sets, or once as "?token=TOKEN" on a page address (which sets the
// cookie and redirects to the address without it). Tokens are compared in
// constant time. Without it: 401, JSON for the API and the metrics, a page that
// says what to do for the dashboard.
//
// The database is read through read-only connections (a few, reused by the
// request threads), so the dashboard never writes and never blocks the writer.
#pragma once

#include "CollectorServer.h"
#include "Database.h"
#include "Metrics.h"
#include "Options.h"

#include <httplib.h>

#include <atomic>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zubcollector {

class DashboardServer {
public:
    DashboardServer(const DashboardOptions& options, std::string dbPath, const Metrics& metrics, RequestLog& log);
    DashboardServer(const DashboardServer&) = delete;
    DashboardServer& operator=(const DashboardServer&) = delete;

    /// Binds the address and port (0 picks a free port); the port, or -1 and why.
    int bind(std::string& error);
    /// Serves until stop(); false when serving could not start.
    bool run();
    /// Any thread; harmless before run() or after it ended.
    void stop();
    bool running() const { return server_.is_running(); }

    /// Whether `address` is a loopback address (127.0.0.0/8, ::1, localhost).
    static bool isLoopback(const std::string& address);

private:
    bool authorised(const httplib::Request& req) const;
    void refuse(const httplib::Request& req, httplib::Response& res) const;
    void serveApi(const httplib::Request& req, httplib::Response& res);
    /// A read-only connection for this request (opened on first need, kept for reuse).
    std::unique_ptr<Database> takeConnection(std::string& error);
    void returnConnection(std::unique_ptr<Database> db);
    /// A PostgreSQL database's size, asked of its server; none for a file.
    std::optional<std::uint64_t> databaseSize();

    const DashboardOptions& options_;
    std::string dbPath_;
    const Metrics& metrics_;
    RequestLog& log_;
    std::mutex poolMutex_;
    std::vector<std::unique_ptr<Database>> idle_;  // guarded by poolMutex_
    httplib::Server server_;
    std::atomic<int> boundPort_{0};  // for waking idle connections at stop
};

}  // namespace zubcollector
