// Shared pieces of the C interface: text checks, owned result strings, status
// texts and the exception guard.
#include "CApi/CApiSupport.h"

#include "Common/ZUBProHelper.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

namespace zub::capi {

bool isUtf8(std::string_view text) noexcept {
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        std::uint32_t min = 0;
        std::uint32_t code = 0;
        if ((c & 0xE0) == 0xC0) {
            length = 2, min = 0x80, code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3, min = 0x800, code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4, min = 0x10000, code = c & 0x07;
        } else {
            return false;  // a continuation byte without a lead, or 0xF8..0xFF
        }
        if (n - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            code = (code << 6) | (s[i + k] & 0x3F);
        }
        // Overlong forms, UTF-16 surrogates and values past U+10FFFF are not UTF-8.
        if (code < min || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return false;
        i += length;
    }
    return true;
}

zub_status refuse(const char* function, zub_status status, std::string_view what) {
    ZUBProHelper::LogDebug("[ERROR]%@: %@ (%@)", function, what, zub_status_text(status));
    return status;
}

namespace {

zub_status checkUtf8(const char* function, const char* name, const char* text) {
    if (isUtf8(text)) return ZUB_OK;
    return refuse(function, ZUB_ERR_INVALID_UTF8, std::string(name) + " is not UTF-8 text");
}

}  // namespace

zub_status requiredText(const char* function, const char* name, const char* text, std::string& out) {
    if (!text) return refuse(function, ZUB_ERR_NULL_ARGUMENT, std::string(name) + " is NULL");
    if (const zub_status s = checkUtf8(function, name, text); s != ZUB_OK) return s;
    out = text;
    return ZUB_OK;
}

zub_status optionalText(const char* function, const char* name, const char* text, OptionalText& out) {
    if (!text) {
        out = std::nullopt;
        return ZUB_OK;
    }
    if (const zub_status s = checkUtf8(function, name, text); s != ZUB_OK) return s;
    out = text;
    return ZUB_OK;
}

zub_status requiredName(const char* function, const char* name, const char* text, std::string& out) {
    if (const zub_status s = requiredText(function, name, text, out); s != ZUB_OK) return s;
    if (out.empty()) return refuse(function, ZUB_ERR_INVALID_ARGUMENT, std::string(name) + " is empty");
    return ZUB_OK;
}

zub_status copyOut(const char* function, const std::string& text, char** out) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) return refuse(function, ZUB_ERR_NO_MEMORY, "no memory for the result");
    std::memcpy(copy, text.c_str(), text.size() + 1);
    *out = copy;
    return ZUB_OK;
}

zub_status fromException(const char* function) noexcept {
    try {
        try {
            throw;
        } catch (const std::bad_alloc&) {
            return refuse(function, ZUB_ERR_NO_MEMORY, "out of memory");
        } catch (const std::exception& e) {
            return refuse(function, ZUB_ERR_INTERNAL, e.what());
        } catch (...) {
            return refuse(function, ZUB_ERR_INTERNAL, "unknown exception");
        }
    } catch (...) {
        return ZUB_ERR_INTERNAL;  // logging itself failed
    }
}

}  // namespace zub::capi

extern "C" {

const char* zub_status_text(int status) {
    switch (status) {
        case ZUB_OK: return "ok";
        case ZUB_NOT_DELIVERED: return "not delivered yet";
        case ZUB_ERR_NULL_ARGUMENT: return "null argument";
        case ZUB_ERR_INVALID_UTF8: return "invalid UTF-8";
        case ZUB_ERR_INVALID_ARGUMENT: return "invalid argument";
        case ZUB_ERR_NOT_FOUND: return "not found";
        case ZUB_ERR_NO_MEMORY: return "out of memory";
        case ZUB_ERR_INTERNAL: return "internal error";
        default: return "unknown status";
    }
}

const char* zub_version(void) {
    return ZUB_LIBRARY_VERSION;
}

void zub_string_free(char* string) {
    std::free(string);
}

}  // extern "C"
