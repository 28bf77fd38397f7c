// What a host tells the library about itself, and where the library's own
// diagnostic lines go.
//
// On macOS the library reads these from the main bundle; a Linux host sets them
// before calling ZUBPro::startWithAppKey. Keys are the bundle's: "CFBundleIdentifier"
// and "CFBundleShortVersionString" (others are kept and readable too).
// All functions are thread-safe and never throw. Text arguments are
// zub::OptionalText (ZUBText.h): a null `const char*` is absent, never a crash.
#pragma once

#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBText.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zub {

/// Sets one entry of the host's bundle information, e.g.
/// setBundleInfo("CFBundleIdentifier", "com.example.editor").
/// Without an identifier the library uses the executable's file name. An
/// absent key or value changes nothing (logged to the debug log).
ZUB_EXPORT void setBundleInfo(OptionalText key, OptionalText value);

/// Reads one entry of the bundle information (with the defaults applied);
/// std::nullopt for an absent key.
ZUB_EXPORT std::optional<std::string> bundleInfo(OptionalText key);

/// Receives every line the library writes to the system log (debug lines appear
/// only after ZUBPro::setDebugEnable(true)). The line has no trailing newline.
/// Every line also goes to standard error, with time and process. An empty
/// function removes the sink.
using LogSink = std::function<void(const std::string& line)>;
ZUB_EXPORT void setLogSink(LogSink sink);

/// Calls `observer` with the notification's name each time the library posts a
/// notification of that name; an empty or absent name observes every
/// notification. This is
/// how a plug-in waits for the start of the main service:
///
///   auto id = zub::addNotificationObserver(ZUBProMainServiceStartNotification,
///                                          [](const std::string&) { myPlugin.start(); });
///
/// The observer runs synchronously on the posting thread (for the start
/// notification: the thread that called ZUBPro::startWithAppKey, before that call
/// returns), once per post: a second start posts again. Keep it short and do not
/// block there. An exception it throws is caught, logged to the debug log and
/// goes no further; the other observers still run.
/// Returns the registration's id (never 0), or 0 when `observer` is empty.
/// Thread-safe; an observer may add or remove observers, itself included.
using NotificationObserver = std::function<void(const std::string& name)>;
ZUB_EXPORT std::uint64_t addNotificationObserver(OptionalText name, NotificationObserver observer);

/// Removes a registration made by addNotificationObserver; unknown ids and 0 are
/// ignored. Called from outside the observer, it returns once no call of the
/// observer is running any more, so the observer's captures may then be destroyed.
ZUB_EXPORT void removeNotificationObserver(std::uint64_t id);

}  // namespace zub
