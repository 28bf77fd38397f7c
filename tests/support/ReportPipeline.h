// Test helpers for the report pipeline: waiting for the library's queues, looking
// into the event store, and a loopback report server that speaks the wire format
// with replies a test scripts.
#pragma once

#include "support/LoopbackServer.h"

#include <ZUBCocoa/ZUBValue.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zubtest {

/// Waits until the mid queue and the report queue are both idle, including the
/// cycles that replies start (a chain of cycles ends when nothing eligible is
/// left). False when that takes more than five minutes.
bool settlePipeline();

/// Points the library at the report and identifier paths below `base` (a server's
/// "http://host:port"), with smart reporting off (the strategy alone decides);
/// with `registerFirst` also registers the device. False when that brought no mid.
bool reportTo(const std::string& base, bool registerFirst = true);

/// Whether this machine's network status is "reachable" (not 0). Only then does a
/// reply start the next cycle; tests of chained cycles need it.
bool networkReachable();

/// md5 keys of the event store's waiting / retry dictionaries, in their order.
std::vector<std::string> waitingKeys();
std::vector<std::string> retryKeys();

/// One request the WireServer received, unwrapped.
struct WireRequest {
    std::string path;                 // path and query
    std::string encoding;             // Content-Encoding
    std::optional<zub::Value> json;   // the plain body parsed, when it is JSON
    std::string text;                 // the plain body
};

/// A loopback HTTP server for "/mstat/report" and "/" (the identifier path) that
/// deciphers each request with the configured key and answers what the handler
/// returns (a JSON text, enciphered). The default handler answers {"ret":0} to
/// reports and {"ret":0,"mid":"wire-mid"} to registrations.
class WireServer {
public:
    using Handler = std::function<std::string(const WireRequest&)>;

    WireServer();
    ~WireServer();
    void setHandler(Handler handler);
    void start();
    std::string url(const std::string& pathAndQuery) const { return server_.url(pathAndQuery); }

    std::vector<WireRequest> requests() const;
    /// The report requests only (path "/mstat/report").
    std::vector<WireRequest> reports() const;

private:
    LoopbackServer server_;
    mutable std::mutex mutex_;
    Handler handler_;                    // guarded by mutex_
    std::vector<WireRequest> requests_;  // guarded by mutex_
};

/// The "m5" values of the events in a report body (a JSON array), in order.
std::vector<std::string> m5sOf(const zub::Value& batch);

}  // namespace zubtest
