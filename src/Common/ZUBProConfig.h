// ZUBProConfig: the process-wide local settings of the library, each with its
// built-in default. Nothing here is persisted; every process starts from the
// defaults, the host changes some through ZUBPro's setters, and the online
// configuration may replace the report strategy.
//
// Getters and setters do no validation. They may be called from any thread:
// numbers and flags are atomics, strings are copied in and out under a lock, so
// readers on the library's queues never race with the host's setters.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

class ZUBProConfig {
public:
    using OptString = std::optional<std::string>;

    /// The shared instance, created once (concurrent first callers wait).
    static ZUBProConfig& getInstance();

    ZUBProConfig(const ZUBProConfig&) = delete;
    ZUBProConfig& operator=(const ZUBProConfig&) = delete;

    // Strings (null = std::nullopt).
    OptString appkey() const { return get(appkey_); }
    void setAppkey(OptString v) { set(appkey_, std::move(v)); }
    OptString reportURL() const { return get(reportURL_); }
    void setReportURL(OptString v) { set(reportURL_, std::move(v)); }
    OptString midURL() const { return get(midURL_); }
    void setMidURL(OptString v) { set(midURL_, std::move(v)); }
    OptString storePrefix() const { return get(storePrefix_); }
    void setStorePrefix(OptString v) { set(storePrefix_, std::move(v)); }
    OptString rc4Key() const { return get(rc4Key_); }
    void setRc4Key(OptString v) { set(rc4Key_, std::move(v)); }
    OptString zubChannel() const { return get(zubChannel_); }
    void setZubChannel(OptString v) { set(zubChannel_, std::move(v)); }
    OptString customUserID() const { return get(customUserID_); }
    void setCustomUserID(OptString v) { set(customUserID_, std::move(v)); }
    OptString customAppVersion() const { return get(customAppVersion_); }
    void setCustomAppVersion(OptString v) { set(customAppVersion_, std::move(v)); }
    OptString idfa() const { return get(idfa_); }
    void setIdfa(OptString v) { set(idfa_, std::move(v)); }
    OptString idfv() const { return get(idfv_); }
    void setIdfv(OptString v) { set(idfv_, std::move(v)); }
    OptString oid() const { return get(oid_); }
    void setOid(OptString v) { set(oid_, std::move(v)); }
    OptString deviceToken() const { return get(deviceToken_); }
    void setDeviceToken(OptString v) { set(deviceToken_, std::move(v)); }
    OptString mid() const { return get(mid_); }
    void setMid(OptString v) { set(mid_, std::move(v)); }

    // Numbers and flags.
    std::uint64_t maxOnceSendCount() const { return maxOnceSendCount_; }
    void setMaxOnceSendCount(std::uint64_t v) { maxOnceSendCount_ = v; }
    std::uint64_t sessionTimeoutSecs() const { return sessionTimeoutSecs_; }
    void setSessionTimeoutSecs(std::uint64_t v) { sessionTimeoutSecs_ = v; }
    std::uint64_t periodSecs() const { return periodSecs_; }
    void setPeriodSecs(std::uint64_t v) { periodSecs_ = v; }
    std::uint64_t vacuumTimeLength() const { return vacuumTimeLength_; }
    void setVacuumTimeLength(std::uint64_t v) { vacuumTimeLength_ = v; }
    bool isSmartReport() const { return isSmartReport_; }
    void setIsSmartReport(bool v) { isSmartReport_ = v; }
    bool isOnlineEnv() const { return isOnlineEnv_; }
    void setIsOnlineEnv(bool v) { isOnlineEnv_ = v; }
    bool debugEnable() const { return debugEnable_.load(std::memory_order_relaxed); }
    void setDebugEnable(bool v) { debugEnable_ = v; }
    std::uint64_t maxTimingEventCount() const { return maxTimingEventCount_; }
    void setMaxTimingEventCount(std::uint64_t v) { maxTimingEventCount_ = v; }
    std::uint64_t maxStoreEventCount() const { return maxStoreEventCount_; }
    void setMaxStoreEventCount(std::uint64_t v) { maxStoreEventCount_ = v; }
    std::uint64_t maxReportEventLength() const { return maxReportEventLength_; }
    void setMaxReportEventLength(std::uint64_t v) { maxReportEventLength_ = v; }
    std::uint64_t maxSendRetryCount() const { return maxSendRetryCount_; }
    void setMaxSendRetryCount(std::uint64_t v) { maxSendRetryCount_ = v; }
    std::uint64_t maxImportSendRetryCount() const { return maxImportSendRetryCount_; }
    void setMaxImportSendRetryCount(std::uint64_t v) { maxImportSendRetryCount_ = v; }
    std::int64_t reportStrategy() const { return reportStrategy_; }
    void setReportStrategy(std::int64_t v) { reportStrategy_ = v; }
    std::uint64_t timeoutInterval() const { return timeoutInterval_; }
    void setTimeoutInterval(std::uint64_t v) { timeoutInterval_ = v; }

    /// The report endpoint chosen by the build flavour: the flavour host when the
    /// flavour tag is exactly "HB", the default report host otherwise.
    static std::string reportURLForFlavour(const std::string& flavour);

private:
    ZUBProConfig();

    OptString get(const OptString& field) const {
        std::lock_guard lock(stringsMutex_);
        return field;
    }
    void set(OptString& field, OptString v) {
        std::lock_guard lock(stringsMutex_);
        field = std::move(v);
    }

    mutable std::mutex stringsMutex_;
    OptString appkey_;            // guarded by stringsMutex_
    OptString reportURL_;         // guarded by stringsMutex_
    OptString midURL_;            // guarded by stringsMutex_
    OptString storePrefix_;       // guarded by stringsMutex_
    OptString rc4Key_;            // guarded by stringsMutex_
    OptString zubChannel_;        // guarded by stringsMutex_
    OptString customUserID_;      // guarded by stringsMutex_
    OptString customAppVersion_;  // guarded by stringsMutex_
    OptString idfa_;              // guarded by stringsMutex_
    OptString idfv_;              // guarded by stringsMutex_
    OptString oid_;               // guarded by stringsMutex_
    OptString deviceToken_;       // guarded by stringsMutex_
    OptString mid_;               // guarded by stringsMutex_

    std::atomic<std::uint64_t> maxOnceSendCount_{0};
    std::atomic<std::uint64_t> sessionTimeoutSecs_{0};
    std::atomic<std::uint64_t> periodSecs_{0};
    std::atomic<std::uint64_t> vacuumTimeLength_{0};
    std::atomic<bool> isSmartReport_{false};
    std::atomic<bool> isOnlineEnv_{false};
    std::atomic<bool> debugEnable_{false};
    std::atomic<std::uint64_t> maxTimingEventCount_{0};
    std::atomic<std::uint64_t> maxStoreEventCount_{0};
    std::atomic<std::uint64_t> maxReportEventLength_{0};
    std::atomic<std::uint64_t> maxSendRetryCount_{0};
    std::atomic<std::uint64_t> maxImportSendRetryCount_{0};
    std::atomic<std::int64_t> reportStrategy_{0};
    std::atomic<std::uint64_t> timeoutInterval_{0};
};
