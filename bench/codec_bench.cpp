// Speed of the report channel's codecs.
// Targets on the 2-core reference machine: RC4 >= 300 MB/s; wrapping a 4 KiB body
// (gzip + length prefix + RC4) <= 150 us.
#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProHelper.h"

#include <benchmark/benchmark.h>

#include <random>

namespace {

zub::Data jsonBatch(std::size_t size) {
    // Ten event-like objects repeated up to `size`: compresses like a real batch.
    std::string s = "[";
    int i = 0;
    while (s.size() + 200 < size) {
        if (i) s += ",";
        s += R"({"ky":"demo-app-key","si":1718712345,"et":4,"ts":1718712399,"idx":)" + std::to_string(1000 + i) +
             R"(,"ei":"buy","kv":{"item":"book","price":9.5},"du":3,"ch":"Mac App Developer","sv":"1.0.0"})";
        ++i;
    }
    s += "]";
    s.resize(size, ' ');
    return zub::Data(s.begin(), s.end());
}

void BM_RC4(benchmark::State& state) {
    zub::Data data(static_cast<std::size_t>(state.range(0)));
    std::mt19937 rng(1);
    for (auto& b : data) b = static_cast<std::uint8_t>(rng());
    for (auto _ : state) {
        ZUBProHelper::ChiperRC4(data);
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_RC4)->Arg(4096)->Arg(1 << 20);

void BM_GZip4KiB(benchmark::State& state) {
    const zub::Data body = jsonBatch(4096);
    zub::Data out;
    for (auto _ : state) {
        ZUBProHelper::GZip(body, &out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 4096);
}
BENCHMARK(BM_GZip4KiB);

void BM_WrapRequest4KiB(benchmark::State& state) {
    const zub::Data body = jsonBatch(4096);
    for (auto _ : state) {
        auto request = ZUBHttp::getInstance().getCommonRequest(10, "http://127.0.0.1:47800/mstat/report");
        auto wire = ZUBHttp::getInstance().compressData(body, *request);
        benchmark::DoNotOptimize(wire->data());
    }
}
BENCHMARK(BM_WrapRequest4KiB)->Unit(benchmark::kMicrosecond);

void BM_ReplyDecode(benchmark::State& state) {
    zub::Data reply;
    const std::string text = R"({"ret":0,"cfg":{"sdk":{"v":3,"m":"abc","c":{"s":1}}}})";
    reply.assign(text.begin(), text.end());
    ZUBProHelper::ChiperRC4(reply);
    for (auto _ : state) {
        auto v = ZUBHttp::getInstance().returnDataToDict(reply);
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_ReplyDecode)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
