// What a host tells the library about itself, and where the library's own
// diagnostic lines go.
//
// On macOS the library reads these from the main bundle; a Linux host sets them
// before calling ZUBPro::startWithAppKey. Keys are the bundle's: "CFBundleIdentifier"
// and "CFBundleShortVersionString" (others are kept and readable too).
// All functions are thread-safe and never throw.
#pragma once

#include <ZUBCocoa/ZUBExport.h>

#include <functional>
#include <optional>
#include <string>

namespace zub {

/// Sets one entry of the host's bundle information, e.g.
/// setBundleInfo("CFBundleIdentifier", "com.example.editor").
/// Without an identifier the library uses the executable's file name.
ZUB_EXPORT void setBundleInfo(const std::string& key, const std::string& value);

/// Reads one entry of the bundle information (with the defaults applied).
ZUB_EXPORT std::optional<std::string> bundleInfo(const std::string& key);

/// Receives every line the library writes to the system log (debug lines appear
/// only after ZUBPro::setDebugEnable(true)). The line has no trailing newline.
/// Every line also goes to standard error, with time and process. An empty
/// function removes the sink.
using LogSink = std::function<void(const std::string& line)>;
ZUB_EXPORT void setLogSink(LogSink sink);

}  // namespace zub
