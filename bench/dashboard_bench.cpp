// Every answer of the dashboard's API over a large collector database (default 10
// million events, ZUB_DASHBOARD_EVENTS), timed the way the dashboard asks: last 24
// hours, 7 days and 30 days, all applications and one.
//
// The database (ZUB_DASHBOARD_DB, default ./dashboard_bench.db) is generated once
// and kept for later runs: 60 days of sessions of many devices in two
// applications, with pages, timed and untimed custom events with arguments, and
// active time, inserted directly in one transaction through the collector's own
// insert and summary code (no HTTP), so the summaries are the ones a collector
// would have built.
#include <benchmark/benchmark.h>

#include "DashboardApi.h"
#include "Database.h"
#include "RequestDecoder.h"
#include "Rollups.h"
#include "Schema.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace zubcollector;

constexpr std::int64_t kDays = 60;
constexpr std::int64_t kEventsPerDevice = 500;
constexpr std::int64_t kSessionsPerDevice = 12;

std::string dbPath() {
    const char* path = std::getenv("ZUB_DASHBOARD_DB");
    return path && *path ? path : "dashboard_bench.db";
}

std::int64_t eventCount() {
    const char* text = std::getenv("ZUB_DASHBOARD_EVENTS");
    const long long n = text ? std::atoll(text) : 10000000;
    return n >= 1000 ? n : 10000000;
}

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::int64_t storedEvents(Database& db) {
    std::string error;
    Statement count = db.prepare("SELECT MAX(id) FROM events", error);
    return count.ok() && count.step() && !count.isNull(0) ? count.integer(0) : 0;
}

// Writes `total` events; false (and why on stderr) when it cannot.
bool generate(const std::string& path, std::int64_t total) {
    std::filesystem::remove(path);
    std::filesystem::remove(path + "-wal");
    std::filesystem::remove(path + "-shm");
    std::string error;
    auto db = Database::open(path, Database::Mode::ReadWrite, error);
    // A scratch database written in one go: no log to keep, the indexes in memory.
    if (!db || !migrateSchema(*db, error) || !db->exec("PRAGMA journal_mode=OFF", error) ||
        !db->exec("PRAGMA synchronous=OFF", error) || !db->exec("PRAGMA cache_size=-2000000", error)) {
        std::fprintf(stderr, "dashboard_bench: %s\n", error.c_str());
        return false;
    }
    auto rollups = RollupWriter::create(*db, error);
    Statement insert = db->prepare(
        "INSERT INTO events (app_key, mid, et, si, ts, idx, body, received) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
        error);
    if (!rollups || !insert.ok() || !db->exec("BEGIN", error)) {
        std::fprintf(stderr, "dashboard_bench: %s\n", error.c_str());
        return false;
    }
    std::mt19937_64 random(42);
    auto pick = [&](std::int64_t n) { return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(n)); };
    const std::vector<std::string> pages = [] {
        std::vector<std::string> names;
        for (int i = 0; i < 25; ++i) names.push_back("Page" + std::to_string(i));
        return names;
    }();
    const char* versions[] = {"12.6", "13.5", "14.2", "14.3", "15.0"};
    const char* appVersions[] = {"1.0", "1.1", "2.0", "2.1"};
    const char* languages[] = {"en", "de", "fr", "ja", "zh-Hans", "es"};
    const char* resolutions[] = {"1440x900", "1920x1080", "2560x1440", "2880x1800", "3840x2160"};
    const char* networks[] = {"wifi", "ethernet", "unknown"};
    const char* zones[] = {"Europe/Paris", "America/New_York", "Asia/Tokyo", "UTC", "Europe/Berlin",
                           "America/Los_Angeles", "Asia/Shanghai", "Australia/Sydney"};

    const std::int64_t devices = std::max<std::int64_t>(1, total / kEventsPerDevice);
    const std::int64_t perSession = std::max<std::int64_t>(2, total / (devices * kSessionsPerDevice));
    const std::int64_t end = nowSeconds();
    std::int64_t written = 0;
    std::int64_t idx = 0;
    std::vector<EventRecord> session;
    const auto started = std::chrono::steady_clock::now();
    for (std::int64_t s = 0; written < total; ++s) {
        const std::int64_t device = s % devices;
        const std::string app = device % 3 == 0 ? "bench-beta" : "bench-alpha";
        const std::string mid = "bench-mid-" + std::to_string(device);
        std::int64_t ts = end - kDays * 86400 + pick(kDays * 86400 - 3600);
        const std::int64_t si = 1000000 + s;
        auto base = [&](std::int64_t type) {
            return zub::Value{{"ky", app}, {"si", si}, {"ts", ts}, {"et", type}, {"mid", mid}, {"idx", ++idx}, {"mc", "0"}};
        };
        session.clear();
        zub::Value start = base(2);
        start["ev"] = {{"ov", versions[pick(5)]}, {"av", appVersions[device % 4]}, {"ch", device % 2 ? "store" : "web"},
                       {"lg", languages[pick(6)]}, {"sr", resolutions[pick(5)]}, {"cn", networks[pick(3)]},
                       {"tz", zones[device % 8]}};
        session.push_back(eventRecordOf(start));
        std::string previous;
        for (std::int64_t i = 1; i < perSession && written + static_cast<std::int64_t>(session.size()) < total; ++i) {
            ts += 1 + pick(20);
            const std::int64_t kind = pick(10);
            zub::Value e;
            if (kind < 5) {
                e = base(1);
                const std::string& page = pages[static_cast<std::size_t>(pick(5) == 0 ? pick(25) : pick(6))];
                e["pi"] = page;
                e["du"] = 1 + pick(pick(4) == 0 ? 600 : 40);
                if (!previous.empty()) e["rf"] = previous;
                previous = page;
            } else if (kind < 9) {
                const bool timed = pick(3) == 0;
                e = base(timed ? 0 : 1000);
                e["ei"] = "event" + std::to_string(pick(12));
                e["kv"] = {{"item", "item" + std::to_string(pick(40))}, {"level", pick(20)}};
                if (timed) e["du"] = 1 + pick(120);
            } else {
                e = base(4);
                e["du"] = 1 + pick(600);
            }
            session.push_back(eventRecordOf(e));
        }
        for (const EventRecord& r : session) {
            insert.bind(1, r.appKey);
            insert.bind(2, r.mid);
            insert.bind(3, r.type);
            insert.bind(4, r.session);
            insert.bind(5, r.time);
            insert.bind(6, r.index);
            insert.bind(7, std::string_view(r.json));
            insert.bind(8, r.time.value_or(0));
            if (!insert.run()) {
                std::fprintf(stderr, "dashboard_bench: insert failed: %s\n", db->lastError().c_str());
                return false;
            }
        }
        if (!rollups->add(session, ts, error)) {
            std::fprintf(stderr, "dashboard_bench: %s\n", error.c_str());
            return false;
        }
        written += static_cast<std::int64_t>(session.size());
        if (s % 20000 == 0) {
            std::fprintf(stderr, "\rdashboard_bench: %lld of %lld events written", static_cast<long long>(written),
                         static_cast<long long>(total));
        }
    }
    insert = Statement();
    rollups.reset();
    if (!db->exec("COMMIT", error) || !db->exec("ANALYZE", error)) {
        std::fprintf(stderr, "dashboard_bench: %s\n", error.c_str());
        return false;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::fprintf(stderr, "\rdashboard_bench: %lld events of %lld devices written in %.0f s\n",
                 static_cast<long long>(written), static_cast<long long>(devices), seconds);
    return true;
}

std::unique_ptr<Database> reader;

void answer(benchmark::State& state, const std::string& view, std::map<std::string, std::string> params) {
    const std::multimap<std::string, std::string> query(params.begin(), params.end());
    const std::int64_t now = nowSeconds();
    std::size_t bytes = 0;
    for (auto _ : state) {
        const ApiAnswer result = answerApi(*reader, view, query, now);
        if (result.status != 200) {
            state.SkipWithError(result.body.dump().c_str());
            return;
        }
        bytes = result.body.dump().size();
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["answer_bytes"] = static_cast<double>(bytes);
}

void registerAll() {
    for (const char* view : {"overview", "pages", "events", "audience", "devices"}) {
        for (const char* range : {"24h", "7d", "30d"}) {
            for (const char* app : {"", "bench-alpha"}) {
                std::map<std::string, std::string> params{{"range", range}};
                if (*app) params["app"] = app;
                const std::string name = std::string(view) + "/" + range + (*app ? "/one-app" : "/all-apps");
                benchmark::RegisterBenchmark(name.c_str(), [view, params](benchmark::State& s) { answer(s, view, params); })
                    ->Unit(benchmark::kMillisecond)
                    ->MinTime(0.5);
            }
        }
    }
    benchmark::RegisterBenchmark("devices/30d/search", [](benchmark::State& s) {
        answer(s, "devices", {{"range", "30d"}, {"q", "mid-12"}});
    })->Unit(benchmark::kMillisecond)->MinTime(0.5);
    benchmark::RegisterBenchmark("apps", [](benchmark::State& s) { answer(s, "apps", {}); })
        ->Unit(benchmark::kMillisecond)
        ->MinTime(0.5);
    benchmark::RegisterBenchmark("device/timeline", [](benchmark::State& s) {
        answer(s, "device", {{"mid", "bench-mid-7"}, {"limit", "200"}});
    })->Unit(benchmark::kMillisecond)->MinTime(0.5);
    benchmark::RegisterBenchmark("live/newest", [](benchmark::State& s) { answer(s, "live", {{"limit", "50"}}); })
        ->Unit(benchmark::kMillisecond)
        ->MinTime(0.5);
    benchmark::RegisterBenchmark("live/one-app", [](benchmark::State& s) {
        answer(s, "live", {{"limit", "50"}, {"app", "bench-beta"}});
    })->Unit(benchmark::kMillisecond)->MinTime(0.5);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = dbPath();
    const std::int64_t total = eventCount();
    {
        std::string error;
        auto existing = std::filesystem::exists(path) ? Database::open(path, Database::Mode::ReadOnly, error) : nullptr;
        const bool reuse = existing && storedEvents(*existing) == total;
        existing.reset();
        if (reuse) {
            std::fprintf(stderr, "dashboard_bench: reusing %s (%lld events)\n", path.c_str(), static_cast<long long>(total));
        } else if (!generate(path, total)) {
            return 1;
        }
    }
    std::string error;
    reader = Database::open(path, Database::Mode::ReadOnly, error);
    if (!reader) {
        std::fprintf(stderr, "dashboard_bench: %s\n", error.c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    registerAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    reader.reset();
    return 0;
}
