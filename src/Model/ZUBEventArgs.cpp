#include "Model/ZUBEventArgs.h"

#include "Common/ZUBProHelper.h"

#include <cstdint>
#include <cstring>
#include <limits>

namespace {

using Kind = zub::Pair::Kind;

template <typename T>
char* put(char* at, T value) {
    std::memcpy(at, &value, sizeof(T));
    return at + sizeof(T);
}

// Lengths in 7-bit groups, low group first; the high bit says another follows.
std::size_t lengthSize(std::size_t length) {
    std::size_t bytes = 1;
    for (; length >= 0x80; length >>= 7) ++bytes;
    return bytes;
}

char* putText(char* at, std::string_view text) {
    std::size_t length = text.size();
    for (; length >= 0x80; length >>= 7) *at++ = static_cast<char>((length & 0x7f) | 0x80);
    *at++ = static_cast<char>(length);
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

template <typename T>
T take(const char*& at) {
    T value;
    std::memcpy(&value, at, sizeof(T));
    at += sizeof(T);
    return value;
}

std::string_view takeText(const char*& at) {
    std::size_t length = 0;
    for (unsigned shift = 0;; shift += 7) {
        const auto byte = static_cast<unsigned char>(*at++);
        length |= static_cast<std::size_t>(byte & 0x7f) << shift;
        if ((byte & 0x80) == 0) break;
    }
    const std::string_view text(at, length);
    at += length;
    return text;
}

std::size_t textSize(std::string_view text) {
    return lengthSize(text.size()) + text.size();
}

std::size_t packedSize(const zub::Pair& pair) {
    const std::size_t head = 1 + textSize(pair.key().text());
    switch (pair.kind()) {
        case Kind::Text:
            return head + textSize(pair.text());
        case Kind::Boolean:
            return head + 1;
        default:
            return head + 8;
    }
}

}  // namespace

ZUBEventArgs ZUBEventArgs::pack(std::initializer_list<zub::Pair> pairs, const std::optional<std::string>& eventID) {
    ZUBEventArgs args;
    std::size_t size = 0;
    bool nested = false;
    bool keyless = false;
    for (const zub::Pair& pair : pairs) {
        nested = nested || pair.kind() == Kind::Json;
        keyless = keyless || !pair.key().present();
        size += packedSize(pair);
    }
    // Beyond what the packed length holds (never in practice): kept as a Value.
    nested = nested || size > std::numeric_limits<std::uint32_t>::max();
    if (nested) {
        // Rare: nested values are copied as they are, into one JSON object.
        args.value_ = std::make_unique<zub::Value>(zub::Value::object());
        zub::Value& object = *args.value_;
        for (const zub::Pair& pair : pairs) {
            if (!pair.key().present()) continue;
            std::string key(pair.key().text());
            if (object.contains(key)) continue;
            switch (pair.kind()) {
                case Kind::Text: object[key] = std::string(pair.text()); break;
                case Kind::Integer: object[key] = pair.integer(); break;
                case Kind::Unsigned: object[key] = pair.unsignedInteger(); break;
                case Kind::Real: object[key] = pair.real(); break;
                case Kind::Boolean: object[key] = pair.boolean(); break;
                case Kind::Json: object[key] = pair.json(); break;
            }
        }
    } else if (size > 0) {
        // Sized once and written in place.
        char* const start = size <= kInlineBytes ? args.inline_ : (args.heap_ = std::make_unique_for_overwrite<char[]>(size)).get();
        char* at = start;
        for (const zub::Pair& pair : pairs) {
            if (!pair.key().present()) continue;
            *at++ = static_cast<char>(pair.kind());
            at = putText(at, pair.key().text());
            switch (pair.kind()) {
                case Kind::Text: at = putText(at, pair.text()); break;
                case Kind::Integer: at = put(at, pair.integer()); break;
                case Kind::Unsigned: at = put(at, pair.unsignedInteger()); break;
                case Kind::Real: at = put(at, pair.real()); break;
                case Kind::Boolean: *at++ = pair.boolean() ? 1 : 0; break;
                case Kind::Json: break;  // not here: nested pairs took the branch above
            }
        }
        args.size_ = static_cast<std::uint32_t>(at - start);  // keyless pairs left out
    }
    if (keyless) {
        for (const zub::Pair& pair : pairs) {
            if (!pair.key().present()) {
                ZUBProHelper::LogDebug("[WARN]a pair of event %@ has a null key; it is left out", eventID);
            }
        }
    }
    return args;
}

ZUBEventArgs& ZUBEventArgs::operator=(ZUBEventArgs&& other) noexcept {
    if (this == &other) return *this;
    heap_ = std::move(other.heap_);
    value_ = std::move(other.value_);
    size_ = other.size_;
    if (!heap_) std::memcpy(inline_, other.inline_, size_);
    other.size_ = 0;
    return *this;
}

zub::Value ZUBEventArgs::toValue() const {
    if (size_ == 0) return value_ ? *value_ : zub::Value();
    zub::Value object = zub::Value::object();
    const char* at = bytes();
    const char* const end = at + size_;
    while (at < end) {
        const auto kind = static_cast<Kind>(*at++);
        const std::string_view key = takeText(at);
        zub::Value value;
        switch (kind) {
            case Kind::Text: value = std::string(takeText(at)); break;
            case Kind::Integer: value = take<std::int64_t>(at); break;
            case Kind::Unsigned: value = take<std::uint64_t>(at); break;
            case Kind::Real: value = take<double>(at); break;
            case Kind::Boolean: value = *at++ != 0; break;
            case Kind::Json: break;
        }
        // A repeated key keeps its first value, as a Value built from the same list does.
        object.emplace(std::string(key), std::move(value));
    }
    return object;
}
