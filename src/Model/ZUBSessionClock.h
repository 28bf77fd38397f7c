// The process-wide session state and the session-id generator.
//
// State (all 0 at process start, never persisted):
//   sessionID           the current session id; 0 means none yet
//   lastSessionTs       seconds since 1970 of the latest session-id request
//   expireDayTimestamp  seconds since 1970 of the next local midnight after the
//                       latest generation
// The session rules read and write the state; generateSessionID moves
// expireDayTimestamp.
//
// generateSessionID seeds the generator with the current whole second (from
// zub::Clock) and returns its first value (0 to 2147483647): the values are those of
// srandom(seed) followed by random(), so two generations within the same second
// return the same id. The generator is the library's own, so the host's random()
// sequence is left alone. expireDayTimestamp becomes seed minus the local time of
// day (hours, minutes, seconds from localtime_r) plus 86400.
//
// Threads: every operation is safe on any thread. Each value is atomic; a
// generation (seed, midnight, value) runs under one lock, so concurrent callers
// never see a half-seeded generator.
#pragma once

#include <cstdint>

class ZUBSessionClock {
public:
    ZUBSessionClock() = delete;

    static std::uint64_t generateSessionID();

    static std::uint64_t sessionID();
    static void setSessionID(std::uint64_t value);
    static std::uint64_t lastSessionTs();
    static void setLastSessionTs(std::uint64_t value);
    static std::uint64_t expireDayTimestamp();
    static void setExpireDayTimestamp(std::uint64_t value);

    /// The next local midnight after `seconds` by the rule above.
    static std::uint64_t nextLocalMidnight(std::uint64_t seconds);
};
