// Host applications as separate processes (host_app_helper, built against the
// static and the shared library), using the public headers only, against the
// real collector.
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

using zubtest::ChildProcess;

namespace {

std::string hostPath(const std::string& name = "host_app_helper") {
    return std::string(ZUB_TEST_BIN_DIR) + "/" + name;
}

// A first launch on a device of its own: a fresh HOME, so that the identifier
// queue creates the device's identifiers (digests) while the host exits.
std::vector<std::string> freshHome(const std::string& name) {
    const auto home = zubtest::TempHome::makeDir(name);
    return {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
            "XDG_DATA_HOME=" + (home / ".local/share").string()};
}

// How many stored events have the page `page` or the custom argument "n" = `n`.
std::size_t countWhere(const zub::Value& rows, const std::string& page, const std::string& n) {
    return zubtest::storedWhere(rows, [&](const zub::Value& e) {
               if (!page.empty()) return e.value("pi", "") == page;
               return e.contains("kv") && e["kv"].is_object() && e["kv"].value("n", "") == n;
           }).size();
}

}  // namespace

// A host that returns from main right after using the library: the library's
// queue threads are still registering the device and filing events while the
// process runs its exit handlers. Every run must end with the host's own exit
// status; with flush before returning, everything it tracked must have arrived.
TEST(HostExit, ReturningFromMainWhileTheQueuesWorkEndsCleanlyAndFlushFirstDeliversEverything) {
    ZUB_START_COLLECTOR(collector);
    std::vector<std::string> flushed;
    for (const std::string host : {"host_app_helper", "host_app_shared_helper"}) {
        for (int run = 0; run < 6; ++run) {
            SCOPED_TRACE(host + " run " + std::to_string(run));
            const std::string name = "exit-" + host + "-" + std::to_string(run);
            const std::string bundle = "com.example." + name;
            std::vector<std::string> argv{hostPath(host), "--collector", collector.url(""), "--bundle", bundle};
            const bool flush = run % 3 == 0;  // every third run flushes before it returns
            if (flush) argv.insert(argv.end(), {"--events", "0:3", "--flush", "120"});
            ChildProcess child(argv, freshHome(name));
            ASSERT_TRUE(child.started());
            child.closeInput();
            if (flush) {
                EXPECT_EQ(child.readLine(std::chrono::seconds(150)), "flushed 1");
                flushed.push_back(bundle);
            }
            ASSERT_EQ(child.wait(), 0) << "128 + n is death by signal n";
        }
    }
    // flush returned once the collector acknowledged: everything is stored, once.
    const zub::Value rows = collector.storedEvents();
    for (const auto& bundle : flushed) {
        SCOPED_TRACE(bundle);
        EXPECT_EQ(countWhere(rows, bundle + ".page", ""), 1u);
        for (int n = 0; n < 3; ++n) EXPECT_EQ(countWhere(rows, "", bundle + "#" + std::to_string(n)), 1u);
    }
}

// Two applications of one user, with different bundle identifiers, running at
// the same time in one HOME: each saves its unsent events at quit and its next
// launch reads them back and sends them. Neither may see, replace or send the
// other's saved events.
TEST(ApplicationsSharingAHome, EachApplicationsEventsArriveExactlyOnceUnderItsOwnKey) {
    ZUB_START_COLLECTOR(collector);
    constexpr int kEventsPerLaunch = 25;
    const std::pair<std::string, std::string> apps[] = {{"com.example.alpha", "alpha-key"},
                                                        {"org.example.beta", "beta-key"}};
    // Launch 1: smart reporting off, so under the launch strategy nothing is sent;
    // the quit handler saves every event for the next launch. Launch 2: the start
    // reads back and sends what launch 1 saved; flush sends the rest and waits until
    // the collector has acknowledged everything.
    for (const int launch : {0, 1}) {
        std::vector<std::unique_ptr<ChildProcess>> running;
        for (const auto& [bundle, appKey] : apps) {
            std::vector<std::string> argv{hostPath(), "--collector", collector.url(""), "--bundle", bundle,
                                          "--app-key", appKey, "--no-smart", "--events",
                                          std::to_string(launch * kEventsPerLaunch) + ":" + std::to_string(kEventsPerLaunch)};
            if (launch == 1) argv.insert(argv.end(), {"--flush", "120"});
            argv.push_back("--quit");
            running.push_back(std::make_unique<ChildProcess>(argv));
            ASSERT_TRUE(running.back()->started());
            running.back()->closeInput();
        }
        for (std::size_t i = 0; i < running.size(); ++i) {
            SCOPED_TRACE(apps[i].first + " launch " + std::to_string(launch));
            if (launch == 1) {
                EXPECT_EQ(running[i]->readLine(std::chrono::seconds(150)), "flushed 1");
            }
            EXPECT_EQ(running[i]->wait(), 0);
        }
    }

    // Every numbered event of each application exactly once, with its own key.
    std::map<std::string, std::map<std::string, int>> seen;  // bundle#n -> app key -> count
    for (const auto& row : collector.storedEvents()) {
        const zub::Value& e = row["event"];
        if (e.value("ei", "") != "host.event") continue;
        seen[e["kv"].value("n", "")][e.value("ky", "")] += 1;
    }
    for (const auto& [bundle, appKey] : apps) {
        for (int n = 0; n < 2 * kEventsPerLaunch; ++n) {
            const std::string id = bundle + "#" + std::to_string(n);
            EXPECT_EQ(seen[id], (std::map<std::string, int>{{appKey, 1}})) << id;
        }
    }
    EXPECT_EQ(seen.size(), 2u * 2 * kEventsPerLaunch) << "no other event arrived";
}
