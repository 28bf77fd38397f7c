// HostInfo on Linux: the kernel's host name and uname, DMI, os-release, the zone
// database link, the locale variables and the DRM connectors in sysfs.
#include "Platform/HostInfo.h"

#include <algorithm>
#include <cstdlib>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

namespace zub {
namespace {

std::string trimmed(std::string_view s) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0'; };
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return std::string(s);
}

std::string firstLine(std::string_view s) {
    return trimmed(s.substr(0, s.find('\n')));
}

std::optional<std::string> nonEmpty(std::string s) {
    if (s.empty()) return std::nullopt;
    return s;
}

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

// "1920x1080" (optionally followed by letters such as "i") as width and height.
bool parseMode(std::string_view mode, double& width, double& height) {
    const std::size_t x = mode.find('x');
    if (x == std::string_view::npos || x == 0) return false;
    const std::string w(mode.substr(0, x));
    const std::string h(mode.substr(x + 1));
    char* end = nullptr;
    const long wv = std::strtol(w.c_str(), &end, 10);
    if (end == w.c_str() || *end != '\0' || wv <= 0) return false;
    const long hv = std::strtol(h.c_str(), &end, 10);
    if (end == h.c_str() || hv <= 0) return false;
    width = static_cast<double>(wv);
    height = static_cast<double>(hv);
    return true;
}

}  // namespace

std::optional<std::string> HostInfo::computerName() {
    if (auto info = readFile("/etc/machine-info")) {
        if (auto pretty = shellVariable(*info, "PRETTY_HOSTNAME"); pretty && !trimmed(*pretty).empty()) {
            return trimmed(*pretty);
        }
    }
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) == 0 && name[0] != '\0') return std::string(name);
    if (auto file = readFile("/etc/hostname")) return nonEmpty(firstLine(*file));
    return std::nullopt;
}

std::optional<std::string> HostInfo::machine() {
    struct utsname u {};
    if (::uname(&u) != 0) return std::nullopt;
    return nonEmpty(u.machine);
}

std::optional<std::string> HostInfo::model() {
    auto text = readFile("/sys/class/dmi/id/product_name", 4096);
    if (!text) return std::nullopt;
    return nonEmpty(trimmed(*text));
}

std::optional<std::string> HostInfo::osVersion() {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        auto text = readFile(path);
        if (!text) continue;
        if (auto v = shellVariable(*text, "VERSION_ID")) return *v;
    }
    return std::nullopt;
}

std::string HostInfo::timeZoneName() {
    const std::string tz = env("TZ");
    if (!tz.empty()) {
        const std::string name = zoneNameFromPath(tz);
        if (!name.empty()) return name;
    }
    std::error_code ec;
    const std::filesystem::path target = std::filesystem::read_symlink(resolve("/etc/localtime"), ec);
    if (!ec) {
        const std::string name = zoneNameFromPath(target.string());
        if (!name.empty()) return name;
    }
    if (auto file = readFile("/etc/timezone", 4096)) {
        const std::string name = firstLine(*file);
        if (!name.empty()) return name;
    }
    return "UTC";
}

std::optional<std::string> HostInfo::preferredLanguage() {
    std::string locale;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        locale = env(name);
        if (!locale.empty()) break;
    }
    const auto localeTag = languageTag(locale);
    if (!localeTag) return std::nullopt;
    const std::string language = env("LANGUAGE");
    std::size_t pos = 0;
    while (pos <= language.size()) {
        std::size_t end = language.find(':', pos);
        if (end == std::string::npos) end = language.size();
        if (auto tag = languageTag(std::string_view(language).substr(pos, end - pos))) return tag;
        pos = end + 1;
    }
    return localeTag;
}

std::optional<ScreenInfo> HostInfo::mainScreen() {
    std::vector<std::string> connectors;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(resolve("/sys/class/drm"), ec), end; !ec && it != end;
         it.increment(ec)) {
        const std::string name = it->path().filename().string();
        // Connectors are "card<N>-<type>-<index>"; "card<N>" alone is the device.
        if (name.rfind("card", 0) == 0 && name.find('-') != std::string::npos) connectors.push_back(name);
    }
    std::sort(connectors.begin(), connectors.end());
    for (const std::string& name : connectors) {
        const std::string dir = "/sys/class/drm/" + name;
        const auto status = readFile(dir + "/status", 256);
        if (!status || firstLine(*status) != "connected") continue;
        const auto modes = readFile(dir + "/modes", 65536);
        ScreenInfo screen;
        if (!modes || !parseMode(firstLine(*modes), screen.width, screen.height)) continue;
        screen.depth = 24;
        if (auto bpp = readFile("/sys/class/graphics/fb0/bits_per_pixel", 64)) {
            const std::string text = firstLine(*bpp);
            char* endp = nullptr;
            const long v = std::strtol(text.c_str(), &endp, 10);
            if (endp != text.c_str() && v > 0 && v <= 64) screen.depth = static_cast<std::int32_t>(v);
        }
        return screen;
    }
    return std::nullopt;
}

}  // namespace zub
