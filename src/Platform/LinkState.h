// LinkState: whether a destination can be reached, from the kernel's routing table
// and link state (rtnetlink), expressed in the reachability flag bits the rest of
// the library interprets. LinkMonitor: a listener thread that reports when those
// flags change.
//
// Targets:
//  - the internet (the any-address, IPv4 or IPv6): reachable when an interface that
//    is up, has its carrier and is not a loopback carries a default route
//    (IPv4 or IPv6) of unicast type;
//  - a numeric address: the kernel's route lookup for it; reachable when it yields
//    a unicast or local route on an interface that is up; a route without a
//    gateway adds kIsDirect, a local address kIsLocalAddress and kIsDirect;
//  - a host name: numeric names are addresses, "localhost" (and "*.localhost") is
//    the IPv4 loopback address; any other name is judged like the internet target,
//    without resolving it, so that no query ever waits on DNS.
// Linux has no on-demand or intervention-required connections: kConnectionRequired,
// kConnectionOnTraffic, kInterventionRequired and kConnectionOnDemand are never set.
//
// Cost: flags() opens one netlink socket, reads the link and route tables (a few
// hundred microseconds) and closes it; it waits on the kernel for at most
// kReplyTimeoutMs. Thread-safe; LinkState objects are immutable.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

struct sockaddr;

namespace zub {

namespace ReachabilityFlag {
inline constexpr std::uint32_t kTransientConnection = 0x1;
inline constexpr std::uint32_t kReachable = 0x2;
inline constexpr std::uint32_t kConnectionRequired = 0x4;
inline constexpr std::uint32_t kConnectionOnTraffic = 0x8;
inline constexpr std::uint32_t kInterventionRequired = 0x10;
inline constexpr std::uint32_t kConnectionOnDemand = 0x20;
inline constexpr std::uint32_t kIsLocalAddress = 0x10000;
inline constexpr std::uint32_t kIsDirect = 0x20000;
}  // namespace ReachabilityFlag

class LinkState {
public:
    /// Longest wait for one reply of the kernel.
    static constexpr int kReplyTimeoutMs = 500;

    /// The internet target.
    static std::unique_ptr<LinkState> forInternet();
    /// An IPv4 (sockaddr_in) or IPv6 (sockaddr_in6) address; the any-address of
    /// either family is the internet target. nullptr for a null pointer or another
    /// family. The address is copied.
    static std::unique_ptr<LinkState> forAddress(const sockaddr* address);
    /// A host name (see above); nullptr for an empty name or one with a NUL.
    static std::unique_ptr<LinkState> forHostName(std::string_view name);

    /// The current flags; std::nullopt when the kernel's tables cannot be read.
    std::optional<std::uint32_t> flags() const;

    /// A description for logs ("internet", "address 127.0.0.1", "host example.org").
    std::string description() const;

    ~LinkState();
    LinkState(const LinkState&) = delete;
    LinkState& operator=(const LinkState&) = delete;

private:
    struct Target;
    explicit LinkState(std::unique_ptr<Target> target);
    std::unique_ptr<Target> target_;
};

// Watches the kernel's link, address and route notices on a thread of its own and
// calls back with the target's new flags each time they differ from the last
// flags it saw (the first comparison is against the flags read by start()).
// The thread blocks on the netlink socket and on an eventfd that stop() signals;
// it never polls on a timer.
//
// Should waiting on or reading the socket fail (an error other than an
// interruption or an overrun of notices), the thread ends: `onFailure` is called
// once with the errno value, isRunning() turns false and no more changes are
// reported; start() makes a new listener. A user that caches the flags must then
// ask the target itself.
//
// Threads: start() and stop() may be called from any thread (they are serialised).
// The callbacks run on the listener thread; stop() waits for a running callback
// to return, except when stop() is called from inside a callback itself (the
// thread then ends after the callback returns). The target must outlive the
// monitor; the callbacks must not block on the monitor's own start()/stop() from
// another thread while being run.
class LinkMonitor {
public:
    using Callback = std::function<void(std::uint32_t flags)>;
    using FailureCallback = std::function<void(int error)>;

    LinkMonitor(const LinkState& target, Callback callback, FailureCallback onFailure = {});
    ~LinkMonitor();  // stops
    LinkMonitor(const LinkMonitor&) = delete;
    LinkMonitor& operator=(const LinkMonitor&) = delete;

    /// Subscribes to the kernel's notices and starts the thread. True when running
    /// (also when it already was); false when the netlink socket or the thread
    /// cannot be made.
    bool start();
    /// Stops the thread; nothing when not running.
    void stop();
    /// Started, and its listener has not ended on a failure.
    bool isRunning() const;

    /// The listener thread's sockets (defined with the platform variant).
    struct Listener;

private:
    const LinkState& target_;
    const Callback callback_;
    const FailureCallback onFailure_;
    mutable std::mutex mutex_;
    std::shared_ptr<Listener> listener_;  // guarded by mutex_
    std::thread thread_;                  // guarded by mutex_
};

}  // namespace zub
