// Two applications of one user, with different bundle identifiers, running at
// the same time in one HOME: each saves its unsent events at quit and its next
// launch reads them back and sends them. Neither may see, replace or send the
// other's saved events.
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

using zubtest::ChildProcess;
using zubtest::CollectorProcess;

namespace {

constexpr int kEventsPerLaunch = 25;

struct App {
    std::string bundle;
    std::string appKey;
};

// Runs one launch of every application at once; each tracks the events
// numbered from `first` on and ends with `lastArgs`.
void launchTogether(const std::vector<App>& apps, CollectorProcess& collector, int first,
                    const std::vector<std::string>& lastArgs, const std::string& expectedLine) {
    std::vector<std::unique_ptr<ChildProcess>> running;
    for (const App& app : apps) {
        std::vector<std::string> argv{std::string(ZUB_TEST_BIN_DIR) + "/host_app_helper",
                                      "--collector", collector.url(""), "--bundle", app.bundle, "--app-key",
                                      app.appKey, "--no-smart", "--events",
                                      std::to_string(first) + ":" + std::to_string(kEventsPerLaunch)};
        argv.insert(argv.end(), lastArgs.begin(), lastArgs.end());
        running.push_back(std::make_unique<ChildProcess>(argv));
        ASSERT_TRUE(running.back()->started());
        running.back()->closeInput();
    }
    for (std::size_t i = 0; i < running.size(); ++i) {
        SCOPED_TRACE(apps[i].bundle);
        if (!expectedLine.empty()) {
            EXPECT_EQ(running[i]->readLine(std::chrono::seconds(150)), expectedLine);
        }
        EXPECT_EQ(running[i]->wait(), 0);
    }
}

}  // namespace

TEST(ApplicationsSharingAHome, EachApplicationsEventsArriveExactlyOnceUnderItsOwnKey) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::vector<App> apps = {{"com.example.alpha", "alpha-key"}, {"org.example.beta", "beta-key"}};

    // Launch 1: smart reporting off, so under the launch strategy nothing is sent;
    // the quit handler saves every event for the next launch.
    ASSERT_NO_FATAL_FAILURE(launchTogether(apps, collector, 0, {"--quit"}, ""));
    // Launch 2: the start reads back and sends what launch 1 saved; flush sends
    // the rest and waits until the collector has acknowledged everything.
    ASSERT_NO_FATAL_FAILURE(
        launchTogether(apps, collector, kEventsPerLaunch, {"--flush", "120", "--quit"}, "flushed 1"));

    // Every numbered event of each application exactly once, with its own key.
    std::map<std::string, std::map<std::string, int>> seen;  // bundle#n -> app key -> count
    for (const auto& row : collector.storedEvents()) {
        const zub::Value& e = row["event"];
        if (e.value("ei", "") != "host.event") continue;
        seen[e["kv"].value("n", "")][e.value("ky", "")] += 1;
    }
    for (const App& app : apps) {
        for (int n = 0; n < 2 * kEventsPerLaunch; ++n) {
            const std::string id = app.bundle + "#" + std::to_string(n);
            EXPECT_EQ(seen[id], (std::map<std::string, int>{{app.appKey, 1}})) << id;
        }
    }
    EXPECT_EQ(seen.size(), 2u * 2 * kEventsPerLaunch) << "no other event arrived";
}
