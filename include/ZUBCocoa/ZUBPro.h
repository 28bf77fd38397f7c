// ZUBPro: the one class a host application calls. Every operation is static,
// thread-safe, never throws and never blocks on the network: work that talks to
// the servers runs on the library's own queues.
//
//   zub::setBundleInfo("CFBundleIdentifier", "com.example.editor");
//   zub::setBundleInfo("CFBundleShortVersionString", "2.1");
//   ZUBPro::setChannel("website");
//   ZUBPro::startWithAppKey("your-app-key");
//   ...
//   ZUBPro::onWillApplicationEnterBackground();   // from the host's own lifecycle events
//
// Settings may be made before or after the start; they last for the process.
#pragma once

#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ZUBProEvent;

class ZUB_EXPORT ZUBPro {
public:
    ZUBPro() = delete;

    /// Starts (or restarts) the library: stores the key, applies the online
    /// configuration of earlier runs, with the default strategy reads back and
    /// sends the events saved by earlier runs, registers the device for its mid,
    /// opens or continues a session, and posts ZUBProMainServiceStartNotification.
    /// Costs a few milliseconds on the calling thread; the network work is queued.
    static void startWithAppKey(const std::optional<std::string>& appKey);

    // ---- settings (no validation; they take effect when next read) ----------
    /// Debug lines "[ZUBDebug] ..." on standard error and the installed log sink.
    static void setDebugEnable(bool enable);
    /// Report at once whenever the network is Wi-Fi (default on).
    static void setSmartReport(bool enable);
    /// Idle time after which the next activity opens a new session (default 30 s).
    static void setSessionTimeoutSecs(std::uint64_t seconds);
    /// 1 report every event at once; 5 periodic; 8 (default) at start and activation.
    static void setReportStrategy(std::int64_t strategy);
    static void setChannel(const std::optional<std::string>& channel);
    static void setCustomAppVersion(const std::optional<std::string>& version);
    static void setCustomUserID(const std::optional<std::string>& userID);
    static void setPeriodSecs(std::uint64_t seconds);

    // ---- tracking: each call builds its event on the calling thread (about a
    // microsecond) and hands it to the library's queue; nothing blocks. ----------
    /// Starts timing a page; a second begin of an open page keeps the first start.
    static void trackPageViewBegin(const std::optional<std::string>& page);
    /// Ends a timed page and reports it with its duration and the page before it.
    static void trackPageViewEnd(const std::optional<std::string>& page);
    /// Reports a page with a duration the host measured (seconds, taken as given).
    static void trackPage(const std::optional<std::string>& page, std::uint64_t duration);
    /// Starts / ends measuring active use; the span (at least 1 s) is reported at the end.
    static void trackActiveBegin();
    static void trackActiveEnd();
    /// Reports a custom event at once with its key-value pairs (a JSON object, or
    /// null for none):  ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}});
    static void trackCustomEvent(const std::optional<std::string>& eventID, const zub::Value& dict = zub::Value());
    /// Starts a timer for the event and these pairs (the same pairs end it).
    static void trackCustomEventBegin(const std::optional<std::string>& eventID,
                                      const zub::Value& dict = zub::Value());
    /// Ends the timer and reports the event with its duration. An absent (null)
    /// dict ends nothing: end a timer begun without pairs with an empty object.
    static void trackCustomEventEnd(const std::optional<std::string>& eventID, const zub::Value& dict);
    /// Reports a custom event with a duration the host measured (seconds).
    static void trackCustomEventDuration(const std::optional<std::string>& eventID, const zub::Value& dict,
                                         std::int64_t duration);
    /// Reports the user's messenger account (nothing for an absent one).
    static void reportLM(const std::optional<std::string>& account);
    /// Reports the user's account; `type` travels as the event type.
    static void reportAccount(const std::optional<std::string>& account, std::uint64_t type,
                              const std::optional<std::string>& ext);

    // ---- for plug-ins (after ZUBProMainServiceStartNotification) -------------------
    /// The main service's identity and environment, keyed by the kZUBInfo...
    /// constants; built once, at the first call, and the same object afterwards.
    static const zub::Value& getMainServicesInfo();
    /// Reports a plug-in's event (its appkey, when unset, becomes the library's).
    static void reportEvent(const std::shared_ptr<ZUBProEvent>& event);
    static void reportEvents(const std::vector<std::shared_ptr<ZUBProEvent>>& events);
    /// The current session id (isActive may open a new session after a time-out).
    static std::uint64_t getSessionID(bool isActive);

    // ---- queries --------------------------------------------------------------
    /// {"mid","ifa","oia","ifv","oid"} and, once a push token is stored, "rvt".
    static zub::Value getDeviceIDs();
    /// A property of the application configuration pushed by the server, as the
    /// JSON held it; "" when there is none.
    static zub::Value getOnlineProperty(const std::string& key);

    // ---- lifecycle: call these from the host's own application events ----------
    static void onDidApplicationBecomeActive();
    static void onWillApplicationResignActive();
    static void onApplicationDidBecomeActive();
    static void onWillApplicationEnterBackground();
    static void onWillApplicationWillTerminate();

    /// Where a platform build attaches the lifecycle handlers to the system's
    /// application notifications; this build subscribes to none.
    static void addNotification();
    static void initialize();
};
