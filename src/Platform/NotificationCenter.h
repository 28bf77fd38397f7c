// NotificationCenter: in-process notifications by name.
//
// post() delivers synchronously on the posting thread, to every observer of that
// name (and to observers of all names), in the order the observers were added.
// The centre keeps no lock while an observer runs, so an observer may post,
// add observers or remove observers (itself included) from inside its call.
// An exception thrown by an observer ends the post and reaches the poster.
//
// Threads: every operation may be called from any thread. After removeObserver
// returns, no new call of the observer starts, and (when called from outside the
// observer) no call of it is still running on any thread. An observer that
// removes itself from inside its own call is not waited for: removeObserver
// returns at once and calls of it on other threads may still be finishing; a later
// removeObserver of the same id from outside waits for them. Do not let two
// different observers, running on two threads, remove each other: each would
// wait for the other.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zub {

struct Notification {
    std::string name;
    /// The object that posted (for example a pointer to the sender); empty if none.
    std::any object;
    /// Extra information; null when none was given.
    Value userInfo;
};

class NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;
    /// Identifies one registration; 0 is never handed out.
    using ObserverId = std::uint64_t;

    /// The process-wide centre (never destroyed).
    static NotificationCenter& defaultCenter();

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Calls `observer` for every notification named `name`; an empty name observes
    /// every notification. An empty function is refused (returns 0).
    ObserverId addObserver(const std::string& name, Observer observer);
    /// Removes one registration; unknown ids (and 0) are ignored.
    void removeObserver(ObserverId id);
    /// Removes every registration for `name` (all registrations for an empty name).
    void removeObservers(const std::string& name);

    void post(const std::string& name, std::any object = {}, Value userInfo = Value());
    void post(const Notification& notification);

    /// How many registrations are present (diagnostics and tests).
    std::size_t observerCount() const;

    /// The registrations (defined with the implementation).
    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace zub
