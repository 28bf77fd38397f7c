#include "Common/Network/ZUBProReachability.h"

#include "Common/ZUBProHelper.h"
#include "Platform/NotificationCenter.h"

#include <netinet/in.h>
#include <new>

const char* const kZUBProReachabilityChangedNotification = "kNetworkReachabilityChangedNotification";

void ReachabilityCallback(const zub::LinkState& /*target*/, std::uint32_t /*flags*/, void* info) {
    try {
        zub::NotificationCenter::defaultCenter().post(kZUBProReachabilityChangedNotification,
                                                      std::any(static_cast<ZUBProReachability*>(info)));
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("reachability: an observer failed: %@", e.what());
    } catch (...) {
        ZUBProHelper::LogDebug("reachability: an observer failed");
    }
}

ZUBProReachability::ZUBProReachability(std::unique_ptr<zub::LinkState> handle) : _reachabilityRef(std::move(handle)) {}

ZUBProReachability::~ZUBProReachability() {
    stopNotifier();
    monitor_.reset();
    _reachabilityRef.reset();
}

std::unique_ptr<ZUBProReachability> ZUBProReachability::wrap(std::unique_ptr<zub::LinkState> handle) {
    if (!handle) return nullptr;
    std::unique_ptr<ZUBProReachability> wrapper(new (std::nothrow) ZUBProReachability(std::move(handle)));
    if (!wrapper) return nullptr;  // the handle went with the failed construction
    ZUBProReachability* self = wrapper.get();
    const zub::LinkState& target = *self->_reachabilityRef;
    wrapper->monitor_.reset(new (std::nothrow) zub::LinkMonitor(
        target, [self, &target](std::uint32_t flags) { ReachabilityCallback(target, flags, self); },
        [&target](int error) {
            ZUBProHelper::LogDebug("[WARN]reachability: watching %@ failed (error %@), the notifier has stopped",
                                   target.description(), error);
        }));
    if (!wrapper->monitor_) return nullptr;
    return wrapper;
}

std::unique_ptr<ZUBProReachability> ZUBProReachability::reachabilityWithHostName(const std::string& hostName) {
    auto handle = zub::LinkState::forHostName(hostName);
    if (!handle) ZUBProHelper::LogDebug("reachability: no handle for host name \"%@\"", hostName);
    return wrap(std::move(handle));
}

std::unique_ptr<ZUBProReachability> ZUBProReachability::reachabilityWithAddress(const sockaddr* hostAddress) {
    auto handle = zub::LinkState::forAddress(hostAddress);
    if (!handle) ZUBProHelper::LogDebug("reachability: no handle for the given address");
    return wrap(std::move(handle));
}

std::unique_ptr<ZUBProReachability> ZUBProReachability::reachabilityForInternetConnection() {
    sockaddr_in zeroAddress{};
    zeroAddress.sin_family = AF_INET;
    zeroAddress.sin_port = 0;
    zeroAddress.sin_addr.s_addr = htonl(INADDR_ANY);
    return reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&zeroAddress));
}

bool ZUBProReachability::startNotifier() {
    if (!monitor_) return false;
    const bool started = monitor_->start();
    if (!started) ZUBProHelper::LogDebug("reachability: cannot watch %@", _reachabilityRef->description());
    return started;
}

void ZUBProReachability::stopNotifier() {
    if (monitor_) monitor_->stop();
}

ZUBNetworkStatus ZUBProReachability::networkStatusForFlags(std::uint32_t flags) const {
    using namespace zub::ReachabilityFlag;
    if ((flags & kReachable) == 0) return ZUBNetworkNotReachable;
    if (flags & kIsDirect) return ZUBNetworkViaWWAN;
    if ((flags & (kConnectionOnTraffic | kConnectionOnDemand)) != 0 && (flags & kInterventionRequired) == 0) {
        return ZUBNetworkViaWiFi;
    }
    return (flags & kConnectionRequired) == 0 ? ZUBNetworkViaWiFi : ZUBNetworkNotReachable;
}

ZUBNetworkStatus ZUBProReachability::currentReachabilityStatus() const {
    const auto flags = _reachabilityRef->flags();
    if (!flags) return ZUBNetworkNotReachable;
    return networkStatusForFlags(*flags);
}

bool ZUBProReachability::connectionRequired() const {
    const auto flags = _reachabilityRef->flags();
    return flags && (*flags & zub::ReachabilityFlag::kConnectionRequired) != 0;
}
