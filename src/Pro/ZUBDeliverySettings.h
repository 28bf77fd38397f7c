// The delivery limits a host sets (memory, journal budget, sync interval) and
// the count of events dropped for want of journal space.
//
// Read on the report queue at every filing, set from any thread: the limits are
// guarded by a small lock of their own; the drop count is an atomic.
#pragma once

#include <ZUBCocoa/ZUBDelivery.h>

#include <atomic>
#include <cstdint>
#include <mutex>

class ZUBDeliverySettings {
public:
    static ZUBDeliverySettings& getInstance();
    ZUBDeliverySettings(const ZUBDeliverySettings&) = delete;
    ZUBDeliverySettings& operator=(const ZUBDeliverySettings&) = delete;

    zub::DeliveryLimits limits() const;
    /// False (and nothing changed) when a limit is 0.
    bool setLimits(const zub::DeliveryLimits& limits);

    std::uint64_t droppedCount() const { return dropped_.load(std::memory_order_relaxed); }
    void addDropped(std::uint64_t n) { dropped_.fetch_add(n, std::memory_order_relaxed); }

private:
    ZUBDeliverySettings() = default;
    mutable std::mutex mutex_;
    zub::DeliveryLimits limits_;  // guarded by mutex_
    std::atomic<std::uint64_t> dropped_{0};
};
