// ZUBSessionEvent: the session rules and the session event (type 2).
//
// getSessionID(isActive) gives every new event its sid. A new session begins
// when a call with isActive comes sessionTimeoutSecs or more after the previous
// call, at the first call after local midnight (with either flag), or when there
// is none yet; each new session is reported with a session event that carries
// the environment ("ev"), the user type and the online-configuration versions.
//
// Threads: any thread. The check-and-open of a session runs under one lock, so
// two threads never open two sessions for one gap; the session event is handed
// to the report queue after the lock is released.
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstdint>

class ZUBSessionEvent : public ZUBProEvent {
public:
    ZUBSessionEvent();
    explicit ZUBSessionEvent(const zub::Coder& coder) : ZUBProEvent(coder) {}
    std::string className() const override { return "ZUBSessionEvent"; }

    static std::uint64_t getSessionID(bool isActive);
    /// The same, at a time the caller has read from the clock.
    static std::uint64_t getSessionID(bool isActive, std::uint64_t nowSeconds);
    static std::uint64_t generateSessionID();
    static void reportSessionEvent();

    void encode(zub::Value& envelope) override;

    /// The text the event's key is the MD5 of, fixed when the event is made; the
    /// digest itself is taken when the event is filed, on the report queue, so a
    /// host thread that opens a session never waits for the digest library.
    const std::optional<std::string>& keyText() const { return keyText_; }

private:
    std::optional<std::string> keyText_;
};
