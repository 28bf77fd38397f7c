// The collector as clients meet it: the real binary on a loopback port, fed with
// request bodies that the library's transport builds, checked through its own
// query commands.
#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "support/CollectorProcess.h"
#include "support/PostgresServer.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <unistd.h>

#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <regex>
#include <set>

using zubtest::CollectorProcess;

namespace {

#define REQUIRE_COLLECTOR() \
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

zub::Value event(const std::string& app, const std::string& mid, std::int64_t type, std::int64_t session,
                 std::int64_t ts, std::int64_t idx) {
    zub::Value e = zub::Value::object();
    e["ky"] = app;
    e["si"] = session;
    e["ts"] = ts;
    e["ui"] = "0123456789abcdef0123456789abcdef01234567";
    e["ifv"] = "6F1C2D3E-1111-2222-3333-444455556666";
    e["et"] = type;
    e["mid"] = mid;
    e["idx"] = idx;
    e["mc"] = "0";
    return e;
}

zub::Data bodyOf(const zub::Value& batch) {
    const std::string text = batch.dump();
    return zub::Data(text.begin(), text.end());
}

std::optional<zub::Value> postThroughLibrary(const zub::Value& body, const std::string& url) {
    return ZUBHttp::getInstance().httpPost(bodyOf(body), 10, url);
}

zub::Value midRequest(const std::string& ifv, const std::string& ioa, const std::string& ui, const std::string& mid) {
    zub::Value r = zub::Value::object();
    r["et"] = 5;
    r["ver"] = 1;
    r["ts"] = 1700000000;
    r["ifv"] = ifv;
    r["ioa"] = ioa;
    r["mid"] = mid;
    r["ui"] = ui;
    return r;
}

std::string midOf(const std::optional<zub::Value>& reply) {
    if (!reply || !reply->is_object() || reply->value("ret", -1) != 0 || !reply->contains("mid")) return "<no mid>";
    return (*reply)["mid"].get<std::string>();
}

}  // namespace

// Suites that run on both stores: an SQLite file and a PostgreSQL database.
class CollectorReport : public zubtest::CollectorStoreTest {};
class CollectorMid : public zubtest::CollectorStoreTest {};
class CollectorConfig : public zubtest::CollectorStoreTest {};
class CollectorQuery : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorReport);
ZUB_COLLECTOR_STORES(CollectorMid);
ZUB_COLLECTOR_STORES(CollectorConfig);
ZUB_COLLECTOR_STORES(CollectorQuery);

TEST_P(CollectorReport, StoresShortAndGzipBatchesExactlyAsSent) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();

    // The library sends its index as a signed 32-bit number: indexes above
    // 2147483647 arrive negative, and are kept and shown as they arrived.
    zub::Value shortBatch = zub::Value::array({event("app-A", "mid-1", 2, 77, 1700000000, -1138051416)});
    ASSERT_LT(bodyOf(shortBatch).size(), 256u);  // goes out in the short form
    zub::Value longBatch = zub::Value::array();
    for (int i = 0; i < 10; ++i) {
        zub::Value e = event("app-A", "mid-1", 1000, 77, 1700000001 + i, i == 9 ? 2147483647 : 100 + i);
        e["ei"] = "buy";
        e["kv"] = {{"item", "book " + std::to_string(i)}};
        longBatch.push_back(std::move(e));
    }
    ASSERT_GE(bodyOf(longBatch).size(), 256u);  // gzip form

    const auto first = postThroughLibrary(shortBatch, collector.url("/mstat/report"));
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(*first, zub::Value::parse(R"({"ret":0})"));  // no configuration given, no "cfg"
    const auto second = postThroughLibrary(longBatch, collector.url("/mstat/report"));
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ((*second)["ret"], 0);

    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 11u) << collector.failure();
    zub::Value sent = shortBatch;
    for (const auto& e : longBatch) sent.push_back(e);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(rows[i]["event"], sent[i]);  // the whole object, keys in their order
        EXPECT_EQ(rows[i]["ky"], "app-A");
        EXPECT_EQ(rows[i]["mid"], "mid-1");
        EXPECT_EQ(rows[i]["et"], sent[i]["et"]);
        EXPECT_EQ(rows[i]["si"], 77);
        EXPECT_EQ(rows[i]["ts"], sent[i]["ts"]);
        EXPECT_EQ(rows[i]["idx"], sent[i]["idx"]);
        EXPECT_GT(rows[i]["received"].get<std::int64_t>(), 1700000000);
    }
    const auto table = CollectorProcess::run({"events", "--db", collector.db().string()});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s*1\s.*\s1700000000\s+-1138051416\s)"))) << table.out;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s*11\s.*\s1700000010\s+2147483647\s)"))) << table.out;

    const std::string log = collector.log();
    EXPECT_NE(log.find("POST /mstat/report 200 enc=rc4 bytes="), std::string::npos) << log;
    EXPECT_NE(log.find("enc=rc4,gzip"), std::string::npos) << log;
    EXPECT_NE(log.find("events=10 ret=0"), std::string::npos) << log;
}

TEST_P(CollectorReport, StoredEventsSurviveAnOrderlyStopAndRestart) {
    REQUIRE_COLLECTOR();
    std::filesystem::path db;
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.start()) << collector.failure();
        db = collector.db();
        zub::Value batch = zub::Value::array();
        for (int i = 0; i < 3; ++i) batch.push_back(event("app-A", "mid-1", 4, 9, 1700000000 + i, i));
        const auto reply = postThroughLibrary(batch, collector.url("/mstat/report"));
        ASSERT_TRUE(reply && (*reply)["ret"] == 0);
        EXPECT_EQ(collector.stop(), 0) << collector.log();
        EXPECT_NE(collector.output().find(R"({"event":"stopped","stored":3})"), std::string::npos)
            << collector.output();
        EXPECT_NE(collector.log().find("received SIGTERM, stopping"), std::string::npos);
    }
    CollectorProcess again({}, db);
    ASSERT_TRUE(again.start()) << again.failure();
    EXPECT_EQ(again.storedEvents().size(), 3u);
    zub::Value more = zub::Value::array({event("app-A", "mid-1", 4, 9, 1700000100, 50)});
    const auto reply = postThroughLibrary(more, again.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);
    const zub::Value rows = again.storedEvents();
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[3]["idx"], 50);
}

TEST_P(CollectorReport, AnEventSentAgainIsStoredAndSummarisedOnce) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    // The library keeps an event's key ("m5") across sendings; its "idx" is new
    // each time and a resent event carries "rt".
    zub::Value batch = zub::Value::array();
    for (int i = 0; i < 3; ++i) {
        zub::Value e = event("app-A", "mid-1", 1000, 77, 1700000000 + i, 10 + i);
        e["ei"] = "buy";
        e["m5"] = "key-" + std::to_string(i);
        batch.push_back(std::move(e));
    }
    zub::Value again = batch;
    for (auto& e : again) {
        e["idx"] = e["idx"].get<std::int64_t>() + 100;
        e["rt"] = 1;
    }
    zub::Value fresh = event("app-A", "mid-1", 1000, 77, 1700000005, 20);
    fresh["m5"] = "key-new";
    again.push_back(fresh);
    zub::Value keyless = zub::Value::array({event("app-A", "mid-1", 4, 77, 1700000006, 30)});
    for (const zub::Value* sent : {&batch, &again, &keyless, &keyless}) {
        const auto reply = postThroughLibrary(*sent, collector.url("/mstat/report"));
        ASSERT_TRUE(reply && (*reply)["ret"] == 0) << (reply ? reply->dump() : "no reply");  // acknowledged, not refused
    }

    // Once each; events without a key are never taken for one another.
    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 6u) << collector.failure();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(rows[i]["idx"], 10 + i);  // the first sending is kept
    EXPECT_EQ(rows[3]["event"], fresh);
    EXPECT_EQ(collector.stats()["events"], 6);
    // The dashboard's summaries count them once too.
    httplib::Client dashboard(collector.dashboardUrl(""));
    const auto apps = dashboard.Get("/api/v1/apps");
    ASSERT_TRUE(apps && apps->status == 200);
    EXPECT_EQ(zub::Value::parse(apps->body)["apps"],
              zub::Value::parse(R"([{"app": "app-A", "devices": 1, "events": 6}])"));
}

TEST_P(CollectorMid, SameDeviceKeepsItsMidOtherDevicesGetTheirOwn) {
    REQUIRE_COLLECTOR();
    const std::string ui = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa1";
    const std::string ioa = "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb1";
    std::string mid;
    std::filesystem::path db;
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.start()) << collector.failure();
        db = collector.db();
        const std::string url = collector.url("/?t=ios&ver=2.0");

        mid = midOf(postThroughLibrary(midRequest("IFV-1", ioa, ui, ""), url));
        EXPECT_TRUE(std::regex_match(mid, std::regex("[0-9a-f]{32}"))) << mid;
        // Asking again, with or without the mid it was given, yields the same mid.
        EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-1", ioa, ui, ""), url)), mid);
        EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-1", ioa, ui, mid), url)), mid);
        // Another application on the same device (same OpenUDID, own idfv) is the same device.
        EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-2", ioa, ui, ""), url)), mid);

        const std::string other = midOf(postThroughLibrary(
            midRequest("IFV-9", "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb9", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa9", ""),
            url));
        EXPECT_TRUE(std::regex_match(other, std::regex("[0-9a-f]{32}"))) << other;
        EXPECT_NE(other, mid);
        // A device that brings a mid the collector has never seen keeps it.
        EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-5", "", "", "kept-mid-5"), url)), "kept-mid-5");
        EXPECT_EQ(collector.stats()["devicesRegistered"], 3);
        EXPECT_NE(collector.log().find("mid=" + mid + " new"), std::string::npos);
    }
    // The mid is stable across restarts of the collector.
    CollectorProcess again({}, db);
    ASSERT_TRUE(again.start()) << again.failure();
    EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-1", ioa, ui, ""), again.url("/?t=ios&ver=2.0"))), mid);
}

TEST_P(CollectorMid, PlaceholderIdentifiersNeverJoinDifferentMachines) {
    REQUIRE_COLLECTOR();
    // What every machine sends when it has no "en0" interface (the SHA-1 of no
    // bytes) and when its application opted out of OpenUDID.
    const std::string noMac = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
    const std::string optedOut(40, '0');
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string url = collector.url("/?t=ios&ver=2.0");

    const std::string first = midOf(postThroughLibrary(midRequest("IFV-A", noMac, optedOut, ""), url));
    const std::string second = midOf(postThroughLibrary(midRequest("IFV-B", noMac, optedOut, ""), url));
    const std::string upper = midOf(postThroughLibrary(midRequest("IFV-C", "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709",
                                                                  "", ""), url));
    EXPECT_TRUE(std::regex_match(first, std::regex("[0-9a-f]{32}"))) << first;
    EXPECT_TRUE(std::regex_match(second, std::regex("[0-9a-f]{32}"))) << second;
    EXPECT_NE(first, second);
    EXPECT_NE(upper, first);
    EXPECT_NE(upper, second);
    // The real identifiers still find each machine again.
    EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-A", noMac, optedOut, ""), url)), first);
    EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-B", "", "", ""), url)), second);

    // A device first seen in a report batch is not recorded under placeholders either.
    zub::Value reported = event("app-A", "mid-from-events", 4, 1, 1700000000, 1);
    reported["ui"] = optedOut;
    reported["ioa"] = noMac;
    reported["ifv"] = "IFV-E";
    const auto reply = postThroughLibrary(zub::Value::array({reported}), collector.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);
    const std::string fourth = midOf(postThroughLibrary(midRequest("IFV-D", noMac, optedOut, ""), url));
    EXPECT_NE(fourth, "mid-from-events");
    EXPECT_NE(fourth, first);
    EXPECT_EQ(midOf(postThroughLibrary(midRequest("IFV-E", noMac, optedOut, ""), url)), "mid-from-events");

    // A request with nothing but placeholders is a device of its own, not anyone's.
    const std::string bare = midOf(postThroughLibrary(midRequest("", noMac, optedOut, ""), url));
    EXPECT_TRUE(std::regex_match(bare, std::regex("[0-9a-f]{32}"))) << bare;
    for (const std::string& taken : {first, second, upper, fourth}) EXPECT_NE(bare, taken);
    EXPECT_EQ(collector.stats()["devicesRegistered"], 6);
}

TEST_P(CollectorConfig, SendsEachBlockOnlyToClientsNotHoldingIt) {
    REQUIRE_COLLECTOR();
    const auto configPath = zubtest::TempHome::makeDir("cfg") / "online.json";
    std::ofstream(configPath) << R"({"sdk": {"v": 3, "c": {"rs": 1}},
                                     "app": {"v": "2", "c": {"greeting": "hi"}, "m": "abc"}})";
    CollectorProcess collector({"--config", configPath.string()});
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string url = collector.url("/mstat/report");

    auto session = [](const std::string& mid, int sdk, int app) {
        zub::Value e = event("app-A", mid, 2, 5, 1700000000, 1);
        e["cfg"] = {{"1", {{"v", sdk}}}, {"2", {{"v", app}}}};
        return zub::Value::array({e});
    };
    const zub::Value plain = zub::Value::array({event("app-A", "mid-1", 1000, 5, 1700000000, 2)});

    // A client the collector knows nothing about gets both blocks in their wire form.
    const auto first = postThroughLibrary(plain, url);
    ASSERT_TRUE(first && (*first)["ret"] == 0);
    ASSERT_TRUE(first->contains("cfg")) << first->dump();
    const zub::Value expectedSdk = {{"c", {{"rs", 1}}}, {"v", 3}, {"m", *ZUBProHelper::md5encrypt(R"({"rs":1})")}};
    const zub::Value expectedApp = {{"c", {{"greeting", "hi"}}}, {"v", 2}, {"m", "abc"}};
    EXPECT_EQ((*first)["cfg"], zub::Value({{"1", expectedSdk}, {"2", expectedApp}}));

    // Once sent, they are not sent again.
    const auto second = postThroughLibrary(plain, url);
    ASSERT_TRUE(second && (*second)["ret"] == 0);
    EXPECT_FALSE(second->contains("cfg")) << second->dump();

    // A session event reporting an older application block brings that block back only.
    const auto third = postThroughLibrary(session("mid-1", 3, 1), url);
    ASSERT_TRUE(third && (*third)["ret"] == 0);
    EXPECT_EQ((*third)["cfg"], zub::Value({{"2", expectedApp}}));

    // Another device holding nothing gets both; one holding newer versions gets none.
    const auto fresh = postThroughLibrary(session("mid-2", 0, 0), url);
    ASSERT_TRUE(fresh && fresh->contains("cfg"));
    EXPECT_EQ((*fresh)["cfg"].size(), 2u);
    const auto newer = postThroughLibrary(session("mid-3", 5, 9), url);
    ASSERT_TRUE(newer && (*newer)["ret"] == 0);
    EXPECT_FALSE(newer->contains("cfg")) << newer->dump();
    EXPECT_NE(collector.log().find("cfg=1,2"), std::string::npos);
}

TEST(CollectorConfigFile, MalformedConfigurationFileStopsTheStart) {
    REQUIRE_COLLECTOR();
    const auto dir = zubtest::TempHome::makeDir("badcfg");
    const std::pair<const char*, const char*> cases[] = {
        {"{not json", "not JSON"},
        {R"({"sdk": {"v": 0, "c": {}}})", "positive 32-bit integer"},
        {R"({"sdk": {"v": 1, "c": "rs=1"}})", "JSON object or array"},
        {R"({"app": {"v": 1, "c": {}, "m": 5}})", "must be a string"},
        {R"({"extra": {}})", "unknown key"},
    };
    int n = 0;
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text);
        const auto path = dir / ("cfg" + std::to_string(n++) + ".json");
        std::ofstream(path) << text;
        CollectorProcess collector({"--config", path.string()});
        EXPECT_FALSE(collector.start());
        EXPECT_NE(collector.failure().find(message), std::string::npos) << collector.failure();
        EXPECT_NE(collector.failure().find("exit code 2"), std::string::npos) << collector.failure();
    }
    CollectorProcess missing({"--config", (dir / "absent.json").string()});
    EXPECT_FALSE(missing.start());
    EXPECT_NE(missing.failure().find("cannot read configuration file"), std::string::npos);
}

TEST_P(CollectorQuery, StatsAndEventFiltersReportWhatArrived) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();

    zub::Value batch = zub::Value::array();
    std::int64_t ts = 1700000000;
    std::int64_t idx = 0;
    batch.push_back(event("app-A", "mid-1", 2, 1, ts++, idx++));
    batch.push_back(event("app-A", "mid-1", 2, 2, ts++, idx++));
    for (const auto& [page, du] : std::vector<std::pair<std::string, int>>{{"home", 4}, {"home", 6}, {"cart", 2}}) {
        zub::Value e = event("app-A", "mid-1", 1, 2, ts++, idx++);
        e["pi"] = page;
        e["du"] = du;
        batch.push_back(std::move(e));
    }
    for (int i = 0; i < 3; ++i) {
        zub::Value e = event("app-A", "mid-1", 1000, 2, ts++, idx++);
        e["ei"] = "buy";
        if (i == 0) e["du"] = 5;
        batch.push_back(std::move(e));
    }
    {
        zub::Value e = event("app-A", "mid-1", 1000, 2, ts++, idx++);
        e["ei"] = "share";
        batch.push_back(std::move(e));
    }
    const auto reply = postThroughLibrary(batch, collector.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);
    const auto other = postThroughLibrary(zub::Value::array({event("app-B", "mid-2", 4, 1, ts++, idx++)}),
                                          collector.url("/mstat/report"));
    ASSERT_TRUE(other && (*other)["ret"] == 0);

    const zub::Value stats = collector.stats();
    ASSERT_TRUE(stats.is_object()) << collector.failure();
    EXPECT_EQ(stats["events"], 10);
    EXPECT_EQ(stats["sessions"], 3);  // app-A's sessions 1 and 2, app-B's session 1
    EXPECT_EQ(stats["devicesReporting"], 2);
    EXPECT_EQ(stats["apps"], 2);
    EXPECT_EQ(stats["byType"], zub::Value::parse(R"([
        {"et":1000,"name":"custom","count":4}, {"et":1,"name":"page","count":3},
        {"et":2,"name":"session","count":2}, {"et":4,"name":"active time","count":1}])"));
    EXPECT_EQ(stats["topCustomEvents"], zub::Value::parse(R"([
        {"ei":"buy","count":3,"meanDuration":5.0}, {"ei":"share","count":1,"meanDuration":null}])"));
    EXPECT_EQ(stats["topPages"], zub::Value::parse(R"([
        {"pi":"home","views":2,"meanDuration":5.0}, {"pi":"cart","views":1,"meanDuration":2.0}])"));

    const auto appB = CollectorProcess::run({"stats", "--db", collector.db().string(), "--app", "app-B", "--json"});
    ASSERT_EQ(appB.exitCode, 0) << appB.err;
    EXPECT_EQ(zub::Value::parse(appB.out)["events"], 1);

    const auto table = CollectorProcess::run({"stats", "--db", collector.db().string()});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+home\s+2\s+5\.0\n)"))) << table.out;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+buy\s+3\s+5\.0\n)"))) << table.out;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+sessions\s+3\n)"))) << table.out;
    EXPECT_NE(table.out.find("\ndropped events: 0 "), std::string::npos) << table.out;

    EXPECT_EQ(collector.storedEvents({"--type", "1"}).size(), 3u);
    EXPECT_EQ(collector.storedEvents({"--app", "app-B"}).size(), 1u);
    EXPECT_EQ(collector.storedEvents({"--limit", "4"}).size(), 4u);
    // Times are the events' own "ts": seconds or a UTC date and time.
    EXPECT_EQ(collector.storedEvents({"--since", "1700000008"}).size(), 2u);
    EXPECT_EQ(collector.storedEvents({"--since", "2023-11-14T22:13:28Z", "--until", "1700000009"}).size(), 1u);
    EXPECT_EQ(collector.storedEvents({"--until", "2023-11-14"}).size(), 0u);

    const auto missing = CollectorProcess::run({"events", "--db", "/nonexistent/none.db", "--json"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("cannot open database"), std::string::npos) << missing.err;
}

TEST_P(CollectorQuery, EventTimesLeaveOutEventsWithoutATime) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    zub::Value batch = zub::Value::array();
    batch.push_back(event("app-A", "mid-1", 4, 1, 0, 1));  // sent with ts 0 by design
    batch.push_back(event("app-A", "mid-1", 2, 1, 1700000000, 2));
    batch.push_back(event("app-A", "mid-1", 1, 1, 1700000100, 3));
    zub::Value untimed = event("app-A", "mid-1", 4, 1, 0, 4);
    untimed.erase("ts");
    batch.push_back(std::move(untimed));
    const auto reply = postThroughLibrary(batch, collector.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);

    const auto table = CollectorProcess::run({"stats", "--db", collector.db().string()});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+first event time\s+2023-11-14 22:13:20 UTC\n)")))
        << table.out;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+last event time\s+2023-11-14 22:15:00 UTC\n)")))
        << table.out;
    EXPECT_EQ(table.out.find("1970"), std::string::npos) << table.out;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+events\s+4\n)"))) << table.out;

    // With no timed event at all there are no event times to show.
    const auto onlyZero = postThroughLibrary(zub::Value::array({event("app-B", "mid-2", 4, 1, 0, 1)}),
                                             collector.url("/mstat/report"));
    ASSERT_TRUE(onlyZero && (*onlyZero)["ret"] == 0);
    const auto appB = CollectorProcess::run({"stats", "--db", collector.db().string(), "--app", "app-B"});
    ASSERT_EQ(appB.exitCode, 0) << appB.err;
    EXPECT_EQ(appB.out.find("event time"), std::string::npos) << appB.out;
}

TEST_P(CollectorQuery, CustomEventsEndedByATimerCountByTheirIdentifier) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    zub::Value batch = zub::Value::array();
    std::int64_t idx = 0;
    auto add = [&](std::int64_t type, const char* ei, std::optional<int> du) {
        zub::Value e = event("app-A", "mid-1", type, 1, 1700000000 + idx, idx);
        ++idx;
        if (ei) e["ei"] = ei;
        if (du) e["du"] = *du;
        batch.push_back(std::move(e));
    };
    add(1000, "play", std::nullopt);  // reported at once
    add(0, "play", 10);               // ended by a timer: no type, but its identifier
    add(0, "play", 20);
    add(0, "load", 4);
    add(1000, nullptr, std::nullopt);  // a custom event without identifier still counts
    add(4, nullptr, std::nullopt);     // neither: not a custom event
    // The library's reports of events it dropped: counted apart, not as the application's.
    for (const int count : {3, 4}) {
        add(1000, "zub_dropped_events", std::nullopt);
        batch.back()["kv"] = {{"count", count}};
    }
    // The jailbreak sign is set on every Debian machine: no finding to report.
    add(2, nullptr, std::nullopt);
    batch.back()["jb"] = 1;
    const auto reply = postThroughLibrary(batch, collector.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);

    const zub::Value stats = collector.stats();
    ASSERT_TRUE(stats.is_object()) << collector.failure();
    EXPECT_EQ(stats["topCustomEvents"], zub::Value::parse(R"([
        {"ei":"play","count":3,"meanDuration":15.0}, {"ei":null,"count":1,"meanDuration":null},
        {"ei":"load","count":1,"meanDuration":4.0}])"));
    EXPECT_EQ(stats["droppedEvents"], 7);
    // The table by type keeps the type each event arrived with.
    EXPECT_EQ(stats["byType"], zub::Value::parse(R"([
        {"et":1000,"name":"custom","count":4}, {"et":0,"name":"other","count":3},
        {"et":2,"name":"session","count":1}, {"et":4,"name":"active time","count":1}])"));

    const auto table = CollectorProcess::run({"stats", "--db", collector.db().string(), "--top", "1"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(Top custom events\n.*\n\s+play\s+3\s+15\.0\n\n)")))
        << table.out;
    EXPECT_NE(table.out.find("\ndropped events: 7 "), std::string::npos) << table.out;
    for (const std::string& output : {table.out, stats.dump()}) {
        EXPECT_EQ(output.find("zub_dropped_events"), std::string::npos) << output;
        EXPECT_EQ(output.find("jailbr"), std::string::npos) << output;
    }
    EXPECT_EQ(stats.dump().find("jb"), std::string::npos) << stats.dump();
}

namespace {

// Runs the sqlite3 shell on a database; its output, or nothing when it failed.
std::optional<std::string> sqlite(const std::filesystem::path& db, const std::string& sql) {
    const std::string command = "sqlite3 '" + db.string() + "' \"" + sql + "\" 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return std::nullopt;
    std::string out;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
    return ::pclose(pipe) == 0 ? std::optional<std::string>(out) : std::nullopt;
}

}  // namespace

TEST(CollectorSchema, MigratesAnOlderDatabaseAndRefusesANewerOne) {
    REQUIRE_COLLECTOR();
    if (!sqlite(":memory:", "SELECT 1")) GTEST_SKIP() << "no sqlite3 shell";
    const auto configPath = zubtest::TempHome::makeDir("schema-cfg") / "online.json";
    std::ofstream(configPath) << R"({"app": {"v": 4, "c": {"k": "v"}}})";
    std::filesystem::path db;
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.start()) << collector.failure();
        db = collector.db();
        const auto reply = postThroughLibrary(zub::Value::array({event("app-A", "mid-1", 4, 1, 1700000000, 1)}),
                                              collector.url("/mstat/report"));
        ASSERT_TRUE(reply && (*reply)["ret"] == 0);
        ASSERT_EQ(collector.stop(), 0);
    }
    EXPECT_EQ(sqlite(db, "SELECT version FROM schema_version"), "4\n");
    // Take the database back to version 1, as an older collector left it.
    ASSERT_TRUE(sqlite(db, "DROP TABLE config_state; DROP INDEX events_ts; DROP INDEX events_mid; "
                           "DROP TABLE activity_hours; DROP TABLE sessions; DROP TABLE app_devices; "
                           "DROP TABLE named_hours; DROP TABLE referrer_hours; DROP TABLE argument_hours; "
                           "DROP TABLE referrer_days; DROP TABLE argument_days; "
                           "DROP TABLE audience_hours; DROP INDEX events_key; ALTER TABLE events DROP COLUMN event_key; "
                           "UPDATE schema_version SET version = 1"));
    {
        CollectorProcess collector({"--config", configPath.string()}, db);
        ASSERT_TRUE(collector.start()) << collector.failure();
        EXPECT_EQ(sqlite(db, "SELECT version FROM schema_version"), "4\n");
        EXPECT_EQ(collector.storedEvents().size(), 1u);
        // The event stored before the dashboard's summaries existed is in them.
        EXPECT_EQ(sqlite(db, "SELECT SUM(events) || ' ' || COUNT(*) FROM activity_hours"), "1 1\n");
        // The table the migration added is in use at once.
        const auto reply = postThroughLibrary(zub::Value::array({event("app-A", "mid-1", 4, 1, 1700000001, 2)}),
                                              collector.url("/mstat/report"));
        ASSERT_TRUE(reply && reply->contains("cfg")) << (reply ? reply->dump() : "no reply");
        EXPECT_EQ(sqlite(db, "SELECT app_version FROM config_state WHERE mid = 'mid-1'"), "4\n");
        EXPECT_EQ(sqlite(db, "SELECT SUM(events) FROM activity_hours"), "2\n");
        ASSERT_EQ(collector.stop(), 0);
    }
    // A database from a newer collector is left alone.
    ASSERT_TRUE(sqlite(db, "UPDATE schema_version SET version = 99"));
    CollectorProcess newer({}, db);
    EXPECT_FALSE(newer.start());
    EXPECT_NE(newer.failure().find("database schema version 99 is newer than this collector's (4)"), std::string::npos)
        << newer.failure();
    const auto listed = CollectorProcess::run({"events", "--db", db.string(), "--json"});
    EXPECT_EQ(listed.exitCode, 1);
    EXPECT_NE(listed.err.find("newer than this collector's"), std::string::npos) << listed.err;
    EXPECT_EQ(sqlite(db, "SELECT COUNT(*) FROM events"), "2\n");
}

class CollectorRetention : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorRetention);

TEST_P(CollectorRetention, EventsReceivedBeforeTheKeptDaysAreDropped) {
    REQUIRE_COLLECTOR();
    if (!postgres() && !sqlite(":memory:", "SELECT 1")) GTEST_SKIP() << "no sqlite3 shell";
    std::filesystem::path db;
    {
        CollectorProcess collector;
        ASSERT_TRUE(collector.start()) << collector.failure();
        db = collector.db();
        zub::Value batch = zub::Value::array();
        for (int i = 0; i < 4; ++i) batch.push_back(event("app-A", "mid-1", 4, 1, 1700000000 + i, i));
        const auto reply = postThroughLibrary(batch, collector.url("/mstat/report"));
        ASSERT_TRUE(reply && (*reply)["ret"] == 0);
        ASSERT_EQ(collector.stop(), 0);
    }
    // Two of the events as if received ten days ago (on PostgreSQL, in that day's partition).
    const std::int64_t oldDay = std::time(nullptr) / 86400 - 10;
    const std::string age = "UPDATE events SET received = received - 864000 WHERE idx < 2";
    std::string error;
    if (postgres()) {
        ASSERT_TRUE(zubtest::PostgresServer::query(db.string(), "SELECT zub_ensure_event_partition(" +
                                                                    std::to_string(oldDay) + "); " + age, error))
            << error;
        EXPECT_EQ(zubtest::PostgresServer::query(db.string(), "SELECT COUNT(*) FROM events_d" + std::to_string(oldDay),
                                                 error),
                  "2\n");
    } else {
        ASSERT_TRUE(sqlite(db, age));
    }
    CollectorProcess kept({"--retention-days", "3"}, db);
    ASSERT_TRUE(kept.start()) << kept.failure();
    const zub::Value rows = kept.storedEvents();
    ASSERT_EQ(rows.size(), 2u) << kept.failure();
    EXPECT_EQ(rows[0]["idx"], 2);
    if (postgres()) {  // the whole day went
        EXPECT_EQ(zubtest::PostgresServer::query(
                      db.string(), "SELECT to_regclass('events_d" + std::to_string(oldDay) + "') IS NULL", error),
                  "t\n");
    }
}

TEST(CollectorDatabaseFile, ReadOnlyDatabaseIsReadWithoutAnyWrite) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    const auto reply = postThroughLibrary(zub::Value::array({event("app-A", "mid-1", 4, 1, 1700000000, 1)}),
                                          collector.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);
    ASSERT_EQ(collector.stop(), 0);

    namespace fs = std::filesystem;
    const fs::path db = collector.db();
    fs::permissions(db, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    auto listing = [&] {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(db.parent_path())) names.insert(entry.path().filename());
        return names;
    };
    auto contents = [&] {
        std::ifstream in(db, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const auto filesBefore = listing();
    const std::string bytesBefore = contents();
    const auto modifiedBefore = fs::last_write_time(db);

    // Tests may run as root, whom file permissions do not stop: what proves that
    // the queries only read is that nothing is made, changed or touched.
    const auto table = CollectorProcess::run({"stats", "--db", db.string()});
    EXPECT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\n\s+events\s+1\n)"))) << table.out;
    const auto rows = CollectorProcess::run({"events", "--db", db.string(), "--json"});
    EXPECT_EQ(rows.exitCode, 0) << rows.err;
    EXPECT_EQ(zub::Value::parse(rows.out, nullptr, false).size(), 1u) << rows.out;
    EXPECT_EQ(listing(), filesBefore);
    EXPECT_EQ(contents(), bytesBefore);
    EXPECT_EQ(fs::last_write_time(db), modifiedBefore);

    // A server that cannot write where its database is says why, and where.
    const fs::path notADirectory = db.parent_path() / "collector.log";
    CollectorProcess misplaced({}, notADirectory / "x.db");
    EXPECT_FALSE(misplaced.start());
    EXPECT_NE(misplaced.failure().find("cannot open database " + (notADirectory / "x.db").string() + ": not a directory"),
              std::string::npos)
        << misplaced.failure();
    if (::geteuid() != 0) {
        const fs::path locked = zubtest::TempHome::makeDir("locked");
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
        CollectorProcess denied({}, locked / "x.db");
        EXPECT_FALSE(denied.start());
        EXPECT_NE(denied.failure().find("x.db: permission denied (cannot create files in "), std::string::npos)
            << denied.failure();
    }
}

TEST(CollectorCommandLine, EachCommandHasItsHelpAndBadLinesAreNamed) {
    REQUIRE_COLLECTOR();
    const auto top = CollectorProcess::run({"--help"});
    EXPECT_EQ(top.exitCode, 0);
    for (const char* command : {"serve", "stats", "events"}) {
        EXPECT_TRUE(std::regex_search(top.out, std::regex(std::string("\n\\s+") + command + "\\s"))) << top.out;
    }
    const auto stats = CollectorProcess::run({"stats", "--help"});
    EXPECT_EQ(stats.exitCode, 0) << stats.err;
    EXPECT_NE(stats.out.find("zub-collector stats"), std::string::npos) << stats.out;
    EXPECT_TRUE(std::regex_search(stats.out, std::regex(R"(--top N[^\n]*=10\b)"))) << stats.out;  // defaults shown
    EXPECT_EQ(CollectorProcess::run({"help", "events"}).out, CollectorProcess::run({"events", "--help"}).out);
    const auto serve = CollectorProcess::run({"serve", "--help"});
    EXPECT_TRUE(std::regex_search(serve.out, std::regex(R"(--max-body BYTES[^\n]*=4194304\b)"))) << serve.out;
    EXPECT_NE(serve.out.find("--fault-path"), std::string::npos) << serve.out;

    // Should a server line be taken, the missing configuration file ends it at once
    // (with another message) instead of leaving it serving.
    const std::string absent = (zubtest::TempHome::path() / "absent.json").string();
    const std::pair<std::vector<std::string>, std::string> bad[] = {
        {{"statz", "--db", "x.db"}, "unknown command \"statz\""},
        {{"stats"}, "--db is required"},
        {{"stats", "--db", "x.db", "--frob"}, "--frob"},
        {{"events", "--db", "x.db", "--since", "2023-13-01"}, "--since"},
        {{"--config", absent, "--port", "65536"}, "--port"},
        {{"--config", absent, "--fault-ret", "1", "--fault-drop"}, "excludes"},
        {{"serve", "--config", absent, "--fault-path", "elsewhere"}, "--fault-path"},
    };
    for (const auto& [args, message] : bad) {
        SCOPED_TRACE(args.front());
        const auto result = CollectorProcess::run(args);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(CollectorCommandLine, APortInUseIsRefused) {
    REQUIRE_COLLECTOR();
    CollectorProcess first;
    ASSERT_TRUE(first.start()) << first.failure();
    const std::string port = std::to_string(first.port());
    // The later --port takes the place of the helper's "--port 0".
    CollectorProcess second({"--port", port});
    EXPECT_FALSE(second.start());
    EXPECT_NE(second.failure().find("cannot listen on 127.0.0.1:" + port + ": address already in use"),
              std::string::npos)
        << second.failure();
    EXPECT_NE(second.failure().find("exit code 1"), std::string::npos) << second.failure();
    EXPECT_FALSE(std::filesystem::exists(second.db()));  // refused before its database was touched

    // The first one still takes what is sent to the port.
    const auto reply = postThroughLibrary(zub::Value::array({event("app-A", "mid-1", 4, 1, 1700000000, 1)}),
                                          first.url("/mstat/report"));
    ASSERT_TRUE(reply && (*reply)["ret"] == 0);
    EXPECT_EQ(first.storedEvents().size(), 1u);
}
