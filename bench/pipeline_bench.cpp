// The report pipeline's speed targets on this machine:
//   - BM_StartInstalledDevice: ZUBPro::startWithAppKey on a device registered by an
//     earlier run, in a fresh process each time (fork), on the host thread: <= 1 ms;
//   - BM_TrackOnHostThread: what a host thread pays to report one plain event (build
//     it, take the session id, hand it over): <= 2 us median;
//   - BM_EndToEndStrategyOne: events reported with strategy 1 until every one is
//     stored by the local collector: >= 20,000 events per second, none lost.
// Every run works in a private temporary HOME and starts its own collector.
#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBEventDal.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"
#include "support/CollectorProcess.h"
#include "support/ReportPipeline.h"
#include "support/TempHome.h"

#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

zubtest::CollectorProcess& collector() {
    static const bool home = (zubtest::TempHome::install(), true);
    static zubtest::CollectorProcess process({"--quiet"});  // stopped when the benchmark exits
    static const bool started = [] {
        if (!process.start()) std::fprintf(stderr, "collector: %s\n", process.failure().c_str());
        return process.running();
    }();
    (void)home;
    (void)started;
    return process;
}

void pointAtCollector() {
    ZUBProConfig::getInstance().setReportURL(collector().url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(collector().url("/?t=ios&ver=2.0"));
    ZUBPro::setSmartReport(false);
}

// Runs `body` in a child process and returns what it wrote (one number), or -1.
double inChild(const std::function<double()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        const double value = body();
        const std::string text = std::to_string(value);
        (void)!write(fds[1], text.data(), text.size());
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[64];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return text.empty() ? -1 : std::stod(text);
}

// Must run first: it forks before this process has any thread of the library.
void BM_StartInstalledDevice(benchmark::State& state) {
    collector();
    // The first run installs: registers the device and leaves the usual state.
    const double installed = inChild([] {
        pointAtCollector();
        ZUBPro::startWithAppKey("bench-app");
        zubtest::settlePipeline();
        ZUBPro::onWillApplicationEnterBackground();
        return zubtest::waitingKeys().empty() ? 0.0 : 1.0;
    });
    if (installed < 0) state.SkipWithError("install run failed");
    for (auto _ : state) {
        const double seconds = inChild([] {
            pointAtCollector();
            const auto t0 = Clock::now();
            ZUBPro::startWithAppKey("bench-app");
            const std::chrono::duration<double> spent = Clock::now() - t0;
            zubtest::settlePipeline();
            return spent.count();
        });
        if (seconds < 0) {
            state.SkipWithError("start run failed");
            break;
        }
        state.SetIterationTime(seconds);
    }
}
BENCHMARK(BM_StartInstalledDevice)->UseManualTime()->Iterations(1)->Repetitions(15)->Unit(benchmark::kMillisecond);

// The same start, timed in CPU time of the host's thread: what the call itself
// costs, without the time the scheduler gives to other threads (the library's two
// new workers among them) while the host's thread waits for a core.
void BM_StartInstalledDeviceHostCpu(benchmark::State& state) {
    collector();
    for (auto _ : state) {
        const double seconds = inChild([] {
            pointAtCollector();
            timespec t0{}, t1{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
            ZUBPro::startWithAppKey("bench-app");
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
            zubtest::settlePipeline();
            return static_cast<double>(t1.tv_sec - t0.tv_sec) + static_cast<double>(t1.tv_nsec - t0.tv_nsec) / 1e9;
        });
        if (seconds < 0) {
            state.SkipWithError("start run failed");
            break;
        }
        state.SetIterationTime(seconds);
    }
}
BENCHMARK(BM_StartInstalledDeviceHostCpu)->UseManualTime()->Iterations(1)->Repetitions(15)->Unit(benchmark::kMillisecond);

void clearStore() {
    zubtest::settlePipeline();
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    store.toReportEvents().clear();
    store.retryEvents().clear();
}

void BM_TrackOnHostThread(benchmark::State& state) {
    static const bool started = [] {
        pointAtCollector();
        ZUBPro::setReportStrategy(8);  // events are filed and kept: no network on the way
        ZUBPro::startWithAppKey("bench-app");
        zubtest::settlePipeline();
        return true;
    }();
    (void)started;
    for (auto _ : state) {
        auto event = std::make_shared<ZUBProEvent>();
        event->setType(4000);
        event->setSid(ZUBPro::getSessionID(false));
        event->setTs(zub::Clock::nowSeconds());
        ZUBPro::reportEvent(event);
    }
    clearStore();  // not timed
}
BENCHMARK(BM_TrackOnHostThread)->Repetitions(10)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

std::int64_t storedCount() {
    const zub::Value stats = collector().stats();
    return stats.is_object() ? stats.value("events", std::int64_t{-1}) : -1;
}

void BM_EndToEndStrategyOne(benchmark::State& state) {
    const int events = static_cast<int>(state.range(0));
    pointAtCollector();
    ZUBPro::setReportStrategy(1);
    ZUBPro::startWithAppKey("bench-app");
    clearStore();
    double stored = 0;
    double lost = 0;
    for (auto _ : state) {
        const std::int64_t before = storedCount();
        const auto t0 = Clock::now();
        for (int i = 0; i < events; ++i) ZUBPro::trackCustomEvent("bench", {{"n", i}});
        // Done when the queues are idle: every cycle has run and found nothing left.
        if (!zubtest::settlePipeline()) {
            state.SkipWithError("the pipeline did not settle");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        const std::int64_t arrived = storedCount() - before;
        stored += static_cast<double>(arrived);
        lost += static_cast<double>(events - arrived);
    }
    state.counters["events_per_s"] =
        benchmark::Counter(static_cast<double>(events) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["stored"] = stored;
    state.counters["lost"] = lost;
}
BENCHMARK(BM_EndToEndStrategyOne)->Arg(20000)->UseManualTime()->Iterations(1)->Repetitions(5)->Unit(benchmark::kMillisecond);

// Serialising one custom event as the batch builder does (the envelope and the
// event's own keys, written as JSON): ten of these go into every batch.
void BM_SerialiseEvent(benchmark::State& state) {
    pointAtCollector();
    std::shared_ptr<ZUBProEvent> custom;
    {
        // A real custom event, taken from the store after the facade filed it.
        ZUBPro::setReportStrategy(8);
        ZUBPro::trackCustomEvent("bench", {{"item", "book"}, {"n", 1}});
        zubtest::settlePipeline();
        ZUBEventDal& store = ZUBEventDal::getInstance();
        std::lock_guard lock(store.eventListLock());
        for (const auto& [key, e] : store.toReportEvents()) custom = e;
    }
    if (!custom) {
        state.SkipWithError("no custom event was filed");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(custom->toJsonString());
    clearStore();
}
BENCHMARK(BM_SerialiseEvent)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

// One batch of ten events on the wire: gzip, RC4 and the post to the collector,
// which stores the ten events before it answers. The floor under the end-to-end
// figure above (which adds filing, batching and serialising the events).
void BM_BatchRoundTrip(benchmark::State& state) {
    pointAtCollector();
    std::string body = "[";
    for (int i = 0; i < 10; ++i) {
        auto event = std::make_shared<ZUBProEvent>();
        event->setType(1000);
        event->setTs(zub::Clock::nowSeconds());
        event->setMd5("0123456789abcdef0123456789abcde" + std::to_string(i));
        zub::Value e = zub::Value::parse(event->toJsonString().value_or("{}"));
        e["ei"] = "bench";
        e["kv"] = {{"n", i}};
        body += (i ? "," : "") + e.dump();
    }
    body += "]";
    const zub::Data data(body.begin(), body.end());
    const std::string url = collector().url("/mstat/report");
    for (auto _ : state) {
        auto reply = ZUBHttp::getInstance().httpPost(data, 10, url);
        if (!reply || !reply->is_object() || reply->value("ret", -1) != 0) {
            state.SkipWithError("the collector refused the batch");
            break;
        }
    }
    state.counters["events_per_s"] = benchmark::Counter(10.0 * static_cast<double>(state.iterations()),
                                                        benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BatchRoundTrip)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
