// CollectorServer: the HTTP side of the collector.
//
//   POST /mstat/report   a report batch; answers RC4({"ret": 0[, "cfg": ...]}) once
//                        every event is stored, or RC4({"ret": N, "msg": ...}) for a
//                        batch it cannot take.
//   POST /               an identifier request ("/?t=ios&ver=2.0"); answers
//                        RC4({"ret": 0, "mid": ...}) or RC4({"ret": N, "msg": ...}).
//
// Bodies are read through a content reader that counts bytes: one declared or
// found to be over the limit is refused with 413 without being read whole.
// Each request is logged as one line on stderr (unless quiet). Requests run on
// the server's thread pool; the store and the configuration are shared read-only
// or internally synchronised.
#pragma once

#include "EventStore.h"
#include "Metrics.h"
#include "OnlineConfig.h"
#include "Options.h"

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <string>

namespace zubcollector {

/// One line per call on stderr, whole lines only, from any thread.
class RequestLog {
public:
    explicit RequestLog(bool quiet) : quiet_(quiet) {}
    void write(const std::string& line);
    /// True when write() drops its lines (so that they need not be made).
    bool quiet() const { return quiet_; }
    /// Written even when quiet (start, stop, failures of the collector itself).
    void always(const std::string& line);

private:
    bool quiet_;
    std::mutex mutex_;
};

class CollectorServer {
public:
    CollectorServer(const ServeOptions& options, const OnlineConfig& config, RequestLog& log, Metrics& metrics);
    CollectorServer(const CollectorServer&) = delete;
    CollectorServer& operator=(const CollectorServer&) = delete;

    /// Binds the address and port (0 picks a free port); the bound port, or -1 and
    /// the reason in `error`. A port another socket listens on is refused.
    int bind(std::string& error);
    /// Serves until stop(), storing into `store`; returns false when serving could
    /// not start. The port is bound first, so that a port in use is refused before
    /// the database is touched.
    bool run(EventStore& store);
    /// Stops accepting and ends run() once the requests in progress are answered.
    /// Any thread; harmless before run() or after it has ended.
    void stop();
    bool running() const { return server_.is_running(); }

private:
    enum class Route { Report, Mid };
    struct Entry;  // what one request's log line tells

    void handle(Route route, const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader);
    /// Reads the body into `body`; false when it is over the limit or unreadable
    /// (then `res` holds the refusal).
    bool readBody(const httplib::Request& req, const httplib::ContentReader& reader, zub::Data& body,
                  httplib::Response& res, Entry& entry);
    /// True when the configured fault applies to this request (and counts it).
    bool takeFault(Route route);
    bool applyFault(httplib::Response& res, Entry& entry);
    void handleReport(const httplib::Request& req, zub::Data body, httplib::Response& res, Entry& entry);
    void handleMid(const httplib::Request& req, zub::Data body, httplib::Response& res, Entry& entry);
    void reply(httplib::Response& res, const zub::Value& value);
    void replyError(httplib::Response& res, Entry& entry, int ret, const std::string& message);

    const ServeOptions& options_;
    EventStore* store_ = nullptr;  // set by run() before any request is taken
    const OnlineConfig& config_;
    RequestLog& log_;
    Metrics& metrics_;
    DecodeLimits limits_;
    std::atomic<std::int64_t> faultsLeft_;
    httplib::Server server_;
    std::atomic<int> boundPort_{0};  // for waking idle connections at stop
};

}  // namespace zubcollector
