#include "Common/Network/ZUBHttp.h"
#include "Common/Network/ZUBWireCodec.h"
#include "Common/ZUBProHelper.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

using zubtest::LogCapture;
using zubtest::LoopbackServer;

namespace {

const std::string kKey = "5f0c2e7a9b14d386c0e1a2f47d95b3e8";

zub::Data bodyOfLength(std::size_t n) {
    // A JSON array of exactly n bytes: ["xxx..."]
    std::string s = "[\"" + std::string(n - 4, 'x') + "\"]";
    return zub::Data(s.begin(), s.end());
}

// A reply body as the collector sends it: the JSON text enciphered.
std::string wrapped(const std::string& json) {
    const zub::Data wire = zub::WireCodec::wrapReplyText(json, kKey);
    return std::string(wire.begin(), wire.end());
}

// A loopback server that records what each request brought.
struct Recorder {
    struct Seen {
        std::string method, encoding, contentType, connection;
        int remotePort = 0;
        zub::Data wire;
    };
    explicit Recorder(bool keepAlive = false) : server(keepAlive) {}
    void record(const httplib::Request& req) {
        std::lock_guard lock(mutex);
        seen.push_back({req.method, req.get_header_value("Content-Encoding"), req.get_header_value("Content-Type"),
                        req.get_header_value("Connection"), req.remote_port, zub::Data(req.body.begin(), req.body.end())});
    }
    Seen last() {
        std::lock_guard lock(mutex);
        return seen.empty() ? Seen{} : seen.back();
    }
    std::mutex mutex;
    std::vector<Seen> seen;  // guarded by mutex
    LoopbackServer server;   // last: stopped before what its handlers use goes
};

zub::Data unwrapped(const Recorder::Seen& seen) {
    return zub::WireCodec::unwrapRequest(seen.wire, seen.encoding, kKey).plain.value_or(zub::Data{});
}

}  // namespace

TEST(ZUBHttp, BodiesGoOutEncipheredLongOnesGzippedBehindTheirLengthOnOneConnection) {
    Recorder r(/*keepAlive=*/true);
    r.server.server().Post("/mstat/report", [&r](const httplib::Request& req, httplib::Response& res) {
        r.record(req);
        res.set_content(wrapped(req.get_header_value("Content-Encoding") == "rc4" ? R"({"ret":0,"note":"ok"})" : "[1,2,3]"),
                        "application/octet-stream");
    });
    r.server.start();
    for (const std::size_t length : {255u, 256u}) {
        SCOPED_TRACE(length);
        const zub::Data body = bodyOfLength(length);
        auto reply = ZUBHttp::getInstance().httpPost(body, 10, r.server.url("/mstat/report"));
        ASSERT_TRUE(reply);
        const Recorder::Seen seen = r.last();
        EXPECT_EQ(seen.method, "POST");
        EXPECT_EQ(seen.contentType, "json");
        EXPECT_EQ(seen.connection, "keep-alive");
        EXPECT_EQ(unwrapped(seen), body);
        zub::Data plain = seen.wire;
        ZUBProHelper::ChiperRC4(plain.data(), plain.size(), kKey);
        if (length < 256) {
            EXPECT_EQ(seen.encoding, "rc4");
            EXPECT_EQ(plain, body);
            EXPECT_EQ((*reply)["ret"], 0);
            EXPECT_EQ((*reply)["note"], "ok");
        } else {
            // A big-endian length, then a gzip stream.
            EXPECT_EQ(seen.encoding, "rc4,gzip");
            ASSERT_GT(plain.size(), 6u);
            EXPECT_EQ((zub::Data{plain[0], plain[1], plain[2], plain[3], plain[4], plain[5]}),
                      (zub::Data{0x00, 0x00, 0x01, 0x00, 0x1F, 0x8B}));
            // A reply that deciphers to an array comes back as an array; rejecting it is the caller's job.
            EXPECT_TRUE(reply->is_array() && reply->size() == 3u) << *reply;
        }
    }
    ASSERT_TRUE(ZUBHttp::getInstance().httpPost(bodyOfLength(30), 5, r.server.url("/mstat/report")));
    // Posts from one thread reuse the connection.
    std::lock_guard lock(r.mutex);
    ASSERT_EQ(r.seen.size(), 3u);
    EXPECT_EQ(r.seen[0].remotePort, r.seen[1].remotePort);
    EXPECT_EQ(r.seen[1].remotePort, r.seen[2].remotePort);
}

TEST(ZUBHttp, FailedRepliesGiveNothingAndFailedConnectionsTheErrorDictionary) {
    // {reply text, whether it is logged as undecodable}: an empty 200 says nothing.
    const std::pair<std::string, bool> texts[] = {{"not json", true}, {"5", true}, {"", false}};
    std::atomic<std::size_t> next{0};
    std::mutex m;
    std::condition_variable cv;
    bool release = false;
    LoopbackServer server;
    server.server().Post(R"(/status/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.status = std::stoi(req.matches[1]);
        res.set_content(wrapped(R"({"ret":0})"), "application/octet-stream");
    });
    server.server().Post("/text", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(wrapped(texts[next++ % std::size(texts)].first), "text/plain");
    });
    // Never answers within the time limit.
    server.server().Post("/slow", [&](const httplib::Request&, httplib::Response& res) {
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return release; });
        res.status = 200;
    });
    server.start();
    for (int status : {201, 204, 500}) {
        LogCapture log;
        EXPECT_FALSE(ZUBHttp::getInstance().httpPost(bodyOfLength(20), 10, server.url("/status/" + std::to_string(status))));
        EXPECT_TRUE(log.has("[ZUBDebug] Receive invalid response: " + std::to_string(status))) << status;
        // 204 carries no body, so only the others log it.
        EXPECT_EQ(log.contains("[ZUBDebug] [ERROR] "), status != 204) << status;
    }
    for (const auto& [text, logged] : texts) {
        LogCapture log;
        EXPECT_FALSE(ZUBHttp::getInstance().httpPost(bodyOfLength(20), 5, server.url("/text"))) << text;
        EXPECT_EQ(log.contains("[ZUBDebug] Decode JSON error : "), logged) << text;
        EXPECT_EQ(log.lines().empty(), !logged) << text;
    }

    LogCapture log;
    auto reply = ZUBHttp::getInstance().httpPost(
        bodyOfLength(20), 2, "http://127.0.0.1:" + std::to_string(zubtest::freeLoopbackPort()) + "/mstat/report");
    ASSERT_TRUE(reply && reply->is_object());
    ASSERT_TRUE(reply->contains(responseErrorKey));
    EXPECT_EQ(std::string(responseErrorKey), "KEY_RESPONSE_ERROR_KEY");
    EXPECT_EQ((*reply)[responseErrorKey]["code"], -1004);
    EXPECT_FALSE(reply->contains("ret"));
    EXPECT_TRUE(log.contains("[ZUBDebug] Failed to send request for reason: Error Domain=NSURLErrorDomain Code=-1004"));

    auto timedOut = ZUBHttp::getInstance().httpPost(bodyOfLength(20), 1, server.url("/slow"));
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
    Recorder r;
    for (int status : {301, 302, 303, 307, 308}) {
        r.server.server().Post("/moved/" + std::to_string(status), [status](const httplib::Request&, httplib::Response& res) {
            res.set_redirect("/target", status);
        });
    }
    r.server.server().Post("/loop", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/loop", 307); });
    const auto target = [&r](const httplib::Request& req, httplib::Response& res) {
        r.record(req);
        res.set_content(wrapped(R"({"ret":0,"method":")" + req.method + "\"}"), "text/plain");
    };
    r.server.server().Post("/target", target);
    r.server.server().Get("/target", target);
    r.server.start();

    const zub::Data body = bodyOfLength(300);
    for (int status : {301, 302, 303, 307, 308}) {
        auto reply = ZUBHttp::getInstance().httpPost(body, 10, r.server.url("/moved/" + std::to_string(status)));
        ASSERT_TRUE(reply && reply->is_object()) << status;
        // 307 and 308 repeat the POST with its body; the others continue as a GET.
        const bool keepsPost = status >= 307;
        EXPECT_EQ((*reply)["method"], keepsPost ? "POST" : "GET") << status;
        const Recorder::Seen seen = r.last();
        EXPECT_EQ(seen.method, keepsPost ? "POST" : "GET") << status;
        EXPECT_EQ(seen.wire.empty(), !keepsPost) << status;
        if (keepsPost) {
            EXPECT_EQ(seen.encoding, "rc4,gzip") << status;
            EXPECT_EQ(unwrapped(seen), body) << status;
        }
    }

    // A redirect loop ends after ten hops with the platform's error.
    auto looped = ZUBHttp::getInstance().httpPost(body, 10, r.server.url("/loop"));
    ASSERT_TRUE(looped && looped->contains(responseErrorKey));
    EXPECT_EQ((*looped)[responseErrorKey]["code"], -1007);
    std::lock_guard lock(r.mutex);
    EXPECT_EQ(r.seen.size(), 5u);
}

TEST(ZUBHttpConcurrency, ParallelPostsKeepTheirOwnReplies) {
    LoopbackServer server;
    server.server().Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
        auto unwrapped = zub::WireCodec::unwrapRequest(zub::Data(req.body.begin(), req.body.end()),
                                                       req.get_header_value("Content-Encoding"), kKey);
        std::string text = unwrapped.plain ? std::string(unwrapped.plain->begin(), unwrapped.plain->end()) : "[]";
        res.set_content(wrapped(R"({"echo":)" + text + "}"), "text/plain");
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
