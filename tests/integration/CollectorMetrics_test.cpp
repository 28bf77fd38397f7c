// The collector's Prometheus endpoint: its counters follow what the collector
// stored, refused and issued.
#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "support/CollectorProcess.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <map>
#include <sstream>

using zubtest::CollectorProcess;

namespace {

zub::Data bodyOf(const zub::Value& value) {
    const std::string text = value.dump();
    return zub::Data(text.begin(), text.end());
}

// Every sample of a scrape: "name{labels}" -> value.
std::map<std::string, double> scrape(const CollectorProcess& collector) {
    std::map<std::string, double> samples;
    httplib::Client client("127.0.0.1", std::stoi(collector.dashboardUrl("").substr(collector.dashboardUrl("").rfind(':') + 1)));
    const auto result = client.Get("/metrics");
    if (!result || result->status != 200) return samples;
    std::istringstream lines(result->body);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t space = line.rfind(' ');
        samples[line.substr(0, space)] = std::stod(line.substr(space + 1));
    }
    return samples;
}

}  // namespace

// Run on both stores: an SQLite file and a PostgreSQL database.
class CollectorMetrics : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorMetrics);

TEST_P(CollectorMetrics, CountWhatWasStoredRefusedAndIssued) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess collector({"--max-body", "4000"});
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string report = collector.url("/mstat/report");
    auto& http = ZUBHttp::getInstance();
    const zub::Value e = {{"ky", "m-app"}, {"si", 1}, {"ts", 1700000000}, {"et", 4}, {"mid", "m-1"}, {"du", 1}};
    ASSERT_EQ(http.httpPost(bodyOf(zub::Value::array({e, e, e})), 10, report)->value("ret", -1), 0);
    ASSERT_EQ(http.httpPost(bodyOf(zub::Value::array({e, e})), 10, report)->value("ret", -1), 0);
    // Not JSON inside a correct wrapping, and a body over the limit.
    zub::Data garbage{'n', 'o', 't', ' ', 'j', 's', 'o', 'n'};
    ZUBProHelper::ChiperRC4(garbage.data(), garbage.size(), ZUBProConfig::getInstance().rc4Key().value_or(""));
    EXPECT_EQ(zubtest::postRaw(collector.port(), "/mstat/report", garbage, "rc4", "").status, 200);
    EXPECT_EQ(zubtest::postRaw(collector.port(), "/mstat/report", zub::Data(5000, 'x'), "rc4", "").status, 413);
    // A new device, then the same device again.
    const zub::Value device = {{"ifv", "IFV-M"}, {"ioa", ""}, {"ui", "0123456789abcdef0123456789abcdef01234567"}, {"mid", ""}};
    const auto first = http.httpPost(bodyOf(device), 10, collector.url("/?t=ios&ver=2.0"));
    ASSERT_TRUE(first && first->value("ret", -1) == 0);
    ASSERT_TRUE(http.httpPost(bodyOf(device), 10, collector.url("/?t=ios&ver=2.0")));

    auto m = scrape(collector);
    ASSERT_FALSE(m.empty()) << collector.log();
    EXPECT_EQ(m["zub_collector_events_stored_total"], 5);
    EXPECT_EQ(m["zub_collector_bad_requests_total{reason=\"not_json\"}"], 1);
    EXPECT_EQ(m["zub_collector_bad_requests_total{reason=\"too_large\"}"], 1);
    EXPECT_EQ(m["zub_collector_bad_requests_total{reason=\"wrapping\"}"], 0);
    EXPECT_EQ(m["zub_collector_mids_issued_total"], 1);
    EXPECT_EQ(m["zub_collector_requests_total{route=\"report\",code=\"2xx\"}"], 3);
    EXPECT_EQ(m["zub_collector_requests_total{route=\"report\",code=\"4xx\"}"], 1);
    EXPECT_EQ(m["zub_collector_requests_total{route=\"mid\",code=\"2xx\"}"], 2);
    // The histogram holds every request once, its buckets never decrease.
    EXPECT_EQ(m["zub_collector_request_duration_seconds_count{route=\"report\"}"], 4);
    EXPECT_EQ(m["zub_collector_request_duration_seconds_bucket{route=\"report\",le=\"+Inf\"}"], 4);
    EXPECT_LE(m["zub_collector_request_duration_seconds_bucket{route=\"report\",le=\"0.001\"}"],
              m["zub_collector_request_duration_seconds_bucket{route=\"report\",le=\"10\"}"]);
    EXPECT_GT(m["zub_collector_request_duration_seconds_sum{route=\"report\"}"], 0);
    EXPECT_GT(m["zub_collector_database_size_bytes"], 4096);
}
