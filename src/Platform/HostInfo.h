// HostInfo: what the machine says about itself (computer name, hardware, system
// version, time zone, language, screen).
//
// Every file is looked up below a root directory, "/" unless a test moves it with
// setRoot(), so a test can present any machine. Environment variables (TZ and the
// locale variables) are read from the process environment as they stand.
//
// Each call reads its sources afresh (callers that want a snapshot keep the
// result); reads are small files only, nothing blocks on the network. All
// functions are thread-safe and never throw.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace zub {

struct ScreenInfo {
    double width = 0;
    double height = 0;
    /// Bits per pixel of the screen.
    std::int32_t depth = 0;
};

class HostInfo {
public:
    // ---- file-system root ---------------------------------------------------
    /// The directory every system file is read below ("/" by default).
    static std::filesystem::path root();
    /// Moves the root; an empty path restores "/".
    static void setRoot(const std::filesystem::path& root);
    /// `absolutePath` (e.g. "/etc/os-release") as found below the root.
    static std::filesystem::path resolve(std::string_view absolutePath);
    /// Whether `absolutePath` exists below the root (following links). Any error
    /// counts as absent.
    static bool fileExists(std::string_view absolutePath);
    /// The whole content of a file below the root; std::nullopt when it cannot be
    /// read. Files larger than `limit` bytes are cut there.
    static std::optional<std::string> readFile(std::string_view absolutePath, std::size_t limit = 65536);

    // ---- the machine --------------------------------------------------------
    /// The computer's display name: PRETTY_HOSTNAME of /etc/machine-info, else the
    /// host name of the kernel, else the first line of /etc/hostname.
    static std::optional<std::string> computerName();
    /// The hardware architecture name ("x86_64", "aarch64"); std::nullopt when
    /// the kernel does not tell.
    static std::optional<std::string> machine();
    /// The model identifier: /sys/class/dmi/id/product_name, trimmed;
    /// std::nullopt when absent or empty.
    static std::optional<std::string> model();
    /// VERSION_ID of /etc/os-release (else /usr/lib/os-release), unquoted;
    /// std::nullopt when neither has it.
    static std::optional<std::string> osVersion();
    /// The system time zone's name ("Europe/Berlin"): TZ when set (a leading ':'
    /// and any path up to "zoneinfo/" dropped), else the zone /etc/localtime links
    /// to, else the first line of /etc/timezone, else "UTC" (the C library's
    /// default when nothing is configured).
    static std::string timeZoneName();
    /// The preferred language as a language tag ("en-US", "de"): the first entry
    /// of LANGUAGE, else the locale of LC_ALL, LC_MESSAGES or LANG (the first that
    /// is set); codeset and modifier dropped, '_' written as '-'. LANGUAGE is
    /// ignored under the "C"/"POSIX" locale, as the C library does. std::nullopt
    /// when no language is configured or the locale is "C"/"POSIX".
    static std::optional<std::string> preferredLanguage();
    /// The main screen: the first connected connector (by name) under
    /// /sys/class/drm with a mode, its preferred (first) mode as width x height;
    /// depth from /sys/class/graphics/fb0/bits_per_pixel, else 24 (the usual
    /// depth of a DRM framebuffer). std::nullopt without a connected screen.
    static std::optional<ScreenInfo> mainScreen();

    // ---- text helpers shared by the platform variants -----------------------
    /// The value of `key` in a KEY=VALUE file (os-release, machine-info): quotes
    /// and backslash escapes removed; std::nullopt when the key is missing.
    static std::optional<std::string> shellVariable(std::string_view text, std::string_view key);
    /// A locale value ("en_US.UTF-8@euro") as a language tag ("en-US");
    /// std::nullopt for "", "C", "POSIX" and their codeset forms ("C.UTF-8").
    static std::optional<std::string> languageTag(std::string_view locale);
    /// A zone name from a TZ value or a zoneinfo path; "" when none is found.
    static std::string zoneNameFromPath(std::string_view path);
};

}  // namespace zub
