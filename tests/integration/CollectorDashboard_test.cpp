// The dashboard: its JSON API over real HTTP (what it answers for events the
// library posted, how it refuses bad input, who may ask it), and the pages as a
// person sees them in headless Chromium, compared with what `zub-collector stats`
// prints for a collector that the demo host filled.
#include "support/Browser.h"
#include "support/CollectorProcess.h"
#include "support/ModelFixtures.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <map>
#include <regex>

using zubtest::Browser;
using zubtest::CollectorProcess;

namespace {

struct Answer {
    int status = 0;
    std::string type;
    std::string body;
    std::string cookie;  // the Set-Cookie header
    zub::Value json;
};

Answer get(const std::string& dashboardUrl, const std::string& path, const httplib::Headers& headers = {}) {
    httplib::Client client(std::regex_replace(dashboardUrl, std::regex("0\\.0\\.0\\.0"), "127.0.0.1"));
    client.set_read_timeout(60, 0);
    const auto result = client.Get(path, headers);
    if (!result) return {};
    return {result->status, result->get_header_value("Content-Type"), result->body,
            result->get_header_value("Set-Cookie"), zub::Value::parse(result->body, nullptr, false)};
}

zub::Value event(std::int64_t type, std::int64_t ts, zub::Value extra) {
    zub::Value e = {{"ky", "api-app"}, {"si", 77}, {"ts", ts}, {"et", type}, {"mid", "api-mid-1"}, {"idx", 1}};
    e.update(extra);
    return e;
}

}  // namespace

// Run on both stores: an SQLite file and a PostgreSQL database.
class CollectorDashboardApi : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorDashboardApi);

TEST_P(CollectorDashboardApi, AnswersFromTheSummariesAndRefusesBadInputInJson) {
    ZUB_START_COLLECTOR(collector);
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    // One session: three views of "A" (2, 4 and 10 s, reached from "Home"), two
    // custom events with arguments, one of them timed, 30 s of active time, and the
    // library's report of 5 events it had to drop.
    ASSERT_EQ(collector.report(zub::Value::array({
                  event(2, now - 60, {{"ev", {{"ov", "12.1"}, {"av", "2.0"}, {"cn", "wifi"}, {"tz", "Europe/Paris"}}}}),
                  event(1, now - 50, {{"pi", "A"}, {"du", 2}, {"rf", "Home"}}),
                  event(1, now - 40, {{"pi", "A"}, {"du", 4}, {"rf", "Home"}}),
                  event(1, now - 30, {{"pi", "A"}, {"du", 10}, {"rf", "B"}}),
                  event(1000, now - 20, {{"ei", "buy"}, {"kv", {{"item", "book"}, {"n", 2}}}}),
                  event(0, now - 10, {{"ei", "buy"}, {"kv", {{"item", "pen"}}}, {"du", 6}}),
                  event(4, now - 5, {{"du", 30}}),
                  event(1000, now - 1, {{"ei", "zub_dropped_events"}, {"kv", {{"count", 5}}}}),
              })),
              0);
    const std::string base = collector.dashboardUrl("");
    ASSERT_FALSE(base.empty()) << collector.output();

    const Answer overview = get(base, "/api/v1/overview?range=24h");
    ASSERT_EQ(overview.status, 200) << overview.body;
    EXPECT_EQ(overview.json["totals"], zub::Value::parse(R"({"events": 8, "sessions": 1, "devices": 1,
        "newDevices": 1, "activeSeconds": 30, "meanSessionSeconds": 59.0, "droppedEvents": 5})"));
    EXPECT_EQ(overview.json["range"]["bucket"], "hour");
    EXPECT_EQ(overview.json["series"].size(), 24u);

    const Answer pages = get(base, "/api/v1/pages?range=24h");
    ASSERT_EQ(pages.json["pages"].size(), 1u) << pages.body;
    zubtest::expectKeys(pages.json["pages"][0], {{"views", 3}, {"medianDuration", 4.0}, {"topReferrer", "Home"}});
    EXPECT_DOUBLE_EQ(pages.json["pages"][0]["meanDuration"].get<double>(), 16.0 / 3);

    const Answer custom = get(base, "/api/v1/events?range=24h");
    ASSERT_EQ(custom.json["events"].size(), 1u) << custom.body;  // the drop report is the library's, not the application's
    zubtest::expectKeys(custom.json["events"][0], {{"count", 2}, {"timed", 1}, {"meanDuration", 6.0}});
    zubtest::expectKeys(custom.json["events"][0]["arguments"][0], {{"key", "item"}, {"distinctValues", 2}});

    EXPECT_EQ(get(base, "/api/v1/audience?range=24h").json["dimensions"][0]["values"][0],
              (zub::Value{{"value", "12.1"}, {"sessions", 1}}));
    const Answer devices = get(base, "/api/v1/devices?range=24h&q=mid-1");
    EXPECT_EQ(devices.json["total"], 1);
    zubtest::expectKeys(devices.json["devices"][0], {{"appVersion", "2.0"}, {"sessions", 1}});
    const Answer device = get(base, "/api/v1/device?mid=api-mid-1");
    EXPECT_EQ(device.json["events"].size(), 8u);
    ASSERT_EQ(device.json["apps"].size(), 1u) << device.body;
    zubtest::expectKeys(device.json["apps"][0], {{"appVersion", "2.0"}, {"sessions", 1}, {"events", 8}, {"firstSeen", now - 60}});
    const Answer live = get(base, "/api/v1/live?limit=3");
    ASSERT_EQ(live.json["events"].size(), 3u);
    zubtest::expectKeys(live.json["events"][0], {{"app", "api-app"}, {"mid", "api-mid-1"}, {"et", 1000}, {"ts", now - 1}});
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
        EXPECT_NE(answer.json["error"].value("message", "").find(message), std::string::npos) << path << answer.body;
    }
    // Text that looks like SQL is only ever a value: no application has that key.
    const Answer sqlish = get(base, "/api/v1/overview?range=24h&app=x%27%20OR%20%271%27%3D%271%27%3B%20--");
    EXPECT_EQ(sqlish.status, 200);
    EXPECT_EQ(sqlish.json["totals"]["events"], 0);
    EXPECT_EQ(collector.stats()["events"], 8);
}

TEST(CollectorDashboardAccess, BeyondLoopbackOnlyWithTheTokenAndNeverOnTheReportPort) {
    ZUB_REQUIRE_COLLECTOR();
    CollectorProcess open({"--dashboard", "0.0.0.0:0"});
    EXPECT_FALSE(open.start());
    EXPECT_NE(open.failure().find("beyond loopback, without an access token"), std::string::npos) << open.failure();
    const auto shared = CollectorProcess::run({"serve", "--port", "47999", "--dashboard", "127.0.0.1:47999"});
    EXPECT_EQ(shared.exitCode, 2);
    EXPECT_NE(shared.err.find("cannot share the report port"), std::string::npos) << shared.err;

    const std::string token = "api-test-token-abcdef";
    ZUB_START_COLLECTOR(collector, {"--dashboard", "0.0.0.0:0", "--dashboard-token", token});
    const std::string base = collector.dashboardUrl("");
    for (const std::string path : {"/api/v1/apps", "/metrics", "/"}) {
        EXPECT_EQ(get(base, path).status, 401) << path;
        EXPECT_EQ(get(base, path, {{"Authorization", "Bearer " + token + "x"}}).status, 401) << path;
        EXPECT_EQ(get(base, path, {{"Authorization", "Bearer " + token}}).status, 200) << path;
        EXPECT_EQ(get(base, path, {{"Cookie", "zub_dashboard_token=" + token}}).status, 200) << path;
    }
    EXPECT_EQ(get(base, "/api/v1/apps").json["error"]["status"], 401);
    EXPECT_EQ(get(base, "/api/v1/apps?token=" + token).status, 200);
    EXPECT_EQ(get(base, "/healthz").status, 200);
    // A person without the token is told how to give it; given once in the
    // address, it is kept as a cookie.
    const Answer page = get(base, "/?token=wrong-token-0123");
    EXPECT_EQ(page.status, 401);
    EXPECT_NE(page.body.find("<title>zub-collector: access token needed</title>"), std::string::npos) << page.body;
    EXPECT_EQ(page.cookie, "");
    const Answer kept = get(base, "/?token=" + token);
    EXPECT_EQ(kept.status, 302);  // to the address without it
    EXPECT_EQ(kept.cookie.rfind("zub_dashboard_token=" + token + ";", 0), 0u) << kept.cookie;
    // The port devices reach serves none of it.
    EXPECT_EQ(get(collector.url(""), "/api/v1/apps?token=" + token).status, 404);
}

namespace {

// Every chart of the page: drawn by the charting library, with a value above
// zero. The charts without, by title.
constexpr const char* kChartProblems = R"(
const canvases = [...document.querySelectorAll('main canvas')];
const problems = canvases.filter((c) => {
  const chart = window.Chart && Chart.getChart(c);
  return !chart || !chart.data.datasets.some((d) => d.data.some((v) => Number(v) > 0));
}).map((c) => c.getAttribute('aria-label'));
return { charts: canvases.length, problems };
)";

// The overview's cards, or with a table's name the first two columns of that
// table: name -> whole number shown.
constexpr const char* kShownCounts = R"(
const counts = {};
const number = (text) => (/[0-9]/.test(text) ? Number(text.replace(/[^0-9]/g, '')) : -1);
if (arguments[0]) {
  for (const row of document.querySelectorAll('[data-table="' + arguments[0] + '"] tbody tr')) {
    counts[row.cells[0].textContent] = number(row.cells[1].textContent);
  }
} else {
  for (const v of document.querySelectorAll('[data-stat]')) counts[v.dataset.stat] = number(v.textContent);
}
return counts;
)";

}  // namespace

TEST(CollectorDashboard, EveryViewDrawsWhatTheDemoHostSentAndFollowsTheFilters) {
    if (const auto why = Browser::missing()) GTEST_SKIP() << *why;
    ZUB_START_COLLECTOR(collector);
    ASSERT_EQ(zubtest::runDemoHost(collector.url(""), "dash-alpha"), 0) << collector.log();
    ASSERT_EQ(zubtest::runDemoHost(collector.url(""), "dash-beta"), 0) << collector.log();
    Browser browser;
    ASSERT_TRUE(browser.ok()) << browser.failure();

    // Opens a view (the part after '#') and waits until it has drawn.
    auto show = [&](const std::string& view, const std::string& query = "") {
        browser.run("if (document.body) document.body.dataset.state = 'stale'");
        return browser.open(collector.dashboardUrl("/#" + view + (query.empty() ? "" : "?" + query))) &&
               browser.waitFor("return document.body.dataset.state === 'ready' && document.body.dataset.view === '" +
                               view + "'");
    };
    // `stats --json` for the range the page shows (of one application, when named).
    auto stats = [&](const std::string& app = "") {
        const zub::Value range = browser.run("return [document.body.dataset.from, document.body.dataset.to]");
        std::vector<std::string> args{"--top", "100", "--since", range[0].get<std::string>(), "--until",
                                      range[1].get<std::string>()};
        if (!app.empty()) args.insert(args.end(), {"--app", app});
        return collector.stats(args);
    };
    auto shown = [&](const std::string& table = "") {
        return browser.run(kShownCounts, zub::Value::array({table})).get<std::map<std::string, std::int64_t>>();
    };

    // The overview's cards say what stats says for the same range. Both users run
    // on this one machine, which the collector knows as one device (by its
    // hardware identifier), new in this range.
    ASSERT_TRUE(show("overview")) << browser.failure() << collector.log();
    zub::Value expected = stats();
    ASSERT_GT(expected["events"], 0) << expected;
    auto cards = shown();
    for (const auto& [card, stat] : std::map<std::string, std::string>{
             {"events", "events"}, {"sessions", "sessions"}, {"devices", "devicesReporting"}, {"newDevices", "devicesReporting"}}) {
        EXPECT_EQ(cards[card], expected[stat]) << card;
    }
    // Every view's charts have data; the pages and custom events tables give each
    // row the count stats gives.
    const std::tuple<std::string, std::size_t, const char*, const char*> views[] = {
        {"overview", 3, "", ""}, {"pages", 2, "topPages", "views"}, {"events", 2, "topCustomEvents", "count"},
        {"audience", 5, "", ""}};
    for (const auto& [view, charts, list, count] : views) {
        ASSERT_TRUE(view == "overview" || show(view)) << view;  // the overview is already open
        const zub::Value found = browser.run(kChartProblems);
        EXPECT_GE(found.value("charts", 0u), charts) << view;
        EXPECT_EQ(found.value("problems", zub::Value::array()), zub::Value::array()) << view;
        if (!*list) continue;
        std::map<std::string, std::int64_t> rows;
        for (const auto& row : expected[list]) rows[row[view == "pages" ? "pi" : "ei"].get<std::string>()] = row[count];
        EXPECT_EQ(shown(view), rows) << view;
    }

    // Devices: the machine once in each application.
    ASSERT_TRUE(show("devices"));
    EXPECT_EQ(browser.run("return document.querySelectorAll('[data-table=devices] tbody tr[data-mid]').length"), 2);

    // Filters: one application's numbers are its own, and a range without events
    // says so instead of drawing empty charts.
    ASSERT_TRUE(show("overview"));
    browser.run("document.body.dataset.state = 'stale'; const s = document.getElementById('app');"
                "s.value = 'dash-alpha'; s.dispatchEvent(new Event('change'));");
    ASSERT_TRUE(browser.waitFor("return document.body.dataset.state === 'ready'"));
    EXPECT_EQ(shown()["events"], stats("dash-alpha")["events"]);
    EXPECT_LT(shown()["events"], cards["events"]);
    EXPECT_EQ(shown()["devices"], 1);
    ASSERT_TRUE(show("overview", "range=custom&from=2020-01-01&to=2020-01-07"));
    EXPECT_EQ(shown()["events"], 0);
    EXPECT_EQ(browser.run("const count = (s) => document.querySelectorAll(s).length;"
                          "return [count('[data-empty]'), count('main canvas')]"),
              zub::Value::array({1, 0}));
}
