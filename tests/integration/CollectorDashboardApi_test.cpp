// The dashboard's JSON API over real HTTP: what it answers for events the library
// posted, how it refuses bad input, and who may ask it.
#include "Common/Network/ZUBHttp.h"
#include "support/CollectorProcess.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>

using zubtest::CollectorProcess;

namespace {

struct Answer {
    int status = 0;
    std::string type;
    zub::Value json;
};

Answer get(const std::string& dashboardUrl, const std::string& path, const httplib::Headers& headers = {}) {
    const std::regex hostPort("http://([^/:]+|\\[[^\\]]+\\]):([0-9]+)");
    std::smatch m;
    Answer answer;
    if (!std::regex_search(dashboardUrl, m, hostPort)) return answer;
    const std::string host = m[1] == "0.0.0.0" ? std::string("127.0.0.1") : m[1].str();
    httplib::Client client(host, std::stoi(m[2]));
    client.set_read_timeout(60, 0);
    const auto result = client.Get(path, headers);
    if (!result) return answer;
    answer.status = result->status;
    answer.type = result->get_header_value("Content-Type");
    answer.json = zub::Value::parse(result->body, nullptr, false);
    return answer;
}

zub::Value event(std::int64_t type, std::int64_t ts, zub::Value extra) {
    zub::Value e = {{"ky", "api-app"}, {"si", 77}, {"ts", ts}, {"et", type}, {"mid", "api-mid-1"}, {"idx", 1}};
    for (auto& [key, value] : extra.items()) e[key] = value;
    return e;
}

bool post(const CollectorProcess& collector, const zub::Value& batch) {
    const std::string text = batch.dump();
    const auto reply = ZUBHttp::getInstance().httpPost(zub::Data(text.begin(), text.end()), 10,
                                                       collector.url("/mstat/report"));
    return reply && reply->value("ret", -1) == 0;
}

}  // namespace

// Run on both stores: an SQLite file and a PostgreSQL database.
class CollectorDashboardApi : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorDashboardApi);

TEST_P(CollectorDashboardApi, AnswersFromTheSummariesAndRefusesBadInputInJson) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    // One session: three views of "A" (2, 4 and 10 s, reached from "Home"), two
    // custom events with arguments, one of them timed, 30 s of active time, and the
    // library's report of 5 events it had to drop.
    ASSERT_TRUE(post(collector, zub::Value::array({
        event(2, now - 60, {{"ev", {{"ov", "12.1"}, {"av", "2.0"}, {"cn", "wifi"}, {"tz", "Europe/Paris"}}}}),
        event(1, now - 50, {{"pi", "A"}, {"du", 2}, {"rf", "Home"}}),
        event(1, now - 40, {{"pi", "A"}, {"du", 4}, {"rf", "Home"}}),
        event(1, now - 30, {{"pi", "A"}, {"du", 10}, {"rf", "B"}}),
        event(1000, now - 20, {{"ei", "buy"}, {"kv", {{"item", "book"}, {"n", 2}}}}),
        event(0, now - 10, {{"ei", "buy"}, {"kv", {{"item", "pen"}}}, {"du", 6}}),
        event(4, now - 5, {{"du", 30}}),
        event(1000, now - 1, {{"ei", "zub_dropped_events"}, {"kv", {{"count", 5}}}}),
    })));
    const std::string base = collector.dashboardUrl("");
    ASSERT_FALSE(base.empty()) << collector.output();

    const Answer overview = get(base, "/api/v1/overview?range=24h");
    ASSERT_EQ(overview.status, 200) << overview.json;
    EXPECT_EQ(overview.json["totals"]["events"], 8);
    EXPECT_EQ(overview.json["totals"]["droppedEvents"], 5);
    EXPECT_EQ(overview.json["totals"]["sessions"], 1);
    EXPECT_EQ(overview.json["totals"]["devices"], 1);
    EXPECT_EQ(overview.json["totals"]["newDevices"], 1);
    EXPECT_EQ(overview.json["totals"]["activeSeconds"], 30);
    EXPECT_EQ(overview.json["totals"]["meanSessionSeconds"], 59.0);
    EXPECT_EQ(overview.json["range"]["bucket"], "hour");
    EXPECT_EQ(overview.json["series"].size(), 24u);

    const Answer pages = get(base, "/api/v1/pages?range=24h");
    ASSERT_EQ(pages.status, 200) << pages.json;
    ASSERT_EQ(pages.json["pages"].size(), 1u);
    EXPECT_EQ(pages.json["pages"][0]["views"], 3);
    EXPECT_DOUBLE_EQ(pages.json["pages"][0]["meanDuration"].get<double>(), 16.0 / 3);
    EXPECT_EQ(pages.json["pages"][0]["medianDuration"], 4.0);
    EXPECT_EQ(pages.json["pages"][0]["topReferrer"], "Home");

    const Answer custom = get(base, "/api/v1/events?range=24h");
    ASSERT_EQ(custom.status, 200) << custom.json;
    ASSERT_EQ(custom.json["events"].size(), 1u);  // the drop report is the library's, not the application's
    const zub::Value& buy = custom.json["events"][0];
    EXPECT_EQ(buy["count"], 2);
    EXPECT_EQ(buy["timed"], 1);
    EXPECT_EQ(buy["meanDuration"], 6.0);
    EXPECT_EQ(buy["arguments"][0]["key"], "item");
    EXPECT_EQ(buy["arguments"][0]["distinctValues"], 2);

    const Answer audience = get(base, "/api/v1/audience?range=24h");
    ASSERT_EQ(audience.status, 200) << audience.json;
    EXPECT_EQ(audience.json["dimensions"][0]["values"][0], (zub::Value{{"value", "12.1"}, {"sessions", 1}}));

    const Answer devices = get(base, "/api/v1/devices?range=24h&q=mid-1");
    EXPECT_EQ(devices.json["total"], 1);
    EXPECT_EQ(devices.json["devices"][0]["appVersion"], "2.0");
    EXPECT_EQ(get(base, "/api/v1/device?mid=api-mid-1").json["events"].size(), 8u);
    const Answer live = get(base, "/api/v1/live?limit=3");
    EXPECT_EQ(live.json["events"].size(), 3u);
    EXPECT_EQ(get(base, "/api/v1/live?after=" + live.json["lastId"].dump()).json["events"].size(), 0u);

    // Bad input: a 4xx with a JSON error that says what is wrong.
    const std::pair<std::string, std::string> refused[] = {
        {"/api/v1/secrets", "unknown view"},
        {"/api/v1/overview?range=1y", "must be 24h, 7d, 30d or custom"},
        {"/api/v1/overview?range=custom&from=2000&to=1000", "\"from\" must be before \"to\""},
        {"/api/v1/overview?from=1%3B%20DROP%20TABLE%20events&to=5", "must be a whole number"},
        {"/api/v1/overview?range=custom&from=0&to=99999999", "at most 400 days"},
        {"/api/v1/pages?limit=100000000", "between 1 and 1000"},
        {"/api/v1/overview?colour=red", "unknown parameter"},
        {"/api/v1/overview?app=a&app=b", "more than once"},
        {"/api/v1/overview?tz=9999", "between -1080 and 1080"},
        {"/api/v1/device", "\"mid\" is required"},
        {"/nothing-here", "no such page"},
    };
    for (const auto& [path, message] : refused) {
        const Answer answer = get(base, path);
        EXPECT_GE(answer.status, 400) << path;
        EXPECT_LT(answer.status, 500) << path;
        EXPECT_EQ(answer.type, "application/json") << path;
        EXPECT_NE(answer.json["error"].value("message", "").find(message), std::string::npos) << path << answer.json;
    }
    // Text that looks like SQL is only ever a value: no application has that key.
    const Answer sqlish = get(base, "/api/v1/overview?range=24h&app=x%27%20OR%20%271%27%3D%271%27%3B%20--");
    EXPECT_EQ(sqlish.status, 200);
    EXPECT_EQ(sqlish.json["totals"]["events"], 0);
    EXPECT_EQ(collector.stats()["events"], 8);
}

TEST(CollectorDashboardAccess, BeyondLoopbackOnlyWithTheTokenAndNeverOnTheReportPort) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess open({"--dashboard", "0.0.0.0:0"});
    EXPECT_FALSE(open.start());
    EXPECT_NE(open.failure().find("beyond loopback, without an access token"), std::string::npos) << open.failure();
    const auto shared = CollectorProcess::run({"serve", "--port", "47999", "--dashboard", "127.0.0.1:47999"});
    EXPECT_EQ(shared.exitCode, 2);
    EXPECT_NE(shared.err.find("cannot share the report port"), std::string::npos) << shared.err;

    const std::string token = "api-test-token-abcdef";
    CollectorProcess collector({"--dashboard", "0.0.0.0:0", "--dashboard-token", token});
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string base = collector.dashboardUrl("");
    for (const std::string path : {"/api/v1/apps", "/metrics", "/"}) {
        EXPECT_EQ(get(base, path).status, 401) << path;
        EXPECT_EQ(get(base, path, {{"Authorization", "Bearer " + token + "x"}}).status, 401) << path;
        EXPECT_EQ(get(base, path, {{"Authorization", "Bearer " + token}}).status, 200) << path;
        EXPECT_EQ(get(base, path, {{"Cookie", "zub_dashboard_token=" + token}}).status, 200) << path;
    }
    const Answer refused = get(base, "/api/v1/apps");
    EXPECT_EQ(refused.json["error"]["status"], 401);
    EXPECT_EQ(get(base, "/api/v1/apps?token=" + token).status, 200);
    EXPECT_EQ(get(base, "/healthz").status, 200);
    // The port devices reach serves none of it.
    EXPECT_EQ(get(collector.url(""), "/api/v1/apps?token=" + token).status, 404);
}
