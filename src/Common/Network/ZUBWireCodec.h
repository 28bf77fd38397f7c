// The receiving side of the report channel's wrapping, shared by the collector
// and the tests: undo what ZUBHttp does to a body, and wrap a reply the way the
// library expects one (RC4 over plain JSON).
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zub {

struct UnwrapResult {
    std::optional<Data> plain;  // the plain body, when it could be recovered
    std::string error;          // why not, otherwise
};

class WireCodec {
public:
    /// Default ceiling on a declared plain length: 64 MiB.
    static constexpr std::size_t kDefaultMaxPlainSize = 64u << 20;

    /// Deciphers `wire` with `key` and, for the "rc4,gzip" encoding, checks the
    /// 4-byte big-endian length and inflates the gzip stream to exactly that
    /// length (never more than `maxPlainSize` bytes are produced).
    static UnwrapResult unwrapRequest(Data wire, std::string_view contentEncoding, std::string_view key,
                                      std::size_t maxPlainSize = kDefaultMaxPlainSize);

    /// RC4(JSON text) under `key`: the body of a reply.
    static Data wrapReply(const Value& reply, std::string_view key);
    static Data wrapReplyText(std::string_view jsonText, std::string_view key);
};

}  // namespace zub
