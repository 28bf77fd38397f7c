// A blocking HTTP POST over libcurl, the stand-in for the platform's synchronous
// URL connection.
//
// post() blocks the calling thread until the exchange is over or the whole-request
// time limit has passed. Each thread keeps its own connection handle, so repeated
// posts from one queue reuse the kept-alive connection; different threads never
// share a handle. https is verified against the system's certificate store.
//
// Redirects are followed as the platform's URL loading follows them, at most
// kMaxRedirects in a row: 307 and 308 repeat the POST with its body and headers;
// 301, 302 and 303 continue with a GET without a body (what browsers do, and what
// libcurl does unless CURLOPT_POSTREDIR asks otherwise). Only http and https
// targets are followed.
//
// Connection-level failures come back as an HttpError carrying the platform's URL
// error codes: -1001 timed out, -1003 host not found, -1004 cannot connect,
// -1005 connection lost, -1007 too many redirects, -1009 not connected to the
// internet (no route to the network, or a name that cannot be looked up while the
// machine has no default route), -1000 bad URL, -1002 unsupported URL, -1200
// secure connection failed, -1 anything else.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zub {

struct HttpRequest {
    std::string url;
    std::string method = "POST";
    double timeoutSeconds = 60;
    std::vector<std::pair<std::string, std::string>> headers;  // set, not appended
    Data body;

    /// Sets a header, replacing one of the same name (case-insensitive).
    void setHeader(const std::string& name, const std::string& value);
    /// Removes a header of that name, if present.
    void removeHeader(const std::string& name);
    /// The value of a header, if present.
    std::optional<std::string> header(const std::string& name) const;
};

struct HttpError {
    static constexpr const char* kDomain = "NSURLErrorDomain";
    long code = -1;
    std::string description;

    /// The error as a value: {"domain", "code", "description"}.
    Value toValue() const;
    /// The text the platform gives an error: Error Domain=... Code=... "...".
    std::string fullDescription() const;
};

struct HttpResponse {
    long status = 0;
    Data body;
};

class HttpClient {
public:
    static constexpr int kMaxRedirects = 10;

    /// Sends the request. On a completed exchange (whatever the status) fills
    /// `response` and returns nullopt; on a connection-level failure returns the error.
    static std::optional<HttpError> send(const HttpRequest& request, HttpResponse& response);

    /// The platform error for a failed exchange: libcurl's result code, the
    /// operating-system error it saw, whether the kernel shows a usable default
    /// route, and curl's detail text (appended in parentheses when present).
    static HttpError errorFor(int curlCode, long osErrno, bool internetReachable, const char* detail = nullptr);
};

}  // namespace zub
