// Filing, batch assembly, the request body and the reply rules of the report
// pipeline, against a loopback server that speaks the wire format.
#include "Pro/ZUBEventLogic.h"

#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBSessionEvent.h"
#include "support/FiledEvents.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ReportPipeline.h"

#include <gtest/gtest.h>


using zubtest::LogCapture;
using zubtest::ManualClock;
using zubtest::settlePipeline;
using EventPtr = std::shared_ptr<ZUBProEvent>;

namespace {

class Quiet : public ZUBProEvent {
public:
    explicit Quiet(std::int64_t type = 1000) { setType(type); }
    std::string className() const override { return "Quiet"; }
    void encode(zub::Value&) override {}
};

EventPtr keyed(const std::string& md5, std::uint64_t lastReportTs = 0, std::int64_t retryNum = 0) {
    auto e = std::make_shared<Quiet>();
    e->setMd5(md5);
    e->setTs(1'700'000'000);
    e->setLastReportTs(lastReportTs);
    e->setRetryNum(retryNum);
    return e;
}

// Files an event straight into the waiting (or the retry) dictionary.
void put(const EventPtr& e, bool retry = false) {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    (retry ? store.retryEvents() : store.toReportEvents()).set(*e->md5(), e);
}

// One report cycle, waited for.
bool cycle() {
    ZUBEventLogic::getInstance().reportEvents();
    return settlePipeline();
}

// A server answering each report with the next reply of a script ({"ret":0} after it).
struct Fixture {
    explicit Fixture(std::vector<std::string> script = {}) : script_(std::move(script)) {
        server.setHandler([this](const zubtest::WireRequest&) {
            std::lock_guard lock(mutex_);
            return next_ < script_.size() ? script_[next_++] : std::string(R"({"ret":0})");
        });
        server.start();
        ZUBProConfig::getInstance().setReportURL(server.url("/mstat/report"));
        ZUBProConfig::getInstance().setIsSmartReport(false);
        ZUBDeviceIDDal::getInstance().saveMID("mid-test");
    }
    std::vector<std::vector<std::string>> batches() const {
        std::vector<std::vector<std::string>> out;
        for (const auto& r : server.reports()) out.push_back(r.json ? zubtest::m5sOf(*r.json) : std::vector<std::string>{});
        return out;
    }
    std::mutex mutex_;
    std::vector<std::string> script_;
    std::size_t next_ = 0;
    zubtest::WireServer server;  // last: stopped before the script goes
};

}  // namespace

TEST(ZUBEventLogic, FilingKeysEachEventOnceAndACollidingKeyGetsAFreshOne) {
    ManualClock clock;
    LogCapture log;
    ZUBProConfig::getInstance().setIsSmartReport(false);
    ZUBEventLogic& logic = ZUBEventLogic::getInstance();

    // The key: sid, ts, type, the current session identifier and the index.
    Quiet e;
    e.setSid(77);
    e.setTs(1'700'000'000);
    const auto key = logic.generateMd5(e);
    const std::string text = "771700000000" + std::to_string(1000) + std::to_string(ZUBSessionEvent::generateSessionID()) +
                             std::to_string(static_cast<std::uint64_t>(static_cast<std::int64_t>(e.eventIndex())));
    EXPECT_EQ(key, ZUBProHelper::md5encrypt(text));

    // Two events whose keys coincide are both kept: the newcomer gets a fresh
    // index and so a fresh key.
    auto fresh = std::make_shared<Quiet>();
    auto a = keyed("same-key"), b = keyed("same-key");
    logic.reportEvent(fresh);
    logic.reportEvents({a, nullptr, b});
    ASSERT_TRUE(settlePipeline());
    const auto keys = zubtest::waitingKeys();
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[0], fresh->md5().value_or("none"));
    EXPECT_EQ(keys[1], "same-key");
    EXPECT_NE(keys[2], "same-key");
    {
        ZUBEventDal& store = ZUBEventDal::getInstance();
        std::lock_guard lock(store.eventListLock());
        EXPECT_EQ(store.toReportEvents().get("same-key"), a);  // the older one keeps its key
        EXPECT_EQ(store.toReportEvents().get(*b->md5()), b);
    }
    EXPECT_TRUE(log.contains("is taken; the newer event gets a fresh index"));
    // The strategy is checked once per call, not per event.
    const auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "[ZUBDebug] cache events"), 2);
}

TEST(ZUBEventLogic, BatchesTakeWaitingEventsFirstAsACompactArrayAndSkippedRetryEventsUseUpTheirPlace) {
    ManualClock clock;
    Fixture f;
    LogCapture log;
    const std::uint64_t now = zub::Clock::nowSeconds();
    // 4 waiting, never sent; 20 retrying, of which the 2nd and 3rd failed just now.
    for (int i = 0; i < 4; ++i) put(keyed("w" + std::to_string(i)));
    for (int i = 0; i < 20; ++i) {
        const bool recent = i == 1 || i == 2;
        put(keyed("r" + std::to_string(i), recent ? now - 5 : now - 61, 1), true);
    }
    ASSERT_TRUE(cycle());
    // Exactly 6 retry keys are examined; the two skipped ones still use up places.
    ASSERT_GE(f.batches().size(), 1u);
    EXPECT_EQ(f.batches()[0], (std::vector<std::string>{"w0", "w1", "w2", "w3", "r0", "r3", "r4", "r5"}));
    // The body: the events' JSON in one array, no white space, items joined by ",".
    const auto first = f.server.reports()[0];
    ASSERT_TRUE(first.json);
    EXPECT_EQ(first.text, first.json->dump());
    EXPECT_TRUE(log.has("[ZUBDebug] Report data: " + first.text));

    // An attempted waiting event not marked as a network failure is never taken
    // again, however long it waits.
    zubtest::clearFiledEvents();
    put(keyed("stale", now - 5));
    clock.advanceSeconds(100000);
    const std::size_t before = f.server.reports().size();
    ASSERT_TRUE(cycle());
    EXPECT_EQ(f.server.reports().size(), before);
    EXPECT_EQ(zubtest::waitingKeys(), std::vector<std::string>{"stale"});

    // A batch of only overlong events posts an empty body; they are dropped for
    // good and the pipeline goes on.
    ZUBProConfig::getInstance().setMaxReportEventLength(16);
    for (int i = 0; i < 3; ++i) put(keyed("long" + std::to_string(i)));
    ASSERT_TRUE(cycle());
    ASSERT_EQ(f.server.reports().size(), before + 1);
    EXPECT_TRUE(f.server.reports().back().text.empty());
    EXPECT_EQ(zubtest::waitingKeys(), std::vector<std::string>{"stale"});
    EXPECT_TRUE(log.contains("dropped: its JSON has"));
    EXPECT_FALSE(ZUBEventLogic::getInstance().isSendingCacheEvent());
}

TEST(ZUBEventLogic, TwelveWaitingEventsGoAsTenThenTwoWithNothingFromRetry) {
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    ManualClock clock;
    Fixture f;
    for (int i = 0; i < 12; ++i) put(keyed("w" + std::to_string(i)));
    put(keyed("r0", 0, 1), true);
    ASSERT_TRUE(cycle());
    // The next cycle, started by the reply, takes the last two and the retry event.
    const auto batches = f.batches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[0], (std::vector<std::string>{"w0", "w1", "w2", "w3", "w4", "w5", "w6", "w7", "w8", "w9"}));
    EXPECT_EQ(batches[1], (std::vector<std::string>{"w10", "w11", "r0"}));
    EXPECT_GT(ZUBEventLogic::getInstance().lastReportTs(), 0u);
}

TEST(ZUBEventLogic, RepliesAreJudgedByTheTextOfRetAndNoReplyIsAFailure) {
    ManualClock clock;
    // Each reply settles one single-event batch; the retry count tells the outcome.
    const std::vector<std::string> replies{R"({"ret":0})", R"({"ret":"0"})", R"({"ret":0.0})", R"({"ret":"00"})",
                                           R"({"ret":1})", R"({"ret":null})", R"({"msg":"no code"})"};
    Fixture f(replies);
    LogCapture log;
    for (std::size_t i = 0; i < replies.size(); ++i) {
        SCOPED_TRACE(replies[i]);
        auto e = keyed("case" + std::to_string(i));
        put(e);
        ASSERT_TRUE(cycle());
        const bool success = i < 3;
        EXPECT_TRUE(zubtest::waitingKeys().empty());
        EXPECT_EQ(e->retryNum(), success ? 0 : 1);
        EXPECT_EQ(zubtest::retryKeys().size(), success ? 0u : 1u);
        EXPECT_TRUE(log.has("[ZUBDebug] server return : " + zub::Value::parse(replies[i]).dump()));
        zubtest::clearFiledEvents();
    }
    EXPECT_TRUE(log.has("[ZUBDebug] no ret return"));

    // No report URL: the post cannot even be formed, nothing comes back, and that
    // counts as an ordinary failure.
    ZUBProConfig::getInstance().setReportURL(std::nullopt);
    auto lonely = keyed("lonely");
    put(lonely);
    ASSERT_TRUE(cycle());
    EXPECT_EQ(lonely->retryNum(), 1);
    EXPECT_FALSE(lonely->isWrongWifi());
    EXPECT_EQ(zubtest::retryKeys(), std::vector<std::string>{"lonely"});
    EXPECT_EQ(f.server.requests().size(), replies.size());
}

TEST(ZUBEventLogic, OnlyNetworkFailuresLeaveTheAttemptCountAlone) {
    ManualClock clock;
    ZUBEventLogic& logic = ZUBEventLogic::getInstance();
    // {error code of the reply (none: no reply at all), whether it is a network failure}
    const std::pair<std::optional<std::int64_t>, bool> cases[] = {
        {-1009, true}, {-1005, true}, {-1004, true}, {-1001, true}, {306, true}, {-1003, false}, {-1, false}, {{}, false}};
    for (const auto& [code, network] : cases) {
        SCOPED_TRACE(code.value_or(0));
        std::optional<zub::Value> reply;
        if (code) reply = zub::Value{{responseErrorKey, {{"code", *code}, {"domain", "test"}}}};
        auto waiting = keyed("w"), retrying = keyed("r", 0, 2);
        put(waiting);
        put(retrying, true);
        logic.setSendingEvents({waiting, retrying});
        clock.advanceSeconds(10);
        logic.handleReportFailed(reply);
        const std::uint64_t now = zub::Clock::nowSeconds();
        for (const auto& e : {waiting, retrying}) {
            EXPECT_EQ(e->ts(), now);  // a failed event is stamped anew
            EXPECT_EQ(e->isWrongWifi(), network);
        }
        if (network) {
            // Marked and left where they were, counts unchanged.
            EXPECT_TRUE(waiting->retryNum() == 0 && retrying->retryNum() == 2 && waiting->lastReportTs() == now);
            EXPECT_EQ(zubtest::waitingKeys(), std::vector<std::string>{"w"});
            EXPECT_EQ(zubtest::retryKeys(), std::vector<std::string>{"r"});
        } else {
            // One more attempt each: the waiting one moves to retry, the third
            // attempt of the other is its last.
            EXPECT_TRUE(waiting->retryNum() == 1 && retrying->retryNum() == 3);
            EXPECT_TRUE(zubtest::waitingKeys().empty());
            EXPECT_EQ(zubtest::retryKeys(), std::vector<std::string>{"w"});
        }
        EXPECT_TRUE(logic.sendingEvents().empty());
        zubtest::clearFiledEvents();
    }
}
