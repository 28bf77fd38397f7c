// Whatever arrives, the collector answers with a clear error, keeps running and
// keeps what it had already stored; its Prometheus counters follow what it
// stored, refused and issued.
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "support/CollectorProcess.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <map>
#include <random>
#include <sstream>

using zubtest::postRaw;

namespace {

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

zub::Value goodBatch(int first, int count) {
    zub::Value batch = zub::Value::array();
    for (int i = first; i < first + count; ++i) {
        batch.push_back({{"ky", "app-A"}, {"si", 1}, {"ts", 1700000000 + i}, {"et", 1000}, {"mid", "mid-1"},
                         {"idx", i}, {"ei", "padding-to-go-past-the-short-form"}});
    }
    return batch;
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

}  // namespace

// Run on both stores: an SQLite file and a PostgreSQL database.
class CollectorBadInput : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorBadInput);

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
    ASSERT_EQ(zubtest::retOf(collector.post("/?t=ios&ver=2.0", device)), 0);
    ASSERT_TRUE(collector.post("/?t=ios&ver=2.0", device));

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

    ASSERT_EQ(collector.report(goodBatch(0, 5)), 0);
    const zub::Value devices = collector.stats()["devicesRegistered"];  // "mid-1", seen in the events
    const zub::Data batch = bytes(goodBatch(100, 4).dump());
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
    const std::string mid = "/?t=ios&ver=2.0";
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
        {"identifiers not JSON", rc4(bytes("{\"ifv\":")), "rc4", 2, "", mid},
        {"identifiers not an object", rc4(bytes(R"(["ifv","ioa"])")), "rc4", 3, "", mid},
        {"no identifier", rc4(bytes(R"({"et":5,"ver":1,"mid":""})")), "rc4", 3, "", mid},
        {"identifier not a string", rc4(bytes(R"({"ifv":5})")), "rc4", 3, "", mid},
        {"identifier too long", rc4(bytes(R"({"ui":")" + std::string(300, 'u') + "\"}")), "rc4", 3, "", mid},
        {"identifiers under another key", rc4(bytes(R"({"ifv":"A"})"), "ffffffffffffffffffffffffffffffff"), "rc4", 2,
         "", mid},
        {"no identifier request", {}, "rc4", 3, "", mid},
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
    EXPECT_EQ(zubtest::retOf(collector.post(mid, {{"et", 5}, {"ver", 1}, {"ifv", "A"}, {"mid", ""}})), 0);
    EXPECT_EQ(collector.stats()["devicesRegistered"], devices.get<int>() + 1);
    EXPECT_EQ(collector.report(goodBatch(200, 3)), 0);
    EXPECT_EQ(collector.storedEvents().size(), 13u);
    const std::string log = collector.log();
    for (const std::string line : {"ret=3 error=\"batch is a JSON object, not an array\"",
                                   "413 enc=rc4 bytes=0 events=0 ret=4 error=\"body of 100000000 bytes is over the limit of 4000\"",
                                   "body is over the limit of 4000 bytes"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    }
    EXPECT_EQ(collector.stop(), 0) << collector.log();
}
