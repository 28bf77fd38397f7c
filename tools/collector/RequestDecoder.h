// Decoding of what clients post to the collector: the wire wrapping (RC4, and for
// "rc4,gzip" a 4-byte big-endian plain length in front of a gzip stream), then the
// JSON of a report batch or of an identifier request.
//
// Pure functions of their inputs: no I/O, no shared state, safe on any thread.
// Nothing throws; every refusal comes back as a DecodeError whose `ret` is the
// code the collector answers with and whose message says what was wrong.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zubcollector {

/// Result codes of the collector's replies ("ret").
enum ReplyCode : int {
    kRetOk = 0,
    kRetBadWrapping = 1,  // the wire wrapping could not be undone (encoding, key, length, gzip)
    kRetNotJson = 2,      // the plain body is not JSON text
    kRetBadShape = 3,     // JSON, but not a batch of event objects / not an identifier request
    kRetTooLarge = 4,     // the body is over the size limit
    kRetStorage = 5,      // the collector could not store what it received
};

struct DecodeError {
    int ret = kRetBadWrapping;
    std::string message;
};

/// One event of a batch: the envelope keys the collector indexes, and the whole object.
struct EventRecord {
    std::optional<std::string> appKey;  // "ky"
    std::optional<std::string> mid;     // "mid"
    std::optional<std::string> ifv;     // "ifv"
    std::optional<std::string> ioa;     // "ioa"
    std::optional<std::string> ui;      // "ui"
    std::optional<std::int64_t> type;     // "et"
    std::optional<std::int64_t> session;  // "si"
    std::optional<std::int64_t> time;     // "ts"
    std::optional<std::int64_t> index;    // "idx"
    /// For a session event that reports them ("cfg": {"1": {"v"}, "2": {"v"}}):
    /// the versions of the configuration blocks the client holds.
    std::optional<std::int64_t> sdkConfigVersion;
    std::optional<std::int64_t> appConfigVersion;
    /// The event's identity across resends, when it carries one: the library
    /// gives every event a key ("m5") that stays the same however often it is
    /// sent, unlike "idx" (made anew at each sending). With the session ("si")
    /// and the device's OpenUDID ("ui") it tells a resent event from a new one.
    /// The mid and "ky" are left out: an event sent before the device had its mid
    /// comes back with one, and a restored event takes the configured key.
    std::optional<std::string> key;
    std::string json;  // the whole event object as compact JSON text
    zub::Value object;  // the same object, parsed (read by the dashboard's summaries)
};

/// The record of one event object of a batch (which it keeps as `object`).
EventRecord eventRecordOf(zub::Value event);

struct ReportBatch {
    std::vector<EventRecord> events;
    std::string encoding;  // the Content-Encoding it arrived with
    std::size_t plainSize = 0;
    std::optional<DecodeError> error;
};

/// An identifier request: the device's identifiers ("" when not sent).
struct MidRequest {
    std::string ifv;
    std::string ioa;
    std::string ui;
    std::string mid;
    std::optional<DecodeError> error;
};

struct DecodeLimits {
    /// Ceiling on the plain (deciphered, inflated) body.
    std::size_t maxPlainBytes = 32u << 20;
    /// Deepest nesting of arrays and objects accepted in the JSON text.
    std::size_t maxDepth = 64;
};

/// Undoes the wire wrapping and parses a report batch: a JSON array of objects.
/// An empty body (the client posts one when none of its events could be sent)
/// is an empty batch, not an error.
ReportBatch decodeReport(zub::Data wire, std::string_view contentEncoding, std::string_view key,
                         const DecodeLimits& limits = {});

/// Undoes the wire wrapping and parses an identifier request: a JSON object whose
/// "ifv", "ioa", "ui" and "mid" are strings when present; at least one of them
/// must be non-empty.
MidRequest decodeMidRequest(zub::Data wire, std::string_view contentEncoding, std::string_view key,
                            const DecodeLimits& limits = {});

/// The deepest nesting of arrays and objects in a JSON text (strings skipped).
std::size_t jsonNestingDepth(std::string_view text);

}  // namespace zubcollector
