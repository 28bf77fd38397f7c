// A manual clock that moves on by one microsecond at every reading. Whole seconds
// pass only when the test moves them, as with ManualClock, but no two readings are
// equal: events made one after another get different microsecond digits, so their
// identity keys (which mix in the clock's microseconds) never collide and the
// event store keeps every one of them. Installed for its lifetime.
//
// Keep a test under 100000 readings: beyond that the five microsecond digits of
// the identity key may repeat (and beyond a million readings without moving the
// clock, whole seconds would start to pass by themselves).
#pragma once

#include "Platform/Clock.h"

#include <atomic>
#include <cstdint>

namespace zubtest {

class SteppingClock final : public zub::Clock {
public:
    explicit SteppingClock(std::int64_t startSeconds = 1'700'000'000) : micros_(startSeconds * 1'000'000) {
        zub::Clock::install(this);
    }
    ~SteppingClock() override { zub::Clock::install(nullptr); }
    SteppingClock(const SteppingClock&) = delete;
    SteppingClock& operator=(const SteppingClock&) = delete;

    std::int64_t microsSinceEpoch() const override { return micros_.fetch_add(1); }
    /// Moves the clock to the start of the whole second `seconds`.
    void setSeconds(std::int64_t seconds) { micros_ = seconds * 1'000'000; }
    /// Moves the clock by whole (or negative) seconds.
    void advanceSeconds(std::int64_t seconds) { micros_ += seconds * 1'000'000; }
    /// Moves the clock by microseconds (to test spans under one second).
    void advanceMicros(std::int64_t micros) { micros_ += micros; }

private:
    mutable std::atomic<std::int64_t> micros_;
};

}  // namespace zubtest
