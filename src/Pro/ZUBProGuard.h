// Runs a host call so that nothing the library throws reaches the host: an
// exception is logged through the debug log and the call returns a default value.
#pragma once

#include "Common/ZUBProHelper.h"

#include <exception>
#include <type_traits>

template <typename F>
auto zubGuarded(const char* operation, F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("[ERROR]%@ failed: %@", operation, std::string_view(e.what()));
    } catch (...) {
        ZUBProHelper::LogDebug("[ERROR]%@ failed", operation);
    }
    if constexpr (!std::is_void_v<decltype(f())>) return decltype(f()){};
}
