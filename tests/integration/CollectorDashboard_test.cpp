// The dashboard as a person sees it: headless Chromium opens every view of a
// collector that the demo host filled, and what it shows is compared with what
// `zub-collector stats` prints for the same range. Screenshots of each view go to
// the build folder (tests/dashboard-screenshots).
#include "support/Browser.h"
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

using zubtest::Browser;
using zubtest::CollectorProcess;

namespace {

using Counts = std::map<std::string, std::int64_t>;

const std::filesystem::path kScreenshots = std::filesystem::path(ZUB_TEST_BIN_DIR) / "dashboard-screenshots";

// Two launches of the demo host as its own user, reporting to `url` under `app`
// (the second sends what the first saved at its quit). The exit code of the
// first that failed, else 0.
int launchDemo(const std::string& url, const std::string& app) {
#ifdef ZUB_DEMO_PATH
    const std::filesystem::path home = zubtest::TempHome::makeDir("user-" + app);
    for (int launch = 0; launch < 2; ++launch) {
        zubtest::ChildProcess demo({ZUB_DEMO_PATH, "--collector", url, "--app-key", app, "--pause-ms", "0"},
                                   {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
                                    "XDG_DATA_HOME=" + (home / ".local/share").string()});
        while (demo.readLine(std::chrono::seconds(120))) {
        }
        if (const int code = demo.wait(); code != 0) return code;
    }
    return 0;
#else
    (void)url;
    (void)app;
    return -1;
#endif
}

// Every chart of the page: drawn by the charting library, with a value above
// zero, and painted (not a blank canvas). The problems found, by chart title.
constexpr const char* kChartProblems = R"(
const problems = [];
const canvases = [...document.querySelectorAll('main canvas')];
for (const c of canvases) {
  const name = c.getAttribute('aria-label');
  const chart = window.Chart && Chart.getChart(c);
  if (!chart) { problems.push(name + ': not drawn'); continue; }
  if (!chart.data.datasets.some((d) => d.data.some((v) => Number(v) > 0))) problems.push(name + ': no data');
  const pixels = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
  let painted = 0;
  for (let i = 3; i < pixels.length; i += 4) if (pixels[i] !== 0) painted++;
  if (painted < 100) problems.push(name + ': blank canvas');
}
return { charts: canvases.length, problems };
)";

// The numbers of the overview's cards, by name.
constexpr const char* kCards = R"(
const cards = {};
for (const v of document.querySelectorAll('[data-stat]')) cards[v.dataset.stat] = v.textContent;
return cards;
)";

// The first two columns of a table of the view: name -> number shown.
constexpr const char* kTableCounts = R"(
const counts = {};
for (const row of document.querySelectorAll('[data-table="' + arguments[0] + '"] tbody tr')) {
  counts[row.cells[0].textContent] = Number(row.cells[1].textContent.replace(/[^0-9]/g, ''));
}
return counts;
)";

std::int64_t wholeNumber(const zub::Value& text) {
    if (!text.is_string()) return -1;
    const std::string digits = std::regex_replace(text.get<std::string>(), std::regex("[^0-9]"), "");
    return digits.empty() ? -1 : std::stoll(digits);
}

class Dashboard {
public:
    Dashboard(Browser& browser, std::string base) : browser_(browser), base_(std::move(base)) {}

    // Opens a view (the part after '#') and waits until it has drawn.
    bool show(const std::string& view, const std::string& query = "") {
        browser_.run("if (document.body) document.body.dataset.state = 'stale'");
        if (!browser_.open(base_ + "#" + view + (query.empty() ? "" : "?" + query))) return false;
        return browser_.waitFor("return document.body.dataset.state === 'ready' && document.body.dataset.view === '" +
                                view + "'");
    }
    // Sets a filter control as a person would, and waits for the view to redraw.
    bool choose(const std::string& control, const std::string& value) {
        browser_.run("document.body.dataset.state = 'stale'; const s = document.getElementById(arguments[0]);"
                     "s.value = arguments[1]; s.dispatchEvent(new Event('change'));",
                     zub::Value::array({control, value}));
        return browser_.waitFor("return document.body.dataset.state === 'ready'");
    }
    // `stats --json` for the range the page shows.
    zub::Value stats(CollectorProcess& collector, const std::optional<std::string>& app = std::nullopt) {
        const zub::Value range = browser_.run("return [document.body.dataset.from, document.body.dataset.to]");
        std::vector<std::string> args{"stats", "--db", collector.db().string(), "--json", "--top", "100"};
        if (range.is_array() && range[0].is_string()) {
            args.insert(args.end(), {"--since", range[0].get<std::string>(), "--until", range[1].get<std::string>()});
        }
        if (app) args.insert(args.end(), {"--app", *app});
        return zub::Value::parse(CollectorProcess::run(args).out, nullptr, false);
    }
    void expectChartsDrawn(const std::string& view, std::size_t atLeast) {
        const zub::Value found = browser_.run(kChartProblems);
        EXPECT_GE(found.value("charts", 0u), atLeast) << view;
        EXPECT_EQ(found.value("problems", zub::Value::array()), zub::Value::array()) << view;
    }
    void screenshot(const std::string& name) {
        EXPECT_TRUE(browser_.screenshot(kScreenshots / (name + ".png"))) << name << ": " << browser_.failure();
    }

private:
    Browser& browser_;
    std::string base_;
};

}  // namespace

TEST(CollectorDashboard, EveryViewDrawsWhatTheDemoHostSentAndFollowsTheFilters) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    if (const auto why = Browser::missing()) GTEST_SKIP() << *why;
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    ASSERT_EQ(launchDemo(collector.url(""), "dash-alpha"), 0) << collector.log();
    ASSERT_EQ(launchDemo(collector.url(""), "dash-beta"), 0) << collector.log();

    Browser browser;
    ASSERT_TRUE(browser.ok()) << browser.failure();
    Dashboard dashboard(browser, collector.dashboardUrl());

    // Overview: the cards say what stats says for the same range, and every chart has data.
    ASSERT_TRUE(dashboard.show("overview")) << browser.failure() << collector.log();
    zub::Value stats = dashboard.stats(collector);
    zub::Value cards = browser.run(kCards);
    ASSERT_TRUE(stats.is_object() && cards.is_object()) << stats << cards;
    ASSERT_GT(stats["events"], 0);
    EXPECT_EQ(wholeNumber(cards["events"]), stats["events"]);
    EXPECT_EQ(wholeNumber(cards["sessions"]), stats["sessions"]);
    EXPECT_EQ(wholeNumber(cards["devices"]), stats["devicesReporting"]);
    // Both users run on this one machine, which the collector knows as one device
    // (by its hardware identifier), new in this range.
    EXPECT_EQ(wholeNumber(cards["newDevices"]), stats["devicesReporting"]);
    dashboard.expectChartsDrawn("overview", 3);
    dashboard.screenshot("overview");
    const std::int64_t allEvents = wholeNumber(cards["events"]);

    // Pages and custom events: every row's count is the one stats gives.
    ASSERT_TRUE(dashboard.show("pages"));
    dashboard.expectChartsDrawn("pages", 2);
    Counts expected;
    for (const auto& page : stats["topPages"]) expected[page["pi"].get<std::string>()] = page["views"];
    EXPECT_EQ(browser.run(kTableCounts, zub::Value::array({"pages"})).get<Counts>(),
              expected);
    dashboard.screenshot("pages");

    ASSERT_TRUE(dashboard.show("events"));
    dashboard.expectChartsDrawn("events", 2);
    expected.clear();
    for (const auto& event : stats["topCustomEvents"]) expected[event["ei"].get<std::string>()] = event["count"];
    EXPECT_EQ(browser.run(kTableCounts, zub::Value::array({"events"})).get<Counts>(),
              expected);
    dashboard.screenshot("events");

    ASSERT_TRUE(dashboard.show("audience"));
    dashboard.expectChartsDrawn("audience", 5);  // system, application, language, resolution, network, zone...
    dashboard.screenshot("audience");

    // Devices: the device in each application; one device's timeline draws its events.
    ASSERT_TRUE(dashboard.show("devices"));
    const zub::Value mids = browser.run("return [...document.querySelectorAll('[data-table=devices] tbody tr')]"
                                        ".map((r) => r.dataset.mid)");
    ASSERT_EQ(mids.size(), 2u) << mids;
    ASSERT_TRUE(dashboard.show("devices", "mid=" + mids[0].get<std::string>()));
    dashboard.expectChartsDrawn("device timeline", 1);
    EXPECT_GT(browser.run("return document.querySelectorAll('[data-table=timeline] tbody tr').length"), 5);
    dashboard.screenshot("devices");

    // Live: the newest events arrive, and a pause holds the list.
    ASSERT_TRUE(dashboard.show("live"));
    EXPECT_TRUE(browser.waitFor("return document.querySelectorAll('[data-table=live] tbody tr').length > 0"));
    dashboard.screenshot("live");
    browser.run("[...document.querySelectorAll('main button')].find((b) => b.textContent === 'Pause').click()");
    EXPECT_EQ(browser.run("return document.querySelector('main .status').textContent"), "paused");

    // Filters: one application's numbers are its own, and a range without events
    // says so instead of drawing empty charts.
    ASSERT_TRUE(dashboard.show("overview"));
    ASSERT_TRUE(dashboard.choose("app", "dash-alpha"));
    cards = browser.run(kCards);
    stats = dashboard.stats(collector, "dash-alpha");
    EXPECT_EQ(wholeNumber(cards["events"]), stats["events"]);
    EXPECT_LT(wholeNumber(cards["events"]), allEvents);
    EXPECT_EQ(wholeNumber(cards["devices"]), 1);
    ASSERT_TRUE(dashboard.show("overview", "range=custom&from=2020-01-01&to=2020-01-07"));
    EXPECT_EQ(wholeNumber(browser.run(kCards)["events"]), 0);
    EXPECT_EQ(browser.run("return document.querySelectorAll('[data-empty]').length"), 1);
    EXPECT_EQ(browser.run("return document.querySelectorAll('main canvas').length"), 0);

    // A phone's screen: the overview still fits its width.
    ASSERT_TRUE(browser.resize(390, 844));
    ASSERT_TRUE(dashboard.show("overview", "range=7d"));
    EXPECT_LE(browser.run("return document.documentElement.scrollWidth"), 390);
    dashboard.screenshot("overview-phone");
}

TEST(CollectorDashboard, BeyondLoopbackThePagesNeedTheToken) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    if (const auto why = Browser::missing()) GTEST_SKIP() << *why;
    const std::string token = "dashboard-test-token-0123";
    CollectorProcess collector({"--dashboard", "0.0.0.0:0", "--dashboard-token", token});
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string base = std::regex_replace(collector.dashboardUrl(), std::regex("0\\.0\\.0\\.0"), "127.0.0.1");
    Browser browser;
    ASSERT_TRUE(browser.ok()) << browser.failure();

    ASSERT_TRUE(browser.open(base));
    EXPECT_EQ(browser.run("return document.title"), "zub-collector: access token needed");
    EXPECT_EQ(browser.run("return document.getElementById('main')"), nullptr);
    EXPECT_TRUE(browser.open(base + "?token=wrong-token-0123"));
    EXPECT_EQ(browser.run("return document.title"), "zub-collector: access token needed");

    // Given once in the address, the token is kept (as a cookie) and taken out of it.
    ASSERT_TRUE(browser.open(base + "?token=" + token));
    ASSERT_TRUE(browser.waitFor("return document.body.dataset.state === 'ready'")) << collector.log();
    EXPECT_EQ(browser.run("return location.search"), "");
    EXPECT_EQ(browser.run("return document.querySelector('[data-stat=events]').textContent"), "0");
    EXPECT_EQ(browser.run("return document.querySelectorAll('[data-empty]').length"), 1);
    EXPECT_TRUE(browser.screenshot(kScreenshots / "empty.png"));
}
