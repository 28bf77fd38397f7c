// The event journal end to end: bounded memory, the disk budget and its drop
// report, and what comes back after a kill or a terminate with the collector
// down. In-process against a wire-speaking loopback server, and across processes
// against the real collector.
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Pro/ZUBEventLogic.h"
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/ReportPipeline.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <numeric>
#include <random>

using zubtest::ChildProcess;
using zubtest::CollectorProcess;

namespace {

const std::string kHelper = std::string(ZUB_TEST_BIN_DIR) + "/journal_helper";

// Counts the "id" arguments of the custom events "j" the collector stored.
std::map<long, int> storedIds(CollectorProcess& collector) {
    std::map<long, int> counts;
    for (const auto& row : collector.storedEvents({"--type", "1000"})) {
        const auto& event = row["event"];
        if (event.value("ei", std::string()) == "j") ++counts[event["kv"]["id"].get<long>()];
    }
    return counts;
}

// A next launch that sends what the journal holds: "flushed 1", "left N", "exit 0".
std::vector<std::string> deliver(const CollectorProcess& collector) {
    return ChildProcess::outputOf({kHelper, "deliver", collector.url("/mstat/report"), collector.url("/?t=ios&ver=2.0")});
}

}  // namespace

TEST(EventJournal, MemoryHoldsALimitedNumberAFullBudgetDropsTheOldestAndTheCollectorIsToldHowMany) {
    // Nothing is sent until a mid is stored.
    zubtest::WireServer server;
    server.start();
    ZUBProConfig::getInstance().setReportURL(server.url("/mstat/report"));
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(1);
    ZUBDeviceIDDal::getInstance().saveMID("");
    zub::DeliveryLimits limits;
    limits.maxEventsInMemory = 20;
    limits.journalBudgetBytes = 256 * 1024;
    zub::setDeliveryLimits(limits);

    const long tracked = 4000;
    for (long id = 0; id < tracked; ++id) ZUBPro::trackCustomEvent("j", {{"id", id}, {"pad", std::string(100, 'p')}});
    ASSERT_TRUE(zubtest::settlePipeline());
    const std::uint64_t dropped = zub::droppedEventCount();
    ASSERT_GT(dropped, 0u);
    // The tracked events and the session event the first of them opened: a few in
    // memory, the rest on disk but for the dropped ones.
    EXPECT_EQ(zubtest::waitingKeys().size(), 20u);
    EXPECT_EQ(ZUBEventLogic::getInstance().journalBacklog(), tracked + 1 - 20 - dropped);
    EXPECT_TRUE(server.reports().empty());

    ZUBDeviceIDDal::getInstance().saveMID("mid-journal");
    EXPECT_TRUE(zub::flush(std::chrono::minutes(2)));
    // The "id" arguments of the custom events "j" the server got, and the counts
    // of the dropped-events reports.
    std::vector<long> ids;
    std::vector<std::uint64_t> dropReports;
    for (const auto& report : server.reports()) {
        if (!report.json || !report.json->is_array()) continue;
        for (const auto& e : *report.json) {
            const std::string id = e.value("ei", std::string());
            if (id == "j") ids.push_back(e["kv"]["id"].get<long>());
            if (id == kZUBDroppedEventsID) dropReports.push_back(e["kv"]["count"].get<std::uint64_t>());
        }
    }
    // The newest survive, each once and oldest first; the oldest were dropped and
    // counted: the session event, then events 0 to dropped - 2.
    std::vector<long> expected(static_cast<std::size_t>(tracked) - dropped + 1);
    std::iota(expected.begin(), expected.end(), static_cast<long>(dropped) - 1);
    EXPECT_EQ(ids, expected);
    EXPECT_EQ(dropReports, std::vector<std::uint64_t>{dropped});
    EXPECT_EQ(ZUBEventLogic::getInstance().unacknowledgedCount(), 0u);
}

TEST(EventJournal, AKillWhileTrackingLosesNothingFiledAndNothingArrivesTwice) {
    ZUB_START_COLLECTOR(collector);
    const char* env = std::getenv("ZUB_KILL_ROUNDS");
    const int rounds = env != nullptr ? std::atoi(env) : 6;
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    constexpr long kRound = 1'000'000;
    std::map<int, long> durableUpTo;
    for (int round = 0; round < rounds; ++round) {
        ChildProcess child({kHelper, "track", collector.url("/mstat/report"), collector.url("/?t=ios&ver=2.0"),
                            std::to_string(round * kRound), "40", "10"});
        ASSERT_TRUE(child.started());
        // Kill after a random number of bursts the child has seen filed: the
        // kill falls while it tracks the next one.
        const int bursts = std::uniform_int_distribution<int>(1, 8)(random);
        long durable = -1;
        for (int seen = 0; seen < bursts;) {
            auto line = child.readLine(std::chrono::minutes(2));
            ASSERT_TRUE(line) << "round " << round << ": the child stopped talking";
            if (line->rfind("durable ", 0) == 0) {
                durable = std::stol(line->substr(8));
                ++seen;
            }
        }
        ::kill(child.pid(), SIGKILL);
        EXPECT_EQ(child.wait(), 128 + SIGKILL);
        durableUpTo[round] = durable;
        const auto lines = deliver(collector);
        ASSERT_EQ(lines.back(), "exit 0");
        EXPECT_EQ(lines.front(), "flushed 1") << "round " << round;
    }
    const auto counts = storedIds(collector);
    for (const auto& [id, n] : counts) EXPECT_EQ(n, 1) << "event " << id << " arrived " << n << " times";
    for (const auto& [round, last] : durableUpTo) {
        for (long id = round * kRound; id <= last; ++id) {
            ASSERT_EQ(counts.count(id), 1u) << "event " << id << " was filed before the kill and never arrived";
        }
    }
}

TEST(EventJournal, EventsPendingAtTerminateWithTheCollectorDownAllArriveAtTheNextLaunch) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    const char* env = std::getenv("ZUB_TERMINATE_EVENTS");
    const long events = env != nullptr ? std::atol(env) : 1500;
    ZUB_START_COLLECTOR(collector);
    {
        // Nobody listens on the collector's port yet: a second collector is not
        // started, and port 1 on loopback refuses.
        ChildProcess child({kHelper, "terminate", "http://127.0.0.1:1/mstat/report", "http://127.0.0.1:1/?t=ios&ver=2.0",
                            std::to_string(events)});
        auto line = child.readLine(std::chrono::minutes(5));
        ASSERT_TRUE(line);
        EXPECT_EQ(*line, "terminated");
        EXPECT_EQ(child.wait(), 0);
    }
    const auto lines = deliver(collector);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "flushed 1");
    EXPECT_EQ(lines[1], "left 0");
    const auto counts = storedIds(collector);
    EXPECT_EQ(counts.size(), static_cast<std::size_t>(events));
    for (const auto& [id, n] : counts) ASSERT_EQ(n, 1) << "event " << id;
}
