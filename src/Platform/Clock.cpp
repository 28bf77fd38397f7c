#include "Platform/Clock.h"

#include <atomic>
#include <chrono>

namespace zub {
namespace {

class SystemClock final : public Clock {
public:
    std::int64_t microsSinceEpoch() const override {
        using namespace std::chrono;
        return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    }
};

// Never destroyed: the library's queue threads may still ask for the time while
// the process exits.
const Clock& systemClock() {
    static const SystemClock* clock = new SystemClock();
    return *clock;
}
std::atomic<const Clock*> gInstalled{nullptr};

}  // namespace

std::int64_t Clock::nowMicros() {
    const Clock* c = gInstalled.load(std::memory_order_acquire);
    return (c ? *c : systemClock()).microsSinceEpoch();
}

std::uint64_t Clock::nowSeconds() {
    return secondsOf(nowMicros());
}

double Clock::nowDouble() {
    return static_cast<double>(nowMicros()) / 1e6;
}

void Clock::install(const Clock* clock) {
    gInstalled.store(clock, std::memory_order_release);
}

}  // namespace zub
