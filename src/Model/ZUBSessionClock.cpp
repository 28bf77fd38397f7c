#include "Model/ZUBSessionClock.h"

#include "Platform/Clock.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <mutex>

namespace {

std::atomic<std::uint64_t> gSessionID{0};
std::atomic<std::uint64_t> gLastSessionTs{0};
std::atomic<std::uint64_t> gExpireDayTimestamp{0};

// The generator: the C library's additive-feedback generator with a state of its
// own, of the same size as the process-wide one, so srandom_r/random_r give the
// values srandom/random would.
struct Generator {
    std::mutex mutex;
    alignas(8) char state[128] = {};  // guarded by mutex
    random_data data = {};   // guarded by mutex
    bool ready = false;      // guarded by mutex
    // Re-seeding runs hundreds of rounds of the generator, and every filed event
    // asks for a value: the value of the last seed is kept, since a seed always
    // gives the same first value.
    std::uint64_t lastSeed = 0;      // guarded by mutex
    std::int32_t lastValue = -1;     // guarded by mutex; -1: none yet
};

Generator& generator() {
    static Generator* g = new Generator();
    return *g;
}

}  // namespace

std::uint64_t ZUBSessionClock::nextLocalMidnight(std::uint64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    if (!::localtime_r(&t, &local)) return seconds + 86400;
    const std::uint64_t sinceMidnight = static_cast<std::uint64_t>(local.tm_min) * 60 +
                                        static_cast<std::uint64_t>(local.tm_hour) * 3600 +
                                        static_cast<std::uint64_t>(local.tm_sec);
    return seconds - sinceMidnight + 86400;
}

std::uint64_t ZUBSessionClock::generateSessionID() {
    const std::uint64_t seed = zub::Clock::nowSeconds();
    Generator& g = generator();
    std::int32_t value = 0;
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        if (!g.ready) {
            ::initstate_r(static_cast<unsigned>(seed), g.state, sizeof g.state, &g.data);
            g.ready = true;
        }
        gExpireDayTimestamp.store(nextLocalMidnight(seed));
        if (g.lastValue >= 0 && g.lastSeed == seed) {
            value = g.lastValue;
        } else {
            ::srandom_r(static_cast<unsigned>(seed), &g.data);
            ::random_r(&g.data, &value);
            g.lastSeed = seed;
            g.lastValue = value;
        }
    }
    return static_cast<std::uint64_t>(value);
}

std::uint64_t ZUBSessionClock::sessionID() { return gSessionID.load(); }
void ZUBSessionClock::setSessionID(std::uint64_t value) { gSessionID.store(value); }
std::uint64_t ZUBSessionClock::lastSessionTs() { return gLastSessionTs.load(); }
void ZUBSessionClock::setLastSessionTs(std::uint64_t value) { gLastSessionTs.store(value); }
std::uint64_t ZUBSessionClock::expireDayTimestamp() { return gExpireDayTimestamp.load(); }
void ZUBSessionClock::setExpireDayTimestamp(std::uint64_t value) { gExpireDayTimestamp.store(value); }
