// End-to-end delivery against a server that only counts, so the figure is the
// library's, not the collector's storage:
//   - BM_EndToEndCountingServer/1: strategy 1, a server with TCP_NODELAY: >= 40,000
//     events per second, none lost;
//   - BM_EndToEndCountingServer/0: the same server with Nagle's algorithm left on,
//     as many stock HTTP servers run: it writes a reply's headers and body in two
//     segments, and the body waits for the client's acknowledgement of the
//     headers: >= 10,000 events per second.
// The server undoes the wire wrapping of every batch (RC4, gzip), parses the
// events and counts the benchmark's own (not the session's); the mid request is answered with a fixed mid.
#include "Common/Network/ZUBWireCodec.h"
#include "Common/ZUBProConfig.h"
#include "Pro/ZUBEventLogic.h"
#include "support/LoopbackServer.h"
#include "support/ReportPipeline.h"
#include "support/TempHome.h"

#include <ZUBCocoa/ZUBPro.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

class CountingServer {
public:
    explicit CountingServer(bool noDelay) : server_(true) {
        server_.server().set_tcp_nodelay(noDelay);
        server_.server().set_keep_alive_max_count(1000);  // as the collector: connections are reused
        server_.server().Post("/mstat/report", [this](const httplib::Request& req, httplib::Response& res) {
            zub::Data wire(req.body.begin(), req.body.end());
            const auto plain = zub::WireCodec::unwrapRequest(std::move(wire), req.get_header_value("Content-Encoding"), key());
            const auto batch = plain.plain ? zub::Value::parse(plain.plain->begin(), plain.plain->end(), nullptr, false)
                                           : zub::Value();
            if (!batch.is_array()) {
                answer(res, R"({"ret":1})");
                return;
            }
            for (const auto& event : batch) {
                if (event.is_object() && event.value("ei", std::string()) == "bench") ++events_;
            }
            answer(res, R"({"ret":0})");
        });
        server_.server().Post("/", [this](const httplib::Request&, httplib::Response& res) {
            answer(res, R"({"ret":0,"mid":"4242424242"})");
        });
        server_.start();
    }
    std::string url(const std::string& path) const { return server_.url(path); }
    std::int64_t events() const { return events_.load(); }

private:
    static std::string key() { return ZUBProConfig::getInstance().rc4Key().value_or(""); }
    static void answer(httplib::Response& res, std::string_view json) {
        const zub::Data wire = zub::WireCodec::wrapReplyText(json, key());
        res.set_content(std::string(wire.begin(), wire.end()), "application/octet-stream");
    }

    zubtest::LoopbackServer server_;
    std::atomic<std::int64_t> events_{0};
};

CountingServer& server(bool noDelay) {
    static CountingServer withNoDelay(true);
    static CountingServer withNagle(false);
    return noDelay ? withNoDelay : withNagle;
}

void BM_EndToEndCountingServer(benchmark::State& state) {
    const bool noDelay = state.range(0) != 0;
    const int events = static_cast<int>(state.range(1));
    CountingServer& counting = server(noDelay);
    ZUBProConfig::getInstance().setReportURL(counting.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(counting.url("/?t=ios&ver=2.0"));
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(1);
    ZUBPro::startWithAppKey("bench-app");
    if (!zubtest::settlePipeline()) {
        state.SkipWithError("the pipeline did not settle after start");
        return;
    }
    double lost = 0;
    for (auto _ : state) {
        const std::int64_t before = counting.events();
        const auto t0 = Clock::now();
        for (int i = 0; i < events; ++i) ZUBPro::trackCustomEvent("bench", {{"item", "book"}, {"n", i}});
        if (!zubtest::settlePipeline()) {
            state.SkipWithError("the pipeline did not settle");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        lost += static_cast<double>(events - (counting.events() - before));
    }
    state.counters["events_per_s"] = benchmark::Counter(
        static_cast<double>(events) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["lost"] = lost;
}
BENCHMARK(BM_EndToEndCountingServer)
    ->Args({1, 40000})
    ->Args({0, 10000})
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    zubtest::TempHome::install();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
