// Cost of the tracking calls on the host's thread: what a host pays per call.
// Targets on the 2-core reference machine:
//   trackCustomEvent with 3 string pairs   median <= 0.3 us, p90 <= 1, p99 <= 3, p99.9 <= 20 us,
//                                          <= 1,500 instructions (scripts/bench counts them)
//   trackPageViewBegin + trackPageViewEnd   median <= 4 us per pair
//
// Every call is timed on its own, so the median and the 99th percentile of single
// calls are reported (counters median_us, p99_us, max_us), with what sets the tail:
// the calling thread's page faults and involuntary context switches over the run
// (faults, preempted). The library runs as a
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
#include <cstdlib>
#include <string>
#include <string_view>
#include <chrono>
#include <vector>

#include <sys/resource.h>

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
    state.counters["p90_us"] = at(0.9);
    state.counters["p99_us"] = at(0.99);
    state.counters["p999_us"] = at(0.999);
    state.counters["max_us"] = micros.back();
}

template <typename Call>
void timeEach(benchmark::State& state, Call call) {
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(kCalls));
    settle();
    rusage before{};
    getrusage(RUSAGE_THREAD, &before);
    int i = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        call(i++);
        const auto end = Clock::now();
        const double us = std::chrono::duration<double, std::micro>(end - start).count();
        micros.push_back(us);
        state.SetIterationTime(us / 1e6);
    }
    rusage after{};
    getrusage(RUSAGE_THREAD, &after);
    state.counters["faults"] = static_cast<double>(after.ru_minflt - before.ru_minflt);
    state.counters["preempted"] = static_cast<double>(after.ru_nivcsw - before.ru_nivcsw);
    settle();
    report(state, micros);
}

[[gnu::noinline]] void trackThreeStrings(int i) {
    ZUBPro::trackCustomEvent("export", {{"format", "pdf"}, {"size", "a4"}, {"n", std::to_string(i)}});
}

// 3 string pairs: the call the instruction count (below, under callgrind) is taken of.
void BM_TrackCustomEvent3Strings(benchmark::State& state) {
    timeEach(state, trackThreeStrings);
}
BENCHMARK(BM_TrackCustomEvent3Strings)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

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
    // `--calls N`: N calls of the 3-string event and nothing else, for
    //   valgrind --tool=callgrind --toggle-collect='*trackThreeStrings*'
    // which counts the instructions of the calls (building the pairs included) on
    // this, the host's, thread only.
    if (argc == 3 && std::string_view(argv[1]) == "--calls") {
        const int calls = std::atoi(argv[2]);
        for (int i = 0; i < calls; ++i) trackThreeStrings(i);
        settle();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
