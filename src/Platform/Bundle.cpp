#include "Platform/Bundle.h"

#include <ZUBCocoa/ZUBPlatform.h>

#include <map>
#include <mutex>
#include <unistd.h>

namespace zub {
namespace {

struct BundleState {
    std::mutex mutex;
    std::map<std::string, std::string> info;
};

BundleState& state() {
    static auto* s = new BundleState();
    return *s;
}

std::optional<std::string> readExecutableName() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return std::nullopt;
    std::string full(path, static_cast<std::size_t>(n));
    const auto slash = full.rfind('/');
    std::string name = slash == std::string::npos ? full : full.substr(slash + 1);
    if (name.empty()) return std::nullopt;
    return name;
}

// A process keeps its executable for life (exec starts a new image), and the
// name is asked for by every path under the application's directories: read once.
const std::optional<std::string>& executableName() {
    static const std::optional<std::string> name = readExecutableName();
    return name;
}

}  // namespace

std::optional<std::string> Bundle::infoValue(const std::string& key) {
    {
        BundleState& s = state();
        std::lock_guard lock(s.mutex);
        if (auto it = s.info.find(key); it != s.info.end()) return it->second;
    }
    if (key == "CFBundleIdentifier") return executableName();
    return std::nullopt;
}

void Bundle::setInfoValue(const std::string& key, const std::string& value) {
    BundleState& s = state();
    std::lock_guard lock(s.mutex);
    s.info[key] = value;
}

}  // namespace zub
