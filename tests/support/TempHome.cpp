#include "support/TempHome.h"

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace zubtest {
namespace {

std::filesystem::path& homePath() {
    static std::filesystem::path p;
    return p;
}

void removeHome() {
    std::error_code ec;
    if (!homePath().empty()) std::filesystem::remove_all(homePath(), ec);
}

}  // namespace

void TempHome::install() {
    if (!homePath().empty()) return;
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/zub-test-XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) std::abort();
    homePath() = templ;
    const auto& home = homePath();
    std::filesystem::create_directories(home / ".config");
    std::filesystem::create_directories(home / ".local/share");
    setenv("HOME", home.c_str(), 1);
    setenv("XDG_CONFIG_HOME", (home / ".config").c_str(), 1);
    setenv("XDG_DATA_HOME", (home / ".local/share").c_str(), 1);
    std::atexit(removeHome);
}

const std::filesystem::path& TempHome::path() {
    return homePath();
}

std::filesystem::path TempHome::makeDir(const std::string& name) {
    auto p = homePath() / name;
    std::filesystem::remove_all(p);
    std::filesystem::create_directories(p);
    return p;
}

unsigned modeOf(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

}  // namespace zubtest
