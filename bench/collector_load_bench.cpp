// Load on the collector over loopback: 16 client threads post 10-event batches
// through the library's transport (gzip, RC4, libcurl keep-alive) for a bounded
// time (ZUB_LOAD_SECONDS, default 10), then the stored events are counted with
// the collector's own `stats` command. Reports batches/s and events/s answered,
// and fails when any acknowledged event is missing from the database. Runs on
// each store: an SQLite file, and a PostgreSQL database on a server the
// benchmark starts (Debian's postgresql package).
//
// Throughput on a shared machine says as much about the other processes as about
// the collector, so the run also reports the processor time each side spent per
// answered batch (user + system, over the load only): the client threads of this
// process, the collector, and the PostgreSQL server's processes; and the load
// average when the load ended. Those figures do not depend on how busy the
// machine is, and their sum bounds what the machine's cores can answer.
#include <benchmark/benchmark.h>

#if __has_include("support/CollectorProcess.h") && defined(ZUB_COLLECTOR_PATH)
#define ZUB_HAVE_COLLECTOR 1
#include "Common/Network/ZUBHttp.h"
#include "support/CollectorProcess.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
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

double secondsOf(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }

// Processor time (user + system) this process's threads have used.
double ownCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
}

// Processor time of the live processes below this one, split into the
// collector's and everybody else's (the PostgreSQL server: the postmaster with
// what it reaped of its ended backends, and the live backends). Read from
// /proc/<pid>/stat: the command name in parentheses, then the fields from the
// state on (ppid is the 2nd after it, utime..cstime the 12th to the 15th).
struct DescendantCpu {
    double collector = 0;
    double others = 0;
};

DescendantCpu descendantCpuSeconds() {
    struct Process {
        pid_t parent = 0;
        std::string name;
        double seconds = 0;
    };
    std::map<pid_t, Process> processes;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    if (DIR* proc = opendir("/proc")) {
        while (const dirent* entry = readdir(proc)) {
            const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
            if (pid <= 0) continue;
            std::ifstream file("/proc/" + std::string(entry->d_name) + "/stat");
            std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            const auto open = text.find('(');
            const auto close = text.rfind(')');
            if (open == std::string::npos || close == std::string::npos || close < open) continue;
            Process process;
            process.name = text.substr(open + 1, close - open - 1);
            std::istringstream fields(text.substr(close + 1));
            std::vector<std::string> values;
            for (std::string value; fields >> value;) values.push_back(value);
            if (values.size() < 15) continue;
            process.parent = static_cast<pid_t>(std::atol(values[1].c_str()));
            for (int i = 11; i <= 14; ++i) process.seconds += static_cast<double>(std::atoll(values[i].c_str())) / tick;
            processes[pid] = process;
        }
        closedir(proc);
    }
    DescendantCpu cpu;
    const pid_t self = getpid();
    for (const auto& [pid, process] : processes) {
        bool below = false;
        for (pid_t up = process.parent; up > 1 && !below; up = processes.count(up) ? processes[up].parent : 0) {
            below = up == self;
        }
        if (!below) continue;
        (process.name == "zub-collector" ? cpu.collector : cpu.others) += process.seconds;
    }
    return cpu;
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
    double clientCpu = 0;
    DescendantCpu serverCpu;
    double loadAverage = -1;

    for (auto _ : state) {
        const double ownBefore = ownCpuSeconds();
        const DescendantCpu serverBefore = descendantCpuSeconds();
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
        const DescendantCpu serverAfter = descendantCpuSeconds();
        clientCpu = ownCpuSeconds() - ownBefore;
        serverCpu.collector = serverAfter.collector - serverBefore.collector;
        serverCpu.others = serverAfter.others - serverBefore.others;
        getloadavg(&loadAverage, 1);
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
    const double batches = static_cast<double>(std::max<std::int64_t>(acknowledged.load(), 1));
    state.counters["client_cpu_us_per_batch"] = benchmark::Counter(clientCpu * 1e6 / batches);
    state.counters["collector_cpu_us_per_batch"] = benchmark::Counter(serverCpu.collector * 1e6 / batches);
    state.counters["database_cpu_us_per_batch"] = benchmark::Counter(serverCpu.others * 1e6 / batches);
    state.counters["load_avg_1m"] = benchmark::Counter(loadAverage);
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
