// Runs reachability queries and the change notifier inside a network namespace of
// its own (see support/NetNamespace.h), so a test can change links and routes
// without touching the machine's real network. Commands, one a line:
//   status        -> "status <n> type <getNetworkType or -> conn <0|1>"
//   address <ip>  -> "address <n>"     (reachabilityWithAddress)
//   host <name>   -> "host <n>"        (reachabilityWithHostName)
//   wifi          -> "wifi <fetchSSIDInfo>"
//   start         -> "started <0|1>": the notifier on one kept wrapper; each change
//                    it posts about that wrapper prints "notify <n>"
//   stop          -> "stopped"
//   once          -> "once <0|1>": a notifier on another wrapper whose observer
//                    stops it from inside its first call, printing "once-notified <n>"
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProHelper.h"
#include "Platform/NotificationCenter.h"
#include "support/NetNamespace.h"

#include <arpa/inet.h>

#include <memory>
#include <string>

using zubtest::say;

namespace {

std::unique_ptr<ZUBProReachability> forAddressText(const std::string& text) {
    sockaddr_in in4{};
    sockaddr_in6 in6{};
    if (::inet_pton(AF_INET, text.c_str(), &in4.sin_addr) == 1) {
        in4.sin_family = AF_INET;
        return ZUBProReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&in4));
    }
    if (::inet_pton(AF_INET6, text.c_str(), &in6.sin6_addr) == 1) {
        in6.sin6_family = AF_INET6;
        return ZUBProReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&in6));
    }
    return nullptr;
}

std::string statusOf(const std::unique_ptr<ZUBProReachability>& r) {
    return r ? std::to_string(r->currentReachabilityStatus()) : "none";
}

}  // namespace

int main() {
    auto& center = zub::NotificationCenter::defaultCenter();
    // Made inside the namespace, at their first use.
    std::unique_ptr<ZUBProReachability> watched, onceWrapper;
    zub::NotificationCenter::ObserverId observer = 0, onceObserver = 0;
    const int code = zubtest::serveNamespace([&](const std::string& command, const std::string& arg) -> std::string {
        if (command == "status") {
            auto r = ZUBProReachability::reachabilityForInternetConnection();
            const std::string type = ZUBProHelper::getNetworkType();
            return "status " + statusOf(r) + " type " + (type.empty() ? "-" : type) + " conn " +
                   (r->connectionRequired() ? "1" : "0");
        }
        if (command == "address") return "address " + statusOf(forAddressText(arg));
        if (command == "host") return "host " + statusOf(ZUBProReachability::reachabilityWithHostName(arg));
        if (command == "wifi") return "wifi " + ZUBProHelper::fetchSSIDInfo();
        if (command == "start") {
            watched = ZUBProReachability::reachabilityForInternetConnection();
            ZUBProReachability* expected = watched.get();
            observer = center.addObserver(kZUBProReachabilityChangedNotification, [expected](const zub::Notification& n) {
                auto* const* object = std::any_cast<ZUBProReachability*>(&n.object);
                if (object && *object == expected) say("notify " + std::to_string(expected->currentReachabilityStatus()));
            });
            return std::string("started ") + (watched->startNotifier() ? "1" : "0");
        }
        if (command == "stop") {
            if (watched) watched->stopNotifier();
            return "stopped";
        }
        if (command == "once") {
            onceWrapper = ZUBProReachability::reachabilityForInternetConnection();
            ZUBProReachability* target = onceWrapper.get();
            onceObserver = center.addObserver(kZUBProReachabilityChangedNotification, [target](const zub::Notification& n) {
                auto* const* object = std::any_cast<ZUBProReachability*>(&n.object);
                if (!object || *object != target) return;
                target->stopNotifier();  // from the listener thread itself
                say("once-notified " + std::to_string(target->currentReachabilityStatus()));
            });
            return std::string("once ") + (onceWrapper->startNotifier() ? "1" : "0");
        }
        return "unknown " + command;
    });
    if (watched) watched->stopNotifier();
    center.removeObserver(observer);
    center.removeObserver(onceObserver);
    return code;
}
