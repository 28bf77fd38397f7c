// ZUBProReachability: whether the network (or one destination) can be reached, and
// over what kind of path, as a status of 0, 1 or 2. A thin wrapper around a
// zub::LinkState handle; see Platform/LinkState.h for how Linux answers.
//
// The library itself only makes a fresh wrapper with
// reachabilityForInternetConnection() and asks currentReachabilityStatus() once
// (ZUBProHelper::getNetworkType and its callers). The host-name constructor and the
// change notifier are offered to callers.
//
// Threads: status queries may run on any thread; each wrapper owns its handle.
// The notifier posts kZUBProReachabilityChangedNotification on the default
// zub::NotificationCenter from its own listener thread, with the wrapper
// (ZUBProReachability*) as the object; observers ask that object for the status.
// The wrapper must stay alive while its notifier runs (destroying it stops it).
#pragma once

#include <ZUBCocoa/ZUBConstants.h>

#include "Platform/LinkState.h"

#include <ZUBCocoa/ZUBExport.h>

#include <cstdint>
#include <memory>
#include <string>

struct sockaddr;

/// Name of the notification posted on every reachability change:
/// "kNetworkReachabilityChangedNotification".

enum ZUBNetworkStatus : std::int64_t {
    ZUBNetworkNotReachable = 0,
    ZUBNetworkViaWiFi = 1,
    ZUBNetworkViaWWAN = 2,
};

class ZUBProReachability {
public:
    /// A wrapper for a host name; nullptr when no handle can be made (empty name).
    static std::unique_ptr<ZUBProReachability> reachabilityWithHostName(const std::string& hostName);
    /// A wrapper for an IPv4 or IPv6 socket address (copied); nullptr for a null
    /// pointer or another address family.
    static std::unique_ptr<ZUBProReachability> reachabilityWithAddress(const sockaddr* hostAddress);
    /// A wrapper for the all-zero IPv4 address (0.0.0.0, port 0): the internet.
    static std::unique_ptr<ZUBProReachability> reachabilityForInternetConnection();

    /// Stops the notifier, then releases the handle.
    ~ZUBProReachability();
    ZUBProReachability(const ZUBProReachability&) = delete;
    ZUBProReachability& operator=(const ZUBProReachability&) = delete;

    /// Starts watching for changes (see above). True when watching. Should the
    /// watch fail later (the kernel's notices can no longer be read), it stops,
    /// says so in the debug log, and a new startNotifier() watches again.
    bool startNotifier();
    /// Stops watching; nothing when not started.
    void stopNotifier();

    /// The status from the current flags; ZUBNetworkNotReachable when they cannot
    /// be read.
    ZUBNetworkStatus currentReachabilityStatus() const;
    /// Status from flags, rules in order: reachable bit (0x2) clear -> 0; 0x20000
    /// set -> 2; 0x8 or 0x20 set with 0x10 clear -> 1; else 1 if 0x4 is clear, 0 if
    /// it is set.
    ZUBNetworkStatus networkStatusForFlags(std::uint32_t flags) const;
    /// The connection-required bit (0x4) of the current flags; false when the flags
    /// cannot be read.
    bool connectionRequired() const;

    /// The handle (for the notifier's callback and diagnostics).
    const zub::LinkState& handle() const { return *_reachabilityRef; }

private:
    static std::unique_ptr<ZUBProReachability> wrap(std::unique_ptr<zub::LinkState> handle);
    explicit ZUBProReachability(std::unique_ptr<zub::LinkState> handle);

    std::unique_ptr<zub::LinkState> _reachabilityRef;
    std::unique_ptr<zub::LinkMonitor> monitor_;
};

/// Called by the notifier with the handle, its new flags and the wrapper: posts
/// kZUBProReachabilityChangedNotification with the wrapper as the object. The
/// flags are not passed on.
void ReachabilityCallback(const zub::LinkState& target, std::uint32_t flags, void* info);
