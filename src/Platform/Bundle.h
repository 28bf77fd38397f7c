// The host application's bundle information ("CFBundleIdentifier",
// "CFBundleShortVersionString", ...), as set by the host through ZUBPlatform.h.
// Without a host-set identifier, the executable's file name stands in.
// Thread-safe.
#pragma once

#include <optional>
#include <string>

namespace zub {

class Bundle {
public:
    static std::optional<std::string> infoValue(const std::string& key);
    static void setInfoValue(const std::string& key, const std::string& value);

    static std::optional<std::string> identifier() { return infoValue("CFBundleIdentifier"); }
    static std::optional<std::string> shortVersion() { return infoValue("CFBundleShortVersionString"); }
};

}  // namespace zub
