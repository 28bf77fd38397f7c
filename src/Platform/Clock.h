// Wall-clock time with microseconds. Everything in the library that needs "now"
// asks here, so tests can install their own clock instead of sleeping.
#pragma once

#include <cstdint>

namespace zub {

class Clock {
public:
    virtual ~Clock() = default;

    /// Microseconds since 1970-01-01 UTC.
    virtual std::int64_t microsSinceEpoch() const = 0;

    /// Now, from the installed clock (the system clock unless a test installed another).
    static std::int64_t nowMicros();
    /// Whole seconds since 1970 (fraction dropped).
    static std::uint64_t nowSeconds();
    /// Whole seconds of a reading of nowMicros (0 before 1970), as nowSeconds gives them.
    static std::uint64_t secondsOf(std::int64_t micros) {
        return micros <= 0 ? 0 : static_cast<std::uint64_t>(micros / 1000000);
    }
    /// Seconds since 1970 with fraction.
    static double nowDouble();

    /// Installs a clock; nullptr restores the system clock. The caller keeps the
    /// clock alive while installed. Safe against concurrent readers.
    static void install(const Clock* clock);
};

}  // namespace zub
