// The online configuration the collector hands to clients: an SDK block (slot "1")
// and an application block (slot "2"), each with a version, read once at start
// from a JSON file:
//
//   {
//     "sdk": {"v": 3, "c": {"rs": 1}},
//     "app": {"v": 7, "c": {"greeting": "hello"}, "m": "optional checksum"}
//   }
//
// "c" is a JSON object or array, "v" a positive 32-bit integer (or its decimal
// text), "m" an optional string; without "m" the MD5 of the compact "c" text is
// sent, since clients only take a block that carries all three keys. Either
// block may be left out. Immutable after loading, so any thread may read it.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>

namespace zubcollector {

struct ConfigBlock {
    std::int32_t version = 0;
    zub::Value content;
    std::string md5;
};

struct OnlineConfig {
    std::optional<ConfigBlock> sdk;  // slot "1"
    std::optional<ConfigBlock> app;  // slot "2"

    /// Reads the file; nothing and a message when it is missing or malformed.
    static std::optional<OnlineConfig> load(const std::string& path, std::string& error);
    /// Parses the file's text (the same rules as load()).
    static std::optional<OnlineConfig> parse(const std::string& text, std::string& error);

    bool empty() const { return !sdk && !app; }
    /// Version of each slot, 0 when the slot is empty.
    std::int32_t sdkVersion() const { return sdk ? sdk->version : 0; }
    std::int32_t appVersion() const { return app ? app->version : 0; }

    /// The reply's "cfg" value holding the chosen blocks in their wire form
    /// ({"1": {"c", "v", "m"}, "2": {...}}); null when neither is chosen.
    zub::Value wireValue(bool withSdk, bool withApp) const;
};

}  // namespace zubcollector
