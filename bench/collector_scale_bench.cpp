// Several collectors in front of one PostgreSQL database (on a server the
// benchmark starts): 16 client threads, split between the collectors, post
// 10-event batches through the library's transport for a bounded time
// (ZUB_LOAD_SECONDS, default 10); each client also registers its device on
// every collector. Reports events/s acknowledged for one and for two
// collectors, and counts what must be zero: acknowledged events not stored,
// events stored twice, devices given more than one mid, failed requests.
#include <benchmark/benchmark.h>

#if __has_include("support/CollectorProcess.h") && defined(ZUB_COLLECTOR_PATH)
#define ZUB_HAVE_COLLECTOR 1
#include "Common/Network/ZUBHttp.h"
#include "support/CollectorProcess.h"
#include "support/PostgresServer.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
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

// The library's custom events, each with its own key ("m5").
zub::Data batchBody(int thread, std::int64_t batch) {
    std::string body = "[";
    for (int i = 0; i < kEventsPerBatch; ++i) {
        const std::int64_t idx = (static_cast<std::int64_t>(thread) << 40) | (batch * kEventsPerBatch + i);
        if (i > 0) body += ",";
        body += R"({"ky":"scale-app","si":)" + std::to_string(7000 + thread) + R"(,"ts":)" +
                std::to_string(1700000000 + batch) + R"(,"ui":"scale-ui-)" + std::to_string(thread) +
                R"(","et":1000,"mid":"scale-mid-)" + std::to_string(thread) + R"(","idx":)" + std::to_string(idx) +
                R"(,"mc":"0","m5":"k)" + std::to_string(idx) + R"(","ei":"purchase","kv":{"item":"book"}})";
    }
    body += "]";
    return zub::Data(body.begin(), body.end());
}

zub::Data registration(int thread) {
    const std::string text =
        zub::Value({{"et", 5}, {"ver", 1}, {"ifv", ""}, {"ioa", ""}, {"ui", "scale-device-" + std::to_string(thread)},
                    {"mid", ""}})
            .dump();
    return zub::Data(text.begin(), text.end());
}

bool acknowledged(const std::optional<zub::Value>& reply) {
    return reply && reply->is_object() && reply->value("ret", -1) == 0;
}

void CollectorScale(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::string error;
    const std::string url = zubtest::PostgresServer::newDatabase(error);
    if (url.empty()) {
        state.SkipWithError(("no PostgreSQL: " + error).c_str());
        return;
    }
    std::vector<std::unique_ptr<zubtest::CollectorProcess>> collectors;
    for (int c = 0; c < count; ++c) {
        collectors.push_back(std::make_unique<zubtest::CollectorProcess>(std::vector<std::string>{"--quiet"}, url));
        if (!collectors.back()->start()) {
            state.SkipWithError(("collector did not start: " + collectors.back()->failure()).c_str());
            return;
        }
    }
    const auto duration = std::chrono::seconds(loadSeconds());
    std::atomic<std::int64_t> ackedBatches{0};
    std::atomic<std::int64_t> failed{0};
    std::atomic<std::int64_t> midsSplit{0};  // devices that got different mids from different collectors
    std::vector<std::string> mids(kThreads);
    double elapsed = 0;

    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        const auto deadline = started + duration;
        std::vector<std::thread> clients;
        for (int t = 0; t < kThreads; ++t) {
            clients.emplace_back([&, t] {
                const std::string report = collectors[static_cast<std::size_t>(t % count)]->url("/mstat/report");
                std::set<std::string> given;
                for (const auto& collector : collectors) {
                    const auto reply = ZUBHttp::getInstance().httpPost(registration(t), 10, collector->url("/?t=ios&ver=2.0"));
                    if (acknowledged(reply)) given.insert((*reply)["mid"].get<std::string>());
                    else ++failed;
                }
                if (given.size() > 1) ++midsSplit;
                if (!given.empty()) mids[static_cast<std::size_t>(t)] = *given.begin();
                for (std::int64_t b = 0; std::chrono::steady_clock::now() < deadline; ++b) {
                    if (acknowledged(ZUBHttp::getInstance().httpPost(batchBody(t, b), 10, report))) {
                        ++ackedBatches;
                    } else {
                        ++failed;
                    }
                }
            });
        }
        for (auto& client : clients) client.join();
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }

    bool stoppedCleanly = true;
    for (auto& collector : collectors) stoppedCleanly = collector->stop() == 0 && stoppedCleanly;
    const auto counted = zubtest::PostgresServer::query(
        url, "SELECT COUNT(*) || ' ' || COUNT(DISTINCT body::json->>'m5') FROM events", error);
    std::int64_t stored = -1;
    std::int64_t distinct = -1;
    if (counted) std::sscanf(counted->c_str(), "%ld %ld", &stored, &distinct);
    const std::set<std::string> issued(mids.begin(), mids.end());
    const std::int64_t sent = ackedBatches.load() * kEventsPerBatch;
    state.counters["collectors"] = benchmark::Counter(count);
    state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(sent) / elapsed);
    state.counters["events_stored"] = benchmark::Counter(static_cast<double>(stored));
    state.counters["events_lost"] = benchmark::Counter(static_cast<double>(sent - distinct));
    state.counters["events_duplicated"] = benchmark::Counter(static_cast<double>(stored - distinct));
    state.counters["requests_failed"] = benchmark::Counter(static_cast<double>(failed.load()));
    state.counters["mids_split"] = benchmark::Counter(static_cast<double>(midsSplit.load()));
    state.counters["mids_issued_twice"] = benchmark::Counter(static_cast<double>(kThreads) - static_cast<double>(issued.size()));
    if (!stoppedCleanly) state.SkipWithError("a collector did not stop cleanly");
    if (!counted) state.SkipWithError(("cannot count the stored events: " + error).c_str());
    if (stored != sent || distinct != sent || midsSplit.load() != 0 || issued.size() != kThreads || failed.load() != 0) {
        state.SkipWithError("lost, doubled or failed events, or a device with two mids");
    }
}

// Argument: the number of collectors sharing the database.
BENCHMARK(CollectorScale)->ArgName("collectors")->Arg(1)->Arg(2)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

#endif  // ZUB_HAVE_COLLECTOR

}  // namespace

BENCHMARK_MAIN();
