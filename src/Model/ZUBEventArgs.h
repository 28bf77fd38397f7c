// ZUBEventArgs: the key-value pairs of a custom event, kept small while the event
// waits to be sent.
//
// Pairs of text, numbers and booleans (the usual case, handed over as a braced
// list of zub::Pair) are packed into one string: for each pair a kind byte, the
// key's length and bytes, then the value (length and bytes for text, 8 bytes for
// a number, 1 for a boolean). Packing costs the host's thread one allocation;
// the zub::Value of the pairs is built only where the event is written, on the
// library's queue. Pairs given as a zub::Value (or holding nested values) are
// kept as that Value.
#pragma once

#include <ZUBCocoa/ZUBPair.h>
#include <ZUBCocoa/ZUBValue.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

class ZUBEventArgs {
public:
    /// No pairs: the event carries no "kv".
    ZUBEventArgs() = default;
    /// Pairs as a JSON object; null is none. (Checking the shape is the caller's.)
    explicit ZUBEventArgs(zub::Value dict)
        : value_(dict.is_null() ? nullptr : std::make_unique<zub::Value>(std::move(dict))) {}
    /// Copies the pairs' keys and values; an empty list is none. A pair without a
    /// key is left out and logged under `eventID`.
    static ZUBEventArgs pack(std::initializer_list<zub::Pair> pairs, const std::optional<std::string>& eventID);

    /// No pairs at all (not even an empty object).
    bool absent() const { return packed_.empty() && !value_; }
    /// The pairs as a JSON object (keys in order, the first of a repeated key
    /// kept), or null when absent.
    zub::Value toValue() const;

private:
    std::string packed_;
    std::unique_ptr<zub::Value> value_;  // pairs that came as a Value; none when packed or absent
};
