// Several collectors in front of one PostgreSQL database: every event stored
// once whichever collector took it (also when a client sends it again to
// another one after a collector was killed), one mid per device, and an SQLite
// database of a single collector copied in with `migrate`.
#include "support/CollectorProcess.h"
#include "support/PostgresServer.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>

using zubtest::CollectorProcess;
using zubtest::PostgresServer;

namespace {

// A batch of the library's kind: each event with its own key ("m5"), which a
// resent event keeps.
zub::Value keyedBatch(int client, int batch, int events) {
    zub::Value body = zub::Value::array();
    for (int i = 0; i < events; ++i) {
        body.push_back({{"ky", "cluster-app"}, {"si", 1000 + client}, {"ts", 1700000000 + batch}, {"et", 1000},
                        {"ui", "ui-" + std::to_string(client)}, {"mid", "mid-" + std::to_string(client)},
                        {"idx", batch * events + i}, {"ei", "tap"},
                        {"m5", std::to_string(client) + "-" + std::to_string(batch) + "-" + std::to_string(i)}});
    }
    return body;
}

// Two collectors started on one new PostgreSQL database.
struct Pair {
    std::string url;
    std::string error;
    std::unique_ptr<CollectorProcess> a, b;
    bool start() {
        url = PostgresServer::newDatabase(error);
        a = std::make_unique<CollectorProcess>(std::vector<std::string>{}, url);
        b = std::make_unique<CollectorProcess>(std::vector<std::string>{}, url);
        error += a->start() ? "" : a->failure();
        error += b->start() ? "" : b->failure();
        return !url.empty() && a->running() && b->running();
    }
    // The keys ("m5") of every stored event, each with how often it is stored.
    std::map<std::string, int> storedKeys() {
        std::map<std::string, int> keys;
        for (const auto& row : b->storedEvents()) ++keys[row["event"].value("m5", "")];
        return keys;
    }
};

}  // namespace

TEST(CollectorClusterConcurrency, TwoCollectorsStoreEachEventOnceGiveEachDeviceOneMidAndSurviveAKill) {
    ZUB_REQUIRE_COLLECTOR();
    Pair pair;
    ASSERT_TRUE(pair.start()) << pair.error;
    CollectorProcess* collectors[] = {pair.a.get(), pair.b.get()};
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
                const zub::Value body = keyedBatch(c, b, kEvents);
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
    for (const auto& [first, second] : mids) {
        EXPECT_FALSE(first.empty());
        EXPECT_EQ(first, second);  // one device, one mid
        distinct.insert(first);
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kDevices));  // no mid issued twice
    EXPECT_EQ(PostgresServer::query(pair.url, "SELECT COUNT(*) FROM devices WHERE ui LIKE 'cluster-ui-%'", pair.error),
              std::to_string(kDevices) + "\n")
        << pair.error;
    auto keys = pair.storedKeys();
    EXPECT_EQ(keys.size(), static_cast<std::size_t>(kClients * kBatches * kEvents));
    for (const auto& [key, copies] : keys) EXPECT_EQ(copies, 1) << key;
    EXPECT_EQ(pair.a->stats()["events"], kClients * kBatches * kEvents);

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
                const zub::Value body = keyedBatch(c, b, kEvents);
                const bool byFirst = pair.a->report(body) == 0;
                bool bySecond = false;
                for (int attempt = 0; !byFirst && !bySecond && attempt < 3; ++attempt) bySecond = pair.b->report(body) == 0;
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
    pair.a->kill();
    EXPECT_TRUE(waitFor(1));
    {
        std::lock_guard lock(mutex);
        stop = true;
    }
    for (auto& thread : threads) thread.join();
    keys = pair.storedKeys();
    std::size_t expected = 0;
    for (int c = 0; c < kClients; ++c) {
        EXPECT_EQ(failures[c], 0) << "client " << c;
        expected += static_cast<std::size_t>(sent[c] * kEvents);
        for (int b = 0; b < sent[c]; ++b) {
            for (int i = 0; i < kEvents; ++i) {
                const std::string key = std::to_string(c) + "-" + std::to_string(b) + "-" + std::to_string(i);
                EXPECT_EQ(keys[key], 1) << key;  // stored, once
            }
        }
    }
    EXPECT_EQ(keys.size(), expected);
    EXPECT_EQ(pair.b->stop(), 0) << pair.b->log();
}

TEST(CollectorCluster, MigrateCopiesTheDemoDatabaseOnceWithTheSameStats) {
    ZUB_REQUIRE_COLLECTOR();
#ifndef ZUB_DEMO_PATH
    GTEST_SKIP() << "this build has no demo host";
#endif
    // The demo host, as a person runs it, into an SQLite collector.
    CollectorProcess single;
    ASSERT_TRUE(single.start()) << single.failure();
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
        CollectorProcess reopened({}, file);
        ASSERT_TRUE(reopened.start()) << reopened.failure();
        ASSERT_EQ(zubtest::runDemoHost(reopened.url(""), "migrate-app-2"), 0) << reopened.log();
        ASSERT_EQ(reopened.stop(), 0);
    }
    const std::string grown = stats(file);
    ASSERT_NE(grown, expected);
    ASSERT_EQ(migrate().exitCode, 0);
    EXPECT_EQ(stats(url), grown);

    // A collector on the copy serves its dashboard from the summaries the copy made.
    CollectorProcess onCopy({}, url);
    ASSERT_TRUE(onCopy.start()) << onCopy.failure();
    const auto summarised = PostgresServer::query(url, "SELECT SUM(events) FROM app_devices", error);
    const auto stored = PostgresServer::query(url, "SELECT COUNT(*) FROM events WHERE mid IS NOT NULL", error);
    ASSERT_TRUE(summarised && stored) << error;
    EXPECT_EQ(*summarised, *stored);
}
