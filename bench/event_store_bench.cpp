// Speed of events and the event store (memory per waiting event: journal_bench).
// Targets on the 2-core reference machine: toJsonString of a custom event with 5
// arguments <= 5 us; saveLogfile and loadLogfile of 1024 events <= 20 ms each.
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBProCustomEvent.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "support/TempHome.h"

#include <benchmark/benchmark.h>

namespace {

std::shared_ptr<ZUBProCustomEvent> customEvent(int n) {
    auto e = std::make_shared<ZUBProCustomEvent>();
    e->setEventID("checkout");
    e->setType(1000);
    e->setSid(1234567);
    e->setTs(1700000000u + static_cast<std::uint64_t>(n));
    e->setIsImportant(true);
    e->setKvs(zub::Value::object({{"item", "book"}, {"price", 9.5}, {"qty", n}, {"currency", "EUR"}, {"gift", false}}));
    e->setMd5("event-" + std::to_string(n));
    return e;
}

void fill(int count) {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    store.toReportEvents().clear();
    for (int i = 0; i < count; ++i) {
        auto e = customEvent(i);
        store.toReportEvents().set(*e->md5(), e);
    }
}

void warmIdentity() {
    // Identifiers and environment are read once per process; measure the steady state.
    ZUBDeviceIDDal::getInstance().getOpenUDID();
    ZUBProEnv::getInstance();
    ZUBProUser::getInstance();
}

void BM_ToJsonStringCustom5(benchmark::State& state) {
    warmIdentity();
    auto event = customEvent(1);
    for (auto _ : state) {
        auto json = event->toJsonString();
        benchmark::DoNotOptimize(json);
    }
}
BENCHMARK(BM_ToJsonStringCustom5)->Unit(benchmark::kMicrosecond);

void BM_SaveLogfile1024(benchmark::State& state) {
    fill(1024);
    for (auto _ : state) ZUBEventDal::getInstance().saveLogfile();
}
BENCHMARK(BM_SaveLogfile1024)->Unit(benchmark::kMillisecond);

void BM_LoadLogfile1024(benchmark::State& state) {
    fill(1024);
    for (auto _ : state) {
        state.PauseTiming();
        ZUBEventDal::getInstance().saveLogfile();  // loading deletes the files
        state.ResumeTiming();
        ZUBEventDal::getInstance().loadLogfile();
    }
    std::lock_guard lock(ZUBEventDal::getInstance().eventListLock());
    if (ZUBEventDal::getInstance().toReportEvents().size() != 1024) state.SkipWithError("events lost");
}
BENCHMARK(BM_LoadLogfile1024)->Unit(benchmark::kMillisecond);


}  // namespace

int main(int argc, char** argv) {
    zubtest::TempHome::install();  // the store writes into the documents directory
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
