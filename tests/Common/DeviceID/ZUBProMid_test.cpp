// Registration with the identifier server: the request, each kind of reply, and
// the device-identifier dictionary.
#include "Common/DeviceID/ZUBProMid.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ReportPipeline.h"

#include <gtest/gtest.h>

using zubtest::LogCapture;

namespace {

// Serves one scripted reply per registration, then {"ret":1}.
struct MidServer {
    explicit MidServer(std::vector<std::string> replies) : replies_(std::move(replies)) {
        server.setHandler([this](const zubtest::WireRequest&) {
            std::lock_guard lock(mutex_);
            return next_ < replies_.size() ? replies_[next_++] : std::string(R"({"ret":1})");
        });
        server.start();
        ZUBProConfig::getInstance().setMidURL(server.url("/?t=ios&ver=2.0"));
    }
    std::mutex mutex_;
    std::vector<std::string> replies_;
    std::size_t next_ = 0;
    zubtest::WireServer server;
};

void registerOnce() {
    ZUBProMid::getInstance().reportMid();
    ASSERT_TRUE(ZUBProMid::getInstance().taskQueue().flush(std::chrono::seconds(30)));
}

}  // namespace

TEST(ZUBProMid, TheFirstRequestCarriesAnEmptyMidAndTheIdentifiersInOrder) {
    zubtest::ManualClock clock;
    MidServer s({R"({"ret":0,"mid":"abc"})"});
    registerOnce();
    const auto requests = s.server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].path, "/?t=ios&ver=2.0");
    ASSERT_TRUE(requests[0].json);
    const zub::Value& body = *requests[0].json;
    std::vector<std::string> keys;
    for (const auto& [key, value] : body.items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"et", "ver", "ts", "ifv", "ioa", "mid", "ui"}));
    ZUBDeviceIDDal& ids = ZUBDeviceIDDal::getInstance();
    EXPECT_EQ(body["et"], 5);
    EXPECT_EQ(body["ver"], 1);
    EXPECT_EQ(body["ts"], 1'700'000'000);
    EXPECT_EQ(body["ifv"], ids.getIdfv());
    EXPECT_EQ(body["ioa"], ids.getOpenIDFA());
    EXPECT_EQ(body["mid"], "");
    EXPECT_EQ(body["ui"], ids.getOpenUDID());

    EXPECT_EQ(ids.getMID(), "abc");
    registerOnce();  // the next start's request carries the stored mid
    ASSERT_EQ(s.server.requests().size(), 2u);
    EXPECT_EQ((*s.server.requests()[1].json)["mid"], "abc");
}

TEST(ZUBProMid, EachKindOfReplyIsHandledAsSpecifiedAndOnlySuccessStoresAMid) {
    struct Case {
        std::string reply;
        std::vector<std::string> logs;  // the debug lines of this attempt, in order
        std::string mid;                // the stored mid afterwards
    };
    const std::vector<Case> cases{
        {R"({"ret":"0"})", {}, ""},
        {R"({"ret":1,"mid":"no"})", {"[ZUBDebug] mid failed"}, ""},
        {R"({"mid":"no"})", {"[ZUBDebug] no ret return", "[ZUBDebug] mid failed"}, ""},
        {R"(["ret",0])", {"[ZUBDebug] Not NSDictionary for decoded object:NSArray"}, ""},
        {"not json", {"[ZUBDebug] Decode JSON error : ", "[ZUBDebug] mid failed"}, ""},
        {R"({"ret":0.0,"mid":"m-1"})", {"[ZUBDebug] mid is saved:m-1"}, "m-1"},
        {R"({"ret":0})", {}, "m-1"},
    };
    std::vector<std::string> replies;
    for (const auto& c : cases) replies.push_back(c.reply);
    MidServer s(replies);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        LogCapture log;
        registerOnce();
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), c.logs.size()) << (lines.empty() ? "" : lines[0]);
        for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind(c.logs[i], 0), 0u) << lines[i];
        EXPECT_EQ(ZUBDeviceIDDal::getInstance().getMID(), c.mid);
    }
}

TEST(ZUBProMid, DeviceIdentifiersHoldSixEntriesOnceAPushTokenIsStored) {
    ZUBProMid& mid = ZUBProMid::getInstance();
    zub::Value ids = mid.getDeviceIDs();
    std::vector<std::string> keys;
    for (const auto& [key, value] : ids.items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"mid", "ifa", "oia", "ifv", "oid"}));  // no token yet
    EXPECT_EQ(ids["ifv"], ZUBDeviceIDDal::getInstance().getIdfv());  // (mid and oid: the facade's tests)

    ASSERT_TRUE(ZUBProStore::getInstance().setObject(zub::Value("push-token"), std::string("LastAccessID")));
    ids = mid.getDeviceIDs();
    EXPECT_EQ(ids.size(), 6u);
    EXPECT_EQ(ids["rvt"], "push-token");
}
