// Cost of the tracking calls on the host's thread: what a host pays per call.
// Targets on the 2-core reference machine:
//   trackCustomEvent with 3 pairs          median <= 2 us, p99 <= 20 us
//   trackPageViewBegin + trackPageViewEnd   median <= 4 us per pair
//
// Every call is timed on its own, so the median and the 99th percentile of single
// calls are reported (counters median_us, p99_us, max_us). The library runs as a
// host without a start would: events are filed on the report queue's worker (on
// the other core) and kept, since no mid is registered; the store is emptied
// between runs so memory stays bounded. HOME is a temporary directory.
#include "Dal/ZUBEventDal.h"
#include "Pro/ZUBEventLogic.h"

#include <ZUBCocoa/ZUBPro.h>

#include <benchmark/benchmark.h>

#if __has_include("support/TempHome.h")
#include "support/TempHome.h"
#define ZUB_BENCH_TEMP_HOME 1
#endif

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCalls = 100000;

void settle() {
    ZUBEventLogic::getInstance().queue().flush(std::chrono::seconds(60));
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    store.toReportEvents().clear();
    store.retryEvents().clear();
}

void report(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    auto at = [&](double q) { return micros[static_cast<std::size_t>(q * static_cast<double>(micros.size() - 1))]; };
    state.counters["median_us"] = at(0.5);
    state.counters["p99_us"] = at(0.99);
    state.counters["max_us"] = micros.back();
}

template <typename Call>
void timeEach(benchmark::State& state, Call call) {
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(kCalls));
    settle();
    int i = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        call(i++);
        const auto end = Clock::now();
        const double us = std::chrono::duration<double, std::micro>(end - start).count();
        micros.push_back(us);
        state.SetIterationTime(us / 1e6);
    }
    settle();
    report(state, micros);
}

void BM_TrackCustomEvent3Pairs(benchmark::State& state) {
    timeEach(state, [](int i) {
        ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"price", 9.5}, {"n", i}});
    });
}
BENCHMARK(BM_TrackCustomEvent3Pairs)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_TrackCustomEventNoPairs(benchmark::State& state) {
    timeEach(state, [](int) { ZUBPro::trackCustomEvent("launch"); });
}
BENCHMARK(BM_TrackCustomEventNoPairs)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_TrackPageViewBeginEnd(benchmark::State& state) {
    timeEach(state, [](int) {
        ZUBPro::trackPageViewBegin("home");
        ZUBPro::trackPageViewEnd("home");
    });
}
BENCHMARK(BM_TrackPageViewBeginEnd)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_TrackCustomEventBeginEnd(benchmark::State& state) {
    timeEach(state, [](int) {
        ZUBPro::trackCustomEventBegin("play", {{"song", "x"}});
        ZUBPro::trackCustomEventEnd("play", {{"song", "x"}});
    });
}
BENCHMARK(BM_TrackCustomEventBeginEnd)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
#ifdef ZUB_BENCH_TEMP_HOME
    // The library's state files go to a throw-away HOME, not the developer's.
    zubtest::TempHome::install();
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
