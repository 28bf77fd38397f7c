// zub::OptionalText: the text argument of the public calls, a string that may be
// absent.
//
// It is made, implicitly, from whatever a host has at hand: a string literal or a
// `const char*` (a null pointer is absent), a std::string or std::string_view, a
// std::optional<std::string> (std::nullopt is absent), or nullptr. A null pointer
// handed over from C code or a plug-in thus reaches the library as "absent" and
// never as a std::string made from null, which would end the program. What
// "absent" does is each call's own rule (ZUBPro.h says it per call).
//
//   ZUBPro::setCustomUserID(user ? user->name : nullptr);   // absent: no "cui"
//
// The text is copied; the argument may be destroyed once the call returns.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zub {

class OptionalText {
public:
    OptionalText() = default;
    OptionalText(std::nullopt_t) {}
    OptionalText(std::nullptr_t) {}
    OptionalText(const char* text) {
        if (text) text_.emplace(text);
    }
    OptionalText(std::string_view text) : text_(std::in_place, text) {}
    OptionalText(const std::string& text) : text_(text) {}
    OptionalText(std::string&& text) : text_(std::move(text)) {}
    OptionalText(const std::optional<std::string>& text) : text_(text) {}
    OptionalText(std::optional<std::string>&& text) : text_(std::move(text)) {}

    bool has_value() const noexcept { return text_.has_value(); }
    /// The text, or std::nullopt when absent.
    const std::optional<std::string>& text() const& noexcept { return text_; }
    std::optional<std::string> text() && noexcept { return std::move(text_); }

private:
    std::optional<std::string> text_;
};

}  // namespace zub
