// The collector as clients meet it: the real binary on a loopback port, fed with
// request bodies that the library's transport builds (or malformed ones, which get
// a clear error while the collector keeps running and keeps what it stored), with
// its fault knobs as the SDK's own tests use them, checked through its own query
// commands and Prometheus counters. (Many clients at once: CollectorCluster_test.)
#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "support/CollectorProcess.h"
#include "support/ModelFixtures.h"
#include "support/PostgresServer.h"
#include "support/TempHome.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>

using testing::HasSubstr;
using zubtest::CollectorProcess;
using zubtest::postRaw;
using zubtest::retOf;

namespace {

// An event as the library sends it, with `more` members added or replaced.
zub::Value event(const std::string& app, const std::string& mid, std::int64_t type, std::int64_t session,
                 std::int64_t ts, std::int64_t idx, const zub::Value& more = zub::Value::object()) {
    zub::Value e = {{"ky", app}, {"si", session}, {"ts", ts}, {"ui", "0123456789abcdef0123456789abcdef01234567"},
                    {"ifv", "6F1C2D3E-1111-2222-3333-444455556666"}, {"et", type}, {"mid", mid}, {"idx", idx}, {"mc", "0"}};
    e.update(more);
    return e;
}

zub::Value midRequest(const std::string& ifv, const std::string& ioa, const std::string& ui, const std::string& mid) {
    return {{"et", 5}, {"ver", 1}, {"ts", 1700000000}, {"ifv", ifv}, {"ioa", ioa}, {"mid", mid}, {"ui", ui}};
}

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_search(text, std::regex(pattern));
}

// Runs the sqlite3 shell on a database; its output, or nothing when it failed.
std::optional<std::string> sqlite(const std::filesystem::path& db, const std::string& sql) {
    FILE* pipe = ::popen(("sqlite3 '" + db.string() + "' \"" + sql + "\" 2>&1").c_str(), "r");
    if (!pipe) return std::nullopt;
    std::string out;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
    return ::pclose(pipe) == 0 ? std::optional<std::string>(out) : std::nullopt;
}

// `count` custom events of app-A, numbered (index and time) from `first`.
zub::Value batchOf(int first, int count) {
    zub::Value batch = zub::Value::array();
    for (int i = first; i < first + count; ++i) {
        batch.push_back(event("app-A", "mid-1", 1000, 3, 1700000000 + i, i, {{"ei", "e" + std::to_string(i)}}));
    }
    return batch;
}

std::string key() { return ZUBProConfig::getInstance().rc4Key().value_or(""); }

zub::Data bytes(const std::string& text) { return zub::Data(text.begin(), text.end()); }

zub::Data rc4(zub::Data data, const std::string& withKey = key()) {
    ZUBProHelper::ChiperRC4(data.data(), data.size(), withKey);
    return data;
}

// The long form before enciphering: declared length, then gzip of `plain`.
zub::Data prefixedGzip(const zub::Data& plain, std::uint32_t declared) {
    zub::Data gz;
    EXPECT_EQ(ZUBProHelper::GZip(plain, &gz), 0);
    zub::Data out{static_cast<std::uint8_t>(declared >> 24), static_cast<std::uint8_t>(declared >> 16),
                  static_cast<std::uint8_t>(declared >> 8), static_cast<std::uint8_t>(declared)};
    out.insert(out.end(), gz.begin(), gz.end());
    return out;
}

// Sends `request` on a plain socket and returns whatever comes back (up to the
// peer closing or 10 s of silence).
std::string exchangeOnSocket(int port, const std::string& request) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return "<connect failed>";
    }
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
    }
    std::string reply;
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, static_cast<std::size_t>(n));
    ::close(fd);
    return reply;
}

const std::string kMidPath = "/?t=ios&ver=2.0";

}  // namespace

// Suites that run on both stores: an SQLite file and a PostgreSQL database.
class CollectorReport : public zubtest::CollectorStoreTest {};
class CollectorMid : public zubtest::CollectorStoreTest {};
class CollectorQuery : public zubtest::CollectorStoreTest {};
class CollectorBadInput : public zubtest::CollectorStoreTest {};
class CollectorStop : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorReport);
ZUB_COLLECTOR_STORES(CollectorMid);
ZUB_COLLECTOR_STORES(CollectorQuery);
ZUB_COLLECTOR_STORES(CollectorBadInput);
ZUB_COLLECTOR_STORES(CollectorStop);

TEST_P(CollectorReport, StoresEachEventOnceAsSentAndKeepsItAcrossRestartsForTheKeptDays) {
    std::filesystem::path db;
    zub::Value sent = zub::Value::array();
    {
        ZUB_START_COLLECTOR(collector);
        db = collector.db();
        // The library sends its index as a signed 32-bit number: indexes above
        // 2147483647 arrive negative, and are kept and shown as they arrived.
        zub::Value shortBatch = zub::Value::array({event("app-A", "mid-1", 2, 77, 1700000000, -1138051416)});
        ASSERT_LT(shortBatch.dump().size(), 256u);  // goes out in the short form
        zub::Value longBatch = zub::Value::array();
        for (int i = 0; i < 10; ++i) {
            longBatch.push_back(event("app-A", "mid-1", 1000, 77, 1700000001 + i, i == 9 ? 2147483647 : 100 + i,
                                      {{"ei", "buy"}, {"kv", {{"item", "book " + std::to_string(i)}}}}));
        }
        ASSERT_GE(longBatch.dump().size(), 256u);  // gzip form
        // The library keeps an event's key ("m5") across sendings; its "idx" is new
        // each time and a resent event carries "rt".
        zub::Value keyed = zub::Value::array();
        for (int i = 0; i < 3; ++i) {
            keyed.push_back(event("app-A", "mid-1", 1000, 77, 1700000020 + i, 20 + i, {{"m5", "key-" + std::to_string(i)}}));
        }
        zub::Value again = keyed;
        for (auto& e : again) e.update({{"idx", e["idx"].get<std::int64_t>() + 100}, {"rt", 1}});
        again.push_back(event("app-A", "mid-1", 1000, 77, 1700000025, 30, {{"m5", "key-new"}}));
        zub::Value keyless = zub::Value::array({event("app-A", "mid-1", 4, 77, 1700000026, 31)});

        EXPECT_EQ(collector.post("/mstat/report", shortBatch), zub::Value::parse(R"({"ret":0})"));  // no "cfg"
        for (const zub::Value* batch : {&longBatch, &keyed, &again, &keyless, &keyless}) {
            ASSERT_EQ(collector.report(*batch), 0);  // acknowledged, also when sent again
        }
        for (const zub::Value* batch : {&shortBatch, &longBatch, &keyed}) sent.insert(sent.end(), batch->begin(), batch->end());
        sent.push_back(again.back());
        sent.insert(sent.end(), {keyless[0], keyless[0]});  // a keyless event is never taken for another

        const zub::Value rows = collector.storedEvents();
        ASSERT_EQ(rows.size(), sent.size()) << collector.failure();
        for (std::size_t i = 0; i < rows.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(rows[i]["event"], sent[i]);  // the whole object, keys in their order; the first sending kept
            for (const char* column : {"ky", "mid", "et", "si", "ts", "idx"}) EXPECT_EQ(rows[i][column], sent[i][column]);
            EXPECT_GT(rows[i]["received"].get<std::int64_t>(), 1700000000);
        }
        const auto table = CollectorProcess::run({"events", "--db", db.string()});
        ASSERT_EQ(table.exitCode, 0) << table.err;
        EXPECT_TRUE(matches(table.out, R"(\n\s*1\s.*\s1700000000\s+-1138051416\s)")) << table.out;
        EXPECT_TRUE(matches(table.out, R"(\n\s*11\s.*\s1700000010\s+2147483647\s)")) << table.out;
        EXPECT_EQ(collector.stats()["events"], 17);
        // The dashboard's summaries count each event once too.
        const auto apps = httplib::Client(collector.dashboardUrl("")).Get("/api/v1/apps");
        ASSERT_TRUE(apps && apps->status == 200);
        EXPECT_EQ(zub::Value::parse(apps->body)["apps"],
                  zub::Value::parse(R"([{"app": "app-A", "devices": 1, "events": 17}])"));

        EXPECT_EQ(collector.stop(), 0) << collector.log();
        // Every event of an acknowledged batch counts as stored, those sent before included.
        EXPECT_THAT(collector.output(), HasSubstr(R"({"event":"stopped","stored":20})"));
        const std::string log = collector.log();
        for (const char* line : {"POST /mstat/report 200 enc=rc4 bytes=", "enc=rc4,gzip", "events=10 ret=0",
                                 "received SIGTERM, stopping"}) {
            EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
        }
    }
    // Two of the events as if received ten days ago (on PostgreSQL, in that day's
    // partition): a restart that keeps three days drops them (and that day).
    const std::string oldDay = std::to_string(std::time(nullptr) / 86400 - 10);
    const std::string age = "UPDATE events SET received = received - 864000 WHERE idx < 0 OR idx = 100";
    std::string error;
    auto pg = [&](const std::string& sql) { return zubtest::PostgresServer::query(db.string(), sql, error); };
    if (postgres()) {
        ASSERT_TRUE(pg("SELECT zub_ensure_event_partition(" + oldDay + "); " + age)) << error;
        EXPECT_EQ(pg("SELECT COUNT(*) FROM events_d" + oldDay), "2\n");
    } else {
        ASSERT_TRUE(sqlite(db, age)) << "the sqlite3 shell is needed (scripts/deps installs it)";
    }
    ZUB_START_COLLECTOR(restarted, {"--retention-days", "3"}, db);
    zub::Value rows = restarted.storedEvents();
    ASSERT_EQ(rows.size(), 15u);
    EXPECT_EQ(rows[0]["idx"], 101);
    if (postgres()) {
        EXPECT_EQ(pg("SELECT to_regclass('events_d" + oldDay + "') IS NULL"), "t\n");
    }
    ASSERT_EQ(restarted.report(zub::Value::array({event("app-A", "mid-1", 4, 9, 1700000100, 50)})), 0);
    rows = restarted.storedEvents();
    ASSERT_EQ(rows.size(), 16u);
    EXPECT_EQ(rows[15]["idx"], 50);
}

TEST_P(CollectorMid, OneStableMidPerDeviceNoneForPlaceholdersAndEachConfigurationBlockOnce) {
    const std::string ui = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa1";
    const std::string ioa = "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb1";
    // What every machine sends when it has no "en0" interface (the SHA-1 of no
    // bytes) and when its application opted out of OpenUDID.
    const std::string noMac = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
    const std::string optedOut(40, '0');
    const std::regex issued("[0-9a-f]{32}");
    const auto configPath = zubtest::TempHome::makeDir("cfg") / "online.json";
    std::ofstream(configPath) << R"({"sdk": {"v": 3, "c": {"rs": 1}},
                                     "app": {"v": "2", "c": {"greeting": "hi"}, "m": "abc"}})";
    std::string mid;
    std::filesystem::path db;
    {
        ZUB_START_COLLECTOR(collector, {"--config", configPath.string()});
        db = collector.db();
        auto midFor = [&](const std::string& ifv, const std::string& ioaSent, const std::string& uiSent,
                          const std::string& midSent = "") {
            const auto reply = collector.post(kMidPath, midRequest(ifv, ioaSent, uiSent, midSent));
            return zubtest::retOf(reply) == 0 && reply->contains("mid") ? (*reply)["mid"].get<std::string>()
                                                                         : "<no mid>";
        };
        mid = midFor("IFV-1", ioa, ui);
        // Asking again, with or without the mid it was given, yields the same mid;
        // so does another application on the same device (same OpenUDID, own idfv).
        EXPECT_EQ(midFor("IFV-1", ioa, ui), mid);
        EXPECT_EQ(midFor("IFV-1", ioa, ui, mid), mid);
        EXPECT_EQ(midFor("IFV-2", ioa, ui), mid);
        const std::string other = midFor("IFV-9", ioa.substr(0, 39) + "9", ui.substr(0, 39) + "9");
        EXPECT_NE(other, mid);
        // A device that brings a mid the collector has never seen keeps it.
        EXPECT_EQ(midFor("IFV-5", "", "", "kept-mid-5"), "kept-mid-5");
        EXPECT_EQ(collector.stats()["devicesRegistered"], 3);
        EXPECT_NE(collector.log().find("mid=" + mid + " new"), std::string::npos);

        // Placeholder identifiers never join different machines; the real ones
        // still find each machine again.
        const std::string first = midFor("IFV-A", noMac, optedOut);
        const std::string second = midFor("IFV-B", noMac, optedOut);
        const std::string upper = midFor("IFV-C", "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709", "");
        EXPECT_EQ((std::set<std::string>{first, second, upper}.size()), 3u);
        EXPECT_EQ(midFor("IFV-A", noMac, optedOut), first);
        EXPECT_EQ(midFor("IFV-B", "", ""), second);
        // A device first seen in a report batch is not recorded under placeholders either.
        const zub::Value reported = zub::Value::array({event("app-A", "mid-from-events", 4, 1, 1700000000, 1,
                                           {{"ui", optedOut}, {"ioa", noMac}, {"ifv", "IFV-E"}})});
        ASSERT_EQ(collector.report(reported), 0);
        const std::string fourth = midFor("IFV-D", noMac, optedOut);
        EXPECT_NE(fourth, "mid-from-events");
        EXPECT_NE(fourth, first);
        EXPECT_EQ(midFor("IFV-E", noMac, optedOut), "mid-from-events");
        // A request with nothing but placeholders is a device of its own, not anyone's.
        const std::string bare = midFor("", noMac, optedOut);
        for (const std::string& taken : {mid, first, second, upper, fourth}) EXPECT_NE(bare, taken);
        for (const std::string& m : {mid, other, first, second, upper, bare}) EXPECT_TRUE(std::regex_match(m, issued)) << m;
        EXPECT_EQ(collector.stats()["devicesRegistered"], 9);

        // The configuration blocks go only to the clients not holding them.
        auto send = [&](const std::string& device, std::optional<std::pair<int, int>> held) {
            zub::Value e = event("app-A", device, held ? 2 : 1000, 5, 1700000000, 1);
            if (held) e["cfg"] = {{"1", {{"v", held->first}}}, {"2", {{"v", held->second}}}};  // a session event's
            const auto reply = collector.post("/mstat/report", zub::Value::array({e}));
            EXPECT_EQ(zubtest::retOf(reply), 0);
            return reply && reply->contains("cfg") ? (*reply)["cfg"] : zub::Value();
        };
        // A client the collector knows nothing about gets both blocks in their wire form;
        // once sent, they are not sent again.
        const zub::Value sdk = {{"c", {{"rs", 1}}}, {"v", 3}, {"m", *ZUBProHelper::md5encrypt(R"({"rs":1})")}};
        const zub::Value app = {{"c", {{"greeting", "hi"}}}, {"v", 2}, {"m", "abc"}};
        EXPECT_EQ(send("mid-1", std::nullopt), zub::Value({{"1", sdk}, {"2", app}}));
        EXPECT_EQ(send("mid-1", std::nullopt), zub::Value());
        // A session event reporting an older application block brings that block back only.
        EXPECT_EQ(send("mid-1", std::pair(3, 1)), zub::Value({{"2", app}}));
        // Another device holding nothing gets both; one holding newer versions gets none.
        EXPECT_EQ(send("mid-2", std::pair(0, 0)).size(), 2u);
        EXPECT_EQ(send("mid-3", std::pair(5, 9)), zub::Value());
        EXPECT_NE(collector.log().find("cfg=1,2"), std::string::npos);
    }
    // The mid is stable across restarts of the collector.
    ZUB_START_COLLECTOR(again, {}, db);
    EXPECT_EQ(again.post(kMidPath, midRequest("IFV-1", ioa, ui, "")), zub::Value({{"ret", 0}, {"mid", mid}}));
}

TEST_P(CollectorQuery, StatsAndEventFiltersReportWhatArrived) {
    ZUB_START_COLLECTOR(collector);
    const std::string db = collector.db().string();
    zub::Value batch = zub::Value::array();
    std::int64_t ts = 1700000000;
    std::int64_t idx = 0;
    // Adds an event of app-A's session 2 (type, then members added to it).
    auto add = [&](std::int64_t type, const zub::Value& more) {
        batch.push_back(event("app-A", "mid-1", type, 2, ts++, idx++, more));
    };
    const std::pair<std::int64_t, zub::Value> first[] = {
        {2, {{"si", 1}}}, {2, zub::Value::object()}, {1, {{"pi", "home"}, {"du", 4}}}, {1, {{"pi", "home"}, {"du", 6}}},
        {1, {{"pi", "cart"}, {"du", 2}}}, {1000, {{"ei", "buy"}, {"du", 5}}}, {1000, {{"ei", "buy"}}},
        {1000, {{"ei", "buy"}}}, {1000, {{"ei", "share"}}}};
    for (const auto& [type, more] : first) add(type, more);
    ASSERT_EQ(collector.report(batch), 0);
    ASSERT_EQ(collector.report(zub::Value::array({event("app-B", "mid-2", 4, 1, ts++, idx++)})), 0);

    zub::Value stats = collector.stats();
    ASSERT_TRUE(stats.is_object()) << collector.failure();
    // Sessions: app-A's 1 and 2, app-B's 1.
    zubtest::expectKeys(stats, {{"events", 10}, {"sessions", 3}, {"devicesReporting", 2}, {"apps", 2}});
    EXPECT_EQ(stats["byType"], zub::Value::parse(R"([
        {"et":1000,"name":"custom","count":4}, {"et":1,"name":"page","count":3},
        {"et":2,"name":"session","count":2}, {"et":4,"name":"active time","count":1}])"));
    EXPECT_EQ(stats["topCustomEvents"], zub::Value::parse(R"([
        {"ei":"buy","count":3,"meanDuration":5.0}, {"ei":"share","count":1,"meanDuration":null}])"));
    EXPECT_EQ(stats["topPages"], zub::Value::parse(R"([
        {"pi":"home","views":2,"meanDuration":5.0}, {"pi":"cart","views":1,"meanDuration":2.0}])"));
    EXPECT_EQ(collector.stats({"--app", "app-B"})["events"], 1);
    auto table = CollectorProcess::run({"stats", "--db", db});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    for (const char* line : {R"(\n\s+home\s+2\s+5\.0\n)", R"(\n\s+buy\s+3\s+5\.0\n)", R"(\n\s+sessions\s+3\n)",
                             R"(\ndropped events: 0 )"}) {
        EXPECT_TRUE(matches(table.out, line)) << line << "\n" << table.out;
    }
    // Times are the events' own "ts": seconds or a UTC date and time.
    const std::pair<std::vector<std::string>, std::size_t> filtered[] = {
        {{"--type", "1"}, 3},
        {{"--app", "app-B"}, 1},
        {{"--limit", "4"}, 4},
        {{"--since", "1700000008"}, 2},
        {{"--since", "2023-11-14T22:13:28Z", "--until", "1700000009"}, 1},
        {{"--until", "2023-11-14"}, 0},
    };
    for (const auto& [filter, count] : filtered) EXPECT_EQ(collector.storedEvents(filter).size(), count) << filter[0];
    const auto missing = CollectorProcess::run({"events", "--db", "/nonexistent/none.db", "--json"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("cannot open database"), std::string::npos) << missing.err;

    // Event times leave out events sent without a time (ts 0 by design, or none).
    zub::Value timed = zub::Value::array({event("app-T", "mid-1", 4, 1, 0, 1), event("app-T", "mid-1", 2, 1, 1700000000, 2),
                                          event("app-T", "mid-1", 1, 1, 1700000100, 3), event("app-T", "mid-1", 4, 1, 0, 4)});
    timed[3].erase("ts");
    ASSERT_EQ(collector.report(timed), 0);
    table = CollectorProcess::run({"stats", "--db", db});
    EXPECT_TRUE(matches(table.out, R"(\n\s+first event time\s+2023-11-14 22:13:20 UTC\n)")) << table.out;
    EXPECT_TRUE(matches(table.out, R"(\n\s+last event time\s+2023-11-14 22:15:00 UTC\n)")) << table.out;
    EXPECT_EQ(table.out.find("1970"), std::string::npos) << table.out;
    EXPECT_TRUE(matches(CollectorProcess::run({"stats", "--db", db, "--app", "app-T"}).out, R"(\n\s+events\s+4\n)"));
    // With no timed event at all there are no event times to show.
    ASSERT_EQ(collector.report(zub::Value::array({event("app-Z", "mid-2", 4, 1, 0, 1)})), 0);
    table = CollectorProcess::run({"stats", "--db", db, "--app", "app-Z"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_EQ(table.out.find("event time"), std::string::npos) << table.out;

    // Custom events ended by a timer arrive with type 0 and count by their
    // identifier; the library's reports of dropped events count apart. A custom
    // event without identifier still counts; type 4 is not a custom event. The
    // jailbreak sign ("jb") is set on every Debian machine: no finding to report.
    batch = zub::Value::array();
    const std::pair<std::int64_t, zub::Value> timers[] = {
        {1000, {{"ei", "play"}}}, {0, {{"ei", "play"}, {"du", 10}}}, {0, {{"ei", "play"}, {"du", 20}}},
        {0, {{"ei", "load"}, {"du", 4}}}, {1000, zub::Value::object()}, {4, zub::Value::object()},
        {1000, {{"ei", "zub_dropped_events"}, {"kv", {{"count", 3}}}}},
        {1000, {{"ei", "zub_dropped_events"}, {"kv", {{"count", 4}}}}}, {2, {{"jb", 1}}}};
    for (const auto& [type, more] : timers) add(type, more);
    for (auto& e : batch) e["ky"] = "app-C";
    ASSERT_EQ(collector.report(batch), 0);
    stats = collector.stats({"--app", "app-C"});
    ASSERT_TRUE(stats.is_object()) << collector.failure();
    EXPECT_EQ(stats["topCustomEvents"], zub::Value::parse(R"([
        {"ei":"play","count":3,"meanDuration":15.0}, {"ei":null,"count":1,"meanDuration":null},
        {"ei":"load","count":1,"meanDuration":4.0}])"));
    EXPECT_EQ(stats["droppedEvents"], 7);
    // The table by type keeps the type each event arrived with.
    EXPECT_EQ(stats["byType"], zub::Value::parse(R"([
        {"et":1000,"name":"custom","count":4}, {"et":0,"name":"other","count":3},
        {"et":2,"name":"session","count":1}, {"et":4,"name":"active time","count":1}])"));
    table = CollectorProcess::run({"stats", "--db", db, "--top", "1", "--app", "app-C"});
    EXPECT_TRUE(matches(table.out, R"(Top custom events\n.*\n\s+play\s+3\s+15\.0\n\n)")) << table.out;
    EXPECT_NE(table.out.find("\ndropped events: 7 "), std::string::npos) << table.out;
    for (const std::string& output : {table.out, stats.dump()}) {
        EXPECT_EQ(output.find("zub_dropped_events"), std::string::npos) << output;
        EXPECT_EQ(output.find("jailbr"), std::string::npos) << output;
    }
    EXPECT_EQ(stats.dump().find("jb"), std::string::npos) << stats.dump();
}

TEST(CollectorDatabase, RefusesWhatItCannotServeQueriesOnlyReadOlderSchemasMigrateNewerAreLeftAlone) {
    namespace fs = std::filesystem;
    ZUB_START_COLLECTOR(collector);
    // A port in use: the later --port takes the place of the helper's "--port 0";
    // refused before its database was touched.
    const std::string port = std::to_string(collector.port());
    CollectorProcess second({"--port", port});
    EXPECT_FALSE(second.start());
    EXPECT_THAT(second.failure(), HasSubstr("cannot listen on 127.0.0.1:" + port + ": address already in use"));
    EXPECT_NE(second.failure().find("exit code 1"), std::string::npos) << second.failure();
    EXPECT_FALSE(fs::exists(second.db()));
    // The first one still takes what is sent to the port.
    ASSERT_EQ(collector.report(zub::Value::array({event("app-A", "mid-1", 4, 1, 1700000000, 1)})), 0);
    ASSERT_EQ(collector.stop(), 0);
    const fs::path db = collector.db();

    // Tests may run as root, whom file permissions do not stop: what proves that
    // the queries only read is that nothing is made, changed or touched.
    fs::permissions(db, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    auto state = [&] {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(db.parent_path())) names.insert(entry.path().filename());
        std::ifstream in(db, std::ios::binary);
        return std::tuple(names, std::string(std::istreambuf_iterator<char>(in), {}), fs::last_write_time(db));
    };
    const auto before = state();
    const auto table = CollectorProcess::run({"stats", "--db", db.string()});
    EXPECT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(matches(table.out, R"(\n\s+events\s+1\n)")) << table.out;
    EXPECT_EQ(collector.storedEvents().size(), 1u) << collector.failure();
    EXPECT_TRUE(state() == before);
    fs::permissions(db, fs::perms::owner_write, fs::perm_options::add);

    // A server that cannot write where its database is says why, and where.
    const fs::path notADirectory = db.parent_path() / "collector.log";
    CollectorProcess misplaced({}, notADirectory / "x.db");
    EXPECT_FALSE(misplaced.start());
    EXPECT_THAT(misplaced.failure(),
                HasSubstr("cannot open database " + (notADirectory / "x.db").string() + ": not a directory"));
    if (::geteuid() != 0) {
        const fs::path locked = zubtest::TempHome::makeDir("locked");
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
        CollectorProcess denied({}, locked / "x.db");
        EXPECT_FALSE(denied.start());
        EXPECT_THAT(denied.failure(), HasSubstr("x.db: permission denied (cannot create files in "));
    }

    // Back to version 1, as an older collector left it: the start migrates it.
    if (!sqlite(":memory:", "SELECT 1")) GTEST_SKIP() << "no sqlite3 shell";
    EXPECT_EQ(sqlite(db, "SELECT version FROM schema_version"), "4\n");
    ASSERT_TRUE(sqlite(db, "DROP TABLE config_state; DROP INDEX events_ts; DROP INDEX events_mid; "
                           "DROP TABLE activity_hours; DROP TABLE sessions; DROP TABLE app_devices; "
                           "DROP TABLE named_hours; DROP TABLE referrer_hours; DROP TABLE argument_hours; "
                           "DROP TABLE referrer_days; DROP TABLE argument_days; "
                           "DROP TABLE audience_hours; DROP INDEX events_key; ALTER TABLE events DROP COLUMN event_key; "
                           "UPDATE schema_version SET version = 1"));
    const auto configPath = zubtest::TempHome::makeDir("schema-cfg") / "online.json";
    std::ofstream(configPath) << R"({"app": {"v": 4, "c": {"k": "v"}}})";
    {
        ZUB_START_COLLECTOR(migrated, {"--config", configPath.string()}, db);
        EXPECT_EQ(sqlite(db, "SELECT version FROM schema_version"), "4\n");
        EXPECT_EQ(migrated.storedEvents().size(), 1u);
        // The event stored before the dashboard's summaries existed is in them.
        EXPECT_EQ(sqlite(db, "SELECT SUM(events) || ' ' || COUNT(*) FROM activity_hours"), "1 1\n");
        // The table the migration added is in use at once.
        const auto reply =
            migrated.post("/mstat/report", zub::Value::array({event("app-A", "mid-1", 4, 1, 1700000001, 2)}));
        ASSERT_TRUE(reply && reply->contains("cfg")) << (reply ? reply->dump() : "no reply");
        EXPECT_EQ(sqlite(db, "SELECT app_version FROM config_state WHERE mid = 'mid-1'"), "4\n");
        EXPECT_EQ(sqlite(db, "SELECT SUM(events) FROM activity_hours"), "2\n");
        ASSERT_EQ(migrated.stop(), 0);
    }
    // A database from a newer collector is left alone.
    ASSERT_TRUE(sqlite(db, "UPDATE schema_version SET version = 99"));
    CollectorProcess newer({}, db);
    EXPECT_FALSE(newer.start());
    EXPECT_THAT(newer.failure(), HasSubstr("database schema version 99 is newer than this collector's (4)"));
    const auto listed = CollectorProcess::run({"events", "--db", db.string(), "--json"});
    EXPECT_EQ(listed.exitCode, 1);
    EXPECT_NE(listed.err.find("newer than this collector's"), std::string::npos) << listed.err;
    EXPECT_EQ(sqlite(db, "SELECT COUNT(*) FROM events"), "2\n");
}

TEST(CollectorCommandLine, EachCommandHasItsHelpAndBadLinesAndConfigurationsAreNamed) {
    ZUB_REQUIRE_COLLECTOR();
    const std::pair<std::vector<std::string>, std::string> helps[] = {
        {{"--help"}, "\n\\s+serve\\s"}, {{"--help"}, "\n\\s+stats\\s"}, {{"--help"}, "\n\\s+events\\s"},
        {{"stats", "--help"}, "zub-collector stats"}, {{"stats", "--help"}, R"(--top N[^\n]*=10\b)"},  // defaults shown
        {{"serve", "--help"}, R"(--max-body BYTES[^\n]*=4194304\b)"}, {{"serve", "--help"}, "--fault-path"}};
    for (const auto& [args, pattern] : helps) {
        const auto help = CollectorProcess::run(args);
        EXPECT_EQ(help.exitCode, 0) << help.err;
        EXPECT_TRUE(matches(help.out, pattern)) << pattern << "\n" << help.out;
    }
    EXPECT_EQ(CollectorProcess::run({"help", "events"}).out, CollectorProcess::run({"events", "--help"}).out);

    // Should a server line be taken, the missing configuration file ends it at once
    // (with another message) instead of leaving it serving.
    const std::string absent = (zubtest::TempHome::path() / "absent.json").string();
    const std::pair<std::vector<std::string>, std::string> bad[] = {
        {{"statz", "--db", "x.db"}, "unknown command \"statz\""},
        {{"stats"}, "--db is required"},
        {{"stats", "--db", "x.db", "--frob"}, "--frob"},
        {{"events", "--db", "x.db", "--since", "2023-13-01"}, "--since"},
        {{"--config", absent, "--port", "65536"}, "--port"},
        {{"--config", absent, "--dashboard", "127.0.0.1:80x"}, "expected ADDR:PORT"},
        {{"--config", absent, "--dashboard", "127.0.0.1:65535"}, "cannot read configuration file"},  // the last port
        {{"--config", absent, "--fault-ret", "1", "--fault-drop"}, "excludes"},
        {{"serve", "--config", absent, "--fault-path", "elsewhere"}, "--fault-path"},
    };
    for (const auto& [args, message] : bad) {
        const auto result = CollectorProcess::run(args);
        EXPECT_EQ(result.exitCode, 2) << args[0];
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }

    // A configuration file that cannot be used stops the start.
    const std::pair<const char*, const char*> configs[] = {
        {"{not json", "not JSON"},
        {R"({"sdk": {"v": 0, "c": {}}})", "positive 32-bit integer"},
        {R"({"sdk": {"v": 1, "c": "rs=1"}})", "JSON object or array"},
        {R"({"app": {"v": 1, "c": {}, "m": 5}})", "must be a string"},
        {R"({"extra": {}})", "unknown key"},
        {nullptr, "cannot read configuration file"},
    };
    for (const auto& [text, message] : configs) {
        const auto path = zubtest::TempHome::path() / ("cfg" + std::string(message) + ".json");
        if (text) std::ofstream(path) << text;
        CollectorProcess collector({"--config", path.string()});
        EXPECT_FALSE(collector.start());
        EXPECT_NE(collector.failure().find(message), std::string::npos) << collector.failure();
        EXPECT_NE(collector.failure().find("exit code 2"), std::string::npos) << collector.failure();
    }
}

TEST_P(CollectorBadInput, EveryMalformedRequestGetsAClearErrorIsCountedAndStoredDataStays) {
    ZUB_START_COLLECTOR(collector, {"--max-plain", "100000", "--max-body", "4000"});
    // The Prometheus counters follow what the collector stored, refused and issued.
    const zub::Value e = {{"ky", "m-app"}, {"si", 1}, {"ts", 1700000000}, {"et", 4}, {"mid", "m-1"}, {"du", 1}};
    ASSERT_EQ(collector.report(zub::Value::array({e, e, e})), 0);
    ASSERT_EQ(collector.report(zub::Value::array({e, e})), 0);
    // Not JSON inside a correct wrapping, and a body over the limit.
    EXPECT_EQ(postRaw(collector.port(), "/mstat/report", rc4(bytes("not json")), "rc4", "").status, 200);
    EXPECT_EQ(postRaw(collector.port(), "/mstat/report", zub::Data(5000, 'x'), "rc4", "").status, 413);
    // A new device, then the same device again.
    const zub::Value device = {{"ifv", "IFV-M"}, {"ioa", ""}, {"ui", "0123456789abcdef0123456789abcdef01234567"}, {"mid", ""}};
    ASSERT_EQ(zubtest::retOf(collector.post(kMidPath, device)), 0);
    ASSERT_TRUE(collector.post(kMidPath, device));

    const std::string dashboard = collector.dashboardUrl("");
    const auto scrape = httplib::Client(dashboard).Get("/metrics");
    ASSERT_TRUE(scrape && scrape->status == 200) << collector.log();
    std::map<std::string, double> m;  // "name{labels}" -> value
    std::istringstream lines(scrape->body);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#') m[line.substr(0, line.rfind(' '))] = std::stod(line.substr(line.rfind(' ') + 1));
    }
    const std::pair<std::string, double> counters[] = {
        {"events_stored_total", 5}, {"mids_issued_total", 1},
        {"bad_requests_total{reason=\"not_json\"}", 1}, {"bad_requests_total{reason=\"too_large\"}", 1},
        {"bad_requests_total{reason=\"wrapping\"}", 0}, {"requests_total{route=\"mid\",code=\"2xx\"}", 2},
        {"requests_total{route=\"report\",code=\"2xx\"}", 3}, {"requests_total{route=\"report\",code=\"4xx\"}", 1},
        // The histogram holds every request once, its buckets never decrease.
        {"request_duration_seconds_count{route=\"report\"}", 4},
        {"request_duration_seconds_bucket{route=\"report\",le=\"+Inf\"}", 4}};
    for (const auto& [name, value] : counters) EXPECT_EQ(m["zub_collector_" + name], value) << name;
    EXPECT_LE(m["zub_collector_request_duration_seconds_bucket{route=\"report\",le=\"0.001\"}"],
              m["zub_collector_request_duration_seconds_bucket{route=\"report\",le=\"10\"}"]);
    EXPECT_GT(m["zub_collector_request_duration_seconds_sum{route=\"report\"}"], 0);
    EXPECT_GT(m["zub_collector_database_size_bytes"], 4096);

    // The client posts an empty body without an encoding when no event could go.
    const auto empty = postRaw(collector.port(), "/mstat/report", {}, "", key());
    ASSERT_EQ(empty.status, 200) << empty.error;
    EXPECT_EQ(zubtest::retOf(empty.json), 0);
    EXPECT_EQ(collector.report(zub::Value::array()), 0);
    EXPECT_EQ(collector.storedEvents().size(), 5u);

    ASSERT_EQ(collector.report(batchOf(0, 5)), 0);
    const zub::Value devices = collector.stats()["devicesRegistered"];  // "mid-1", seen in the events
    const zub::Data batch = bytes(batchOf(100, 4).dump());
    ASSERT_GE(batch.size(), 256u);
    const zub::Data longForm = prefixedGzip(batch, static_cast<std::uint32_t>(batch.size()));
    zub::Data truncated(longForm.begin(), longForm.end() - 10);
    zub::Data trailing = longForm;
    trailing.push_back(0x42);
    const std::string otherKey = "00000000000000000000000000000000";
    struct Case {
        const char* name;
        zub::Data wire;  // already enciphered
        std::string encoding;
        int ret;
        const char* message;
        std::string path = "/mstat/report";
    };
    const Case cases[] = {
        {"wrong key, short form", rc4(bytes(R"([{"et":1}])"), otherKey), "rc4", 2, "not JSON"},
        {"wrong key, long form", rc4(longForm, otherKey), "rc4,gzip", 1, ""},
        {"declared length too large", rc4(prefixedGzip(batch, static_cast<std::uint32_t>(batch.size() + 1))),
         "rc4,gzip", 1, "declared length"},
        {"declared length too small", rc4(prefixedGzip(batch, static_cast<std::uint32_t>(batch.size() - 1))),
         "rc4,gzip", 1, "declared length"},
        {"declared length over the plain limit", rc4(prefixedGzip(batch, 0x7fffffff)), "rc4,gzip", 1,
         "over the limit"},
        {"no room for the length", rc4(bytes("abc")), "rc4,gzip", 1, "too short"},
        {"truncated gzip", rc4(truncated), "rc4,gzip", 1, "truncated or damaged"},
        {"bytes after the gzip data", rc4(trailing), "rc4,gzip", 1, "after the end"},
        {"not JSON", rc4(bytes("[{\"et\":1},")), "rc4", 2, "not JSON"},
        {"JSON object, not an array", rc4(bytes(R"({"et":1})")), "rc4", 3, "not an array"},
        {"an item that is not an object", rc4(bytes(R"([{"et":1},7])")), "rc4", 3, "batch item 1"},
        {"nesting too deep", rc4(bytes(std::string(200, '[') + std::string(200, ']'))), "rc4", 2, "nesting depth"},
        {"unknown encoding", rc4(bytes(R"([{"et":1}])")), "gzip", 1, "unknown Content-Encoding"},
        {"no encoding", rc4(bytes(R"([{"et":1}])")), "", 1, "unknown Content-Encoding"},
        // Identifier requests that cannot be read register nothing.
        {"identifiers not JSON", rc4(bytes("{\"ifv\":")), "rc4", 2, "", kMidPath},
        {"identifiers not an object", rc4(bytes(R"(["ifv","ioa"])")), "rc4", 3, "", kMidPath},
        {"no identifier", rc4(bytes(R"({"et":5,"ver":1,"mid":""})")), "rc4", 3, "", kMidPath},
        {"identifier not a string", rc4(bytes(R"({"ifv":5})")), "rc4", 3, "", kMidPath},
        {"identifier too long", rc4(bytes(R"({"ui":")" + std::string(300, 'u') + "\"}")), "rc4", 3, "", kMidPath},
        {"identifiers under another key", rc4(bytes(R"({"ifv":"A"})"), "ffffffffffffffffffffffffffffffff"), "rc4", 2, "", kMidPath},
        {"no identifier request", {}, "rc4", 3, "", kMidPath},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto reply = postRaw(collector.port(), c.path, c.wire, c.encoding, key());
        ASSERT_EQ(reply.status, 200) << reply.error;
        ASSERT_TRUE(reply.json.has_value());
        EXPECT_EQ(zubtest::retOf(reply.json), c.ret) << reply.json->dump();
        const std::string msg = reply.json->value("msg", "");
        EXPECT_FALSE(msg.empty());
        EXPECT_NE(msg.find(c.message), std::string::npos) << msg;
    }
    // Oversized bodies are refused without being read.
    const std::string head = "POST /mstat/report HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    char chunkSize[32];
    std::snprintf(chunkSize, sizeof chunkSize, "%x\r\n", 7000);
    const std::string refused[] = {
        // A body announced at 100 MB of which only 1 KiB is ever sent: the refusal
        // comes at once, so the collector cannot have waited for the rest.
        head + "Content-Encoding: rc4\r\nContent-Length: 100000000\r\n\r\n" + std::string(1024, 'x'),
        // A client that asks before sending (Expect: 100-continue) is told no at once.
        head + "Content-Encoding: rc4,gzip\r\nContent-Length: 2000000\r\nExpect: 100-continue\r\n\r\n",
        // A chunked body with no length: counted as it arrives and refused past the limit.
        head + "Content-Encoding: rc4\r\nTransfer-Encoding: chunked\r\n\r\n" + chunkSize + std::string(7000, 'y') +
            "\r\n",
    };
    for (const std::string& request : refused) {
        const std::string answer = exchangeOnSocket(collector.port(), request);
        EXPECT_EQ(answer.rfind("HTTP/1.1 413", 0), 0u) << answer.substr(0, 200);
    }
    // The library's own client with a batch that does not compress below the limit:
    // nothing (status 413) or a connection error, never a success.
    std::mt19937 random(7);
    std::string noise;
    for (int i = 0; i < 300000; ++i) noise += "0123456789abcdef"[random() % 16];
    EXPECT_NE(collector.report(zub::Value::array({{{"et", 1000}, {"ei", noise}}})), 0);

    // Nothing refused was stored, nothing stored was lost, and the collector goes on.
    EXPECT_EQ(collector.storedEvents().size(), 10u);
    EXPECT_EQ(collector.stats()["devicesRegistered"], devices);
    EXPECT_EQ(zubtest::retOf(collector.post(kMidPath, {{"et", 5}, {"ver", 1}, {"ifv", "A"}, {"mid", ""}})), 0);
    EXPECT_EQ(collector.stats()["devicesRegistered"], devices.get<int>() + 1);
    EXPECT_EQ(collector.report(batchOf(200, 3)), 0);
    EXPECT_EQ(collector.storedEvents().size(), 13u);
    const std::string log = collector.log();
    for (const std::string line : {"ret=3 error=\"batch is a JSON object, not an array\"",
                                   "413 enc=rc4 bytes=0 events=0 ret=4 error=\"body of 100000000 bytes is over the limit of 4000\"",
                                   "body is over the limit of 4000 bytes"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    }
    EXPECT_EQ(collector.stop(), 0) << collector.log();
}

TEST(CollectorFaults, KnobsAnswerAsToldForTheGivenNumberOfRequests) {
    {
        // A ret answered without storing, for two reports; identifier requests are
        // outside the fault's path and are not counted.
        ZUB_START_COLLECTOR(collector, {"--fault-ret", "7", "--fault-count", "2", "--fault-path", "report"});
        EXPECT_EQ(collector.post("/mstat/report", batchOf(0, 2)), zub::Value::parse(R"({"ret":7})"));
        EXPECT_EQ(retOf(collector.post(kMidPath, {{"et", 5}, {"ver", 1}, {"ifv", "IFV-SHARED"}, {"mid", ""}})), 0);
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
