// Runs the real zub-collector binary as a child process for a test: on a free
// loopback port, with a database of its own under the test's temporary HOME, its
// stderr (one log line per request) kept in a file next to the database.
//
//   zubtest::CollectorProcess collector({"--config", path});
//   ASSERT_TRUE(collector.start()) << collector.failure();
//   EXPECT_EQ(collector.report(batch), 0);   // posted through the library's transport
//   EXPECT_EQ(collector.stop(), 0);
//   auto rows = collector.storedEvents();   // `events --json` on its database
//
// The store is an SQLite file by default; CollectorProcess::useStore(Store::Postgres)
// makes the collectors started afterwards in this process use a fresh database
// on a real PostgreSQL server (PostgresServer.h) instead: the same tests then run
// on both stores (CollectorStoreTest below).
//
// Available only when the build has the collector (ZUB_COLLECTOR_PATH).
#pragma once

#include "support/ChildProcess.h"

#include <ZUBCocoa/ZUBValue.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#define ZUB_REQUIRE_COLLECTOR() \
    if (!zubtest::CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

/// Skips the test without a collector; else `zubtest::CollectorProcess name{args}`,
/// started, or the test fails with why.
#define ZUB_START_COLLECTOR(name, ...)            \
    ZUB_REQUIRE_COLLECTOR();                      \
    zubtest::CollectorProcess name{__VA_ARGS__}; \
    ASSERT_TRUE(name.start()) << name.failure()

namespace zubtest {

struct CommandResult {
    int exitCode = -1;  // -1 when it could not be run or was killed
    std::string out;
    std::string err;
};

/// What came back from a raw POST to a collector.
struct CollectorReply {
    int status = 0;                  // HTTP status; 0 when the exchange failed
    std::optional<zub::Value> json;  // the body deciphered and parsed, when it is JSON
    std::string error;               // why the exchange failed
};

/// POSTs `wire` exactly as given (no wrapping added) with the given
/// Content-Encoding (none when empty) to 127.0.0.1:`port`, and deciphers the
/// reply with `key`.
CollectorReply postRaw(int port, const std::string& pathAndQuery, const zub::Data& wire, const std::string& encoding,
                       const std::string& key);

/// The "ret" of a collector's answer; -1 when there is none.
int retOf(const std::optional<zub::Value>& reply);

/// Runs the demo host twice as a user of its own, reporting to `collectorUrl`
/// under `app`: whatever the first launch could not send before its quit, the
/// second sends, so events always arrive. The exit code of the first that failed,
/// else 0; -1 without a demo host.
int runDemoHost(const std::string& collectorUrl, const std::string& app);

/// A batch of `events` custom events of application `app` from device `client`, as
/// the library sends them: each with its own key ("m5") "<client>-<batch>-<i>",
/// which a resent event keeps.
zub::Value keyedBatch(const std::string& app, int client, int batch, int events);

/// Fails (without stopping the test) for each key of batches 0 .. batches[c] - 1 of
/// every client c that `stored` (key -> copies) does not hold exactly once, and,
/// when `nothingElse`, unless it holds no other key.
void expectStoredOnce(const std::map<std::string, int>& stored, const std::vector<int>& batches, int events,
                      bool nothingElse);

class CollectorProcess {
public:
    enum class Store { Sqlite, Postgres };
    /// The store of the collectors made from now on in this process, when they are
    /// given no database.
    static void useStore(Store store);

    /// True when this build knows where the collector binary is.
    static bool available();
    /// This build's collector, or the one ZUB_COLLECTOR_BINARY names (to time
    /// another build against the same load).
    static std::string binaryPath();
    /// Runs the binary with `args` to completion, capturing stdout and stderr.
    static CommandResult run(const std::vector<std::string>& args);

    /// `extraArgs` are added to "--port 0 --db <db>"; the database defaults to a
    /// fresh one of the current store (a file in a fresh directory under HOME).
    explicit CollectorProcess(std::vector<std::string> extraArgs = {}, std::filesystem::path db = {});
    ~CollectorProcess();
    CollectorProcess(const CollectorProcess&) = delete;
    CollectorProcess& operator=(const CollectorProcess&) = delete;

    /// Starts the collector and waits (up to 60 s) for its "listening" line. False
    /// when it did not come up; failure() then says why.
    bool start();
    /// SIGTERM, then waits for the exit; returns the exit code (-1 if it died by a
    /// signal or was not running). Idempotent.
    int stop();
    /// SIGKILL: the collector ends at once, answering nothing more. Reaps it.
    void kill();
    bool running() const { return child_ != nullptr; }

    int port() const { return port_; }
    std::string url(const std::string& pathAndQuery) const;
    /// The dashboard's address from the "listening" line with `pathAndQuery`
    /// ("/api/v1/apps"); empty when the collector serves no dashboard.
    std::string dashboardUrl(const std::string& pathAndQuery = "/") const;
    /// The database: a file path, or a PostgreSQL URL (as a path; .string() gives it back).
    const std::filesystem::path& db() const { return db_; }
    /// Everything the collector wrote to stderr so far.
    std::string log() const;
    /// Everything it wrote to stdout (the listening line; the stopped line after stop()).
    const std::string& output() const { return output_; }
    const std::string& failure() const { return failure_; }

    /// POSTs `body` (JSON) to `pathAndQuery` through the library's own transport
    /// (wrapping, enciphering, deciphering): the answer, as the library reads it.
    std::optional<zub::Value> post(const std::string& pathAndQuery, const zub::Value& body,
                                   std::int64_t maxSeconds = 10) const;
    /// post() of a batch to the report path: the answer's "ret", -1 without one.
    int report(const zub::Value& batch) const { return retOf(post("/mstat/report", batch)); }

    /// `events --json [filters]` on this collector's database: the parsed array
    /// (an empty array, with failure() set, when the command fails).
    zub::Value storedEvents(const std::vector<std::string>& filters = {});
    /// The keys ("m5") of the stored events, each with how often it is stored.
    std::map<std::string, int> storedKeys();
    /// `stats --json [more]` on this database (null on failure).
    zub::Value stats(const std::vector<std::string>& more = {});

private:
    /// `command --db <db> --json more...` parsed; `what` (null or an empty array) on failure.
    zub::Value queryJson(const std::string& command, const std::vector<std::string>& more, zub::Value what);

    std::vector<std::string> extraArgs_;
    std::filesystem::path db_;
    std::filesystem::path logPath_;
    std::unique_ptr<ChildProcess> child_;
    std::atomic<int> port_{-1};  // read by client threads while a kill() clears it
    std::string output_;
    std::string failure_;
};

/// A test of the collector that runs once per store: TEST_P(Suite, Name) with
/// `class Suite : public zubtest::CollectorStoreTest {};` and
/// ZUB_COLLECTOR_STORES(Suite) to instantiate it for SQLite and PostgreSQL.
class CollectorStoreTest : public testing::TestWithParam<CollectorProcess::Store> {
protected:
    void SetUp() override { CollectorProcess::useStore(GetParam()); }
    void TearDown() override { CollectorProcess::useStore(CollectorProcess::Store::Sqlite); }
    bool postgres() const { return GetParam() == CollectorProcess::Store::Postgres; }
};

std::string storeName(const testing::TestParamInfo<CollectorProcess::Store>& info);
void PrintTo(CollectorProcess::Store store, std::ostream* out);

#define ZUB_COLLECTOR_STORES(Suite)                                                                       \
    INSTANTIATE_TEST_SUITE_P(Stores, Suite,                                                               \
                             testing::Values(zubtest::CollectorProcess::Store::Sqlite,                    \
                                             zubtest::CollectorProcess::Store::Postgres),                 \
                             zubtest::storeName)

}  // namespace zubtest
