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

    // ---- tracking ----------------------------------------------------------
    // Every tracking call may come from any thread and returns at once: it builds
    // its event on the calling thread, takes the current session id and hands the
    // event to the library's report queue, where it is keyed, stored and sent by
    // the report strategy. Nothing blocks on the network or the disk, nothing
    // throws; bad input is logged to the debug log and dropped. Cost on the
    // calling thread: under a microsecond for a typical call; the slowest one in
    // a hundred may wait some tens of microseconds when it meets the library's
    // worker at the queue (bench/tracking_bench.cpp, 2-core machine). JSON,
    // digests and I/O happen on the library's worker thread.
    // Start the library before tracking: events recorded before the start are
    // kept in memory only, and the start replaces them with the events an
    // earlier run saved, when there are such.
    //
    // Page and custom-event timers are measured in whole seconds of the wall clock.

    /// Starts timing `page`. A second begin of a page that is open keeps the first
    /// start time. At most 1025 pages (the timing limit + 1) are open at once;
    /// another begin is logged and ignored. A begin may open a new session when
    /// the previous activity lies longer than the session time-out back.
    /// Null or empty names are logged and ignored.
    static void trackPageViewBegin(const std::optional<std::string>& page);
    /// Ends the timing of `page` and reports a page event: "pi" the page, "du" the
    /// seconds since its begin (not bounded below: a clock set back gives 0 or
    /// less), "rf" the page ended or reported before it ("-" when that was the same
    /// page; absent for the first page of the process). A page that is not open
    /// is logged and nothing is reported.
    static void trackPageViewEnd(const std::optional<std::string>& page);
    /// Reports `page` with a duration the host measured (seconds, sent as given),
    /// with the same "rf" rule; open timers are not touched.
    static void trackPage(const std::optional<std::string>& page, std::uint64_t duration);

    /// Starts measuring active use; a second begin keeps the first start.
    static void trackActiveBegin();
    /// Reports the active span since trackActiveBegin (event type 4, "du" whole
    /// seconds, at least 1, "ts" the start). Without a begin: logged, no event.
    static void trackActiveEnd();

    /// Reports a custom event at once (type 1000, "ei" the identifier, "kv" the
    /// pairs as given, important, timestamped now):
    ///
    ///   ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}});
    ///   ZUBPro::trackCustomEvent("launch");                 // no pairs, no "kv"
    ///
    /// `dict` is a JSON object of the event's pairs; null (the default) sends no
    /// "kv"; an empty object sends "kv":{}. Any other JSON value is logged and
    /// left out. Pass a temporary (or std::move) and the pairs are not copied.
    static void trackCustomEvent(const std::optional<std::string>& eventID, zub::Value dict = zub::Value());
    /// Starts a timer for the identifier and these pairs: the same identifier with
    /// other pairs is another timer, and only the same pairs end it. At most 1024
    /// timers are open at once; a second begin of an open timer keeps its start.
    /// No event is reported by a begin. Null or empty identifiers are logged and ignored.
    static void trackCustomEventBegin(const std::optional<std::string>& eventID,
                                      const zub::Value& dict = zub::Value());
    /// Ends the timer begun with the same identifier and pairs and reports the
    /// event with "du" the seconds since the begin (at least 1). Unlike the other
    /// custom-event calls it sends the event with the type, application key,
    /// timestamp and importance of a new event (0, none, 0, not important).
    /// A null `dict` ends nothing, silently: end a timer begun without pairs with
    /// an empty object, zub::Value::object(). An unknown timer is logged.
    static void trackCustomEventEnd(const std::optional<std::string>& eventID, zub::Value dict);
    /// Reports a custom event with a duration the host measured ("du" in seconds,
    /// sent as given; 0 sends no "du"), otherwise as trackCustomEvent.
    static void trackCustomEventDuration(const std::optional<std::string>& eventID, zub::Value dict,
                                         std::int64_t duration);

    /// Reports the user's messenger account ("lm", type 1001, timestamped now).
    /// A null account reports nothing.
    static void reportLM(const std::optional<std::string>& account);
    /// Reports the user's account: "lm" the account and "acc" {"a" account, "t" 0,
    /// "e" ext when given}. `type` travels as the event's type ("et"), so an
    /// account type is reported as the event type. A null account reports nothing.
    static void reportAccount(const std::optional<std::string>& account, std::uint64_t type,
                              const std::optional<std::string>& ext);

    // ---- for plug-ins ------------------------------------------------------
    // A plug-in waits for ZUBProMainServiceStartNotification (observe it with
    // zub::addNotificationObserver from ZUBPlatform.h) before it uses these.

    /// The main service's identity and environment, keyed by the kZUBInfo...
    /// constants (ZUBConstants.h). Built once, at the first call (so ask after the
    /// start, or the application key is missing), and the same object afterwards.
    /// Any thread; after the first call it costs nothing.
    static const zub::Value& getMainServicesInfo();
    /// Hands a plug-in's event (a ZUBProEvent subclass, see ZUBProEvent.h) to the
    /// report queue. Only its appkey is filled in, when unset; the plug-in sets
    /// type, sid, ts and its own keys. The library owns the event afterwards.
    /// Register the class for archiving, or unsent events of it are dropped when
    /// the store is read back in a later run. Any thread; returns at once.
    static void reportEvent(const std::shared_ptr<ZUBProEvent>& event);
    /// As reportEvent for each element, in order, as one hand-over.
    static void reportEvents(const std::vector<std::shared_ptr<ZUBProEvent>>& events);
    /// The current session id for the plug-in's events. With isActive true, a
    /// call after the session time-out opens a new session (and reports it).
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
