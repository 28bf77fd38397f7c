// CBOR (RFC 8949) encoding and guarded decoding of zub::Value, for the bytes the
// library writes to disk and reads back (user defaults, keyed archives).
//
// Decoding takes bytes from outside the process: before handing them to the
// JSON library's CBOR reader, a scan checks that the input is one complete item,
// that every declared string length fits in the input and that containers nest
// no deeper than a limit, so hostile input cannot exhaust the stack or make the
// reader reserve memory it will never fill. Tags are skipped. Pure functions,
// any thread, never throw.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstddef>
#include <optional>
#include <string>

namespace zub {

class Cbor {
public:
    static constexpr std::size_t kMaxDepth = 512;

    /// The CBOR bytes of a value; empty Data only if the value cannot be encoded.
    static Data encode(const Value& value);
    /// The value encoded in `bytes`, or std::nullopt with a short reason in
    /// `*why` (when given) for truncated, malformed, trailing or too deeply
    /// nested input.
    static std::optional<Value> decode(const Data& bytes, std::string* why = nullptr);
    static std::optional<Value> decode(const std::uint8_t* data, std::size_t size, std::string* why = nullptr);
};

}  // namespace zub
