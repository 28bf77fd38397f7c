#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProHelper.h"
#include "Platform/NotificationCenter.h"
#include "support/NetNamespace.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

namespace {

// Starts a helper in a network namespace of its own; why not, when it cannot.
std::string namespaceProblem(zubtest::NetNamespace& ns, bool withLink) {
    if (!ns.problem().empty()) return "network namespace tests need root: " + ns.problem();
    if (withLink && !ns.addLink()) return "no veth links can be made in a namespace here";
    return "";
}

std::size_t openDescriptors() {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

}  // namespace

TEST(ZUBProReachability, StatusForFlagsFollowsTheTable) {
    auto r = ZUBProReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(r);
    const struct {
        std::uint32_t flags;
        ZUBNetworkStatus status;
    } table[] = {
        {0x0, ZUBNetworkNotReachable},          {0x2, ZUBNetworkViaWiFi},
        {0x2 | 0x4, ZUBNetworkNotReachable},    {0x2 | 0x4 | 0x20, ZUBNetworkViaWiFi},
        {0x2 | 0x4 | 0x8, ZUBNetworkViaWiFi},   {0x2 | 0x4 | 0x20 | 0x10, ZUBNetworkNotReachable},
        {0x2 | 0x8 | 0x10, ZUBNetworkViaWiFi},  {0x2 | 0x20000, ZUBNetworkViaWWAN},
        {0x2 | 0x20000 | 0x4, ZUBNetworkViaWWAN}, {0x20000, ZUBNetworkNotReachable},
        {0x2 | 0x40000, ZUBNetworkViaWiFi},     {0xFFFFFFFD, ZUBNetworkNotReachable},
        {0xFFFFFFFF, ZUBNetworkViaWWAN},
    };
    for (const auto& row : table) {
        EXPECT_EQ(r->networkStatusForFlags(row.flags), row.status) << std::hex << "flags 0x" << row.flags;
    }
    EXPECT_STREQ(kZUBProReachabilityChangedNotification, "kNetworkReachabilityChangedNotification");
}

TEST(ZUBProReachability, ConstructorsRefuseWhatHasNoHandle) {
    EXPECT_FALSE(ZUBProReachability::reachabilityWithAddress(nullptr));
    sockaddr_un unixAddress{};
    unixAddress.sun_family = AF_UNIX;
    EXPECT_FALSE(ZUBProReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&unixAddress)));
    EXPECT_FALSE(ZUBProReachability::reachabilityWithHostName(""));
    EXPECT_FALSE(ZUBProReachability::reachabilityWithHostName(std::string("a\0b", 3)));

    auto any = ZUBProReachability::reachabilityForInternetConnection();
    auto host = ZUBProReachability::reachabilityWithHostName("example.invalid");
    ASSERT_TRUE(any && host);
    EXPECT_EQ(any->handle().description(), "address 0.0.0.0");
    // A name that is not numeric is judged like the internet, never resolved.
    EXPECT_EQ(host->currentReachabilityStatus(), any->currentReachabilityStatus());
    // In whatever namespace this runs, the library's answer agrees with the status.
    const auto status = any->currentReachabilityStatus();
    const std::string type = ZUBProHelper::getNetworkType();
    EXPECT_EQ(type, status == 1 ? "WIFI" : status == 2 ? "CellNetwork" : "");
    EXPECT_FALSE(any->connectionRequired());
}

TEST(ZUBProReachability, ProbesLeaveNoDescriptorBehind) {
    // Warm up once-only allocations (the notification centre, libnl's caches).
    ZUBProHelper::getNetworkType();
    ZUBProHelper::fetchSSIDInfo();
    const std::size_t before = openDescriptors();
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < 10; ++i) {  // one descriptor lost a round would show ten times
        auto r = ZUBProReachability::reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&loopback));
        ASSERT_TRUE(r);
        r->currentReachabilityStatus();
        r->connectionRequired();
        ZUBProHelper::getNetworkType();
        ZUBProHelper::fetchSSIDInfo();
        ZUBProHelper::isJailbroken();
        ASSERT_TRUE(r->startNotifier());
        r->stopNotifier();
        ASSERT_TRUE(r->startNotifier());  // destroyed while running
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ZUBProReachabilityNetns, StatusAndAddressTargetsFollowRoutesAndCarrier) {
    zubtest::NetNamespace ns("reachability_netns_helper");
    if (const auto why = namespaceProblem(ns, false); !why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(ns.ask("status"), "status 0 type - conn 0");
    EXPECT_EQ(ns.ask("address 127.0.0.1"), "address 0") << "loopback is down in a fresh namespace";
    ASSERT_TRUE(ns.addLink()) << "no veth links in a namespace here";
    EXPECT_EQ(ns.ask("status"), "status 0 type - conn 0") << "links without a default route";

    ASSERT_EQ(ns.ip("route add default dev zv0"), 0);
    EXPECT_EQ(ns.ask("status"), "status 1 type WIFI conn 0");
    // A wired link with a route is no wireless network.
    EXPECT_EQ(ns.ask("wifi"), R"(wifi {"ss":"Not Found","bs":"Not Found"})");
    // The carrier's loss is seen through the notifier's test. IPv6 alone is enough.
    ASSERT_EQ(ns.ip("route del default dev zv0"), 0);
    ASSERT_EQ(ns.ip("-6 route add default dev zv0"), 0);
    EXPECT_EQ(ns.ask("status"), "status 1 type WIFI conn 0");
    ASSERT_EQ(ns.ip("-6 route del default dev zv0"), 0);
    EXPECT_EQ(ns.ask("status"), "status 0 type - conn 0");

    // Address targets use the kernel's route lookup. Local addresses are reachable
    // and direct, which the status table reports as 2.
    ASSERT_EQ(ns.ip("link set lo up"), 0);
    EXPECT_EQ(ns.ask("address 127.0.0.1"), "address 2");
    EXPECT_EQ(ns.ask("host localhost"), "host 2");
    EXPECT_EQ(ns.ask("address 198.51.100.7"), "address 0");
    ASSERT_EQ(ns.ip("addr add 198.51.100.1/24 dev zv0"), 0);
    EXPECT_EQ(ns.ask("address 198.51.100.7"), "address 2") << "on the link: direct";
    EXPECT_EQ(ns.ask("address 203.0.113.5"), "address 0") << "no route yet";
    EXPECT_EQ(ns.ask("host example.invalid"), "host 0");
    ASSERT_EQ(ns.ip("route add default via 198.51.100.254 dev zv0"), 0);
    EXPECT_EQ(ns.ask("address 203.0.113.5"), "address 1") << "through a gateway";
    EXPECT_EQ(ns.ask("host 203.0.113.5"), "host 1");
    EXPECT_EQ(ns.ask("host example.invalid"), "host 1");
    EXPECT_EQ(ns.ask("address 0.0.0.0"), "address 1");
    EXPECT_EQ(ns.ask("address ::"), "address 1") << "any-address of IPv6 is the internet too";

    // A default route on the loopback interface reaches nothing outside.
    ASSERT_EQ(ns.ip("route del default via 198.51.100.254 dev zv0"), 0);
    ASSERT_EQ(ns.ip("route add default dev lo"), 0);
    EXPECT_EQ(ns.ask("status"), "status 0 type - conn 0");
    ns.finish();
    EXPECT_EQ(ns.exitCode(), 0);
}

TEST(ZUBProReachabilityNetns, NotifierPostsWhenTheRouteComesAndGoesAndAnObserverMayStopIt) {
    zubtest::NetNamespace ns("reachability_netns_helper");
    if (const auto why = namespaceProblem(ns, true); !why.empty()) GTEST_SKIP() << why;
    ASSERT_EQ(ns.ask("start"), "started 1");
    ASSERT_EQ(ns.ip("route add default dev zv0"), 0);
    EXPECT_EQ(ns.next(), "notify 1");
    ASSERT_EQ(ns.ip("link set zv1 down"), 0);
    EXPECT_EQ(ns.next(), "notify 0") << "carrier lost";
    EXPECT_EQ(ns.ask("status"), "status 0 type - conn 0");
    ASSERT_EQ(ns.ip("link set zv1 up"), 0);
    EXPECT_EQ(ns.next(), "notify 1");
    ASSERT_EQ(ns.ip("route del default dev zv0"), 0);
    EXPECT_EQ(ns.next(), "notify 0");
    // Changes that leave the status as it is post nothing: the next line answers the query.
    ASSERT_EQ(ns.ip("addr add 198.51.100.1/24 dev zv0"), 0);
    EXPECT_EQ(ns.ask("status"), "status 0 type - conn 0");
    EXPECT_EQ(ns.ask("stop"), "stopped");
    ASSERT_EQ(ns.ip("route add default dev zv0"), 0);
    EXPECT_EQ(ns.ask("status"), "status 1 type WIFI conn 0");

    // An observer that stops its notifier from inside its call hears the first change only.
    ASSERT_EQ(ns.ask("once"), "once 1");
    ASSERT_EQ(ns.ip("route del default dev zv0"), 0);
    EXPECT_EQ(ns.next(), "once-notified 0");
    ASSERT_EQ(ns.ip("route add default dev zv0"), 0);
    EXPECT_EQ(ns.ask("status"), "status 1 type WIFI conn 0");
    const auto rest = ns.finish();
    EXPECT_TRUE(rest.empty()) << "posted after stopping: " << rest.front();
    EXPECT_EQ(ns.exitCode(), 0);
}

TEST(ZUBProReachabilityNetns, OfflineEventsWaitAndTheReportQueueAsksTheKernelOnceItsWatchFails) {
    zubtest::NetNamespace ns("pipeline_netns_helper");
    if (const auto why = namespaceProblem(ns, false); !why.empty()) GTEST_SKIP() << why;
    ASSERT_EQ(ns.ip("link set lo up"), 0);
    const std::string serving = ns.ask("serve");
    ASSERT_EQ(serving.rfind("serving http://127.0.0.1:", 0), 0u) << serving;

    // No default route: the report host's name cannot be looked up. That is
    // "offline": every cycle attempts all four events and counts no attempt.
    ASSERT_EQ(ns.ask("start http://collector.invalid/mstat/report"), "started 4");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ns.ask("cycle"), "cycle attempted 4 retried 0 waiting 4 retry 0 unknown-host 0") << "cycle " << i;
    }
    // Offline, smart reporting waits: the queue's watch knows there is no route.
    if (!ns.addLink()) GTEST_SKIP() << "no veth links can be made in a namespace here";
    ASSERT_EQ(ns.ask("url " + serving.substr(8) + "/mstat/report"), "url set");
    ASSERT_EQ(ns.ask("advance"), "advanced");
    EXPECT_EQ(ns.ask("track"), "tracked");
    EXPECT_EQ(ns.ask("arrived"), "arrived 0 waiting 5");

    // The watch fails at the next notice: the new route is never seen through it.
    ASSERT_EQ(ns.ask("break-watch"), "broken");
    ASSERT_EQ(ns.ip("route add default dev zv0"), 0);
    ASSERT_EQ(ns.ask("await [WARN]reachability: watching"), "seen");
    // The next check asks the kernel, finds the route, and smart reporting sends.
    EXPECT_EQ(ns.ask("track"), "tracked");
    EXPECT_EQ(ns.ask("arrived"), "arrived 6 waiting 0");
    EXPECT_EQ(ns.ask("track"), "tracked");
    EXPECT_EQ(ns.ask("arrived"), "arrived 7 waiting 0");
    EXPECT_EQ(ns.ask("count [WARN]reachability: watching"), "count 1") << "logged once";
    ns.finish();
    EXPECT_EQ(ns.exitCode(), 0);
}

TEST(ZUBProReachabilityConcurrency, StartStopRacesWithPostsAndStatusQueries) {
    auto shared = ZUBProReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(shared);
    auto& center = zub::NotificationCenter::defaultCenter();
    const std::string type = ZUBProHelper::getNetworkType();
    std::atomic<bool> stop{false};
    std::atomic<long> delivered{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 40; ++i) {
                if (!shared->startNotifier()) ++failures;
                auto fresh = ZUBProReachability::reachabilityForInternetConnection();
                if (!fresh->startNotifier()) ++failures;
                if (ZUBProHelper::getNetworkType() != type) ++failures;
                shared->stopNotifier();
            }  // `fresh` is destroyed while running: the destructor stops it
        });
    }
    threads.emplace_back([&] {
        do {
            const auto id = center.addObserver(kZUBProReachabilityChangedNotification, [&](const zub::Notification& n) {
                if (std::any_cast<ZUBProReachability*>(n.object) == shared.get()) ++delivered;
            });
            center.post(kZUBProReachabilityChangedNotification, std::any(shared.get()));
            center.removeObserver(id);
        } while (!stop);
    });
    for (int t = 0; t < 2; ++t) threads[static_cast<std::size_t>(t)].join();
    stop = true;
    threads.back().join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(delivered.load(), 0);
    EXPECT_EQ(center.observerCount(), 0u);
}
