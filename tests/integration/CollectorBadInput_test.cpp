// Whatever arrives, the collector answers with a clear error, keeps running and
// keeps what it had already stored.
#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "support/CollectorProcess.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <random>

using zubtest::CollectorProcess;
using zubtest::postRaw;

namespace {

#define REQUIRE_COLLECTOR() \
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

std::string key() { return ZUBProConfig::getInstance().rc4Key().value_or(""); }

zub::Data bytes(const std::string& text) { return zub::Data(text.begin(), text.end()); }

zub::Data rc4(zub::Data data, const std::string& withKey) {
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

zub::Data goodBatch(int first, int count) {
    zub::Value batch = zub::Value::array();
    for (int i = first; i < first + count; ++i) {
        batch.push_back({{"ky", "app-A"}, {"si", 1}, {"ts", 1700000000 + i}, {"et", 1000}, {"mid", "mid-1"},
                         {"idx", i}, {"ei", "padding-to-go-past-the-short-form"}});
    }
    return bytes(batch.dump());
}

int retOf(const std::optional<zub::Value>& reply) {
    if (!reply || !reply->is_object() || !reply->contains("ret") || !(*reply)["ret"].is_number_integer()) return -1;
    return (*reply)["ret"].get<int>();
}

// Sends `head` and then `body` on a plain socket and returns whatever comes back
// (up to the peer closing or 10 s of silence).
std::string exchangeOnSocket(int port, const std::string& head, const std::string& body) {
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
    const std::string request = head + body;
    std::size_t sent = 0;
    while (sent < request.size()) {
        const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
    }
    std::string reply;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        reply.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return reply;
}

}  // namespace

// Run on both stores: an SQLite file and a PostgreSQL database.
class CollectorBadInput : public zubtest::CollectorStoreTest {};
ZUB_COLLECTOR_STORES(CollectorBadInput);

TEST_P(CollectorBadInput, EveryMalformedBatchGetsAClearErrorAndStoredEventsStay) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector({"--max-plain", "100000"});
    ASSERT_TRUE(collector.start()) << collector.failure();
    const auto stored = ZUBHttp::getInstance().httpPost(goodBatch(0, 5), 10, collector.url("/mstat/report"));
    ASSERT_EQ(retOf(stored), 0);

    const zub::Data batch = goodBatch(100, 4);
    ASSERT_GE(batch.size(), 256u);
    const zub::Data longForm = prefixedGzip(batch, static_cast<std::uint32_t>(batch.size()));
    zub::Data truncated = longForm;
    truncated.resize(truncated.size() - 10);
    zub::Data trailing = longForm;
    trailing.push_back(0x42);
    const std::string otherKey = "00000000000000000000000000000000";

    struct Case {
        const char* name;
        zub::Data wire;  // already enciphered
        std::string encoding;
        int ret;
        const char* message;
    };
    const Case cases[] = {
        {"wrong key, short form", rc4(bytes(R"([{"et":1}])"), otherKey), "rc4", 2, "not JSON"},
        {"wrong key, long form", rc4(longForm, otherKey), "rc4,gzip", 1, ""},
        {"declared length too large", rc4(prefixedGzip(batch, static_cast<std::uint32_t>(batch.size() + 1)), key()),
         "rc4,gzip", 1, "declared length"},
        {"declared length too small", rc4(prefixedGzip(batch, static_cast<std::uint32_t>(batch.size() - 1)), key()),
         "rc4,gzip", 1, "declared length"},
        {"declared length over the plain limit", rc4(prefixedGzip(batch, 0x7fffffff), key()), "rc4,gzip", 1,
         "over the limit"},
        {"no room for the length", rc4(bytes("abc"), key()), "rc4,gzip", 1, "too short"},
        {"truncated gzip", rc4(truncated, key()), "rc4,gzip", 1, "truncated or damaged"},
        {"bytes after the gzip data", rc4(trailing, key()), "rc4,gzip", 1, "after the end"},
        {"not JSON", rc4(bytes("[{\"et\":1},"), key()), "rc4", 2, "not JSON"},
        {"JSON object, not an array", rc4(bytes(R"({"et":1})"), key()), "rc4", 3, "not an array"},
        {"an item that is not an object", rc4(bytes(R"([{"et":1},7])"), key()), "rc4", 3, "batch item 1"},
        {"nesting too deep", rc4(bytes(std::string(200, '[') + std::string(200, ']')), key()), "rc4", 2,
         "nesting depth"},
        {"unknown encoding", rc4(bytes(R"([{"et":1}])"), key()), "gzip", 1, "unknown Content-Encoding"},
        {"no encoding", rc4(bytes(R"([{"et":1}])"), key()), "", 1, "unknown Content-Encoding"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto reply = postRaw(collector.port(), "/mstat/report", c.wire, c.encoding, key());
        ASSERT_EQ(reply.status, 200) << reply.error;
        ASSERT_TRUE(reply.json.has_value());
        EXPECT_EQ(retOf(reply.json), c.ret) << reply.json->dump();
        const std::string msg = reply.json->value("msg", "");
        EXPECT_FALSE(msg.empty());
        EXPECT_NE(msg.find(c.message), std::string::npos) << msg;
    }

    // Nothing refused was stored, nothing stored was lost, and the collector goes on.
    EXPECT_EQ(collector.storedEvents().size(), 5u);
    const auto after = ZUBHttp::getInstance().httpPost(goodBatch(200, 3), 10, collector.url("/mstat/report"));
    EXPECT_EQ(retOf(after), 0);
    EXPECT_EQ(collector.storedEvents().size(), 8u);
    EXPECT_NE(collector.log().find("ret=3 error=\"batch is a JSON object, not an array\""), std::string::npos);
    EXPECT_EQ(collector.stop(), 0) << collector.log();
}

TEST_P(CollectorBadInput, EmptyBodyIsAnEmptyBatch) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    // The client posts an empty body without an encoding when no event could go.
    const auto reply = postRaw(collector.port(), "/mstat/report", {}, "", key());
    ASSERT_EQ(reply.status, 200) << reply.error;
    EXPECT_EQ(retOf(reply.json), 0);
    const auto emptyArray = ZUBHttp::getInstance().httpPost(bytes("[]"), 10, collector.url("/mstat/report"));
    EXPECT_EQ(retOf(emptyArray), 0);
    EXPECT_EQ(collector.storedEvents().size(), 0u);
}

TEST(CollectorBodyLimits, OversizedBodiesAreRefusedWithoutBeingRead) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector({"--max-body", "65536"});
    ASSERT_TRUE(collector.start()) << collector.failure();
    ASSERT_EQ(retOf(ZUBHttp::getInstance().httpPost(goodBatch(0, 2), 10, collector.url("/mstat/report"))), 0);

    // A body announced at 100 MB of which only 1 KiB is ever sent: the refusal comes
    // at once, so the collector cannot have waited for the rest.
    const std::string announced = exchangeOnSocket(collector.port(),
                                                   "POST /mstat/report HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                                   "Content-Encoding: rc4\r\nContent-Length: 100000000\r\n\r\n",
                                                   std::string(1024, 'x'));
    EXPECT_EQ(announced.rfind("HTTP/1.1 413", 0), 0u) << announced.substr(0, 200);

    // A client that asks before sending (Expect: 100-continue) is told no at once.
    const std::string asked = exchangeOnSocket(collector.port(),
                                               "POST /mstat/report HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                               "Content-Encoding: rc4,gzip\r\nContent-Length: 2000000\r\n"
                                               "Expect: 100-continue\r\n\r\n",
                                               "");
    EXPECT_EQ(asked.rfind("HTTP/1.1 413", 0), 0u) << asked.substr(0, 200);

    // A chunked body with no length: counted as it arrives and refused past the limit.
    std::string chunk(70000, 'y');
    char size[32];
    std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
    const std::string chunked = exchangeOnSocket(collector.port(),
                                                 "POST /mstat/report HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                                 "Content-Encoding: rc4\r\nTransfer-Encoding: chunked\r\n\r\n",
                                                 size + chunk + "\r\n");
    EXPECT_EQ(chunked.rfind("HTTP/1.1 413", 0), 0u) << chunked.substr(0, 200);

    // The library's own client with a batch that does not compress below the limit.
    std::mt19937 random(7);
    std::string noise;
    for (int i = 0; i < 300000; ++i) noise += "0123456789abcdef"[random() % 16];
    zub::Value big = zub::Value::array({{{"et", 1000}, {"ei", noise}}});
    const auto refused = ZUBHttp::getInstance().httpPost(bytes(big.dump()), 10, collector.url("/mstat/report"));
    EXPECT_NE(retOf(refused), 0);  // nothing (status 413) or a connection error, never a success

    EXPECT_EQ(collector.storedEvents().size(), 2u);
    ASSERT_EQ(retOf(ZUBHttp::getInstance().httpPost(goodBatch(10, 1), 10, collector.url("/mstat/report"))), 0);
    EXPECT_EQ(collector.storedEvents().size(), 3u);
    const std::string log = collector.log();
    EXPECT_NE(log.find("413 enc=rc4 bytes=0 events=0 ret=4 error=\"body of 100000000 bytes is over the limit of 65536\""),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("body is over the limit of 65536 bytes"), std::string::npos) << log;
    EXPECT_EQ(collector.stop(), 0) << log;
}

TEST_P(CollectorBadInput, MalformedIdentifierRequestsRegisterNothing) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string path = "/?t=ios&ver=2.0";
    const std::pair<zub::Data, int> cases[] = {
        {rc4(bytes("{\"ifv\":"), key()), 2},
        {rc4(bytes(R"(["ifv","ioa"])"), key()), 3},
        {rc4(bytes(R"({"et":5,"ver":1,"mid":""})"), key()), 3},
        {rc4(bytes(R"({"ifv":5})"), key()), 3},
        {rc4(bytes(R"({"ui":")" + std::string(300, 'u') + "\"}"), key()), 3},
        {rc4(bytes(R"({"ifv":"A"})"), "ffffffffffffffffffffffffffffffff"), 2},
        {{}, 3},
    };
    for (const auto& [wire, ret] : cases) {
        const auto reply = postRaw(collector.port(), path, wire, "rc4", key());
        ASSERT_EQ(reply.status, 200) << reply.error;
        EXPECT_EQ(retOf(reply.json), ret) << (reply.json ? reply.json->dump() : "no JSON");
        EXPECT_FALSE(reply.json->value("msg", "").empty());
    }
    EXPECT_EQ(collector.stats()["devicesRegistered"], 0);
    const auto good = ZUBHttp::getInstance().httpPost(bytes(R"({"et":5,"ver":1,"ifv":"A","mid":""})"), 5,
                                                      collector.url(path));
    EXPECT_EQ(retOf(good), 0);
    EXPECT_EQ(collector.stats()["devicesRegistered"], 1);
}
