#include "Platform/Paths.h"

#include "Platform/Bundle.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace zub {
namespace {

// An environment path counts only when it is absolute: the XDG conventions say
// relative values are to be ignored.
std::string absoluteEnv(const char* name) {
    const char* v = std::getenv(name);
    if (v == nullptr || v[0] != '/') return {};
    std::string s(v);
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

std::string join(const std::string& base, const std::string& tail) {
    return base == "/" ? "/" + tail : base + "/" + tail;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string Paths::home() {
    std::string h = absoluteEnv("HOME");
    if (!h.empty()) return h;
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd pw{};
    passwd* result = nullptr;
    if (getpwuid_r(getuid(), &pw, buffer.data(), buffer.size(), &result) == 0 && result != nullptr &&
        result->pw_dir != nullptr && result->pw_dir[0] == '/') {
        std::string dir(result->pw_dir);
        while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
        return dir;
    }
    return "/";
}

std::string Paths::documents() {
    return join(dataHome(), "ZUBCocoa/apps/" + encodeComponent(Bundle::identifier().value_or("")));
}

std::string Paths::configHome() {
    std::string d = absoluteEnv("XDG_CONFIG_HOME");
    return d.empty() ? join(home(), ".config") : d;
}

std::string Paths::dataHome() {
    std::string d = absoluteEnv("XDG_DATA_HOME");
    return d.empty() ? join(home(), ".local/share") : d;
}

std::string Paths::encodeComponent(const std::string& text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '-' || c == '_' || (c == '.' && i > 0);
        if (plain) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0x0f]);
        }
    }
    if (out.empty()) out = "%";  // the empty text still gets an entry of its own
    return out;
}

std::optional<std::string> Paths::decodeComponent(const std::string& component) {
    if (component == "%") return std::string();
    std::string out;
    for (std::size_t i = 0; i < component.size(); ++i) {
        if (component[i] != '%') {
            out.push_back(component[i]);
            continue;
        }
        if (i + 2 >= component.size()) return std::nullopt;
        const int hi = hexValue(component[i + 1]);
        const int lo = hexValue(component[i + 2]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
    }
    return out;
}

}  // namespace zub
