// Runs reachability queries and the change notifier inside a network namespace of
// its own, made with unshare() at start, so a test can change links and routes
// (with nsenter) without touching the machine's real network. The namespace ends
// with this process.
//
// Prints "ready" once inside the namespace, or "skip <reason>" and exits 77 when
// no namespace can be made. Then answers commands read line by line on stdin:
//   status               -> "status <n> type <getNetworkType or -> conn <0|1>"
//   address <ip>         -> "address <n>"      (reachabilityWithAddress)
//   host <name>          -> "host <n>"         (reachabilityWithHostName)
//   start                -> "started <0|1>"    notifier on one kept wrapper; each
//                           change prints "notify <n> <1 if the object is that wrapper>"
//   stop                 -> "stopped"
//   once                 -> "once <0|1>": a notifier on another wrapper whose
//                           observer stops it from inside its first call, printing
//                           "once-notified <n>" (the thread ends by itself)
//   carrier <if> <0|1>   -> "carrier <if> <0|1>" once the interface's carrier
//                           (IFF_RUNNING) is as asked, "timeout" after 10 s; the
//                           kernel reports carrier changes a little later than
//                           the command that caused them
//   wifi                 -> "wifi <fetchSSIDInfo>"
//   churn                -> "churning"; threads start/stop notifiers, post and
//                           add/remove observers until "calm"
//   calm                 -> "calm <start/stop cycles> <posts seen>"
//   quit                 -> exits 0
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProHelper.h"
#include "Platform/NotificationCenter.h"
#include "support/NetNamespace.h"

#include <arpa/inet.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex gOut;

void say(const std::string& line) {
    std::lock_guard<std::mutex> lock(gOut);
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

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

// Start/stop cycles on fresh and shared wrappers while other threads post the
// change notification and add and remove observers, and the test changes routes.
class Churn {
public:
    void begin() {
        stop_ = false;
        threads_.emplace_back([this] {
            auto shared = ZUBProReachability::reachabilityForInternetConnection();
            while (!stop_) {
                if (shared->startNotifier()) ++cycles_;
                auto fresh = ZUBProReachability::reachabilityForInternetConnection();
                fresh->startNotifier();
                shared->stopNotifier();
            }  // `fresh` is destroyed while running: the destructor stops it
        });
        threads_.emplace_back([this] {
            auto& center = zub::NotificationCenter::defaultCenter();
            while (!stop_) {
                const auto id = center.addObserver(kZUBProReachabilityChangedNotification,
                                                   [this](const zub::Notification& n) {
                                                       if (n.object.has_value()) ++seen_;
                                                   });
                center.post(kZUBProReachabilityChangedNotification, std::any(static_cast<ZUBProReachability*>(nullptr)));
                center.removeObserver(id);
            }
        });
    }
    std::string end() {
        stop_ = true;
        for (auto& t : threads_) t.join();
        threads_.clear();
        return "calm " + std::to_string(cycles_.load()) + " " + std::to_string(seen_.load());
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<long> cycles_{0};
    std::atomic<long> seen_{0};
    std::vector<std::thread> threads_;
};

}  // namespace

int main() {
    if (::unshare(CLONE_NEWNET) != 0) {
        say(std::string("skip cannot make a network namespace: ") + std::strerror(errno));
        return 77;
    }
    say("ready");

    std::unique_ptr<ZUBProReachability> watched;
    zub::NotificationCenter::ObserverId observer = 0;
    std::unique_ptr<ZUBProReachability> onceWrapper;
    zub::NotificationCenter::ObserverId onceObserver = 0;
    Churn churn;
    std::string line;
    while (std::getline(std::cin, line)) {
        const auto space = line.find(' ');
        const std::string command = line.substr(0, space);
        const std::string arg = space == std::string::npos ? "" : line.substr(space + 1);
        if (command == "status") {
            auto r = ZUBProReachability::reachabilityForInternetConnection();
            const std::string type = ZUBProHelper::getNetworkType();
            say("status " + std::to_string(r->currentReachabilityStatus()) + " type " + (type.empty() ? "-" : type) +
                " conn " + (r->connectionRequired() ? "1" : "0"));
        } else if (command == "address") {
            auto r = forAddressText(arg);
            say("address " + (r ? std::to_string(r->currentReachabilityStatus()) : std::string("none")));
        } else if (command == "host") {
            auto r = ZUBProReachability::reachabilityWithHostName(arg);
            say("host " + (r ? std::to_string(r->currentReachabilityStatus()) : std::string("none")));
        } else if (command == "start") {
            if (!watched) watched = ZUBProReachability::reachabilityForInternetConnection();
            if (observer == 0) {
                ZUBProReachability* expected = watched.get();
                observer = zub::NotificationCenter::defaultCenter().addObserver(
                    kZUBProReachabilityChangedNotification, [expected](const zub::Notification& n) {
                        auto* const* object = std::any_cast<ZUBProReachability*>(&n.object);
                        if (!object || !*object) return;
                        say("notify " + std::to_string((*object)->currentReachabilityStatus()) + " " +
                            (*object == expected ? "1" : "0"));
                    });
            }
            say(std::string("started ") + (watched->startNotifier() ? "1" : "0"));
        } else if (command == "once") {
            if (!onceWrapper) onceWrapper = ZUBProReachability::reachabilityForInternetConnection();
            ZUBProReachability* target = onceWrapper.get();
            onceObserver = zub::NotificationCenter::defaultCenter().addObserver(
                kZUBProReachabilityChangedNotification, [target](const zub::Notification& n) {
                    auto* const* object = std::any_cast<ZUBProReachability*>(&n.object);
                    if (!object || *object != target) return;
                    target->stopNotifier();  // from the listener thread itself
                    say("once-notified " + std::to_string(target->currentReachabilityStatus()));
                });
            say(std::string("once ") + (onceWrapper->startNotifier() ? "1" : "0"));
        } else if (command == "stop") {
            if (watched) watched->stopNotifier();
            say("stopped");
        } else if (command == "carrier") {
            const auto sep = arg.find(' ');
            const std::string ifname = arg.substr(0, sep);
            const bool wanted = sep != std::string::npos && arg.substr(sep + 1) == "1";
            say(zubtest::awaitCarrier(ifname, wanted) ? "carrier " + arg : std::string("timeout"));
        } else if (command == "wifi") {
            say("wifi " + ZUBProHelper::fetchSSIDInfo());
        } else if (command == "churn") {
            churn.begin();
            say("churning");
        } else if (command == "calm") {
            say(churn.end());
        } else if (command == "quit") {
            break;
        } else {
            say("unknown " + command);
        }
    }
    if (watched) watched->stopNotifier();
    zub::NotificationCenter::defaultCenter().removeObserver(observer);
    zub::NotificationCenter::defaultCenter().removeObserver(onceObserver);
    onceWrapper.reset();
    return 0;
}
