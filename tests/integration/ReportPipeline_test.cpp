// The report pipeline end to end: the facade, sessions, mid registration and
// report cycles against the real collector (or a wire-speaking loopback server
// where a test needs replies the collector never gives), with time moved by a
// manual clock. Batch assembly and the reply and failure tables are unit tests
// of the event logic; here each rule is seen once through the whole pipeline.
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBProEnv.h"
#include "Pro/ZUBEventLogic.h"
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ModelFixtures.h"
#include "support/ReportPipeline.h"
#include "support/TempHome.h"

#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

using zubtest::CollectorProcess;
using zubtest::LogCapture;
using zubtest::settlePipeline;
using zubtest::waitingKeys;

namespace {

// A plug-in style event whose JSON text has exactly `length` characters.
class SizedEvent : public ZUBProEvent {
public:
    SizedEvent(std::int64_t type, std::size_t length) : length_(length) { setType(type); }
    std::string className() const override { return "SizedEvent"; }
    void encode(zub::Value& envelope) override {
        envelope["pad"] = "";
        const std::size_t base = envelope.dump().size();
        if (length_ > base) envelope["pad"] = std::string(length_ - base, 'x');
    }

private:
    std::size_t length_;
};

}  // namespace

class ReportPipeline : public ::testing::Test {
protected:
    void SetUp() override {
        if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    }

    // Starts the collector with `args`, points the library at it and turns smart
    // reporting off (so the strategy alone decides); then registers the device,
    // so that the first cycles find a mid, unless the start is to do it.
    void up(std::vector<std::string> args = {}, bool registerFirst = true) {
        collector.emplace(std::move(args));
        ASSERT_TRUE(collector->start()) << collector->failure();
        ASSERT_TRUE(zubtest::reportTo(collector->url(""), registerFirst));
    }

    // Moves the clock, runs one report cycle and whatever its replies start.
    void cycle(double seconds) {
        clock.advanceSeconds(seconds);
        ZUBEventLogic::getInstance().reportEvents();
        ASSERT_TRUE(settlePipeline());
    }

    // Tracks a custom event a few microseconds after the previous one: events made at
    // the same microsecond of a standing clock could share their identity key.
    void track(const std::string& id, const zub::Value& kv = zub::Value()) {
        clock.advanceSeconds(0.00002);
        ZUBPro::trackCustomEvent(id, kv);
    }

    // How often the collector's log holds `what`.
    std::size_t posts(const std::string& what) {
        const std::string log = collector->log();
        std::size_t n = 0;
        for (std::size_t at = log.find(what); at != std::string::npos; at = log.find(what, at + 1)) ++n;
        return n;
    }

    zubtest::ManualClock clock;
    std::optional<CollectorProcess> collector;
};

TEST_F(ReportPipeline, StartRegistersTheDeviceAndOpensASessionThatArrivesWithItsEnvironment) {
    ASSERT_NO_FATAL_FAILURE(up({}, false));
    LogCapture log;
    ZUBPro::startWithAppKey("app-pipe");
    ASSERT_TRUE(settlePipeline());

    const std::string mid = ZUBDeviceIDDal::getInstance().getMID();
    ASSERT_FALSE(mid.empty());
    EXPECT_TRUE(log.has("[ZUBDebug] mid is saved:" + mid));
    // The start's own cycle ran before the registration came back; the default
    // strategy then keeps the session event for the next activation.
    EXPECT_TRUE(log.has("[ZUBDebug] mid is empty, events is cached"));
    EXPECT_TRUE(log.has("[ZUBDebug] cache events"));
    EXPECT_TRUE(collector->storedEvents().empty());
    const auto waiting = waitingKeys();
    ASSERT_EQ(waiting.size(), 1u);

    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());
    const zub::Value rows = collector->storedEvents();
    ASSERT_EQ(rows.size(), 1u) << collector->failure();
    const zub::Value& e = rows[0]["event"];
    // "sv" is carried inside "ev" for a session event.
    zubtest::expectKeys(e, {{"et", 2}, {"ky", "app-pipe"}, {"mid", mid}, {"m5", waiting[0]}, {"si", ZUBPro::getSessionID(false)},
                            {"ts", 1'700'000'000}, {"cfg", {{"1", {{"v", 0}}}, {"2", {{"v", 0}}}}}}, {"sv"});

    // "ev": each key present exactly when the environment has its value, in order.
    ZUBProEnv& env = ZUBProEnv::getInstance();
    const std::pair<const char*, bool> keys[] = {
        {"pl", env.platform().has_value()}, {"tz", env.timezone().has_value()}, {"ov", env.os_version().has_value()},
        {"av", env.app_version().has_value() || ZUBProConfig::getInstance().customAppVersion().has_value()},
        {"os", true}, {"sv", env.sdk_version().has_value()}, {"lg", env.language().has_value()},
        {"sr", env.resolution().has_value()}, {"op", true}, {"md", env.devicename().has_value()},
        {"mf", env.modulename().has_value()}, {"wf", env.wf().has_value()}, {"ch", true} /* the default channel */, {"cn", true}};
    std::vector<std::string> expected, got;
    for (const auto& [key, present] : keys) {
        if (present) expected.push_back(key);
    }
    for (const auto& [key, value] : e["ev"].items()) got.push_back(key);
    EXPECT_EQ(got, expected);
    zubtest::expectKeys(e["ev"], {{"os", 2}, {"op", ""}, {"ch", "Mac App Developer"}});
    EXPECT_TRUE(waitingKeys().empty());

    // Under the default strategy events wait for the next activation or start:
    // a session check and resigning send nothing.
    for (int i = 0; i < 3; ++i) track("view", {{"n", i}});
    ZUBPro::onDidApplicationBecomeActive();
    ZUBPro::onWillApplicationResignActive();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(collector->storedEvents().size(), 1u);
    EXPECT_EQ(waitingKeys().size(), 3u);
    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(collector->storedEvents().size(), 4u);
    track("later");
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(collector->storedEvents().size(), 4u);
    ZUBPro::startWithAppKey("app-pipe");  // a second start sends it (same session: the clock stands)
    ASSERT_TRUE(settlePipeline());
    const zub::Value after = collector->storedEvents();
    ASSERT_EQ(after.size(), 5u);
    EXPECT_EQ(after.back()["event"]["ei"], "later");
}

TEST_F(ReportPipeline, StrategyFiveOnlyMovesThePeriodClockStrategyOneSendsAtOnceAndOverlongEventsAreDropped) {
    ASSERT_NO_FATAL_FAILURE(up());
    ZUBPro::setReportStrategy(5);
    LogCapture log;
    const std::int64_t t0 = 1'700'000'000;
    ZUBEventDal& store = ZUBEventDal::getInstance();
    ASSERT_EQ(store.getLastSendTime(), 0);
    ZUBPro::startWithAppKey("app-five");  // the session event starts the clock
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(store.getLastSendTime(), t0);
    EXPECT_FALSE(log.has("[ZUBDebug] cache events"));

    // {seconds moved, the period clock after an event}: it moves once 90 s have passed.
    const std::pair<double, std::int64_t> steps[] = {{89, t0}, {1, t0 + 90}, {1000, t0 + 1090}};
    for (const auto& [seconds, lastSend] : steps) {
        clock.advanceSeconds(seconds);
        ZUBPro::trackCustomEvent("e");
        ASSERT_TRUE(settlePipeline());
        EXPECT_EQ(store.getLastSendTime(), lastSend) << seconds;
    }
    EXPECT_TRUE(log.has("[ZUBDebug] cache events"));
    // Nothing was ever sent: the period never starts a cycle by itself.
    EXPECT_EQ(waitingKeys().size(), 4u);
    EXPECT_EQ(posts("POST /mstat/report"), 0u) << collector->log();

    // Under strategy 1 each event goes at once, with whatever waits.
    ZUBPro::setReportStrategy(1);
    for (int i = 1; i <= 3; ++i) {
        track("buy", {{"n", i}});
        ASSERT_TRUE(settlePipeline());
        const zub::Value rows = collector->storedEvents();
        ASSERT_EQ(rows.size(), 4u + i);
        EXPECT_EQ(rows.back()["event"]["kv"]["n"], i);
        EXPECT_TRUE(waitingKeys().empty());
    }
    EXPECT_EQ(posts("POST /mstat/report 200"), 3u) << collector->log();

    // Events whose JSON reaches the maximum length are dropped for good, from both
    // dictionaries, unless they are of type 3.
    std::vector<std::shared_ptr<ZUBProEvent>> sized;
    for (const auto& [type, length] : {std::pair{1000, 4096}, {1000, 4095}, {3, 10000}}) {
        clock.advanceSeconds(0.00002);
        sized.push_back(std::make_shared<SizedEvent>(type, length));
        sized.back()->setSid(ZUBPro::getSessionID(false));
        sized.back()->setTs(1'700'000'000);
    }
    ZUBPro::reportEvents(sized);
    ASSERT_TRUE(settlePipeline());
    const zub::Value rows = collector->storedEvents();
    ASSERT_EQ(rows.size(), 9u);
    EXPECT_EQ(rows[7]["event"]["m5"], *sized[1]->md5());
    EXPECT_EQ(rows[7]["event"].dump().size(), 4095u);
    EXPECT_EQ(rows[8]["event"]["m5"], *sized[2]->md5());
    EXPECT_EQ(rows[8]["event"].dump().size(), 10000u);
    EXPECT_TRUE(waitingKeys().empty());
    EXPECT_TRUE(zubtest::retryKeys().empty());
}

TEST_F(ReportPipeline, OnlyRefusalsCountAttemptsAndEveryFailureWaitsTheVacuumTime) {
    ASSERT_NO_FATAL_FAILURE(up({"--fault-ret", "1", "--fault-path", "report"}));
    ZUBPro::startWithAppKey("app-limits");  // the session event is important
    auto ordinaryEvent = std::make_shared<SizedEvent>(3001, 0);  // a plug-in's event, not important
    ordinaryEvent->setTs(1'700'000'000);
    ZUBPro::reportEvent(ordinaryEvent);
    ASSERT_TRUE(settlePipeline());
    const auto filed = waitingKeys();
    ASSERT_EQ(filed.size(), 2u);
    const std::string important = filed[0], ordinary = filed[1];

    // Nobody listens ("cannot connect", a network failure), more times than any
    // limit: no attempt counts and the events stay where they were.
    ZUBProConfig::getInstance().setReportURL("http://127.0.0.1:" + std::to_string(zubtest::freeLoopbackPort()) + "/mstat/report");
    for (int attempt = 1; attempt <= 11; ++attempt) {
        ASSERT_NO_FATAL_FAILURE(cycle(61));
        ASSERT_EQ(waitingKeys(), filed) << attempt;
        ASSERT_TRUE(zubtest::retryKeys().empty());
    }
    // Within the vacuum time a network-failed event is not taken again.
    ZUBProConfig::getInstance().setReportURL(collector->url("/mstat/report"));
    ASSERT_NO_FATAL_FAILURE(cycle(60));
    EXPECT_EQ(posts("fault=ret"), 0u);

    // Refused batches count: ordinary events are dropped after three attempts,
    // important ones after ten, and each is taken again only after 60 s.
    for (int attempt = 1; attempt <= 10; ++attempt) {
        SCOPED_TRACE(attempt);
        ASSERT_NO_FATAL_FAILURE(cycle(1));
        EXPECT_EQ(posts("fault=ret"), static_cast<std::size_t>(attempt));
        std::vector<std::string> expected;
        if (attempt < 10) expected.push_back(important);
        if (attempt < 3) expected.push_back(ordinary);
        EXPECT_EQ(zubtest::retryKeys(), expected);
        EXPECT_TRUE(waitingKeys().empty());
        ASSERT_NO_FATAL_FAILURE(cycle(60));
        EXPECT_EQ(posts("fault=ret"), static_cast<std::size_t>(attempt));
    }
}

TEST_F(ReportPipeline, APushedConfigurationTakesEffectAtTheNextStart) {
    zub::setBundleInfo("CFBundleIdentifier", "com.example.pipeline");  // the helper's too: one application
    const auto configPath = zubtest::TempHome::makeDir("cfg") / "online.json";
    std::ofstream(configPath) << R"({"sdk": {"v": 3, "c": {"rs": 1}}, "app": {"v": 2, "c": {"greeting": "hello"}}})";
    ASSERT_NO_FATAL_FAILURE(up({"--config", configPath.string()}));

    ZUBPro::startWithAppKey("app-cfg");
    ASSERT_TRUE(settlePipeline());
    ZUBPro::onApplicationDidBecomeActive();  // the session event brings the blocks back
    ASSERT_TRUE(settlePipeline());
    ASSERT_EQ(collector->storedEvents().size(), 1u);
    EXPECT_EQ(ZUBPro::getOnlineProperty("greeting"), "hello");
    EXPECT_EQ(ZUBProConfig::getInstance().reportStrategy(), 8);  // not in this run

    // The next run of the application (same HOME): strategy 1 is in force from its
    // start on, so its event goes out without any activation.
    const auto lines = zubtest::ChildProcess::outputOf({std::string(ZUB_TEST_BIN_DIR) + "/pipeline_helper",
                                                        collector->url("/mstat/report"),
                                                        collector->url("/?t=ios&ver=2.0")});
    const std::vector<std::string> expected{"strategy before start 8", "strategy after start 1", "waiting 0", "exit 0"};
    EXPECT_EQ(lines, expected);
    const zub::Value rows = collector->storedEvents();
    ASSERT_EQ(rows.size(), 3u);  // its session event and its custom event
    EXPECT_EQ(rows[2]["event"]["ei"], "next-run");
    EXPECT_EQ(rows[1]["event"]["cfg"], zub::Value::parse(R"({"1":{"v":3},"2":{"v":2}})"));
}

TEST(ReportPipelineWire, AReplyThatIsNotADictionaryResendsTheSameBatch) {
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    zubtest::WireServer server;
    int reports = 0;
    server.setHandler([&](const zubtest::WireRequest& request) -> std::string {
        if (request.path.rfind("/mstat/report", 0) != 0) return R"({"ret":0,"mid":"wire-mid"})";
        return ++reports == 1 ? "[1]" : R"({"ret":0})";
    });
    server.start();
    zubtest::ManualClock clock;
    ASSERT_TRUE(zubtest::reportTo(server.url("")));
    LogCapture log;

    ZUBPro::startWithAppKey("app-array");
    clock.advanceSeconds(0.00002);
    ZUBPro::trackCustomEvent("a");
    ASSERT_TRUE(settlePipeline());
    const auto filed = waitingKeys();
    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());

    const auto sent = server.reports();
    ASSERT_EQ(sent.size(), 2u);
    ASSERT_TRUE(sent[0].json && sent[1].json);
    EXPECT_EQ(zubtest::m5sOf(*sent[0].json), filed);
    EXPECT_EQ(zubtest::m5sOf(*sent[1].json), filed);  // the same batch, not counted as a failure
    for (const auto& e : *sent[1].json) EXPECT_FALSE(e.contains("rt"));
    EXPECT_TRUE(log.has("[ZUBDebug] Not NSDictionary for decoded object:[1]"));
    EXPECT_TRUE(waitingKeys().empty());
    EXPECT_TRUE(ZUBEventLogic::getInstance().sendingEvents().empty());
}
