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
//
// Text arguments are zub::OptionalText (ZUBText.h): a string literal, a
// std::string, a std::optional<std::string> or a `const char*`. A null pointer
// or std::nullopt is "absent"; each call below says what an absent text does.
#pragma once

#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBPair.h>
#include <ZUBCocoa/ZUBText.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
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
    /// The key is stored as given, without a check: an absent or empty key is
    /// kept and said so in the debug log; events then carry no "ky", or an
    /// empty one.
    /// Costs a few milliseconds on the calling thread; the network work is queued.
    static void startWithAppKey(zub::OptionalText appKey);

    // ---- settings (no validation; they take effect when next read) ----------
    /// Debug lines "[ZUBDebug] ..." on standard error and the installed log sink.
    static void setDebugEnable(bool enable);
    /// Report at once whenever the internet is reachable (default on): on Linux,
    /// whenever an interface that is up, has its carrier and is not a loopback
    /// carries a default route, wired or wireless alike.
    static void setSmartReport(bool enable);
    /// Idle time after which the next activity opens a new session (default 30 s).
    static void setSessionTimeoutSecs(std::uint64_t seconds);
    /// 1 report every event at once; 5 periodic; 8 (default) at start and activation.
    static void setReportStrategy(std::int64_t strategy);
    /// The distribution channel ("ch"; default "Mac App Developer"). Absent: no "ch".
    static void setChannel(zub::OptionalText channel);
    /// An application version preferred over the bundle's ("cav", "av"). Absent:
    /// the bundle's version again.
    static void setCustomAppVersion(zub::OptionalText version);
    /// The host's own user id ("cui"). Absent: no "cui".
    static void setCustomUserID(zub::OptionalText userID);
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
    /// Absent or empty names are logged and ignored.
    static void trackPageViewBegin(zub::OptionalText page);
    /// Ends the timing of `page` and reports a page event: "pi" the page, "du" the
    /// seconds since its begin (not bounded below: a clock set back gives 0 or
    /// less), "rf" the page ended or reported before it ("-" when that was the same
    /// page; absent for the first page of the process). A page that is not open,
    /// and an absent or empty name, are logged and nothing is reported.
    static void trackPageViewEnd(zub::OptionalText page);
    /// Reports `page` with a duration the host measured (seconds, sent as given),
    /// with the same "rf" rule; open timers are not touched. Absent or empty
    /// names are logged and ignored.
    static void trackPage(zub::OptionalText page, std::uint64_t duration);

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
    /// An absent identifier reports the event without "ei". Text that is not
    /// UTF-8 cannot be written as JSON: such an event is not sent, and the debug
    /// log names the event and the key that holds the text.
    ///
    /// A braced list of pairs, as in the first example, is taken by the overload
    /// below (zub::Pair): the same event on the wire, at a fraction of the cost on
    /// the calling thread. An empty list, `{}`, sends no "kv".
    static void trackCustomEvent(zub::OptionalText eventID, zub::Value dict = zub::Value());
    static void trackCustomEvent(zub::OptionalText eventID, std::initializer_list<zub::Pair> pairs);
    /// Starts a timer for the identifier and these pairs: the same identifier with
    /// other pairs is another timer, and only the same pairs end it. At most 1024
    /// timers are open at once; a second begin of an open timer keeps its start.
    /// No event is reported by a begin. Absent or empty identifiers are logged and ignored.
    static void trackCustomEventBegin(zub::OptionalText eventID, const zub::Value& dict = zub::Value());
    /// Ends the timer begun with the same identifier and pairs and reports the
    /// event with "du" the seconds since the begin (at least 1). Unlike the other
    /// custom-event calls it sends the event with the type, timestamp and
    /// importance of a new event (0, 0, not important), and without an
    /// application key of its own, so its "ky" is the key the library was started
    /// with. A null `dict` ends nothing, silently: end a timer begun without pairs
    /// with an empty object, zub::Value::object(). An unknown timer, and an absent
    /// or empty identifier, are logged.
    static void trackCustomEventEnd(zub::OptionalText eventID, zub::Value dict);
    /// Reports a custom event with a duration the host measured ("du" in seconds;
    /// 0 sends no "du"; a negative number goes out as the unsigned 64-bit number
    /// of the same bits), otherwise as trackCustomEvent.
    static void trackCustomEventDuration(zub::OptionalText eventID, zub::Value dict, std::int64_t duration);
    static void trackCustomEventDuration(zub::OptionalText eventID, std::initializer_list<zub::Pair> pairs,
                                         std::int64_t duration);

    /// Reports the user's messenger account ("lm", type 1001, timestamped now).
    /// An absent account reports nothing.
    static void reportLM(zub::OptionalText account);
    /// Reports the user's account: "lm" the account and "acc" {"a" account, "t" 0,
    /// "e" ext when given}. `type` travels as the event's type ("et"), so an
    /// account type is reported as the event type. An absent account reports
    /// nothing; an absent ext sends no "e".
    static void reportAccount(zub::OptionalText account, std::uint64_t type, zub::OptionalText ext);

    // ---- for plug-ins ------------------------------------------------------
    // A plug-in waits for ZUBProMainServiceStartNotification (observe it with
    // zub::addNotificationObserver from ZUBPlatform.h) before it uses these.

    /// The main service's identity and environment, keyed by the kZUBInfo...
    /// constants (ZUBConstants.h). The dictionary is built once, at the first call
    /// of any of the three info calls (so ask after the start, or the
    /// application key is missing), and shared by all plug-ins afterwards; this
    /// returns a copy of it as it is now. Any thread; a copy costs a few
    /// microseconds.
    static zub::Value getMainServicesInfo();
    /// Sets one entry of the shared dictionary (plug-ins publish their own
    /// entries there, e.g. under kZUBInfoAccount, kZUBInfoLM, kZUBInfoHotfix); a
    /// null `value` removes the entry. An absent key is logged and ignored.
    /// Any thread; every plug-in sees the change at its next read.
    static void setMainServicesInfo(zub::OptionalText key, zub::Value value);
    /// Changes the shared dictionary in one step: `update` receives a copy under
    /// the dictionary's lock, and what it leaves becomes the dictionary (when it
    /// is still an object; if it throws, nothing changes and the exception is
    /// logged). Concurrent updates run one after another, so none is lost. Keep
    /// `update` short; it runs on the calling thread. Info calls made from inside
    /// it see the dictionary as it was before, and what they change is replaced
    /// by the update's result.
    static void updateMainServicesInfo(const std::function<void(zub::Value& info)>& update);
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
    /// JSON held it; "" when there is none, and for an absent key.
    static zub::Value getOnlineProperty(zub::OptionalText key);

    // ---- lifecycle: call these from the host's own application events ----------
    // The library subscribes to no system event: these five run only when the
    // host calls them, on the host's thread. Their names are close; what tells
    // them apart is what each does:
    //
    //   returns to the foreground   onApplicationDidBecomeActive     reads back, sends, session
    //   gets focus (no background)  onDidApplicationBecomeActive     session only
    //   loses focus                 onWillApplicationResignActive    marks activity
    //   goes to the background      onWillApplicationEnterBackground saves unsent events
    //   quits                       onWillApplicationWillTerminate   saves unsent events

    /// The window gets focus again without a return from the background: the
    /// session goes on, or a new one opens (and is reported) when the last
    /// activity lies at least the session time-out back. Nothing is sent or read.
    static void onDidApplicationBecomeActive();
    /// The application loses focus: counts as activity, so the session's idle
    /// time starts now; opens a session only after local midnight or when none
    /// exists. Nothing is sent or saved.
    static void onWillApplicationResignActive();
    /// The application returns to the foreground: under the default strategy (8)
    /// the events saved by the background or quit handlers replace those in
    /// memory and a report cycle sends what is waiting; then the session goes on
    /// or a new one opens as in onDidApplicationBecomeActive. The device is not
    /// registered again here (each start does that). A few milliseconds when
    /// saved events are read.
    static void onApplicationDidBecomeActive();
    /// The application goes to the background (minimised, hidden, last window
    /// closed): files the events still on their way to the report queue, then
    /// writes every unsent event to the log files. Nothing else. A file write.
    static void onWillApplicationEnterBackground();
    /// The application quits: the same as onWillApplicationEnterBackground.
    /// A program that ends on its own calls zub::flush (ZUBDelivery.h) first to
    /// send rather than keep.
    static void onWillApplicationWillTerminate();

    /// Kept for the interface: the places where a platform build attaches the
    /// lifecycle handlers to the system's application notifications. This build
    /// subscribes to none, so both do nothing; a host never needs to call them.
    static void addNotification();
    static void initialize();
};
