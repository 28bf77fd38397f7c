// The collector's ingest on its SQLite file under load from several clients at
// once: the writer stores many requests in one commit, and answers a request
// only once its commit is done, so a collector killed in the middle of the load
// has every acknowledged event in its file when it opens again; events sent
// again after the restart (acknowledged or not) are stored once.
#include "support/CollectorProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using zubtest::CollectorProcess;

namespace {

constexpr int kEvents = 10;

// A batch of the library's kind: each event with its own key ("m5"), which a
// resent event keeps.
zub::Value keyedBatch(int client, int batch) {
    zub::Value body = zub::Value::array();
    for (int i = 0; i < kEvents; ++i) {
        body.push_back({{"ky", "ingest-app"}, {"si", 2000 + client}, {"ts", 1700000000 + batch}, {"et", 1000},
                        {"ui", "ingest-ui-" + std::to_string(client)}, {"mid", "ingest-mid-" + std::to_string(client)},
                        {"idx", batch * kEvents + i}, {"ei", "tap"}, {"kv", {{"n", std::to_string(i)}}},
                        {"m5", std::to_string(client) + "-" + std::to_string(batch) + "-" + std::to_string(i)}});
    }
    return body;
}

std::map<std::string, int> storedKeys(CollectorProcess& collector) {
    std::map<std::string, int> keys;
    for (const auto& row : collector.storedEvents()) ++keys[row["event"].value("m5", "")];
    return keys;
}

}  // namespace

TEST(CollectorIngest, AKilledCollectorOnSqliteKeepsEveryAcknowledgedEventAndStoresResentOnesOnce) {
    ZUB_REQUIRE_COLLECTOR();
    CollectorProcess::useStore(CollectorProcess::Store::Sqlite);
    auto collector = std::make_unique<CollectorProcess>();
    ASSERT_TRUE(collector->start()) << collector->failure();
    const std::filesystem::path file = collector->db();

    constexpr int kClients = 6;
    std::mutex mutex;
    std::condition_variable progress;
    int acknowledged = 0;                     // batches, all clients; guarded by mutex
    std::vector<int> acked(kClients, 0);      // per client: batches 0..n-1 acknowledged
    std::vector<int> sent(kClients, 0);       // per client: batches 0..n-1 posted
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            // Each client posts its batches one after another until one is not
            // acknowledged (the collector is gone).
            for (int b = 0;; ++b) {
                const bool ok = collector->report(keyedBatch(c, b)) == 0;
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

    // Opened again on the same file: every acknowledged event is there, once.
    collector = std::make_unique<CollectorProcess>(std::vector<std::string>{}, file);
    ASSERT_TRUE(collector->start()) << collector->failure();
    auto keys = storedKeys(*collector);
    for (int c = 0; c < kClients; ++c) {
        ASSERT_GT(sent[c], acked[c]) << "client " << c << " stopped without a failed batch";
        for (int b = 0; b < acked[c]; ++b) {
            for (int i = 0; i < kEvents; ++i) {
                const std::string key = std::to_string(c) + "-" + std::to_string(b) + "-" + std::to_string(i);
                EXPECT_EQ(keys[key], 1) << key;
            }
        }
    }

    // Each client sends everything it posted again, the batch that was in flight
    // at the kill included: each event is then stored once.
    for (int c = 0; c < kClients; ++c) {
        for (int b = 0; b < sent[c]; ++b) EXPECT_EQ(collector->report(keyedBatch(c, b)), 0) << c << "/" << b;
    }
    EXPECT_EQ(collector->stop(), 0);
    keys = storedKeys(*collector);
    std::size_t expected = 0;
    for (int c = 0; c < kClients; ++c) {
        expected += static_cast<std::size_t>(sent[c] * kEvents);
        for (int b = 0; b < sent[c]; ++b) {
            for (int i = 0; i < kEvents; ++i) {
                const std::string key = std::to_string(c) + "-" + std::to_string(b) + "-" + std::to_string(i);
                EXPECT_EQ(keys[key], 1) << key;
            }
        }
    }
    EXPECT_EQ(keys.size(), expected);
}
