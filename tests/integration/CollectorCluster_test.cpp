// Collectors under load from many clients, killed in the middle of it: on an
// SQLite file (the writer stores many requests in one commit and answers only once
// it is done) and several in front of one PostgreSQL database. Every acknowledged
// event is stored, and every event once, whichever collector took it (also when a
// client sends it again after the kill), one mid per device; an SQLite database of
// a single collector is copied in with `migrate`.
#include "support/CollectorProcess.h"
#include "support/PostgresServer.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

using zubtest::CollectorProcess;
using zubtest::keyedBatch;
using zubtest::PostgresServer;

TEST(CollectorIngest, AKilledCollectorOnSqliteKeepsEveryAcknowledgedEventAndStoresResentOnesOnce) {
    ZUB_REQUIRE_COLLECTOR();
    CollectorProcess::useStore(CollectorProcess::Store::Sqlite);
    auto collector = std::make_unique<CollectorProcess>();
    ASSERT_TRUE(collector->start()) << collector->failure();
    constexpr int kClients = 6;
    constexpr int kEvents = 10;
    std::mutex mutex;
    std::condition_variable progress;
    int acknowledged = 0;                     // batches, all clients; guarded by mutex
    std::vector<int> acked(kClients, 0);      // per client: batches 0..n-1 acknowledged
    std::vector<int> sent(kClients, 0);       // per client: batches 0..n-1 posted
    std::vector<std::string> mids(kClients);
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            // Every client registers the same new device at the same time, then
            // posts its batches one after another until one is not acknowledged
            // (the collector is gone).
            const auto reply = collector->post("/?t=ios&ver=2.0", {{"et", 5}, {"ver", 1}, {"ifv", "IFV-SHARED"}, {"mid", ""}});
            if (zubtest::retOf(reply) == 0) mids[c] = (*reply)["mid"].get<std::string>();
            for (int b = 0;; ++b) {
                const bool ok = collector->report(keyedBatch("ingest", c, b, kEvents)) == 0;
                std::lock_guard lock(mutex);
                sent[c] = b + 1;
                if (!ok) return;
                acked[c] = b + 1;
                ++acknowledged;
                progress.notify_all();
            }
        });
    }
    {
        // The kill comes once the collector has acknowledged batches of several groups.
        std::unique_lock lock(mutex);
        EXPECT_TRUE(progress.wait_for(lock, std::chrono::seconds(120), [&] { return acknowledged >= 40; }));
    }
    collector->kill();
    for (auto& client : clients) client.join();
    for (int c = 0; c < kClients; ++c) {
        ASSERT_GT(sent[c], acked[c]) << "client " << c << " stopped without a failed batch";
        EXPECT_FALSE(mids[c].empty());
        EXPECT_EQ(mids[c], mids[0]);  // one device, one mid
    }

    // Opened again on the same file: every acknowledged event is there, once.
    collector = std::make_unique<CollectorProcess>(std::vector<std::string>{}, collector->db());
    ASSERT_TRUE(collector->start()) << collector->failure();
    zubtest::expectStoredOnce(collector->storedKeys(), acked, kEvents, false);
    // Each client sends everything it posted again, the batch that was in flight
    // at the kill included: each event is then stored once.
    for (int c = 0; c < kClients; ++c) {
        for (int b = 0; b < sent[c]; ++b) EXPECT_EQ(collector->report(keyedBatch("ingest", c, b, kEvents)), 0) << c << "/" << b;
    }
    EXPECT_EQ(collector->stats()["devicesRegistered"], kClients + 1);  // the shared device, and each client's mid
    EXPECT_EQ(collector->stop(), 0);
    zubtest::expectStoredOnce(collector->storedKeys(), sent, kEvents, true);
}

TEST(CollectorClusterConcurrency, TwoCollectorsStoreEachEventOnceGiveEachDeviceOneMidAndSurviveAKill) {
    // Two collectors started on one new PostgreSQL database.
    std::string error;
    const std::string url = PostgresServer::newDatabase(error);
    ASSERT_FALSE(url.empty()) << error;
    ZUB_START_COLLECTOR(first, {}, url);
    ZUB_START_COLLECTOR(second, {}, url);
    CollectorProcess* collectors[] = {&first, &second};
    constexpr int kClients = 8;
    constexpr int kBatches = 15;
    constexpr int kEvents = 10;
    constexpr int kDevices = 12;
    std::vector<int> failures(kClients, 0);
    // Each device registers on both collectors at once, from two clients.
    std::vector<std::array<std::string, 2>> mids(kDevices);
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([&, c] {
            for (int b = 0; b < kBatches; ++b) {
                const zub::Value body = keyedBatch("cluster", c, b, kEvents);
                failures[c] += collectors[c % 2]->report(body) != 0;
                // Every third batch is sent again, to the other collector.
                if (b % 3 == 0) failures[c] += collectors[(c + 1) % 2]->report(body) != 0;
            }
        });
    }
    for (std::size_t side = 0; side < 2; ++side) {
        threads.emplace_back([&, side] {
            for (std::size_t d = 0; d < kDevices; ++d) {
                const std::string n = std::to_string(d);
                const auto reply = collectors[side]->post(
                    "/?t=ios&ver=2.0", {{"et", 5}, {"ver", 1}, {"ifv", ""}, {"ioa", "cluster-ioa-" + n},
                                        {"ui", "cluster-ui-" + n}, {"mid", ""}}, 30);
                if (zubtest::retOf(reply) == 0) mids[d][side] = (*reply)["mid"];
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int c = 0; c < kClients; ++c) EXPECT_EQ(failures[c], 0) << "client " << c;
    std::set<std::string> distinct;
    for (const auto& [onFirst, onSecond] : mids) {
        EXPECT_FALSE(onFirst.empty());
        EXPECT_EQ(onFirst, onSecond);  // one device, one mid
        distinct.insert(onFirst);
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kDevices));  // no mid issued twice
    EXPECT_EQ(PostgresServer::query(url, "SELECT COUNT(*) FROM devices WHERE ui LIKE 'cluster-ui-%'", error),
              std::to_string(kDevices) + "\n")
        << error;
    zubtest::expectStoredOnce(second.storedKeys(), std::vector<int>(kClients, kBatches), kEvents, true);
    EXPECT_EQ(first.stats()["events"], kClients * kBatches * kEvents);

    // A killed collector loses no acknowledged batch: clients send new batches to
    // the first collector and, when it does not acknowledge one, the same batch to
    // the second, until told to stop.
    std::mutex mutex;
    std::condition_variable progress;
    int acked[2] = {0, 0};  // by each collector; guarded by mutex
    bool stop = false;      // guarded by mutex
    std::vector<int> sent(kClients, kBatches);
    threads.clear();
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([&, c] {
            for (int b = kBatches;; ++b) {
                const zub::Value body = keyedBatch("cluster", c, b, kEvents);
                const bool byFirst = first.report(body) == 0;
                bool bySecond = false;
                for (int attempt = 0; !byFirst && !bySecond && attempt < 3; ++attempt) bySecond = second.report(body) == 0;
                failures[c] += !byFirst && !bySecond;
                sent[c] = b + 1;
                std::lock_guard lock(mutex);
                acked[0] += byFirst;
                acked[1] += bySecond;
                progress.notify_all();
                if (stop) return;
            }
        });
    }
    auto waitFor = [&](int side) {
        std::unique_lock lock(mutex);
        return progress.wait_for(lock, std::chrono::seconds(120), [&] { return acked[side] >= 20; });
    };
    // The kill comes once the first collector has acknowledged batches, and the
    // load goes on until the second one has taken over.
    EXPECT_TRUE(waitFor(0));
    first.kill();
    EXPECT_TRUE(waitFor(1));
    {
        std::lock_guard lock(mutex);
        stop = true;
    }
    for (auto& thread : threads) thread.join();
    for (int c = 0; c < kClients; ++c) EXPECT_EQ(failures[c], 0) << "client " << c;
    zubtest::expectStoredOnce(second.storedKeys(), sent, kEvents, true);
    EXPECT_EQ(second.stop(), 0) << second.log();
}

TEST(CollectorCluster, MigrateCopiesTheDemoDatabaseOnceWithTheSameStats) {
#ifndef ZUB_DEMO_PATH
    GTEST_SKIP() << "this build has no demo host";
#endif
    // The demo host, as a person runs it, into an SQLite collector.
    ZUB_START_COLLECTOR(single);
    ASSERT_EQ(zubtest::runDemoHost(single.url(""), "migrate-app"), 0) << single.log();
    ASSERT_EQ(single.stop(), 0);
    const std::string file = single.db().string();
    std::string error;
    const std::string url = PostgresServer::newDatabase(error);
    ASSERT_FALSE(url.empty()) << error;
    // The stats as printed, without the first line (which names the database).
    auto stats = [](const std::string& db, bool json = false) {
        std::vector<std::string> args{"stats", "--db", db, "--top", "50"};
        if (json) args.push_back("--json");
        const auto result = CollectorProcess::run(args);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out.substr(result.out.find('\n') + 1);
    };
    const std::string expected = stats(file);
    ASSERT_NE(expected.find("custom"), std::string::npos) << expected;
    auto migrate = [&] { return CollectorProcess::run({"migrate", "--from", file, "--to", url}); };

    const auto copied = migrate();
    ASSERT_EQ(copied.exitCode, 0) << copied.err;
    EXPECT_EQ(copied.out.find("copied 0 events"), std::string::npos) << copied.out;
    EXPECT_EQ(stats(url), expected);
    EXPECT_EQ(stats(url, true), stats(file, true));
    // Again: nothing more. After more events reached the file: those, once.
    const auto again = migrate();
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_NE(again.out.find("copied 0 events (0 already there)"), std::string::npos) << again.out;
    EXPECT_EQ(stats(url), expected);
    {
        ZUB_START_COLLECTOR(reopened, {}, file);
        ASSERT_EQ(zubtest::runDemoHost(reopened.url(""), "migrate-app-2"), 0) << reopened.log();
        ASSERT_EQ(reopened.stop(), 0);
    }
    const std::string grown = stats(file);
    ASSERT_NE(grown, expected);
    ASSERT_EQ(migrate().exitCode, 0);
    EXPECT_EQ(stats(url), grown);

    // A collector on the copy serves its dashboard from the summaries the copy made.
    ZUB_START_COLLECTOR(onCopy, {}, url);
    const auto summarised = PostgresServer::query(url, "SELECT SUM(events) FROM app_devices", error);
    const auto stored = PostgresServer::query(url, "SELECT COUNT(*) FROM events WHERE mid IS NOT NULL", error);
    ASSERT_TRUE(summarised && stored) << error;
    EXPECT_EQ(*summarised, *stored);
}
