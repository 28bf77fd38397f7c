// A host that returns from main right after using the library, built against
// the static and the shared library: the library's queue threads are still
// registering the device and filing events while the process runs its exit
// handlers. Every run must end with the host's own exit status; with flush
// before returning, everything it tracked must have reached the collector.
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using zubtest::ChildProcess;
using zubtest::CollectorProcess;

namespace {

#define REQUIRE_COLLECTOR() \
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

const std::vector<std::string> kHosts = {"host_app_helper", "host_app_shared_helper"};

std::string hostPath(const std::string& name) {
    return std::string(ZUB_TEST_BIN_DIR) + "/" + name;
}

// A first launch on a device of its own: a fresh HOME, so that the identifier
// queue creates the device's identifiers (digests) while the host exits.
std::vector<std::string> freshHome(const std::string& name) {
    const auto home = zubtest::TempHome::makeDir(name);
    return {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
            "XDG_DATA_HOME=" + (home / ".local/share").string()};
}

std::size_t countWhere(const zub::Value& rows, const std::string& key, const std::string& value) {
    return zubtest::storedWhere(rows, [&](const zub::Value& e) {
               if (key == "n") return e.contains("kv") && e["kv"].is_object() && e["kv"].value("n", "") == value;
               return e.contains(key) && e[key] == value;
           }).size();
}

}  // namespace

TEST(HostExit, ReturningFromMainWhileTheQueuesWorkEndsCleanly) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    for (const auto& host : kHosts) {
        for (int run = 0; run < 15; ++run) {
            SCOPED_TRACE(host + " run " + std::to_string(run));
            const std::string name = "exit-" + host + "-" + std::to_string(run);
            ChildProcess child({hostPath(host), "--collector", collector.url(""), "--bundle", "com.example." + name},
                               freshHome(name));
            ASSERT_TRUE(child.started());
            child.closeInput();
            ASSERT_EQ(child.wait(), 0) << "128 + n is death by signal n";
        }
    }
}

TEST(HostExit, FlushBeforeReturningDeliversEverythingTracked) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    std::vector<std::string> bundles;
    for (const auto& host : kHosts) {
        for (int run = 0; run < 3; ++run) {
            SCOPED_TRACE(host + " run " + std::to_string(run));
            const std::string name = "flush-" + host + "-" + std::to_string(run);
            const std::string bundle = "com.example." + name;
            ChildProcess child({hostPath(host), "--collector", collector.url(""), "--bundle", bundle, "--events",
                                "0:3", "--flush", "120"},
                               freshHome(name));
            ASSERT_TRUE(child.started());
            child.closeInput();
            EXPECT_EQ(child.readLine(std::chrono::seconds(150)), "flushed 1");
            ASSERT_EQ(child.wait(), 0);
            bundles.push_back(bundle);
        }
    }
    // flush returned once the collector acknowledged: everything is stored, once.
    const zub::Value rows = collector.storedEvents();
    for (const auto& bundle : bundles) {
        SCOPED_TRACE(bundle);
        EXPECT_EQ(countWhere(rows, "pi", bundle + ".page"), 1u);
        for (int n = 0; n < 3; ++n) EXPECT_EQ(countWhere(rows, "n", bundle + "#" + std::to_string(n)), 1u);
    }
}
