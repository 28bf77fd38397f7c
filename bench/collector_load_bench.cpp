// Load on the collector over loopback: 16 client threads post 10-event batches
// through the library's transport (gzip, RC4, libcurl keep-alive) for a bounded
// time (ZUB_LOAD_SECONDS, default 10), then the stored events are counted with
// the collector's own `stats` command. Reports batches/s and events/s answered,
// and fails when any acknowledged event is missing from the database. Runs on
// each store: an SQLite file, and a PostgreSQL database on a server the
// benchmark starts (Debian's postgresql package).
#include <benchmark/benchmark.h>

#if __has_include("support/CollectorProcess.h") && defined(ZUB_COLLECTOR_PATH)
#define ZUB_HAVE_COLLECTOR 1
#include "Common/Network/ZUBHttp.h"
#include "support/CollectorProcess.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>
#endif

namespace {

#ifdef ZUB_HAVE_COLLECTOR

constexpr int kThreads = 16;
constexpr int kEventsPerBatch = 10;

int loadSeconds() {
    const char* text = std::getenv("ZUB_LOAD_SECONDS");
    const int seconds = text ? std::atoi(text) : 10;
    return seconds > 0 && seconds <= 120 ? seconds : 10;
}

// A batch shaped like the library's custom events, each event with its own index
// and its own key ("m5"), which the collector keeps to store a resent event once.
zub::Data batchBody(int thread, std::int64_t batch) {
    std::string body = "[";
    for (int i = 0; i < kEventsPerBatch; ++i) {
        const std::int64_t idx = (static_cast<std::int64_t>(thread) << 40) | (batch * kEventsPerBatch + i);
        if (i > 0) body += ",";
        body += R"({"ky":"load-app-key","si":1234567,"ts":)" + std::to_string(1700000000 + batch) +
                R"(,"ui":"0123456789abcdef0123456789abcdef01234567","ifv":"6F1C2D3E-1111-2222-3333-444455556666",)"
                R"("ioa":"89abcdef0123456789abcdef0123456789abcdef","et":1000,"mid":"load-mid-)" +
                std::to_string(thread) + R"(","sv":"1.0.0","av":"2.3.4","ch":"AppStore","ut":1,"idx":)" +
                std::to_string(idx) + R"(,"mc":"0","m5":"k)" + std::to_string(idx) +
                R"(","ei":"purchase","kv":{"item":"book","n":")" + std::to_string(i) + R"("}})";
    }
    body += "]";
    return zub::Data(body.begin(), body.end());
}

void CollectorLoad(benchmark::State& state) {
    const bool quiet = state.range(0) != 0;
    zubtest::CollectorProcess::useStore(state.range(1) != 0 ? zubtest::CollectorProcess::Store::Postgres
                                                            : zubtest::CollectorProcess::Store::Sqlite);
    std::vector<std::string> args;
    if (quiet) args.push_back("--quiet");
    zubtest::CollectorProcess collector(args);
    if (!collector.start()) {
        state.SkipWithError(("collector did not start: " + collector.failure()).c_str());
        return;
    }
    const std::string url = collector.url("/mstat/report");
    const auto duration = std::chrono::seconds(loadSeconds());
    std::atomic<std::int64_t> acknowledged{0};
    std::atomic<std::int64_t> failed{0};
    double elapsed = 0;

    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        const auto deadline = started + duration;
        std::vector<std::thread> clients;
        for (int t = 0; t < kThreads; ++t) {
            clients.emplace_back([&, t] {
                for (std::int64_t b = 0; std::chrono::steady_clock::now() < deadline; ++b) {
                    const auto reply = ZUBHttp::getInstance().httpPost(batchBody(t, b), 10, url);
                    if (reply && reply->is_object() && reply->value("ret", -1) == 0) {
                        ++acknowledged;
                    } else {
                        ++failed;
                    }
                }
            });
        }
        for (auto& client : clients) client.join();
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }

    const int exitCode = collector.stop();
    const zub::Value stats = collector.stats();
    const std::int64_t stored = stats.is_object() ? stats["events"].get<std::int64_t>() : -1;
    const std::int64_t sent = acknowledged.load() * kEventsPerBatch;
    state.counters["batches_per_s"] = benchmark::Counter(static_cast<double>(acknowledged.load()) / elapsed);
    state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(sent) / elapsed);
    state.counters["batches_ok"] = benchmark::Counter(static_cast<double>(acknowledged.load()));
    state.counters["batches_failed"] = benchmark::Counter(static_cast<double>(failed.load()));
    state.counters["events_stored"] = benchmark::Counter(static_cast<double>(stored));
    state.counters["events_lost"] = benchmark::Counter(static_cast<double>(sent - stored));
    if (exitCode != 0) state.SkipWithError("the collector did not stop cleanly");
    if (stored != sent) state.SkipWithError("stored events differ from acknowledged events");
}

// Arguments: 0 = a log line per request (the default), 1 = --quiet; the store:
// 0 = SQLite, 1 = PostgreSQL.
BENCHMARK(CollectorLoad)
    ->ArgNames({"quiet", "postgres"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

#endif  // ZUB_HAVE_COLLECTOR

}  // namespace

BENCHMARK_MAIN();
