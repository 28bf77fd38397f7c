#include "Platform/Paths.h"

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

std::string join(const std::string& base, const char* tail) {
    return base == "/" ? std::string("/") + tail : base + "/" + tail;
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
    std::string d = absoluteEnv("XDG_DOCUMENTS_DIR");
    return d.empty() ? join(home(), "Documents") : d;
}

std::string Paths::configHome() {
    std::string d = absoluteEnv("XDG_CONFIG_HOME");
    return d.empty() ? join(home(), ".config") : d;
}

std::string Paths::dataHome() {
    std::string d = absoluteEnv("XDG_DATA_HOME");
    return d.empty() ? join(home(), ".local/share") : d;
}

}  // namespace zub
