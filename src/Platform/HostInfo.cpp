// The platform-independent half of HostInfo: the movable root and text helpers.
#include "Platform/HostInfo.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace zub {
namespace {

std::mutex gRootMutex;
// Never destroyed: queue threads may still resolve paths while the process exits.
std::filesystem::path& gRoot = *new std::filesystem::path("/");  // guarded by gRootMutex

bool isCLocale(std::string_view name) {
    return name.empty() || name == "C" || name == "POSIX";
}

}  // namespace

std::filesystem::path HostInfo::root() {
    std::lock_guard<std::mutex> lock(gRootMutex);
    return gRoot;
}

void HostInfo::setRoot(const std::filesystem::path& root) {
    std::lock_guard<std::mutex> lock(gRootMutex);
    gRoot = root.empty() ? std::filesystem::path("/") : root;
}

std::filesystem::path HostInfo::resolve(std::string_view absolutePath) {
    return root() / std::filesystem::path(absolutePath).relative_path();
}

bool HostInfo::fileExists(std::string_view absolutePath) {
    std::error_code ec;
    return std::filesystem::exists(resolve(absolutePath), ec) && !ec;
}

std::optional<std::string> HostInfo::readFile(std::string_view absolutePath, std::size_t limit) {
    const std::filesystem::path path = resolve(absolutePath);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buffer[4096];
    bool failed = false;
    while (out.size() < limit) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            failed = true;
            break;
        }
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    if (failed) return std::nullopt;
    if (out.size() > limit) out.resize(limit);
    return out;
}

std::optional<std::string> HostInfo::shellVariable(std::string_view text, std::string_view key) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
        if (line.size() <= key.size() || line.substr(0, key.size()) != key || line[key.size()] != '=') continue;
        std::string_view raw = line.substr(key.size() + 1);
        while (!raw.empty() && (raw.back() == '\r' || raw.back() == ' ' || raw.back() == '\t')) raw.remove_suffix(1);
        std::string value;
        char quote = 0;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            const char c = raw[i];
            if (quote == '\'') {
                if (c == '\'') quote = 0;
                else value += c;
            } else if (c == '\\' && i + 1 < raw.size()) {
                value += raw[++i];
            } else if (quote == '"') {
                if (c == '"') quote = 0;
                else value += c;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else {
                value += c;
            }
        }
        return value;
    }
    return std::nullopt;
}

std::optional<std::string> HostInfo::languageTag(std::string_view locale) {
    const std::size_t cut = locale.find_first_of(".@");
    const std::string_view base = locale.substr(0, cut);
    if (isCLocale(base)) return std::nullopt;
    std::string tag(base);
    for (char& c : tag) {
        if (c == '_') c = '-';
    }
    return tag;
}

std::string HostInfo::zoneNameFromPath(std::string_view path) {
    if (!path.empty() && path.front() == ':') path.remove_prefix(1);
    const std::string_view marker = "zoneinfo/";
    const std::size_t at = path.rfind(marker);
    if (at != std::string_view::npos) {
        path.remove_prefix(at + marker.size());
        for (std::string_view variant : {"posix/", "right/"}) {
            if (path.substr(0, variant.size()) == variant) path.remove_prefix(variant.size());
        }
        return std::string(path);
    }
    // A path that does not lead into a zone database names no zone.
    if (!path.empty() && (path.front() == '/' || path.front() == '.')) return "";
    return std::string(path);
}

}  // namespace zub
