// The platform-independent decoding half of WifiInfo.
#include "Platform/WifiInfo.h"

#include <cstdio>

namespace zub {
namespace {

bool isUtf8(const std::uint8_t* s, std::size_t n) {
    std::size_t i = 0;
    while (i < n) {
        const std::uint8_t c = s[i];
        std::size_t extra;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= n) return false;  // truncated sequence
        for (std::size_t k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if ((extra == 1 && cp < 0x80) || (extra == 2 && cp < 0x800) || (extra == 3 && cp < 0x10000) ||
            (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

}  // namespace

std::optional<std::string> WifiInfo::ssidText(const std::uint8_t* octets, std::size_t size) {
    if (!octets || size == 0 || size > 32 || !isUtf8(octets, size)) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(octets), size);
}

std::optional<std::string> WifiInfo::ssidFromInformationElements(const std::uint8_t* ies, std::size_t size) {
    std::size_t pos = 0;
    while (ies && pos + 2 <= size) {
        const std::uint8_t id = ies[pos];
        const std::size_t len = ies[pos + 1];
        if (pos + 2 + len > size) return std::nullopt;
        if (id == 0) return ssidText(ies + pos + 2, len);
        pos += 2 + len;
    }
    return std::nullopt;
}

std::string WifiInfo::bssidText(const std::uint8_t (&mac)[6]) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

}  // namespace zub
