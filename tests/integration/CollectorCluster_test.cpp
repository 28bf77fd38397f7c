// Several collectors in front of one PostgreSQL database: every event stored
// once whichever collector took it (also when a client sends it again to
// another one after a collector was killed), one mid per device, and an SQLite
// database of a single collector copied in with `migrate`.
#include "Common/Network/ZUBHttp.h"
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/PostgresServer.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>

using zubtest::CollectorProcess;
using zubtest::PostgresServer;

namespace {

#define REQUIRE_COLLECTOR() \
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

// A batch of the library's kind: each event with its own key ("m5"), which a
// resent event keeps.
zub::Data keyedBatch(int client, int batch, int events) {
    zub::Value body = zub::Value::array();
    for (int i = 0; i < events; ++i) {
        body.push_back({{"ky", "cluster-app"}, {"si", 1000 + client}, {"ts", 1700000000 + batch}, {"et", 1000},
                        {"ui", "ui-" + std::to_string(client)}, {"mid", "mid-" + std::to_string(client)},
                        {"idx", batch * events + i}, {"ei", "tap"},
                        {"m5", std::to_string(client) + "-" + std::to_string(batch) + "-" + std::to_string(i)}});
    }
    const std::string text = body.dump();
    return zub::Data(text.begin(), text.end());
}

zub::Data registration(const std::string& ui, const std::string& ioa) {
    const std::string text = zub::Value({{"et", 5}, {"ver", 1}, {"ifv", ""}, {"ioa", ioa}, {"ui", ui}, {"mid", ""}}).dump();
    return zub::Data(text.begin(), text.end());
}

std::optional<zub::Value> post(const zub::Data& body, const std::string& url) {
    return ZUBHttp::getInstance().httpPost(body, 30, url);
}

bool acknowledged(const std::optional<zub::Value>& reply) {
    return reply && reply->is_object() && reply->value("ret", -1) == 0;
}

// The keys ("m5") of every stored event, each with how often it is stored.
std::map<std::string, int> storedKeys(CollectorProcess& collector) {
    std::map<std::string, int> keys;
    for (const auto& row : collector.storedEvents()) ++keys[row["event"].value("m5", "")];
    return keys;
}

}  // namespace

TEST(CollectorClusterConcurrency, TwoCollectorsStoreEachEventOnceAndGiveEachDeviceOneMid) {
    REQUIRE_COLLECTOR();
    std::string error;
    const std::string url = PostgresServer::newDatabase(error);
    ASSERT_FALSE(url.empty()) << error;
    CollectorProcess a({}, url);
    CollectorProcess b({}, url);
    ASSERT_TRUE(a.start()) << a.failure();
    ASSERT_TRUE(b.start()) << b.failure();
    CollectorProcess* collectors[] = {&a, &b};

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
            CollectorProcess& mine = *collectors[c % 2];
            CollectorProcess& other = *collectors[(c + 1) % 2];
            for (int b = 0; b < kBatches; ++b) {
                const zub::Data body = keyedBatch(c, b, kEvents);
                if (!acknowledged(post(body, mine.url("/mstat/report")))) ++failures[c];
                // Every third batch is sent again, to the other collector.
                if (b % 3 == 0 && !acknowledged(post(body, other.url("/mstat/report")))) ++failures[c];
            }
        });
    }
    for (int side = 0; side < 2; ++side) {
        threads.emplace_back([&, side] {
            for (int d = 0; d < kDevices; ++d) {
                const auto reply = post(registration("cluster-ui-" + std::to_string(d), "cluster-ioa-" + std::to_string(d)),
                                        collectors[side]->url("/?t=ios&ver=2.0"));
                if (acknowledged(reply)) mids[static_cast<std::size_t>(d)][static_cast<std::size_t>(side)] = (*reply)["mid"];
            }
        });
    }
    for (auto& thread : threads) thread.join();

    for (int c = 0; c < kClients; ++c) EXPECT_EQ(failures[c], 0) << "client " << c;
    std::set<std::string> distinct;
    for (int d = 0; d < kDevices; ++d) {
        SCOPED_TRACE(d);
        EXPECT_FALSE(mids[static_cast<std::size_t>(d)][0].empty());
        EXPECT_EQ(mids[static_cast<std::size_t>(d)][0], mids[static_cast<std::size_t>(d)][1]);  // one device, one mid
        distinct.insert(mids[static_cast<std::size_t>(d)][0]);
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kDevices));  // no mid issued twice
    const auto registered = PostgresServer::query(url, "SELECT COUNT(*) FROM devices WHERE ui LIKE 'cluster-ui-%'", error);
    EXPECT_EQ(registered, std::optional<std::string>(std::to_string(kDevices) + "\n")) << error;

    const auto keys = storedKeys(a);
    EXPECT_EQ(keys.size(), static_cast<std::size_t>(kClients * kBatches * kEvents));
    for (const auto& [key, copies] : keys) EXPECT_EQ(copies, 1) << key;
    EXPECT_EQ(b.stats()["events"], kClients * kBatches * kEvents);
    EXPECT_EQ(a.stop(), 0) << a.log();
    EXPECT_EQ(b.stop(), 0) << b.log();
}

TEST(CollectorCluster, AKilledCollectorLosesNoAcknowledgedBatch) {
    REQUIRE_COLLECTOR();
    std::string error;
    const std::string url = PostgresServer::newDatabase(error);
    ASSERT_FALSE(url.empty()) << error;
    CollectorProcess first({}, url);
    CollectorProcess second({}, url);
    ASSERT_TRUE(first.start()) << first.failure();
    ASSERT_TRUE(second.start()) << second.failure();
    const std::string firstUrl = first.url("/mstat/report");
    const std::string secondUrl = second.url("/mstat/report");

    // Clients send to the first collector and, when it does not acknowledge a
    // batch, send the same batch to the second, until told to stop.
    constexpr int kClients = 4;
    constexpr int kEvents = 10;
    std::mutex mutex;
    std::condition_variable progress;
    int ackedByFirst = 0;   // guarded by mutex
    int ackedBySecond = 0;  // guarded by mutex
    bool stop = false;      // guarded by mutex
    std::vector<int> sent(kClients, 0);
    std::vector<int> lost(kClients, 0);
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            for (int b = 0;; ++b) {
                {
                    std::lock_guard lock(mutex);
                    if (stop) return;
                }
                const zub::Data body = keyedBatch(c, b, kEvents);
                bool byFirst = acknowledged(post(body, firstUrl));
                bool bySecond = false;
                for (int attempt = 0; !byFirst && !bySecond && attempt < 3; ++attempt) {
                    bySecond = acknowledged(post(body, secondUrl));
                }
                if (!byFirst && !bySecond) ++lost[c];
                sent[c] = b + 1;
                {
                    std::lock_guard lock(mutex);
                    ackedByFirst += byFirst;
                    ackedBySecond += bySecond;
                }
                progress.notify_all();
            }
        });
    }
    auto waitFor = [&](auto condition) {
        std::unique_lock lock(mutex);
        return progress.wait_for(lock, std::chrono::seconds(120), condition);
    };
    // The kill comes once the first collector has acknowledged batches, and the
    // load goes on until the second one has taken over.
    EXPECT_TRUE(waitFor([&] { return ackedByFirst >= 20; }));
    first.kill();
    EXPECT_TRUE(waitFor([&] { return ackedBySecond >= 20; }));
    {
        std::lock_guard lock(mutex);
        stop = true;
    }
    for (auto& client : clients) client.join();

    const auto keys = storedKeys(second);
    std::size_t expected = 0;
    for (int c = 0; c < kClients; ++c) {
        EXPECT_EQ(lost[c], 0) << "client " << c;
        expected += static_cast<std::size_t>(sent[c] * kEvents);
        for (int b = 0; b < sent[c]; ++b) {
            for (int i = 0; i < kEvents; ++i) {
                const std::string key = std::to_string(c) + "-" + std::to_string(b) + "-" + std::to_string(i);
                const auto found = keys.find(key);
                EXPECT_TRUE(found != keys.end() && found->second == 1) << key;  // stored, once
            }
        }
    }
    EXPECT_EQ(keys.size(), expected);
    EXPECT_EQ(second.stop(), 0) << second.log();
}

TEST(CollectorCluster, MigrateCopiesTheDemoDatabaseOnceWithTheSameStats) {
    REQUIRE_COLLECTOR();
#ifndef ZUB_DEMO_PATH
    GTEST_SKIP() << "this build has no demo host";
#else
    // The demo host's two launches, as a person runs it, into an SQLite collector.
    CollectorProcess single;
    ASSERT_TRUE(single.start()) << single.failure();
    auto launchDemo = [&](const CollectorProcess& collector, const std::string& app) {
        const std::filesystem::path home = zubtest::TempHome::makeDir("user-" + app);
        for (int launch = 0; launch < 2; ++launch) {
            zubtest::ChildProcess demo({ZUB_DEMO_PATH, "--collector", collector.url(""), "--app-key", app, "--pause-ms", "0"},
                                       {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
                                        "XDG_DATA_HOME=" + (home / ".local/share").string()});
            while (demo.readLine(std::chrono::seconds(120))) {
            }
            if (const int code = demo.wait(); code != 0) return code;
        }
        return 0;
    };
    ASSERT_EQ(launchDemo(single, "migrate-app"), 0) << single.log();
    ASSERT_EQ(single.stop(), 0);
    const std::string file = single.db().string();

    std::string error;
    const std::string url = PostgresServer::newDatabase(error);
    ASSERT_FALSE(url.empty()) << error;
    // The stats as printed, without the first line (which names the database).
    auto stats = [](const std::string& db, const std::vector<std::string>& more = {}) {
        std::vector<std::string> args{"stats", "--db", db, "--top", "50"};
        args.insert(args.end(), more.begin(), more.end());
        const auto result = CollectorProcess::run(args);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out.substr(result.out.find('\n') + 1);
    };
    const std::string expected = stats(file);
    ASSERT_NE(expected.find("custom"), std::string::npos) << expected;

    const auto copied = CollectorProcess::run({"migrate", "--from", file, "--to", url});
    ASSERT_EQ(copied.exitCode, 0) << copied.err;
    EXPECT_EQ(copied.out.find("copied 0 events"), std::string::npos) << copied.out;
    EXPECT_EQ(stats(url), expected);
    EXPECT_EQ(stats(url, {"--json"}), stats(file, {"--json"}));

    // Again: nothing more. After more events reached the file: those, once.
    const auto again = CollectorProcess::run({"migrate", "--from", file, "--to", url});
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_NE(again.out.find("copied 0 events (0 already there)"), std::string::npos) << again.out;
    EXPECT_EQ(stats(url), expected);
    {
        CollectorProcess reopened({}, file);
        ASSERT_TRUE(reopened.start()) << reopened.failure();
        ASSERT_EQ(launchDemo(reopened, "migrate-app-2"), 0) << reopened.log();
        ASSERT_EQ(reopened.stop(), 0);
    }
    const std::string grown = stats(file);
    ASSERT_NE(grown, expected);
    ASSERT_EQ(CollectorProcess::run({"migrate", "--from", file, "--to", url}).exitCode, 0);
    EXPECT_EQ(stats(url), grown);

    // A collector on the copy serves its dashboard from the summaries the copy made.
    CollectorProcess onCopy({}, url);
    ASSERT_TRUE(onCopy.start()) << onCopy.failure();
    const auto summarised = PostgresServer::query(url, "SELECT SUM(events) FROM app_devices", error);
    const auto stored = PostgresServer::query(url, "SELECT COUNT(*) FROM events WHERE mid IS NOT NULL", error);
    ASSERT_TRUE(summarised && stored) << error;
    EXPECT_EQ(*summarised, *stored);
#endif
}
