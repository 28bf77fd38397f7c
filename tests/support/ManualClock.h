// A clock that stands still until a test moves it. Installed for its lifetime.
#pragma once

#include "Platform/Clock.h"

#include <atomic>
#include <cstdint>

namespace zubtest {

class ManualClock final : public zub::Clock {
public:
    explicit ManualClock(std::int64_t startMicros = 1'700'000'000'000'000) : micros_(startMicros) {
        zub::Clock::install(this);
    }
    ~ManualClock() override { zub::Clock::install(nullptr); }
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    std::int64_t microsSinceEpoch() const override { return micros_.load(); }
    void setSeconds(double seconds) { micros_ = static_cast<std::int64_t>(seconds * 1e6); }
    void advanceSeconds(double seconds) { micros_ += static_cast<std::int64_t>(seconds * 1e6); }

private:
    std::atomic<std::int64_t> micros_;
};

}  // namespace zubtest
