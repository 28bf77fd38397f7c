// ZUBProBaseFunction: basic functions the library lends to plug-ins, so that a
// plug-in logs, stores and encodes the way the main service does. All static,
// callable from any thread, never throwing; each runs on the calling thread.
// Cheap (microseconds) unless noted. Text arguments are zub::OptionalText
// (ZUBText.h): a null `const char*` is absent, never a crash.
#pragma once

#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBText.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class ZUB_EXPORT ZUBProBaseFunction {
public:
    ZUBProBaseFunction() = delete;

    /// Stores a dictionary under "<company domain>.<key>" in the application's
    /// preferences (the keychain name form; nothing goes to a real keychain).
    /// Writes the preferences file before it returns (a file write and fsync).
    /// An absent key stores nothing (logged).
    static void saveToKeyChain(zub::OptionalText key, const zub::Value& dict);
    /// What saveToKeyChain stored under the key; nothing for an absent key.
    static std::optional<zub::Value> loadFromKeyChain(zub::OptionalText key);

    /// Writes "[ZUBDebug] " + message to the system log, only with debugging on.
    /// Placeholders ("%@", "%d", ...) take the next argument's text. An absent
    /// format writes "[ZUBDebug] (null)".
    static void logDebug(zub::OptionalText format, const std::vector<std::string>& args = {});

    /// MD5 as 32 lower-case hex digits; nothing for an absent or empty string.
    static std::optional<std::string> md5Encrypt(zub::OptionalText text);
    /// Compact JSON of a dictionary or array; "" for anything else.
    static std::optional<std::string> objToJson(const zub::Value& object);

    /// 2 on Wi-Fi, 1 on a cellular network, 0 without a network (the two reachable
    /// codes are the reverse of the reachability status, on purpose).
    /// Reads the kernel's routing and link state: tens of microseconds, so ask
    /// when needed rather than per event.
    static std::int64_t currentNetwork();
    static bool isJailBroken();
    /// Seconds since 1970 with fraction.
    static double getTimeStamp();
    /// A property of the application configuration the report server pushed
    /// (as ZUBPro::getOnlineProperty); "" when there is none or the key is absent.
    static zub::Value getOnlineProperty(zub::OptionalText key);
};
