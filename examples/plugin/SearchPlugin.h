// An example plug-in for ZUBCocoa: it records the searches a user makes in the
// host application and reports them through the library as events of its own.
//
// What it shows a plug-in author:
//   - waiting for the main service: install() observes
//     ZUBProMainServiceStartNotification; searches recorded before the start are
//     kept by the plug-in and handed over, in one call, when the start comes;
//   - reading the main service's information (ZUBPro::getMainServicesInfo) at
//     the start: the plug-in tags its events with the device id found there;
//   - a ZUBProEvent subclass with its own JSON keys and its archived form,
//     registered so that unsent searches survive in the library's log files;
//   - reporting through ZUBPro::reportEvent / reportEvents with the session id.
//
// Host side:
//   searchplugin::SearchPlugin search;
//   search.install();                  // before ZUBPro::startWithAppKey
//   ZUBPro::startWithAppKey("app-key");
//   search.recordSearch("c++ books", 42);
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>
#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace searchplugin {

/// One search: "q" the query, "n" the number of results, "did" the device id of
/// the main service. Event type 3001.
class SearchEvent : public ZUBProEvent {
public:
    static constexpr std::int64_t kType = 3001;

    SearchEvent();
    explicit SearchEvent(const zub::Coder& coder);
    std::string className() const override { return "SearchEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;
    void encode(zub::Value& envelope) override;

    std::optional<std::string> query;
    std::int64_t results = 0;
    std::optional<std::string> deviceId;
};

class SearchPlugin {
public:
    SearchPlugin() = default;
    ~SearchPlugin();  // uninstalls
    SearchPlugin(const SearchPlugin&) = delete;
    SearchPlugin& operator=(const SearchPlugin&) = delete;

    /// Starts waiting for the main service. Idempotent.
    void install();
    /// Stops waiting; searches still kept are dropped.
    void uninstall();

    /// Whether the main service has started since install().
    bool isStarted() const;
    /// What the plug-in read from ZUBPro::getMainServicesInfo at the start (null before).
    zub::Value serviceInfo() const;

    /// Records one search: reported at once once the main service runs, kept
    /// until then. Any thread.
    void recordSearch(std::string query, std::int64_t results);

private:
    void onMainServiceStart();
    std::shared_ptr<SearchEvent> makeEvent(std::string query, std::int64_t results) const;

    mutable std::mutex mutex_;
    std::uint64_t observer_ = 0;                         // guarded by mutex_
    bool started_ = false;                               // guarded by mutex_
    zub::Value info_;                                    // guarded by mutex_
    std::vector<std::shared_ptr<SearchEvent>> waiting_;  // guarded by mutex_
};

}  // namespace searchplugin
