// ZUBHttp: the one channel to the report and identifier servers.
//
// httpPost wraps a plain JSON body for the wire and posts it:
//   fewer than 256 bytes: RC4(body), "Content-Encoding: rc4";
//   256 bytes or more:    RC4(length as 4 big-endian bytes || gzip(body)), "rc4,gzip".
// It blocks the calling thread (one of the library's queues, never the host's
// thread) until the reply arrives or `maxTime` seconds have passed, and returns
// the reply RC4-deciphered and parsed as JSON, whatever its JSON type.
// A connection-level failure gives {responseErrorKey: error value}, where the
// error value is {"domain", "code", "description"}; any other failure gives
// nothing. The singleton keeps no per-request state, so concurrent posts from
// different threads do not interfere.
#pragma once

#include "Platform/HttpClient.h"

#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>

/// Key of the error dictionary httpPost returns on a connection-level failure:
/// "KEY_RESPONSE_ERROR_KEY".
ZUB_EXTERN_C ZUB_EXPORT const char* const responseErrorKey;

class ZUBHttp {
public:
    static ZUBHttp& getInstance();

    ZUBHttp(const ZUBHttp&) = delete;
    ZUBHttp& operator=(const ZUBHttp&) = delete;

    std::optional<zub::Value> httpPost(const zub::Data& body, std::int64_t maxTime, const std::string& url);

    /// A POST request to `url` with the time limit and the two fixed headers
    /// ("Connection: keep-alive", "Content-Type: json").
    std::optional<zub::HttpRequest> getCommonRequest(std::int64_t maxTime, const std::string& url);
    /// The wire body for `body`, setting "Content-Encoding" on the request;
    /// nothing (and no header) when gzip fails.
    std::optional<zub::Data> compressData(const zub::Data& body, zub::HttpRequest& request);
    /// Sends the request and decodes the reply (see above).
    std::optional<zub::Value> handleReturnData(const zub::HttpRequest& request);
    /// RC4-deciphers the reply bytes and parses them as JSON; nothing when the
    /// bytes are empty or not JSON.
    std::optional<zub::Value> returnDataToDict(zub::Data data);

    // Kept as plain accessors; the send path does not read them.
    const zub::Value& sessionConfiguration() const { return sessionConfiguration_; }
    void setSessionConfiguration(zub::Value v) { sessionConfiguration_ = std::move(v); }
    const zub::Value& urlSession() const { return urlSession_; }
    void setUrlSession(zub::Value v) { urlSession_ = std::move(v); }

private:
    ZUBHttp() = default;

    zub::Value sessionConfiguration_;
    zub::Value urlSession_;
};
