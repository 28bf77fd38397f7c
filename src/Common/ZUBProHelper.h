// ZUBProHelper: the codecs of the report channel and the log files (gzip, RC4),
// the MD5 hex digest, the JSON helpers every event and request goes through, and
// the debug log. Class operations only; stateless apart from reading
// ZUBProConfig (debugEnable, rc4Key), so every operation is safe on any thread.
// No operation throws: failures come back as -1, std::nullopt or "".
#pragma once

#include "Common/ZUBProConfig.h"

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

class ZUBProHelper {
public:
    ZUBProHelper() = delete;

    // ---- debug log --------------------------------------------------------
    /// Writes "[ZUBDebug] " + the message formed from `format` and `args` to the
    /// system log, only when debugEnable is set; otherwise nothing is formatted.
    /// Placeholders are printf-like: every conversion ("%@", "%d", "%ld", "%s",
    /// ...) takes the next argument's text; "%%" is a percent sign; a "%" that
    /// starts no conversion is written as it stands.
    template <typename... Args>
    static void LogDebug(std::string_view format, const Args&... args) {
        if (!ZUBProConfig::getInstance().debugEnable()) return;
        const std::vector<std::string> texts{logText(args)...};
        writeDebug(format, texts);
    }
    /// Logs "error :<message>".
    static void trackError(std::string_view message);
    /// Logs "exception :%": the description never reaches the log (kept so on purpose).
    static void trackException(const std::exception& exception);

    // ---- codecs -----------------------------------------------------------
    /// gzip (window bits 31, default level) of `in` into `*out`, growing the output
    /// in 8192-byte steps. 0 on success; -1 when `out` is null, `in` is empty or
    /// zlib fails (then `*out` is untouched).
    static int GZip(const zub::Data& in, zub::Data* out);
    /// Inflates gzip- or zlib-wrapped input (header detected). Empty input comes
    /// back empty; a truncated or damaged stream gives std::nullopt.
    static std::optional<zub::Data> uncompressGZip(const zub::Data& in);
    /// RC4 in place under ZUBProConfig's rc4Key (its bytes up to the first NUL).
    /// The same call enciphers and deciphers. An empty key leaves the data as it
    /// is and logs a warning: there is no key stream to apply.
    static void ChiperRC4(zub::Data& data);
    /// RC4 in place under the given key text (same rules as above).
    static void ChiperRC4(std::uint8_t* data, std::size_t size, std::string_view key);
    /// MD5 of the UTF-8 bytes (up to the first NUL) as 32 lower-case hex digits;
    /// std::nullopt for an absent or empty string.
    static std::optional<std::string> md5encrypt(const std::optional<std::string>& text);

    // ---- JSON -------------------------------------------------------------
    /// Compact JSON text of a dictionary or array. Anything the JSON writer of the
    /// platform refuses (another top-level type, binary data, NaN, infinity) logs
    /// "error json format" and gives "". Invalid UTF-8 is logged as an exception
    /// and gives "".
    static std::optional<std::string> objToJson(const zub::Value& object);
    /// Parses JSON text (fragments allowed). Returns a dictionary or array;
    /// std::nullopt for text that is not JSON (silently) or for a bare scalar
    /// (logs "An error happened while deserializing the JSON data.").
    static std::optional<zub::Value> jsonToObj(const std::optional<std::string>& text);
    /// A value's text as the platform prints an object: a string as it is, a
    /// boolean as 1 or 0, a whole number without a fraction (0.0 reads "0"),
    /// anything else as compact JSON. Replies' "ret" codes are compared this way.
    static std::string valueDescription(const zub::Value& value);
    /// True when objToJson would write the value.
    static bool isValidJSONObject(const zub::Value& object);

    // ---- host -------------------------------------------------------------
    /// The bundle identifier without its last dot-separated piece ("a.b.c" ->
    /// "a.b"); the whole identifier when it has no dot; "" when there is none.
    static std::string getCompanyDomain();

    // ---- network and device probes ----------------------------------------
    /// "WIFI" when the internet is reachable (status 1), "CellNetwork" for status 2,
    /// "" otherwise (never absent). Makes and drops its own reachability wrapper.
    static std::string getNetworkType();
    /// JSON text {"ss": network name, "bs": base-station address} of the default
    /// wireless interface, each "Not Found" when absent.
    static std::string fetchSSIDInfo();
    /// isFondJBPath(), else isCanAccessUserAppPath().
    static bool isJailbroken();
    /// Whether "/Applications/Cydia.app", "/Library/MobileSubstrate/MobileSubstrate.dylib"
    /// or "/etc/apt" exists (tested in that order, below zub::HostInfo's root).
    static bool isFondJBPath();
    /// Whether "/User/Applications" or "/User/Containers/Bundle/Application" exists.
    static bool isCanAccessUserAppPath();

    /// Forms a message as LogDebug does (exposed for the plug-in bridge).
    static std::string formatMessage(std::string_view format, const std::vector<std::string>& args);

private:
    static void writeDebug(std::string_view format, const std::vector<std::string>& args);

    static std::string logText(const std::string& s) { return s; }
    static std::string logText(std::string_view s) { return std::string(s); }
    static std::string logText(const char* s) { return s ? s : "(null)"; }
    static std::string logText(const std::optional<std::string>& s) { return s ? *s : "(null)"; }
    static std::string logText(const zub::Value& v) { return v.dump(); }
    static std::string logText(bool b) { return b ? "1" : "0"; }
    static std::string logText(double d);
    template <typename T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
    static std::string logText(T n) {
        return std::to_string(n);
    }
};
