// The host's way to point the library at a collector: the report and identifier
// URLs of the local configuration, checked before they are taken.
#include <ZUBCocoa/ZUBEndpoints.h>

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Pro/ZUBProGuard.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

constexpr std::string_view kReportPath = "/mstat/report";
constexpr std::string_view kMidPathAndQuery = "/?t=ios&ver=2.0";

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
           });
}

// The length of "scheme://" for http and https URLs, 0 for anything else.
std::size_t schemeLength(std::string_view url) {
    if (startsWithNoCase(url, "http://")) return 7;
    if (startsWithNoCase(url, "https://")) return 8;
    return 0;
}

bool hasBadCharacters(std::string_view url) {
    return std::any_of(url.begin(), url.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u <= 0x20 || u == 0x7F;
    });
}

// The authority ("host[:port]") of an http(s) URL, or empty when the URL is not one.
std::string_view authorityOf(std::string_view url) {
    const std::size_t scheme = schemeLength(url);
    if (scheme == 0 || hasBadCharacters(url)) return {};
    const std::string_view rest = url.substr(scheme);
    return rest.substr(0, rest.find_first_of("/?#"));
}

bool isUsableURL(std::string_view url) {
    const std::string_view authority = authorityOf(url);
    // A host is needed; "host:" alone or ":port" alone is no address.
    return !authority.empty() && authority.front() != ':' && authority.back() != ':';
}

}  // namespace

namespace zub {

bool setEndpoints(OptionalText reportText, OptionalText midText) {
    return zubGuarded("setEndpoints", [&] {
        const std::string reportURL = reportText.text().value_or("");
        const std::string midURL = midText.text().value_or("");
        if (!isUsableURL(reportURL) || !isUsableURL(midURL)) {
            ZUBProHelper::LogDebug("[ERROR]endpoints not changed: %@ and %@ must both be http(s) URLs with a host",
                                   reportURL, midURL);
            return false;
        }
        ZUBProConfig& config = ZUBProConfig::getInstance();
        config.setReportURL(reportURL);
        config.setMidURL(midURL);
        ZUBProHelper::LogDebug("report endpoint %@, identifier endpoint %@", reportURL, midURL);
        return true;
    });
}

bool setCollectorAddress(OptionalText baseText) {
    return zubGuarded("setCollectorAddress", [&] {
        const std::string baseURL = baseText.text().value_or("");
        std::string_view base = baseURL;
        if (!base.empty() && base.back() == '/') base.remove_suffix(1);
        const std::string_view authority = authorityOf(base);
        // Nothing may follow the authority but the one trailing "/" removed above.
        if (!isUsableURL(base) || schemeLength(base) + authority.size() != base.size()) {
            ZUBProHelper::LogDebug("[ERROR]endpoints not changed: %@ is not a collector address like http://host:port",
                                   baseURL);
            return false;
        }
        return setEndpoints(std::string(base) + std::string(kReportPath),
                            std::string(base) + std::string(kMidPathAndQuery));
    });
}

Endpoints endpoints() {
    return zubGuarded("endpoints", [] {
        ZUBProConfig& config = ZUBProConfig::getInstance();
        return Endpoints{config.reportURL().value_or(""), config.midURL().value_or("")};
    });
}

}  // namespace zub
