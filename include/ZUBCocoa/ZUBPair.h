// zub::Pair: one key-value argument of an event, as a host writes it in a braced
// list:
//
//   ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}, {"qty", 2}});
//
// A braced list of pairs costs the calling thread far less than a zub::Value
// built from the same list: a pair only refers to the caller's key and value, and
// the library copies text, numbers and booleans into one small buffer before the
// call returns. Any other value (a nested list or object, nullptr, a zub::Value)
// is taken as a zub::Value. What reaches the wire is the same either way: the
// pairs in the order written; a key written twice keeps its first value; a null
// `const char*` value is JSON null. A null `const char*` key leaves its pair out
// (the debug log says so).
//
// A pair must not outlive the call it is written in (it refers to temporaries).
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace zub {

/// The key of a pair: any text; a null `const char*` is no key.
class PairKey {
public:
    PairKey(const char* key) : text_(key ? std::string_view(key) : std::string_view()), present_(key != nullptr) {}
    PairKey(std::string_view key) : text_(key) {}
    PairKey(const std::string& key) : text_(key) {}

    std::string_view text() const { return text_; }
    bool present() const { return present_; }

private:
    std::string_view text_;
    bool present_ = true;
};

namespace detail {
template <typename T>
inline constexpr bool isJsonValue = nlohmann::detail::is_basic_json<std::remove_cv_t<T>>::value;

// Values a pair holds without a zub::Value: booleans, numbers and text.
template <typename T>
concept PairScalar = !isJsonValue<T> && (std::is_arithmetic_v<T> || std::is_convertible_v<const T&, std::string_view>);
}  // namespace detail

class Pair {
public:
    enum class Kind : std::uint8_t { Text, Integer, Unsigned, Real, Boolean, Json };

    /// Text, numbers and booleans. (A template, so that a braced list as the
    /// value never reads as text: it becomes a zub::Value below.)
    template <typename T>
        requires detail::PairScalar<T>
    Pair(PairKey key, const T& value) : key_(key) {
        if constexpr (std::is_same_v<T, bool>) {
            kind_ = Kind::Boolean;
            boolean_ = value;
        } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
            kind_ = Kind::Integer;
            integer_ = static_cast<std::int64_t>(value);
        } else if constexpr (std::is_integral_v<T>) {
            kind_ = Kind::Unsigned;
            unsigned_ = static_cast<std::uint64_t>(value);
        } else if constexpr (std::is_floating_point_v<T>) {
            kind_ = Kind::Real;
            real_ = static_cast<double>(value);
        } else if constexpr (std::is_pointer_v<T>) {
            if (value) {
                kind_ = Kind::Text;
                text_ = std::string_view(value);
            } else {
                kind_ = Kind::Json;  // a null pointer is JSON null, as in a zub::Value
                json_ = &null();
            }
        } else {
            kind_ = Kind::Text;
            text_ = std::string_view(value);
        }
    }

    /// Anything else: a nested list or object, nullptr, a zub::Value.
    Pair(PairKey key, const Value& value) : key_(key), kind_(Kind::Json), json_(&value) {}

    const PairKey& key() const { return key_; }
    Kind kind() const { return kind_; }
    std::string_view text() const { return text_; }          // Kind::Text
    std::int64_t integer() const { return integer_; }        // Kind::Integer
    std::uint64_t unsignedInteger() const { return unsigned_; }  // Kind::Unsigned
    double real() const { return real_; }                    // Kind::Real
    bool boolean() const { return boolean_; }                // Kind::Boolean
    const Value& json() const { return *json_; }             // Kind::Json

private:
    static const Value& null() {
        static const Value* const kNull = new Value();  // never destroyed: used at exit too
        return *kNull;
    }

    PairKey key_;
    Kind kind_ = Kind::Json;
    union {
        const Value* json_ = nullptr;
        std::string_view text_;
        std::int64_t integer_;
        std::uint64_t unsigned_;
        double real_;
        bool boolean_;
    };
};

}  // namespace zub
