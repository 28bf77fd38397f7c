// Cost of a tracking call through the C interface (zub.h) beside the same call
// through the C++ facade: a custom event with 3 string pairs, on the host's thread.
//   C++      ZUBPro::trackCustomEvent with an initializer list
//   C        zub_track_custom_event with a builder filled once and reused
//   C, built zub_args_new + 3 x zub_args_set_string + the call + zub_args_free
//   C, JSON  zub_args_from_json + the call + zub_args_free (the Python module's way)
// Each call is timed on its own (counters median_us, p99_us, max_us). As in
// tracking_bench, no start: events are filed on the report queue's worker and
// kept; the store is emptied between runs. HOME is a temporary directory.
#include "Dal/ZUBEventDal.h"
#include "Pro/ZUBEventLogic.h"

#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/zub.h>

#include <benchmark/benchmark.h>

#if __has_include("support/TempHome.h")
#include "support/TempHome.h"
#define ZUB_BENCH_TEMP_HOME 1
#endif

#include <algorithm>
#include <chrono>
#include <cstdlib>
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

template <typename Call>
void timeEach(benchmark::State& state, Call call) {
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(kCalls));
    settle();
    for (auto _ : state) {
        const auto start = Clock::now();
        call();
        const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
        micros.push_back(us);
        state.SetIterationTime(us / 1e6);
    }
    settle();
    std::sort(micros.begin(), micros.end());
    auto at = [&](double q) { return micros[static_cast<std::size_t>(q * static_cast<double>(micros.size() - 1))]; };
    state.counters["median_us"] = at(0.5);
    state.counters["p99_us"] = at(0.99);
    state.counters["max_us"] = micros.back();
}

void require(zub_status status) {
    if (status != ZUB_OK) std::abort();  // a benchmark of refused calls would measure nothing
}

void BM_Cxx3StringPairs(benchmark::State& state) {
    timeEach(state, [] { ZUBPro::trackCustomEvent("buy", {{"item", "book"}, {"color", "red"}, {"size", "L"}}); });
}
BENCHMARK(BM_Cxx3StringPairs)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_C3StringPairsReusedBuilder(benchmark::State& state) {
    zub_args* args = zub_args_new();
    require(zub_args_set_string(args, "item", "book"));
    require(zub_args_set_string(args, "color", "red"));
    require(zub_args_set_string(args, "size", "L"));
    timeEach(state, [&] { require(zub_track_custom_event("buy", args)); });
    zub_args_free(args);
}
BENCHMARK(BM_C3StringPairsReusedBuilder)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_C3StringPairsBuiltPerCall(benchmark::State& state) {
    timeEach(state, [] {
        zub_args* args = zub_args_new();
        require(zub_args_set_string(args, "item", "book"));
        require(zub_args_set_string(args, "color", "red"));
        require(zub_args_set_string(args, "size", "L"));
        require(zub_track_custom_event("buy", args));
        zub_args_free(args);
    });
}
BENCHMARK(BM_C3StringPairsBuiltPerCall)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_C3StringPairsFromJson(benchmark::State& state) {
    timeEach(state, [] {
        zub_args* args = nullptr;
        require(zub_args_from_json(R"({"item":"book","color":"red","size":"L"})", &args));
        require(zub_track_custom_event("buy", args));
        zub_args_free(args);
    });
}
BENCHMARK(BM_C3StringPairsFromJson)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
#ifdef ZUB_BENCH_TEMP_HOME
    zubtest::TempHome::install();
#endif
    // The first run of calls starts the library's queues, builds its singletons
    // and grows its journal: a cost that would fall on whichever benchmark runs
    // first, so it is paid here, once.
    for (int i = 0; i < kCalls; ++i) ZUBPro::trackCustomEvent("warm-up", {{"item", "book"}, {"color", "red"}});
    settle();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
