// The text of a system error number as it reads inside a message:
// "permission denied", "address already in use".
#pragma once

#include <cctype>
#include <cstring>
#include <string>

namespace zubcollector {

inline std::string systemErrorText(int errorNumber) {
    char buffer[256];
    // The GNU strerror_r: returns the text, which may or may not be in `buffer`.
    std::string text = ::strerror_r(errorNumber, buffer, sizeof buffer);
    if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

}  // namespace zubcollector
