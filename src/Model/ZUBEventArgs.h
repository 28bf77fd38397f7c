// ZUBEventArgs: the key-value pairs of a custom event, kept small while the event
// waits to be sent.
//
// Pairs of text, numbers and booleans (the usual case, handed over as a braced
// list of zub::Pair) are packed into bytes: for each pair a kind byte, the key's
// length and bytes, then the value (length and bytes for text, 8 bytes for a
// number, 1 for a boolean); lengths are written in 7-bit groups, so a short key
// or text costs one length byte. A few short pairs fit in the object itself, so
// packing them allocates nothing on the host's thread; the zub::Value of the
// pairs is built only where the event is written, on the library's queue. Pairs given as a zub::Value (or holding nested values) are
// kept as that Value.
#pragma once

#include <ZUBCocoa/ZUBPair.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
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
    ZUBEventArgs(ZUBEventArgs&& other) noexcept { *this = std::move(other); }
    ZUBEventArgs& operator=(ZUBEventArgs&& other) noexcept;
    ZUBEventArgs(const ZUBEventArgs&) = delete;
    ZUBEventArgs& operator=(const ZUBEventArgs&) = delete;
    ~ZUBEventArgs() = default;

    /// Copies the pairs' keys and values; an empty list is none. A pair without a
    /// key is left out and logged under `eventID`.
    static ZUBEventArgs pack(std::initializer_list<zub::Pair> pairs, const std::optional<std::string>& eventID);
    /// No pairs at all (not even an empty object).
    bool absent() const { return size_ == 0 && !value_; }
    /// The pairs as a JSON object (keys in order, the first of a repeated key
    /// kept), or null when absent.
    zub::Value toValue() const;

private:
    // A few short pairs (the usual case) fit in the object itself, so tracking
    // them allocates nothing beyond the event; longer ones go to the heap.
    static constexpr std::size_t kInlineBytes = 44;
    const char* bytes() const { return heap_ ? heap_.get() : inline_; }

    std::unique_ptr<char[]> heap_;       // the packed pairs when they do not fit inline_
    std::unique_ptr<zub::Value> value_;  // pairs that came as a Value; none when packed or absent
    std::uint32_t size_ = 0;             // bytes of packed pairs
    char inline_[kInlineBytes];          // the packed pairs when they fit; only size_ bytes are set
};
