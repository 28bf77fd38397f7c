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

#include <set>

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

// A server answering each report with the next reply of a script ({"ret":0} after it).
struct Fixture {
    explicit Fixture(std::vector<std::string> script = {}) : script_(std::move(script)) {
        server.setHandler([this](const zubtest::WireRequest&) {
            std::lock_guard lock(mutex_);
            if (next_ < script_.size()) return script_[next_++];
            return std::string(R"({"ret":0})");
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
    ASSERT_TRUE(key && key->size() == 32);

    // Two events whose keys coincide are both kept: the newcomer gets a fresh
    // index and so a fresh key; so do events made in the same microsecond.
    auto fresh = std::make_shared<Quiet>();
    auto a = keyed("same-key"), b = keyed("same-key");
    std::vector<EventPtr> twins;
    for (int i = 0; i < 6; ++i) {
        auto t = std::make_shared<Quiet>();
        t->setSid(5);
        t->setTs(1'700'000'000);
        twins.push_back(t);
    }
    logic.reportEvent(fresh);
    logic.reportEvents({a, nullptr, b});
    logic.reportEvents(twins);
    ASSERT_TRUE(settlePipeline());
    ASSERT_TRUE(fresh->md5().has_value());
    const auto keys = zubtest::waitingKeys();
    ASSERT_EQ(keys.size(), 9u);
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), 9u);
    EXPECT_EQ(keys[0], *fresh->md5());
    EXPECT_EQ(keys[1], "same-key");
    {
        ZUBEventDal& store = ZUBEventDal::getInstance();
        std::lock_guard lock(store.eventListLock());
        EXPECT_EQ(store.toReportEvents().get("same-key"), a);  // the older one keeps its key
        EXPECT_EQ(store.toReportEvents().get(*b->md5()), b);
    }
    EXPECT_TRUE(log.contains("is taken; the newer event gets a fresh index"));
    // The strategy is checked once per call, not per event.
    const auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "[ZUBDebug] cache events"), 3);
}

TEST(ZUBEventLogic, BatchesTakeWaitingEventsFirstAndSkippedRetryEventsUseUpTheirPlace) {
    ManualClock clock;
    Fixture f;
    const std::uint64_t now = zub::Clock::nowSeconds();
    // 4 waiting, never sent; 20 retrying, of which the 2nd and 3rd failed just now.
    for (int i = 0; i < 4; ++i) put(keyed("w" + std::to_string(i)));
    for (int i = 0; i < 20; ++i) {
        const bool recent = i == 1 || i == 2;
        put(keyed("r" + std::to_string(i), recent ? now - 5 : now - 61, 1), true);
    }
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    auto batches = f.batches();
    ASSERT_GE(batches.size(), 1u);
    // Exactly 6 retry keys are examined; the two skipped ones still use up places.
    EXPECT_EQ(batches[0], (std::vector<std::string>{"w0", "w1", "w2", "w3", "r0", "r3", "r4", "r5"}));

    // An attempted waiting event not marked as a network failure is never taken
    // again, however long it waits.
    zubtest::clearFiledEvents();
    put(keyed("stale", now - 5));
    clock.advanceSeconds(100000);
    const std::size_t before = f.server.reports().size();
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(f.server.reports().size(), before);
    EXPECT_EQ(zubtest::waitingKeys(), std::vector<std::string>{"stale"});
}

TEST(ZUBEventLogic, TwelveWaitingEventsGoAsTenThenTwoWithNothingFromRetry) {
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    ManualClock clock;
    Fixture f;
    for (int i = 0; i < 12; ++i) put(keyed("w" + std::to_string(i)));
    put(keyed("r0", 0, 1), true);
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    const auto batches = f.batches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[0].size(), 10u);
    EXPECT_EQ(batches[0].front(), "w0");
    // The next cycle, started by the reply, takes the last two and the retry event.
    EXPECT_EQ(batches[1], (std::vector<std::string>{"w10", "w11", "r0"}));
    EXPECT_GT(ZUBEventLogic::getInstance().lastReportTs(), 0u);
}

TEST(ZUBEventLogic, TheBodyIsACompactArrayOfTheEventsJSON) {
    ManualClock clock;
    Fixture f;
    LogCapture log;
    for (int i = 0; i < 3; ++i) put(keyed("k" + std::to_string(i)));
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    const auto reports = f.server.reports();
    ASSERT_EQ(reports.size(), 1u);
    const std::string& body = reports[0].text;
    ASSERT_TRUE(reports[0].json && reports[0].json->is_array());
    EXPECT_EQ(reports[0].json->size(), 3u);
    EXPECT_EQ(body, reports[0].json->dump());  // no white space, items joined by ","
    EXPECT_EQ(std::count(body.begin(), body.end(), '['), 1);
    EXPECT_TRUE(log.has("[ZUBDebug] Report data: " + body));
    EXPECT_TRUE(log.has("[ZUBDebug] server return : {\"ret\":0}"));

    // One event alone: "[" + its JSON + "]".
    put(keyed("alone"));
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    const auto after = f.server.reports();
    ASSERT_EQ(after.size(), 2u);
    ASSERT_TRUE(after[1].json);
    EXPECT_EQ(after[1].text, "[" + (*after[1].json)[0].dump() + "]");
}

TEST(ZUBEventLogic, RepliesAreJudgedByTheTextOfRet) {
    ManualClock clock;
    // Each reply settles one single-event batch; the retry count tells the outcome.
    struct Case {
        std::string reply;
        bool success;
        const char* log;
    };
    const std::vector<Case> cases{
        {R"({"ret":0})", true, nullptr},
        {R"({"ret":"0"})", true, nullptr},
        {R"({"ret":0.0})", true, nullptr},
        {R"({"ret":"00"})", false, nullptr},
        {R"({"ret":1})", false, nullptr},
        {R"({"ret":null})", false, nullptr},
        {R"({"msg":"no code"})", false, "[ZUBDebug] no ret return"},
    };
    std::vector<std::string> script;
    for (const auto& c : cases) script.push_back(c.reply);
    Fixture f(script);
    LogCapture log;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].reply);
        auto e = keyed("case" + std::to_string(i));
        put(e);
        ZUBEventLogic::getInstance().reportEvents();
        ASSERT_TRUE(settlePipeline());
        EXPECT_TRUE(zubtest::waitingKeys().empty());
        EXPECT_EQ(e->retryNum(), cases[i].success ? 0 : 1);
        EXPECT_EQ(zubtest::retryKeys().size(), cases[i].success ? 0u : 1u);
        if (cases[i].log) {
            EXPECT_TRUE(log.has(cases[i].log));
        }
        EXPECT_TRUE(log.has("[ZUBDebug] server return : " + zub::Value::parse(cases[i].reply).dump()));
        zubtest::clearFiledEvents();
    }
    EXPECT_EQ(f.server.reports().size(), cases.size());
}

TEST(ZUBEventLogic, AFailingReportEndpointCountsAnOrdinaryFailure) {
    ManualClock clock;
    Fixture f;
    // No report URL: the post cannot even be formed and nothing comes back.
    ZUBProConfig::getInstance().setReportURL(std::nullopt);
    auto e = keyed("lonely");
    put(e);
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(e->retryNum(), 1);
    EXPECT_FALSE(e->isWrongWifi());
    EXPECT_EQ(zubtest::retryKeys(), std::vector<std::string>{"lonely"});
    EXPECT_TRUE(f.server.requests().empty());
}

TEST(ZUBEventLogic, OnlyNetworkFailuresLeaveTheAttemptCountAlone) {
    ManualClock clock;
    ZUBEventLogic& logic = ZUBEventLogic::getInstance();
    auto failure = [](std::int64_t code) {
        zub::Value reply = zub::Value::object();
        reply[responseErrorKey] = {{"code", code}, {"domain", "test"}};
        return std::optional<zub::Value>(reply);
    };
    struct Case {
        std::optional<zub::Value> reply;
        bool network;
    };
    const std::vector<Case> cases{
        {failure(-1009), true},  {failure(-1005), true}, {failure(-1004), true}, {failure(-1001), true},
        {failure(306), true},    {failure(-1003), false}, {failure(-1), false},  {std::nullopt, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply ? c.reply->dump() : "no reply");
        auto waiting = keyed("w"), retrying = keyed("r", 0, 2);
        put(waiting);
        put(retrying, true);
        logic.setSendingEvents({waiting, retrying});
        clock.advanceSeconds(10);
        logic.handleReportFailed(c.reply);
        const std::uint64_t now = zub::Clock::nowSeconds();
        for (const auto& e : {waiting, retrying}) {
            EXPECT_EQ(e->ts(), now);  // a failed event is stamped anew
            EXPECT_EQ(e->isWrongWifi(), c.network);
        }
        if (c.network) {
            // Marked and left where they were, counts unchanged.
            EXPECT_EQ(waiting->retryNum(), 0);
            EXPECT_EQ(retrying->retryNum(), 2);
            EXPECT_EQ(waiting->lastReportTs(), now);
            EXPECT_EQ(zubtest::waitingKeys(), std::vector<std::string>{"w"});
            EXPECT_EQ(zubtest::retryKeys(), std::vector<std::string>{"r"});
        } else {
            // One more attempt each: the waiting one moves to retry, the third
            // attempt of the other is its last.
            EXPECT_EQ(waiting->retryNum(), 1);
            EXPECT_EQ(retrying->retryNum(), 3);
            EXPECT_TRUE(zubtest::waitingKeys().empty());
            EXPECT_EQ(zubtest::retryKeys(), std::vector<std::string>{"w"});
        }
        EXPECT_TRUE(logic.sendingEvents().empty());
        zubtest::clearFiledEvents();
    }
}

TEST(ZUBEventLogic, ABatchOfOnlyOverlongEventsPostsAnEmptyBodyAndThePipelineGoesOn) {
    ManualClock clock;
    Fixture f;
    LogCapture log;
    ZUBProConfig::getInstance().setMaxReportEventLength(16);
    for (int i = 0; i < 3; ++i) put(keyed("long" + std::to_string(i)));
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    const auto reports = f.server.reports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_TRUE(reports[0].text.empty());
    EXPECT_TRUE(zubtest::waitingKeys().empty());  // dropped for good
    EXPECT_TRUE(log.contains("dropped: its JSON has"));
    EXPECT_FALSE(ZUBEventLogic::getInstance().isSendingCacheEvent());

    // The next event of ordinary length goes out as usual.
    ZUBProConfig::getInstance().setMaxReportEventLength(4096);
    put(keyed("short"));
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(f.batches().back(), std::vector<std::string>{"short"});
}
