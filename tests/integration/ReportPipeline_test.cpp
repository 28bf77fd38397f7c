// The report pipeline end to end: the facade, sessions, mid registration and
// report cycles against the real collector (or a wire-speaking loopback server
// where a test needs replies the collector never gives), with time moved by a
// manual clock.
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBProEnv.h"
#include "Platform/NotificationCenter.h"
#include "Pro/ZUBEventLogic.h"
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ReportPipeline.h"
#include "support/TempHome.h"

#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <gtest/gtest.h>

#include <fstream>

using zubtest::CollectorProcess;
using zubtest::LogCapture;
using zubtest::ManualClock;
using zubtest::settlePipeline;

namespace {

#define REQUIRE_COLLECTOR() \
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector"

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

// Tracks a custom event a few microseconds after the previous one: events made at
// the same microsecond of a standing clock could share their identity key.
void track(ManualClock& clock, const std::string& id, const zub::Value& kv = zub::Value()) {
    clock.advanceSeconds(0.00002);
    ZUBPro::trackCustomEvent(id, kv);
}

void pointAt(const CollectorProcess& collector) {
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(collector.url("/?t=ios&ver=2.0"));
}

// Registers the device before the start, so that the first cycles find a mid.
std::string registerDevice() {
    ZUBProMid::getInstance().reportMid();
    EXPECT_TRUE(settlePipeline());
    return ZUBDeviceIDDal::getInstance().getMID();
}

// Starts the collector, points the library at it, turns smart reporting off (so
// the strategy alone decides) and registers the device.
void startAndRegister(CollectorProcess& collector) {
    ASSERT_TRUE(collector.start()) << collector.failure();
    pointAt(collector);
    ZUBPro::setSmartReport(false);
    ASSERT_FALSE(registerDevice().empty());
}

std::vector<std::string> storedM5s(CollectorProcess& collector) {
    std::vector<std::string> out;
    for (const auto& row : collector.storedEvents()) out.push_back(row["event"].value("m5", std::string("<none>")));
    return out;
}

std::size_t countOf(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::string helperPath() {
    return std::string(ZUB_TEST_BIN_DIR) + "/pipeline_helper";
}

std::vector<std::string> runHelper(const std::vector<std::string>& args) {
    std::vector<std::string> argv{helperPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    zubtest::ChildProcess child(argv);
    std::vector<std::string> lines;
    if (!child.started()) return lines;
    while (auto line = child.readLine(std::chrono::seconds(120))) lines.push_back(*line);
    lines.push_back("exit " + std::to_string(child.wait()));
    return lines;
}

}  // namespace

TEST(ReportPipeline, StartRegistersTheDeviceAndOpensASessionThatArrivesWithItsEnvironment) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    pointAt(collector);
    ManualClock clock;
    ZUBPro::setSmartReport(false);
    LogCapture log;

    bool notified = false;
    zub::NotificationCenter::defaultCenter().addObserver(ZUBProMainServiceStartNotification,
                                                         [&](const zub::Notification&) { notified = true; });
    ZUBPro::startWithAppKey("app-pipe");
    EXPECT_TRUE(notified);  // observers run before the start returns
    ASSERT_TRUE(settlePipeline());

    const std::string mid = ZUBDeviceIDDal::getInstance().getMID();
    ASSERT_FALSE(mid.empty());
    EXPECT_TRUE(log.has("[ZUBDebug] mid is saved:" + mid));
    // The start's own cycle ran before the registration came back; the default
    // strategy then keeps the session event for the next activation.
    EXPECT_TRUE(log.has("[ZUBDebug] mid is empty, events is cached"));
    EXPECT_TRUE(log.has("[ZUBDebug] cache events"));
    EXPECT_TRUE(collector.storedEvents().empty());
    const auto waiting = zubtest::waitingKeys();
    ASSERT_EQ(waiting.size(), 1u);

    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());
    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 1u) << collector.failure();
    const zub::Value& e = rows[0]["event"];
    EXPECT_EQ(e["et"], 2);
    EXPECT_EQ(e["ky"], "app-pipe");
    EXPECT_EQ(e["mid"], mid);
    EXPECT_EQ(e["m5"], waiting[0]);
    EXPECT_EQ(e["si"], ZUBPro::getSessionID(false));
    EXPECT_EQ(e["ts"], 1'700'000'000);
    EXPECT_FALSE(e.contains("sv"));  // carried inside "ev" for a session event
    EXPECT_TRUE(e["ut"].is_number_integer());
    EXPECT_EQ(e["cfg"], zub::Value::parse(R"({"1":{"v":0},"2":{"v":0}})"));
    EXPECT_FALSE(e.contains("jb") && !ZUBProEnv::getInstance().jailbroken());

    // "ev": each key present exactly when the environment has its value, in order.
    ZUBProEnv& env = ZUBProEnv::getInstance();
    std::vector<std::string> expected;
    auto want = [&](const char* key, bool present) {
        if (present) expected.push_back(key);
    };
    want("pl", env.platform().has_value());
    want("tz", env.timezone().has_value());
    want("ov", env.os_version().has_value());
    want("av", env.app_version().has_value() || ZUBProConfig::getInstance().customAppVersion().has_value());
    want("os", true);
    want("sv", env.sdk_version().has_value());
    want("lg", env.language().has_value());
    want("sr", env.resolution().has_value());
    want("op", true);
    want("md", env.devicename().has_value());
    want("mf", env.modulename().has_value());
    want("wf", env.wf().has_value());
    want("ch", true);  // the default channel
    want("cn", true);
    std::vector<std::string> got;
    for (const auto& [key, value] : e["ev"].items()) got.push_back(key);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(e["ev"]["os"], 2);
    EXPECT_EQ(e["ev"]["op"], "");
    EXPECT_EQ(e["ev"]["ch"], "Mac App Developer");
    EXPECT_TRUE(zubtest::waitingKeys().empty());
}

TEST(ReportPipeline, StrategyOneSendsEveryEventAtOnce) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    pointAt(collector);
    ManualClock clock;
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(1);
    ASSERT_FALSE(registerDevice().empty());

    ZUBPro::startWithAppKey("app-one");
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(collector.storedEvents().size(), 1u);  // the session event, without any activation
    for (int i = 1; i <= 3; ++i) {
        ZUBPro::trackCustomEvent("buy", {{"n", i}});
        ASSERT_TRUE(settlePipeline());
        const zub::Value rows = collector.storedEvents();
        ASSERT_EQ(rows.size(), 1u + i);
        EXPECT_EQ(rows.back()["event"]["kv"]["n"], i);
        EXPECT_TRUE(zubtest::waitingKeys().empty());
    }
    EXPECT_EQ(countOf(collector.log(), "POST /mstat/report 200"), 4u) << collector.log();
}

TEST(ReportPipeline, StrategyEightWaitsForTheNextStartOrActivation) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ManualClock clock;
    ASSERT_NO_FATAL_FAILURE(startAndRegister(collector));
    LogCapture log;

    ZUBPro::startWithAppKey("app-eight");
    for (int i = 0; i < 3; ++i) track(clock, "view", {{"n", i}});
    ZUBPro::onDidApplicationBecomeActive();  // a session check only: sends nothing
    ZUBPro::onWillApplicationResignActive();
    ASSERT_TRUE(settlePipeline());
    EXPECT_TRUE(collector.storedEvents().empty());
    EXPECT_EQ(zubtest::waitingKeys().size(), 4u);
    EXPECT_TRUE(log.has("[ZUBDebug] cache events"));

    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(collector.storedEvents().size(), 4u);

    ZUBPro::trackCustomEvent("later");
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(collector.storedEvents().size(), 4u);
    ZUBPro::startWithAppKey("app-eight");  // a second start sends it (same session: the clock stands)
    ASSERT_TRUE(settlePipeline());
    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows.back()["event"]["ei"], "later");
}

TEST(ReportPipeline, StrategyFiveOnlyMovesThePeriodClock) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    pointAt(collector);
    ManualClock clock;
    const std::int64_t t0 = 1'700'000'000;
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(5);
    ASSERT_FALSE(registerDevice().empty());
    LogCapture log;
    ZUBEventDal& store = ZUBEventDal::getInstance();
    ASSERT_EQ(store.getLastSendTime(), 0);

    ZUBPro::startWithAppKey("app-five");  // the session event starts the clock
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(store.getLastSendTime(), t0);
    EXPECT_FALSE(log.has("[ZUBDebug] cache events"));

    clock.advanceSeconds(89);
    ZUBPro::trackCustomEvent("a");
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(store.getLastSendTime(), t0);  // 89 < 90

    clock.advanceSeconds(1);
    ZUBPro::trackCustomEvent("b");
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(store.getLastSendTime(), t0 + 90);
    EXPECT_TRUE(log.has("[ZUBDebug] cache events"));

    clock.advanceSeconds(1000);
    ZUBPro::trackCustomEvent("c");
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(store.getLastSendTime(), t0 + 1090);
    // Nothing was ever sent: the period never starts a cycle by itself.
    EXPECT_EQ(zubtest::waitingKeys().size(), 4u);
    EXPECT_TRUE(collector.storedEvents().empty());
    EXPECT_EQ(countOf(collector.log(), "POST /mstat/report"), 0u) << collector.log();
}

TEST(ReportPipeline, WithoutAMidEverythingWaitsAndNothingIsSent) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL("http://127.0.0.1:" + std::to_string(zubtest::unusedLoopbackPort()) +
                                          "/?t=ios&ver=2.0");
    ManualClock clock;
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(1);
    LogCapture log;

    ZUBPro::startWithAppKey("app-nomid");
    for (int i = 0; i < 5; ++i) track(clock, "e");
    ASSERT_TRUE(settlePipeline());
    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());

    EXPECT_TRUE(log.has("[ZUBDebug] mid failed"));
    EXPECT_TRUE(log.has("[ZUBDebug] mid is empty, events is cached"));
    EXPECT_EQ(ZUBDeviceIDDal::getInstance().getMID(), "");
    EXPECT_EQ(zubtest::waitingKeys().size(), 6u);
    EXPECT_FALSE(log.contains("Report data:"));
    EXPECT_EQ(collector.log().find("POST"), std::string::npos) << collector.log();
}

TEST(ReportPipeline, BatchesHoldAtMostTenEventsOldestFirst) {
    REQUIRE_COLLECTOR();
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    CollectorProcess collector;
    ManualClock clock;
    ASSERT_NO_FATAL_FAILURE(startAndRegister(collector));

    ZUBPro::startWithAppKey("app-batch");
    for (int i = 0; i < 24; ++i) track(clock, "e", {{"n", i}});
    ASSERT_TRUE(settlePipeline());
    const auto filed = zubtest::waitingKeys();
    ASSERT_EQ(filed.size(), 25u);

    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(storedM5s(collector), filed);
    const std::string requests = collector.log();
    EXPECT_EQ(countOf(requests, "POST /mstat/report 200"), 3u) << requests;
    EXPECT_EQ(countOf(requests, "events=10 "), 2u) << requests;
    EXPECT_EQ(countOf(requests, "events=5 "), 1u) << requests;
    EXPECT_GT(ZUBEventLogic::getInstance().lastReportTs(), 0u);  // the last cycle found nothing left
}

TEST(ReportPipeline, AFailedEventWaitsTheVacuumTimeBeforeItIsSentAgain) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector({"--fault-ret", "1", "--fault-count", "1", "--fault-path", "report"});
    ASSERT_TRUE(collector.start()) << collector.failure();
    pointAt(collector);
    ManualClock clock;
    ZUBPro::setSmartReport(false);
    ZUBPro::setReportStrategy(1);
    ASSERT_FALSE(registerDevice().empty());

    ZUBPro::startWithAppKey("app-retry");  // the session event meets the fault
    ASSERT_TRUE(settlePipeline());
    const auto failed = zubtest::retryKeys();
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_TRUE(zubtest::waitingKeys().empty());
    EXPECT_EQ(countOf(collector.log(), "fault=ret"), 1u);

    clock.advanceSeconds(60);  // not more than the vacuum time: only the new event goes
    ZUBPro::trackCustomEvent("first");
    ASSERT_TRUE(settlePipeline());
    zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]["event"]["ei"], "first");
    EXPECT_EQ(zubtest::retryKeys(), failed);

    clock.advanceSeconds(1);
    ZUBPro::trackCustomEvent("second");
    ASSERT_TRUE(settlePipeline());
    rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[1]["event"]["ei"], "second");
    EXPECT_EQ(rows[2]["event"]["m5"], failed[0]);
    EXPECT_EQ(rows[2]["event"]["rt"], 1);
    EXPECT_FALSE(rows[1]["event"].contains("rt"));
    EXPECT_TRUE(zubtest::retryKeys().empty());
}

TEST(ReportPipeline, RefusedBatchesDropOrdinaryEventsAfterThreeAttemptsAndImportantOnesAfterTen) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector({"--fault-ret", "1", "--fault-path", "report"});
    ManualClock clock;
    ASSERT_NO_FATAL_FAILURE(startAndRegister(collector));

    ZUBPro::startWithAppKey("app-limits");  // the session event is important
    auto ordinaryEvent = std::make_shared<SizedEvent>(3001, 0);  // a plug-in's event, not important
    ordinaryEvent->setTs(1'700'000'000);
    ZUBPro::reportEvent(ordinaryEvent);
    ASSERT_TRUE(settlePipeline());
    const auto filed = zubtest::waitingKeys();
    ASSERT_EQ(filed.size(), 2u);
    const std::string important = filed[0], ordinary = filed[1];

    for (int attempt = 1; attempt <= 10; ++attempt) {
        SCOPED_TRACE(attempt);
        clock.advanceSeconds(61);
        ZUBEventLogic::getInstance().reportEvents();
        ASSERT_TRUE(settlePipeline());
        if (attempt < 10) {
            // A failed event is stamped with the time of its failure.
            ZUBEventDal& store = ZUBEventDal::getInstance();
            std::lock_guard lock(store.eventListLock());
            auto event = store.retryEvents().get(important);
            ASSERT_TRUE(event);
            EXPECT_EQ(event->ts(), zub::Clock::nowSeconds());
            EXPECT_EQ(event->retryNum(), attempt);
            EXPECT_FALSE(event->isWrongWifi());
        }
        EXPECT_EQ(countOf(collector.log(), "fault=ret"), static_cast<std::size_t>(attempt));
        std::vector<std::string> expected;
        if (attempt < 10) expected.push_back(important);
        if (attempt < 3) expected.push_back(ordinary);
        EXPECT_EQ(zubtest::retryKeys(), expected);
        EXPECT_TRUE(zubtest::waitingKeys().empty());
    }
    clock.advanceSeconds(61);
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    EXPECT_EQ(countOf(collector.log(), "fault=ret"), 10u);  // nothing left to send
}

TEST(ReportPipeline, NetworkFailuresNeverCountAnAttempt) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ManualClock clock;
    ASSERT_NO_FATAL_FAILURE(startAndRegister(collector));
    ZUBPro::startWithAppKey("app-net");
    ZUBPro::trackCustomEvent("ordinary");
    ASSERT_TRUE(settlePipeline());
    const auto filed = zubtest::waitingKeys();
    ASSERT_EQ(filed.size(), 2u);

    // Nobody listens: "cannot connect" (-1004), many more times than any limit.
    ZUBProConfig::getInstance().setReportURL("http://127.0.0.1:" + std::to_string(zubtest::unusedLoopbackPort()) +
                                             "/mstat/report");
    for (int attempt = 1; attempt <= 12; ++attempt) {
        clock.advanceSeconds(61);
        ZUBEventLogic::getInstance().reportEvents();
        ASSERT_TRUE(settlePipeline());
        ASSERT_EQ(zubtest::waitingKeys(), filed) << attempt;  // kept where they were
        ASSERT_TRUE(zubtest::retryKeys().empty());
    }
    // Within the vacuum time a network-failed event is not taken again.
    ZUBProConfig::getInstance().setReportURL(collector.url("/mstat/report"));
    clock.advanceSeconds(60);
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    EXPECT_TRUE(collector.storedEvents().empty());

    clock.advanceSeconds(1);
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& row : rows) EXPECT_FALSE(row["event"].contains("rt")) << row;  // retryNum still 0
}

TEST(ReportPipeline, ATimeOutNeverCountsAnAttempt) {
    REQUIRE_COLLECTOR();
    // The report post has a 10 s limit: the collector answers three requests too late.
    CollectorProcess collector({"--fault-delay-ms", "10500", "--fault-count", "3", "--fault-path", "report"});
    ManualClock clock;
    ASSERT_NO_FATAL_FAILURE(startAndRegister(collector));
    LogCapture log;
    ZUBPro::startWithAppKey("app-timeout");
    ZUBPro::trackCustomEvent("ordinary");
    ASSERT_TRUE(settlePipeline());
    const auto filed = zubtest::waitingKeys();

    for (int attempt = 1; attempt <= 3; ++attempt) {
        clock.advanceSeconds(61);
        ZUBEventLogic::getInstance().reportEvents();
        ASSERT_TRUE(settlePipeline());
        ASSERT_EQ(zubtest::waitingKeys(), filed) << attempt;
        ASSERT_TRUE(zubtest::retryKeys().empty());
    }
    EXPECT_TRUE(log.contains("Code=-1001")) << "the three failures were time-outs";
    clock.advanceSeconds(61);
    ZUBEventLogic::getInstance().reportEvents();
    ASSERT_TRUE(settlePipeline());
    // The late replies stored the first batches too; what matters here is that the
    // events are still whole, never counted as attempted ("rt").
    const zub::Value rows = collector.storedEvents({"--type", "1000"});
    ASSERT_FALSE(rows.empty());
    for (const auto& row : rows) EXPECT_FALSE(row["event"].contains("rt")) << row;
    EXPECT_TRUE(zubtest::waitingKeys().empty());
}

TEST(ReportPipeline, AReplyThatIsNotADictionaryResendsTheSameBatch) {
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    zubtest::WireServer server;
    int reports = 0;
    server.setHandler([&](const zubtest::WireRequest& request) -> std::string {
        if (request.path.rfind("/mstat/report", 0) != 0) return R"({"ret":0,"mid":"wire-mid"})";
        return ++reports == 1 ? "[1]" : R"({"ret":0})";
    });
    server.start();
    ZUBProConfig::getInstance().setReportURL(server.url("/mstat/report"));
    ZUBProConfig::getInstance().setMidURL(server.url("/?t=ios&ver=2.0"));
    ManualClock clock;
    ZUBPro::setSmartReport(false);
    ASSERT_EQ(registerDevice(), "wire-mid");
    LogCapture log;

    ZUBPro::startWithAppKey("app-array");
    track(clock, "a");
    track(clock, "b");
    ASSERT_TRUE(settlePipeline());
    const auto filed = zubtest::waitingKeys();
    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());

    const auto sent = server.reports();
    ASSERT_EQ(sent.size(), 2u);
    ASSERT_TRUE(sent[0].json && sent[1].json);
    EXPECT_EQ(zubtest::m5sOf(*sent[0].json), filed);
    EXPECT_EQ(zubtest::m5sOf(*sent[1].json), filed);  // the same batch, not counted as a failure
    for (const auto& e : *sent[1].json) EXPECT_FALSE(e.contains("rt"));
    EXPECT_TRUE(log.has("[ZUBDebug] Not NSDictionary for decoded object:[1]"));
    EXPECT_TRUE(zubtest::waitingKeys().empty());
    EXPECT_TRUE(ZUBEventLogic::getInstance().sendingEvents().empty());
}

TEST(ReportPipeline, EventsOfMaximumLengthAreDroppedUnlessOfTypeThree) {
    REQUIRE_COLLECTOR();
    CollectorProcess collector;
    ManualClock clock;
    ASSERT_NO_FATAL_FAILURE(startAndRegister(collector));
    ZUBPro::startWithAppKey("app-long");
    auto tooLong = std::make_shared<SizedEvent>(1000, 4096);
    clock.advanceSeconds(0.00002);
    auto longest = std::make_shared<SizedEvent>(1000, 4095);
    clock.advanceSeconds(0.00002);
    auto exempt = std::make_shared<SizedEvent>(3, 10000);
    for (const auto& e : {tooLong, longest, exempt}) {
        e->setSid(ZUBPro::getSessionID(false));
        e->setTs(1'700'000'000);
    }
    ZUBPro::reportEvents({tooLong, longest, exempt});
    ASSERT_TRUE(settlePipeline());
    ASSERT_EQ(zubtest::waitingKeys().size(), 4u);

    ZUBPro::onApplicationDidBecomeActive();
    ASSERT_TRUE(settlePipeline());
    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0]["event"]["et"], 2);
    EXPECT_EQ(rows[1]["event"]["m5"], *longest->md5());
    EXPECT_EQ(rows[1]["event"].dump().size(), 4095u);
    EXPECT_EQ(rows[2]["event"]["m5"], *exempt->md5());
    EXPECT_EQ(rows[2]["event"].dump().size(), 10000u);
    // The long one is gone for good, from both dictionaries.
    EXPECT_TRUE(zubtest::waitingKeys().empty());
    EXPECT_TRUE(zubtest::retryKeys().empty());
}

TEST(ReportPipeline, APushedConfigurationTakesEffectAtTheNextStart) {
    REQUIRE_COLLECTOR();
    zub::setBundleInfo("CFBundleIdentifier", "com.example.pipeline");  // the helper's too: one application
    const auto configPath = zubtest::TempHome::makeDir("cfg") / "online.json";
    std::ofstream(configPath) << R"({"sdk": {"v": 3, "c": {"rs": 1}}, "app": {"v": 2, "c": {"greeting": "hello"}}})";
    CollectorProcess collector({"--config", configPath.string()});
    ASSERT_TRUE(collector.start()) << collector.failure();
    pointAt(collector);
    ZUBPro::setSmartReport(false);
    ASSERT_FALSE(registerDevice().empty());

    ZUBPro::startWithAppKey("app-cfg");
    ASSERT_TRUE(settlePipeline());
    ZUBPro::onApplicationDidBecomeActive();  // the session event brings the blocks back
    ASSERT_TRUE(settlePipeline());
    ASSERT_EQ(collector.storedEvents().size(), 1u);
    EXPECT_EQ(ZUBPro::getOnlineProperty("greeting"), "hello");
    EXPECT_EQ(ZUBProConfig::getInstance().reportStrategy(), 8);  // not in this run

    // The next run of the application (same HOME): strategy 1 is in force from its
    // start on, so its event goes out without any activation.
    const auto lines = runHelper({"config", collector.url("/mstat/report"), collector.url("/?t=ios&ver=2.0")});
    const std::vector<std::string> expected{"strategy before start 8", "strategy after start 1", "waiting 0", "exit 0"};
    EXPECT_EQ(lines, expected);
    const zub::Value rows = collector.storedEvents();
    ASSERT_EQ(rows.size(), 3u);  // its session event and its custom event
    EXPECT_EQ(rows[2]["event"]["ei"], "next-run");
    EXPECT_EQ(rows[1]["event"]["cfg"], zub::Value::parse(R"({"1":{"v":3},"2":{"v":2}})"));
}

TEST(ReportPipeline, EventsSavedInTheBackgroundAreSentByTheNextRun) {
    REQUIRE_COLLECTOR();
    if (!zubtest::networkReachable()) GTEST_SKIP() << "no default route: replies start no further cycles";
    zub::setBundleInfo("CFBundleIdentifier", "com.example.pipeline");  // the helper's too: one application
    CollectorProcess collector;
    ASSERT_TRUE(collector.start()) << collector.failure();
    const std::string reportURL = collector.url("/mstat/report"), midURL = collector.url("/?t=ios&ver=2.0");

    auto first = runHelper({"save", reportURL, midURL, "12"});
    ASSERT_GE(first.size(), 3u);
    ASSERT_EQ(first.back(), "exit 0");
    first.pop_back();
    ASSERT_EQ(first.back(), "saved");
    first.pop_back();
    ASSERT_EQ(first.size(), 13u);  // the session event and twelve custom events, by key
    const std::string waitingLog = ZUBProStore::getInstance().getLogfilePath(".toReportEvents.log");
    EXPECT_TRUE(std::filesystem::exists(waitingLog));
    EXPECT_TRUE(collector.storedEvents().empty());

    const auto second = runHelper({"load", reportURL, midURL});
    const std::vector<std::string> expected{"files 0", "waiting 0", "exit 0"};
    EXPECT_EQ(second, expected);
    EXPECT_FALSE(std::filesystem::exists(waitingLog));
    const auto stored = storedM5s(collector);
    ASSERT_EQ(stored.size(), 14u);  // and the second run's own session event, last
    EXPECT_EQ(std::vector<std::string>(stored.begin(), stored.begin() + 13), first);
}
