// Debug log of ZUBProHelper: printf-like message forming and the "[ZUBDebug]" line.
#include "Common/ZUBProHelper.h"

#include "Platform/SystemLog.h"

#include <charconv>
#include <cstring>

namespace {

bool isFlagOrWidth(char c) {
    return std::strchr("-+ #0123456789.*'", c) != nullptr;
}
bool isLengthModifier(char c) {
    return std::strchr("hlqLjzt", c) != nullptr;
}
bool isConversion(char c) {
    return std::strchr("@dDiuUxXoOfFeEgGaAcCsSp", c) != nullptr;
}

}  // namespace

std::string ZUBProHelper::formatMessage(std::string_view format, const std::vector<std::string>& args) {
    std::string out;
    out.reserve(format.size() + 32);
    std::size_t next = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char c = format[i];
        if (c != '%') {
            out.push_back(c);
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            out.push_back('%');
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        while (j < format.size() && isFlagOrWidth(format[j])) ++j;
        while (j < format.size() && isLengthModifier(format[j])) ++j;
        if (j < format.size() && isConversion(format[j])) {
            if (next < args.size()) out += args[next++];
            i = j;
            continue;
        }
        // Not a conversion: keep the text as written.
        out.push_back('%');
    }
    return out;
}

void ZUBProHelper::writeDebug(std::string_view format, const std::vector<std::string>& args) {
    // The caller's format is prefixed and stays a format, as the platform log did it.
    std::string prefixed = "[ZUBDebug] ";
    prefixed.append(format);
    zub::SystemLog::write(formatMessage(prefixed, args));
}

std::string ZUBProHelper::logText(double d) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
    return std::string(buffer, result.ptr);
}

void ZUBProHelper::trackError(std::string_view message) {
    LogDebug("error :%@", message);
}

void ZUBProHelper::trackException(const std::exception& exception) {
    // The format has a lone "%" and no placeholder, so the description is never shown.
    LogDebug("exception :%", std::string_view(exception.what()));
}
