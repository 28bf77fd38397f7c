#include "Common/Network/ZUBHttp.h"
#include "Common/Network/ZUBWireCodec.h"
#include "Common/ZUBProHelper.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/NetNamespace.h"

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

using zubtest::LogCapture;
using zubtest::LoopbackServer;

namespace {

const std::string kKey = "5f0c2e7a9b14d386c0e1a2f47d95b3e8";

struct Received {
    std::mutex mutex;
    std::string encoding;
    std::string contentType;
    std::string connection;
    std::string method;
    zub::Data wire;
    int count = 0;
};

zub::Data bodyOfLength(std::size_t n) {
    // A JSON array of exactly n bytes: ["xxx..."]
    std::string s = "[\"" + std::string(n - 4, 'x') + "\"]";
    return zub::Data(s.begin(), s.end());
}

// A server that records what arrives and answers RC4(reply) with the given status.
void serve(LoopbackServer& server, Received& received, int status, std::string replyJson) {
    server.server().Post("/mstat/report", [&received, status, replyJson](const httplib::Request& req,
                                                                           httplib::Response& res) {
        std::lock_guard lock(received.mutex);
        received.encoding = req.get_header_value("Content-Encoding");
        received.contentType = req.get_header_value("Content-Type");
        received.connection = req.get_header_value("Connection");
        received.method = req.method;
        received.wire.assign(req.body.begin(), req.body.end());
        ++received.count;
        const zub::Data reply = zub::WireCodec::wrapReplyText(replyJson, kKey);
        res.status = status;
        res.set_content(std::string(reply.begin(), reply.end()), "application/octet-stream");
    });
    server.start();
}

}  // namespace

TEST(ZUBHttp, ShortBodyGoesOutEncipheredOnly) {
    LoopbackServer server;
    Received received;
    serve(server, received, 200, R"({"ret":0,"note":"ok"})");

    const zub::Data body = bodyOfLength(255);
    auto reply = ZUBHttp::getInstance().httpPost(body, 10, server.url("/mstat/report"));
    ASSERT_TRUE(reply);
    EXPECT_EQ((*reply)["ret"], 0);
    EXPECT_EQ((*reply)["note"], "ok");

    std::lock_guard lock(received.mutex);
    EXPECT_EQ(received.method, "POST");
    EXPECT_EQ(received.encoding, "rc4");
    EXPECT_EQ(received.contentType, "json");
    EXPECT_EQ(received.connection, "keep-alive");
    ASSERT_EQ(received.wire.size(), 255u);
    zub::Data plain = received.wire;
    ZUBProHelper::ChiperRC4(plain.data(), plain.size(), kKey);
    EXPECT_EQ(plain, body);
}

TEST(ZUBHttp, LongBodyGoesOutAsLengthPrefixedGzip) {
    LoopbackServer server;
    Received received;
    serve(server, received, 200, R"([1,2,3])");

    const zub::Data body = bodyOfLength(256);
    auto reply = ZUBHttp::getInstance().httpPost(body, 10, server.url("/mstat/report"));
    // A reply that deciphers to an array comes back as an array; rejecting it is the caller's job.
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->is_array());
    EXPECT_EQ(reply->size(), 3u);

    std::lock_guard lock(received.mutex);
    EXPECT_EQ(received.encoding, "rc4,gzip");
    zub::Data plain = received.wire;
    ZUBProHelper::ChiperRC4(plain.data(), plain.size(), kKey);
    ASSERT_GT(plain.size(), 4u + 18u);
    EXPECT_EQ((zub::Data{plain[0], plain[1], plain[2], plain[3]}), (zub::Data{0x00, 0x00, 0x01, 0x00}));
    EXPECT_EQ(plain[4], 0x1F);
    EXPECT_EQ(plain[5], 0x8B);
    const auto inflated = ZUBProHelper::uncompressGZip(zub::Data(plain.begin() + 4, plain.end()));
    ASSERT_TRUE(inflated);
    EXPECT_EQ(*inflated, body);

    // The receiving side of the codec agrees.
    const auto unwrapped = zub::WireCodec::unwrapRequest(received.wire, received.encoding, kKey);
    ASSERT_TRUE(unwrapped.plain) << unwrapped.error;
    EXPECT_EQ(*unwrapped.plain, body);
}

TEST(ZUBHttp, StatusOtherThan200GivesNothingAndLogs) {
    for (int status : {201, 204, 500}) {
        LogCapture log;
        LoopbackServer server;
        Received received;
        serve(server, received, status, R"({"ret":0})");
        auto reply = ZUBHttp::getInstance().httpPost(bodyOfLength(20), 10, server.url("/mstat/report"));
        EXPECT_FALSE(reply) << status;
        EXPECT_TRUE(log.has("[ZUBDebug] Receive invalid response: " + std::to_string(status))) << status;
        // 204 carries no body, so only the others log it.
        EXPECT_EQ(log.contains("[ZUBDebug] [ERROR] "), status != 204) << status;
    }
}

TEST(ZUBHttp, ConnectionErrorsGiveTheErrorDictionary) {
    LogCapture log;
    const int port = zubtest::unusedLoopbackPort();
    auto reply = ZUBHttp::getInstance().httpPost(bodyOfLength(20), 2,
                                                 "http://127.0.0.1:" + std::to_string(port) + "/mstat/report");
    ASSERT_TRUE(reply && reply->is_object());
    ASSERT_TRUE(reply->contains(responseErrorKey));
    EXPECT_EQ(std::string(responseErrorKey), "KEY_RESPONSE_ERROR_KEY");
    EXPECT_EQ((*reply)[responseErrorKey]["code"], -1004);
    EXPECT_FALSE(reply->contains("ret"));
    EXPECT_TRUE(log.contains("[ZUBDebug] Failed to send request for reason: Error Domain=NSURLErrorDomain Code=-1004"));

    // A server that never answers within the time limit.
    LoopbackServer slow;
    std::mutex m;
    std::condition_variable cv;
    bool release = false;
    slow.server().Post("/mstat/report", [&](const httplib::Request&, httplib::Response& res) {
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return release; });
        res.status = 200;
    });
    slow.start();
    auto timedOut = ZUBHttp::getInstance().httpPost(bodyOfLength(20), 1, slow.url("/mstat/report"));
    {
        std::lock_guard lock(m);
        release = true;
    }
    cv.notify_all();
    ASSERT_TRUE(timedOut && timedOut->contains(responseErrorKey));
    EXPECT_EQ((*timedOut)[responseErrorKey]["code"], -1001);

    // A URL that cannot be a request at all gives nothing.
    EXPECT_FALSE(ZUBHttp::getInstance().httpPost(bodyOfLength(20), 1, ""));

    // A name that cannot be looked up is an unknown host while the machine has a
    // default route, and "offline" (a network failure for the report pipeline)
    // while it has none.
    EXPECT_EQ(zub::HttpClient::errorFor(CURLE_COULDNT_RESOLVE_HOST, 0, true).code, -1003);
    EXPECT_EQ(zub::HttpClient::errorFor(CURLE_COULDNT_RESOLVE_HOST, 0, false).code, -1009);
    EXPECT_EQ(zub::HttpClient::errorFor(CURLE_COULDNT_CONNECT, ENETUNREACH, true).code, -1009);
    EXPECT_EQ(zub::HttpClient::errorFor(CURLE_COULDNT_CONNECT, ECONNREFUSED, false).code, -1004);
    EXPECT_EQ(zub::HttpClient::errorFor(CURLE_COULDNT_RESOLVE_HOST, 0, false, "x.invalid").fullDescription(),
              "Error Domain=NSURLErrorDomain Code=-1009 \"The Internet connection appears to be offline. (x.invalid)\"");
}

TEST(ZUBHttp, RedirectsAreFollowedAsThePlatformDoes) {
    LoopbackServer server;
    Received received;
    for (int status : {301, 302, 303, 307, 308}) {
        server.server().Post("/moved/" + std::to_string(status), [status](const httplib::Request&, httplib::Response& res) {
            res.set_redirect("/target", status);
        });
    }
    server.server().Post("/loop", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/loop", 307); });
    const auto target = [&received](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard lock(received.mutex);
        received.method = req.method;
        received.encoding = req.get_header_value("Content-Encoding");
        received.wire.assign(req.body.begin(), req.body.end());
        ++received.count;
        const zub::Data reply = zub::WireCodec::wrapReplyText(R"({"ret":0,"method":")" + req.method + "\"}", kKey);
        res.set_content(std::string(reply.begin(), reply.end()), "text/plain");
    };
    server.server().Post("/target", target);
    server.server().Get("/target", target);
    server.start();

    const zub::Data body = bodyOfLength(300);
    for (int status : {301, 302, 303, 307, 308}) {
        auto reply = ZUBHttp::getInstance().httpPost(body, 10, server.url("/moved/" + std::to_string(status)));
        ASSERT_TRUE(reply && reply->is_object()) << status;
        // 307 and 308 repeat the POST with its body; the others continue as a GET.
        const bool keepsPost = status >= 307;
        EXPECT_EQ((*reply)["method"], keepsPost ? "POST" : "GET") << status;
        std::lock_guard lock(received.mutex);
        EXPECT_EQ(received.method, keepsPost ? "POST" : "GET") << status;
        if (keepsPost) {
            EXPECT_EQ(received.encoding, "rc4,gzip") << status;
            const auto unwrapped = zub::WireCodec::unwrapRequest(received.wire, received.encoding, kKey);
            ASSERT_TRUE(unwrapped.plain) << status << ": " << unwrapped.error;
            EXPECT_EQ(*unwrapped.plain, body) << status;
        } else {
            EXPECT_TRUE(received.wire.empty()) << status;
        }
    }

    // A redirect loop ends after ten hops with the platform's error.
    auto looped = ZUBHttp::getInstance().httpPost(body, 10, server.url("/loop"));
    ASSERT_TRUE(looped && looped->contains(responseErrorKey));
    EXPECT_EQ((*looped)[responseErrorKey]["code"], -1007);
    std::lock_guard lock(received.mutex);
    EXPECT_EQ(received.count, 5);
}

TEST(ZUBHttp, UndecodableRepliesGiveNothing) {
    LogCapture log;
    LoopbackServer server;
    std::atomic<int> which{0};
    server.server().Post("/r", [&](const httplib::Request&, httplib::Response& res) {
        const int n = which++;
        std::string plain = n == 0 ? "not json" : n == 1 ? "5" : "";
        const zub::Data wire = zub::WireCodec::wrapReplyText(plain, kKey);
        res.set_content(std::string(wire.begin(), wire.end()), "text/plain");
    });
    server.start();
    EXPECT_FALSE(ZUBHttp::getInstance().httpPost(bodyOfLength(20), 5, server.url("/r")));
    EXPECT_TRUE(log.contains("[ZUBDebug] Decode JSON error : "));
    log.clear();
    EXPECT_FALSE(ZUBHttp::getInstance().httpPost(bodyOfLength(20), 5, server.url("/r")));
    EXPECT_TRUE(log.contains("[ZUBDebug] Decode JSON error : "));
    log.clear();
    EXPECT_FALSE(ZUBHttp::getInstance().httpPost(bodyOfLength(20), 5, server.url("/r")));  // empty 200
    EXPECT_TRUE(log.lines().empty());
}

TEST(ZUBHttpConcurrency, ParallelPostsKeepTheirOwnReplies) {
    LoopbackServer server;
    server.server().Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
        auto unwrapped = zub::WireCodec::unwrapRequest(zub::Data(req.body.begin(), req.body.end()),
                                                       req.get_header_value("Content-Encoding"), kKey);
        std::string text = unwrapped.plain ? std::string(unwrapped.plain->begin(), unwrapped.plain->end()) : "[]";
        const zub::Data wire = zub::WireCodec::wrapReplyText(R"({"echo":)" + text + "}", kKey);
        res.set_content(std::string(wire.begin(), wire.end()), "text/plain");
    });
    server.start();
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                std::string s = "[" + std::to_string(t * 1000 + i) + ",\"" + std::string((i % 2) * 300, 'p') + "\"]";
                auto reply = ZUBHttp::getInstance().httpPost(zub::Data(s.begin(), s.end()), 10, server.url("/echo"));
                if (reply && (*reply)["echo"][0] == t * 1000 + i) ++good;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(good.load(), 80);
}

TEST(ZUBHttp, PostsFromOneThreadReuseTheConnection) {
    LoopbackServer server(/*keepAlive=*/true);
    std::mutex m;
    std::vector<int> remotePorts;
    server.server().Post("/k", [&](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard lock(m);
        remotePorts.push_back(req.remote_port);
        const zub::Data wire = zub::WireCodec::wrapReplyText(R"({"ret":0})", kKey);
        res.set_content(std::string(wire.begin(), wire.end()), "text/plain");
    });
    server.start();
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(ZUBHttp::getInstance().httpPost(bodyOfLength(30), 5, server.url("/k")));
    std::lock_guard lock(m);
    ASSERT_EQ(remotePorts.size(), 3u);
    EXPECT_EQ(remotePorts[0], remotePorts[1]);
    EXPECT_EQ(remotePorts[1], remotePorts[2]);
}

TEST(ZUBHttpNetns, EventsFailingOfflineAtNameLookupWaitUntilACollectorIsReachable) {
    zubtest::NetNamespace ns("pipeline_netns_helper");
    if (!ns.problem().empty()) GTEST_SKIP() << "network namespace tests need root: " << ns.problem();
    ASSERT_EQ(ns.ip("link set lo up"), 0);
    const std::string serving = ns.ask("serve");
    ASSERT_EQ(serving.rfind("serving http://127.0.0.1:", 0), 0u) << serving;

    // No default route: the report host's name cannot be looked up. That is
    // "offline": every cycle attempts all four events and counts no attempt.
    ASSERT_EQ(ns.ask("start http://collector.invalid/mstat/report"), "started 4");
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ns.ask("cycle"), "cycle attempted 4 retried 0 waiting 4 retry 0 unknown-host 0") << "cycle " << i;
    }

    // Back online: a route, and a collector the device reaches (a numeric address,
    // so that no resolver of the machine is involved).
    if (!ns.addLink()) GTEST_SKIP() << "no veth links can be made in a namespace here";
    ASSERT_EQ(ns.ip("route add default dev zv0"), 0);
    ASSERT_EQ(ns.ask("url " + serving.substr(8) + "/mstat/report"), "url set");
    EXPECT_EQ(ns.ask("cycle"), "cycle attempted 0 retried 0 waiting 0 retry 0 unknown-host 0");
    EXPECT_EQ(ns.ask("arrived"), "arrived 4 waiting 0");
    ns.finish();
    EXPECT_EQ(ns.exitCode(), 0);
}
