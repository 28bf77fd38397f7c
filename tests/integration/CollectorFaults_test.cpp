// The collector's fault knobs, as the SDK's own tests use them. (Many clients at
// once: CollectorCluster_test.)
#include "Common/Network/ZUBHttp.h"
#include "support/CollectorProcess.h"

#include <gtest/gtest.h>
#include <httplib.h>

using zubtest::retOf;

namespace {

zub::Value batchOf(int first, int count) {
    zub::Value batch = zub::Value::array();
    for (int i = first; i < first + count; ++i) {
        batch.push_back({{"ky", "app-A"}, {"si", 3}, {"ts", 1700000000 + i}, {"et", 1000}, {"mid", "mid-1"},
                         {"idx", i}, {"ei", "e" + std::to_string(i)}});
    }
    return batch;
}

const zub::Value kNewDevice = {{"et", 5}, {"ver", 1}, {"ifv", "IFV-SHARED"}, {"mid", ""}};
const std::string kMidPath = "/?t=ios&ver=2.0";

}  // namespace

// Run on both stores: an SQLite file and a PostgreSQL database.
class CollectorStop : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorStop);

TEST(CollectorFaults, KnobsAnswerAsToldForTheGivenNumberOfRequests) {
    {
        // A ret answered without storing, for two reports; identifier requests are
        // outside the fault's path and are not counted.
        ZUB_START_COLLECTOR(collector, {"--fault-ret", "7", "--fault-count", "2", "--fault-path", "report"});
        EXPECT_EQ(collector.post("/mstat/report", batchOf(0, 2)), zub::Value::parse(R"({"ret":7})"));
        EXPECT_EQ(retOf(collector.post(kMidPath, kNewDevice)), 0);
        EXPECT_EQ(collector.report(batchOf(2, 2)), 7);
        EXPECT_EQ(collector.report(batchOf(4, 2)), 0);
        const zub::Value rows = collector.storedEvents();
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[0]["idx"], 4);
        EXPECT_NE(collector.log().find("ret=7 fault=ret"), std::string::npos);
    }
    {
        // An HTTP status: only 200 is an answer for the library.
        ZUB_START_COLLECTOR(collector, {"--fault-status", "503"});
        EXPECT_FALSE(collector.post("/mstat/report", batchOf(0, 2)).has_value());
        EXPECT_EQ(zubtest::postRaw(collector.port(), kMidPath, {}, "rc4", "").status, 503);
        EXPECT_EQ(collector.storedEvents().size(), 0u);
        EXPECT_EQ(collector.stats()["devicesRegistered"], 0);
    }
    // A cut connection: a connection-level failure for the library, once.
    ZUB_START_COLLECTOR(collector, {"--fault-drop", "--fault-count", "1"});
    const auto dropped = collector.post("/mstat/report", batchOf(0, 2));
    ASSERT_TRUE(dropped.has_value());
    EXPECT_TRUE(dropped->contains(responseErrorKey)) << dropped->dump();
    EXPECT_EQ(collector.report(batchOf(2, 2)), 0);
    EXPECT_EQ(collector.storedEvents().size(), 2u);
    EXPECT_NE(collector.log().find("fault=drop"), std::string::npos);
}

TEST_P(CollectorStop, HeldReportIsStoredAndAnIdleKeptAliveConnectionDoesNotHoldTheStop) {
    ZUB_START_COLLECTOR(collector, {"--fault-delay-ms", "2500", "--keep-alive", "3600"});
    // A client whose connection stays open after one answer, then idle: the stop
    // must not wait out the hour of keep-alive (the helper kills after 60 s: -1).
    httplib::Client idle("127.0.0.1", collector.port());
    idle.set_keep_alive(true);
    const auto answered = idle.Get("/");
    ASSERT_TRUE(answered) << httplib::to_string(answered.error());
    EXPECT_EQ(answered->status, 404);
    // The client gives up after one second; the collector is still holding the request.
    const auto timedOut = collector.post("/mstat/report", batchOf(0, 3), 1);
    ASSERT_TRUE(timedOut.has_value());
    ASSERT_TRUE(timedOut->contains(responseErrorKey)) << timedOut->dump();
    EXPECT_EQ((*timedOut)[responseErrorKey]["code"], -1001);
    // Stopping now waits for that request: its events reach the database before the exit.
    EXPECT_EQ(collector.stop(), 0) << collector.log();
    EXPECT_NE(collector.output().find(R"({"event":"stopped","stored":3})"), std::string::npos) << collector.output();
    EXPECT_EQ(collector.storedEvents().size(), 3u);
    EXPECT_NE(collector.log().find("fault=delay2500ms"), std::string::npos);
}
