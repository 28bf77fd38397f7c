// What every function of the C interface (zub.h) shares: turning C strings into
// the facade's text after checking them, writing owned strings back, and the
// guard that keeps every exception inside and turns it into a status.
#pragma once

#include <ZUBCocoa/ZUBText.h>
#include <ZUBCocoa/zub.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zub::capi {

/// True when the bytes are well-formed UTF-8: no overlong forms, no surrogates,
/// nothing above U+10FFFF.
bool isUtf8(std::string_view text) noexcept;

/// Logs a refused call ("[ERROR]<function>: <what>") and returns `status`.
zub_status refuse(const char* function, zub_status status, std::string_view what);

/// Checks one text argument. A required text must be present; an optional NULL
/// becomes absent. Text that is not UTF-8 is refused. On success `out` holds the
/// text (or absent) and ZUB_OK is returned; otherwise the refusal is logged.
zub_status requiredText(const char* function, const char* name, const char* text, std::string& out);
zub_status optionalText(const char* function, const char* name, const char* text, OptionalText& out);
/// A required text that must also be non-empty (names and identifiers).
zub_status requiredName(const char* function, const char* name, const char* text, std::string& out);

/// Copies `text` into a string the caller frees with zub_string_free.
zub_status copyOut(const char* function, const std::string& text, char** out);

/// The status of the exception being handled (ZUB_ERR_NO_MEMORY or
/// ZUB_ERR_INTERNAL), logged with the function's name.
zub_status fromException(const char* function) noexcept;

/// Runs `body` (returning zub_status); an exception becomes a status through
/// fromException. Nothing propagates to the C caller.
template <typename Body>
zub_status guarded(const char* function, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return fromException(function);
    }
}

}  // namespace zub::capi
