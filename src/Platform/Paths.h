// Where the library keeps its files: the user's home, documents, configuration
// and data directories, taken from the environment as the XDG base-directory
// conventions describe. Every call reads the environment again (cheap), so a
// test that points HOME and the XDG variables elsewhere is followed at once.
// No call creates anything; thread-safe as long as nobody changes the
// environment concurrently.
#pragma once

#include <string>

namespace zub {

class Paths {
public:
    /// $HOME when set and absolute, else the password database's home of the
    /// user, else "/" (never empty, no trailing slash except for "/").
    static std::string home();
    /// $XDG_DOCUMENTS_DIR when set and absolute, else home() + "/Documents".
    static std::string documents();
    /// $XDG_CONFIG_HOME when set and absolute, else home() + "/.config".
    static std::string configHome();
    /// $XDG_DATA_HOME when set and absolute, else home() + "/.local/share".
    static std::string dataHome();
};

}  // namespace zub
