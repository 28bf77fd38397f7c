// Where the library keeps its files: the user's home, the application's own
// documents directory, and the configuration and data directories, taken from
// the environment as the XDG base-directory conventions describe. Every call
// reads the environment (and the bundle identifier) again, so a test that points
// HOME and the XDG variables elsewhere is followed at once. No call creates
// anything; thread-safe as long as nobody changes the environment concurrently.
#pragma once

#include <optional>
#include <string>

namespace zub {

class Paths {
public:
    /// $HOME when set and absolute, else the password database's home of the
    /// user, else "/" (never empty, no trailing slash except for "/").
    static std::string home();
    /// The application's own documents directory, as the platform gives every
    /// application one: dataHome() + "/ZUBCocoa/apps/" + the bundle identifier
    /// (zub::Bundle) as one path component. Applications with different bundle
    /// identifiers never share it; what is meant to be shared between
    /// applications lives elsewhere (Pasteboard).
    static std::string documents();
    /// $XDG_CONFIG_HOME when set and absolute, else home() + "/.config".
    static std::string configHome();
    /// $XDG_DATA_HOME when set and absolute, else home() + "/.local/share".
    static std::string dataHome();

    /// Any text as one directory entry: letters, digits, "-", "_" and "." stay
    /// (a leading "." does not), every other byte becomes "%XX"; the empty text is
    /// "%". So "..", "a/b" or a name with control characters can neither leave
    /// the directory nor hide, and two different texts never share an entry.
    static std::string encodeComponent(const std::string& text);
    /// The text of an entry made by encodeComponent; std::nullopt for a malformed
    /// "%" sequence.
    static std::optional<std::string> decodeComponent(const std::string& component);
};

}  // namespace zub
