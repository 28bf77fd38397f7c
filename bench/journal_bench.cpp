// The event journal's costs and limits on this machine:
//   - BM_JournalAppend: the journal's whole cost per event on the report queue's
//     thread: append (pack, frame, checksum, buffer), retire and the write;
//   - BM_JournalRecovery100k: what a start pays to open a journal of 100,000
//     unacknowledged events and bring the first 10,000 back into memory;
//   - BM_OfflineMillion: 1,000,000 events tracked while the collector cannot be
//     reached (no mid): resident memory growth (target < 32 MB), the journal's
//     size against its budget, and, once the collector is back, delivered +
//     dropped == tracked, with the drop count reported to the collector;
//   - BM_FourThreadsExactlyOnce: 1,000,000 custom events from 4 threads with
//     strategy 1 against the collector: every one stored exactly once (counted by
//     its unique argument in the collector's database), and the rate.
// Every run works in a private temporary HOME.
#include "Dal/ZUBEventJournal.h"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBProCustomEvent.h"
#include "Platform/PackedArchive.h"
#include "Pro/ZUBEventLogic.h"
#include "support/CollectorProcess.h"
#include "support/ReportPipeline.h"
#include "support/TempHome.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBPro.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <cstdio>
#include <fstream>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

void home() {
    static const bool installed = (zubtest::TempHome::install(), true);
    (void)installed;
}

std::shared_ptr<ZUBProCustomEvent> customEvent(long n) {
    auto e = std::make_shared<ZUBProCustomEvent>();
    e->setType(1000);
    e->setEventID(std::string("bench"));
    e->setKvs({{"item", "book"}, {"price", 12}, {"n", n}});
    e->setMd5("0123456789abcdef0123456789" + std::to_string(n));
    e->setAppkey(std::string("bench-app"));
    e->setTimeStr(std::string("4321"));
    e->setSid(1'700'000'000);
    e->setTs(1'700'000'000);
    return e;
}

double residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * 4096.0;
}

// Starts the collector and points the library at it, strategy 1, smart reporting off.
bool useCollector(zubtest::CollectorProcess& collector) {
    if (!collector.start()) return false;
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(collector.url("/?t=ios&ver=2.0"));
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(1);
    return true;
}

void BM_JournalAppend(benchmark::State& state) {
    home();
    const auto dir = zubtest::TempHome::makeDir("append-" + std::to_string(state.thread_index()));
    ZUBEventJournal journal(dir, 64ull << 20, std::chrono::milliseconds(200));
    std::vector<ZUBEventJournal::LiveEntry> live;
    std::uint64_t drops = 0;
    if (!journal.open(live, drops)) {
        state.SkipWithError("journal did not open");
        return;
    }
    auto event = customEvent(1);
    ZUBEventJournal::Dropped dropped;
    std::vector<std::uint64_t> seqs;
    // Timed per event: its append and its share of the retire of its batch of ten
    // (acknowledged at once, as on a working network, so the journal stays small),
    // with the buffered records written once per ten, as the queue does after a burst.
    for (auto _ : state) {
        auto seq = journal.append(*event, ZUBEventJournal::Place::Memory, dropped);
        if (seq) seqs.push_back(*seq);
        if (seqs.size() == 10) {
            journal.retire(seqs);
            journal.flushWrites();
            seqs.clear();
        }
    }
}
// The part of an append that packs the event (the rest is framing and the write),
// and, beside it, what the keyed archive that journal records held before costs.
void BM_JournalPackOnly(benchmark::State& state) {
    auto event = customEvent(1);
    std::string why;
    for (auto _ : state) benchmark::DoNotOptimize(zub::packed::pack(*event, why));
}
BENCHMARK(BM_JournalPackOnly)->Repetitions(3)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

void BM_KeyedArchiveOfAnEvent(benchmark::State& state) {
    auto event = customEvent(1);
    for (auto _ : state) benchmark::DoNotOptimize(zub::KeyedArchiver::archivedDataWithRootObject(*event));
}
BENCHMARK(BM_KeyedArchiveOfAnEvent)->Repetitions(3)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

BENCHMARK(BM_JournalAppend)->Repetitions(3)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

void BM_JournalRecovery100k(benchmark::State& state) {
    home();
    const auto dir = zubtest::TempHome::makeDir("recovery");
    {
        ZUBEventJournal journal(dir, 256ull << 20, std::chrono::milliseconds(200));
        std::vector<ZUBEventJournal::LiveEntry> live;
        std::uint64_t drops = 0;
        journal.open(live, drops);
        ZUBEventJournal::Dropped dropped;
        for (long i = 0; i < 100'000; ++i) journal.append(*customEvent(i), ZUBEventJournal::Place::Overflow, dropped);
        journal.sync();
    }
    double onDisk = 0;
    for (const auto& f : std::filesystem::directory_iterator(dir)) onDisk += static_cast<double>(f.file_size());
    for (auto _ : state) {
        ZUBEventJournal journal(dir, 256ull << 20, std::chrono::milliseconds(200));
        std::vector<ZUBEventJournal::LiveEntry> live;
        std::uint64_t drops = 0;
        journal.open(live, drops);
        for (const auto& e : live) journal.setPlace(e.seq, ZUBEventJournal::Place::Overflow);
        for (int i = 0; i < 10'000; ++i) benchmark::DoNotOptimize(journal.takeOverflow());
        state.counters["live"] = static_cast<double>(live.size());
    }
    state.counters["journal_MB"] = onDisk / 1e6;
}
BENCHMARK(BM_JournalRecovery100k)->Iterations(3)->Unit(benchmark::kMillisecond);

// Counts rows and distinct "id" arguments of the custom events `name` in the
// collector's database, with the sqlite3 shell.
std::pair<double, double> countInDatabase(const std::filesystem::path& db, const std::string& name) {
    const std::string sql = "SELECT COUNT(*), COUNT(DISTINCT json_extract(body, '$.kv.id')) FROM events WHERE et = 1000 "
                            "AND json_extract(body, '$.ei') = '" + name + "';";
    const std::string command = "sqlite3 -readonly -separator ' ' '" + db.string() + "' \"" + sql + "\"";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, -1};
    double rows = -1, distinct = -1;
    if (std::fscanf(pipe, "%lf %lf", &rows, &distinct) != 2) rows = distinct = -1;
    ::pclose(pipe);
    return {rows, distinct};
}

void BM_OfflineMillion(benchmark::State& state) {
    home();
    zub::setDeliveryLimits(zub::DeliveryLimits{});  // the defaults, whatever ran before
    const long events = state.range(0);
    zubtest::CollectorProcess collector({"--quiet"});
    if (!useCollector(collector)) {
        state.SkipWithError("the collector did not start");
        return;
    }
    // The session is opened, and its event delivered, before the burst: every
    // event filed during the burst is then one of the burst, and delivered +
    // dropped must equal the events tracked.
    ZUBPro::startWithAppKey("bench-app");
    zub::flush(std::chrono::seconds(30));
    for (auto _ : state) {
        // No mid: nothing can be sent, everything waits.
        ZUBDeviceIDDal::getInstance().saveMID("");
        const double before = residentBytes();
        const auto t0 = Clock::now();
        for (long i = 0; i < events; ++i) ZUBPro::trackCustomEvent("j", {{"id", i}, {"item", "book"}, {"price", 12}});
        zubtest::settlePipeline();
        const double tracked = std::chrono::duration<double>(Clock::now() - t0).count();
        const double growth = residentBytes() - before;
        const std::uint64_t dropped = zub::droppedEventCount();
        std::uint64_t journalBytes = 0;
        const auto dir = std::filesystem::path(zubtest::TempHome::path());
        for (const auto& f : std::filesystem::recursive_directory_iterator(dir)) {
            if (f.path().extension() == ".zjl") journalBytes += f.file_size();
        }
        // The collector is back: register and deliver.
        ZUBPro::startWithAppKey("bench-app");
        const auto t1 = Clock::now();
        const bool flushed = zub::flush(std::chrono::minutes(10));
        const double delivering = std::chrono::duration<double>(Clock::now() - t1).count();
        double delivered = 0, reportedDrops = 0;
        for (const auto& row : collector.storedEvents({"--type", "1000"})) {
            const auto& e = row["event"];
            const std::string id = e.value("ei", std::string());
            if (id == "j") delivered += 1;
            if (id == kZUBDroppedEventsID) reportedDrops += e["kv"]["count"].get<double>();
        }
        state.counters["rss_growth_MB"] = growth / 1e6;
        state.counters["journal_MB"] = static_cast<double>(journalBytes) / 1e6;
        state.counters["budget_MB"] = static_cast<double>(zub::deliveryLimits().journalBudgetBytes) / 1e6;
        state.counters["dropped"] = static_cast<double>(dropped);
        state.counters["reported_drops"] = reportedDrops;
        state.counters["delivered"] = delivered;
        state.counters["lost_unaccounted"] = static_cast<double>(events) - delivered - static_cast<double>(dropped);
        const auto [rows, distinct] = countInDatabase(collector.db(), "j");
        state.counters["doubled"] = rows - distinct;
        state.counters["track_s"] = tracked;
        state.counters["deliver_s"] = delivering;
        state.counters["flushed"] = flushed ? 1 : 0;
    }
}
// Memory per waiting event: 50,000 custom events with 3 string pairs, tracked by
// a started library (journal on) with no mid, so every one waits in memory;
// the growth of the resident set divided by the events. Target: <= 512 bytes.
void BM_MemoryPerWaitingEvent(benchmark::State& state) {
    home();
    const long events = state.range(0);
    zubtest::CollectorProcess collector({"--quiet"});
    if (!useCollector(collector)) {
        state.SkipWithError("the collector did not start");
        return;
    }
    ZUBPro::startWithAppKey("bench-app");
    zub::flush(std::chrono::seconds(30));
    zub::DeliveryLimits limits;
    limits.maxEventsInMemory = static_cast<std::size_t>(events) + 1000;  // all of them held in memory
    zub::setDeliveryLimits(limits);
    for (auto _ : state) {
        ZUBDeviceIDDal::getInstance().saveMID("");
        const double before = residentBytes();
        for (long i = 0; i < events; ++i) {
            ZUBPro::trackCustomEvent("export", {{"format", "pdf"}, {"size", "a4"}, {"n", std::to_string(i)}});
        }
        zubtest::settlePipeline();
        state.counters["bytes_per_event"] = (residentBytes() - before) / static_cast<double>(events);
        ZUBPro::startWithAppKey("bench-app");  // registered again: the events go, memory is freed for the next run
        zub::flush(std::chrono::minutes(5));
    }
    zub::setDeliveryLimits(zub::DeliveryLimits{});
}
BENCHMARK(BM_MemoryPerWaitingEvent)->Arg(50'000)->Iterations(1)->Unit(benchmark::kSecond);

void BM_FourThreadsExactlyOnce(benchmark::State& state) {
    home();
    const long events = state.range(0);
    // A burst of a million outruns delivery several times over: the default
    // 64 MiB journal would drop the oldest (counted and reported). This run is
    // about exactly-once delivery, so the budget holds the whole burst.
    zub::DeliveryLimits limits;
    limits.journalBudgetBytes = 1ull << 30;
    zub::setDeliveryLimits(limits);
    zubtest::CollectorProcess collector({"--quiet"});
    if (!useCollector(collector)) {
        state.SkipWithError("the collector did not start");
        return;
    }
    ZUBPro::startWithAppKey("bench-app");
    zub::flush(std::chrono::seconds(30));
    for (auto _ : state) {
        const auto t0 = Clock::now();
        std::vector<std::thread> threads;
        for (long t = 0; t < 4; ++t) {
            threads.emplace_back([t, events] {
                for (long i = t; i < events; i += 4) ZUBPro::trackCustomEvent("m", {{"id", i}, {"thread", t}});
            });
        }
        for (auto& thread : threads) thread.join();
        const bool flushed = zub::flush(std::chrono::minutes(10));
        const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        const auto [rows, distinct] = countInDatabase(collector.db(), "m");
        state.counters["events_per_s"] = static_cast<double>(events) / seconds;
        state.counters["stored_rows"] = rows;
        state.counters["distinct_ids"] = distinct;
        state.counters["lost"] = static_cast<double>(events) - distinct;
        state.counters["doubled"] = rows - distinct;
        state.counters["dropped"] = static_cast<double>(zub::droppedEventCount());
        state.counters["flushed"] = flushed ? 1 : 0;
    }
}
BENCHMARK(BM_FourThreadsExactlyOnce)->Arg(1'000'000)->Iterations(1)->Unit(benchmark::kSecond);

BENCHMARK(BM_OfflineMillion)->Arg(1'000'000)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
