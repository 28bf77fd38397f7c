// Cost of the network and device probes and of the session clock.
// Targets on the 2-core reference machine: every probe (network type, Wi-Fi
// information, address reachability) well under 5 ms per call, so no probe holds
// up a queue; a session-id generation <= 2 us; a notification post to one
// observer <= 1 us.
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProHelper.h"
#include "Model/ZUBSessionClock.h"
#include "Platform/HostInfo.h"
#include "Platform/NotificationCenter.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

void BM_GetNetworkType(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ZUBProHelper::getNetworkType());
}
BENCHMARK(BM_GetNetworkType)->Unit(benchmark::kMicrosecond);

void BM_AddressReachability(benchmark::State& state) {
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto r = ZUBProReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&loopback));
    for (auto _ : state) benchmark::DoNotOptimize(r->currentReachabilityStatus());
}
BENCHMARK(BM_AddressReachability)->Unit(benchmark::kMicrosecond);

void BM_FetchSSIDInfo(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ZUBProHelper::fetchSSIDInfo());
}
BENCHMARK(BM_FetchSSIDInfo)->Unit(benchmark::kMicrosecond);

void BM_IsJailbroken(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ZUBProHelper::isJailbroken());
}
BENCHMARK(BM_IsJailbroken)->Unit(benchmark::kMicrosecond);

void BM_HostInfoAll(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(zub::HostInfo::computerName());
        benchmark::DoNotOptimize(zub::HostInfo::machine());
        benchmark::DoNotOptimize(zub::HostInfo::model());
        benchmark::DoNotOptimize(zub::HostInfo::osVersion());
        benchmark::DoNotOptimize(zub::HostInfo::timeZoneName());
        benchmark::DoNotOptimize(zub::HostInfo::preferredLanguage());
        benchmark::DoNotOptimize(zub::HostInfo::mainScreen());
    }
}
BENCHMARK(BM_HostInfoAll)->Unit(benchmark::kMicrosecond);

void BM_NotifierStartStop(benchmark::State& state) {
    auto r = ZUBProReachability::reachabilityForInternetConnection();
    for (auto _ : state) {
        r->startNotifier();
        r->stopNotifier();
    }
}
BENCHMARK(BM_NotifierStartStop)->Unit(benchmark::kMicrosecond);

void BM_GenerateSessionID(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ZUBSessionClock::generateSessionID());
}
BENCHMARK(BM_GenerateSessionID);

void BM_PostToOneObserver(benchmark::State& state) {
    zub::NotificationCenter center;
    long calls = 0;
    center.addObserver("n", [&calls](const zub::Notification&) { ++calls; });
    for (auto _ : state) center.post("n");
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(BM_PostToOneObserver);

}  // namespace

BENCHMARK_MAIN();
