// A private HOME for one test process: HOME, XDG_CONFIG_HOME and XDG_DATA_HOME
// all point below a fresh temporary directory, removed at exit.
#pragma once

#include <filesystem>

namespace zubtest {

class TempHome {
public:
    /// Creates the directory and sets the environment. Call before any thread starts.
    static void install();
    /// The HOME of this process.
    static const std::filesystem::path& path();
    /// A fresh, empty directory below HOME.
    static std::filesystem::path makeDir(const std::string& name);
};

/// The permission bits of `path` (0 when it does not exist).
unsigned modeOf(const std::filesystem::path& path);

}  // namespace zubtest
