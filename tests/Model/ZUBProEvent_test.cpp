#include <ZUBCocoa/ZUBProEvent.h>

#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "Platform/KeyedArchiver.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ModelFixtures.h"

#include <gtest/gtest.h>

#include <set>

using zubtest::LogCapture;
using zubtest::ManualClock;

namespace {

zub::Value envelopeOf(ZUBProEvent& event) {
    auto json = event.toJsonString();
    EXPECT_TRUE(json && !json->empty());
    return zub::Value::parse(json.value_or("{}"));
}

class ThrowingEvent : public ZUBProEvent {
public:
    std::string className() const override { return "ThrowingEvent"; }
    void encode(zub::Value& envelope) override {
        envelope["before"] = true;
        throw std::runtime_error("encode failed");
    }
};

}  // namespace

TEST(ZUBProEvent, EnvelopeKeysFollowTheirPresenceRules) {
    ZUBProConfig& config = ZUBProConfig::getInstance();
    config.setAppkey(std::string("configured-key"));

    ZUBProEvent event;
    event.setType(1000);
    event.setSid(77);
    event.setTs(1700000000);
    ZUBDeviceIDDal& ids = ZUBDeviceIDDal::getInstance();
    zubtest::expectKeys(envelopeOf(event),
                        {{"ky", "configured-key"}, {"si", 77}, {"ts", 1700000000u}, {"et", 1000},
                         {"ui", ids.getOpenUDID()}, {"ifv", ids.getIdfv()}, {"ioa", ids.getOpenIDFA()}, {"sv", "1.0.0"},
                         {"ch", "Mac App Developer"}, {"ut", ZUBProUser::getInstance().userType()}, {"mc", "0"}},
                        {"cui", "cav", "mid", "rt", "m5"});

    // The event's own key wins; host settings appear; a retried event says so once.
    event.setAppkey(std::string("own-key"));
    event.setRetryNum(4);
    event.setMd5(std::string("abc"));
    config.setCustomUserID(std::string("user-9"));
    config.setCustomAppVersion(std::string("9.9"));
    ZUBDeviceIDDal::getInstance().saveMID(std::string("mid-1"));
    zubtest::expectKeys(envelopeOf(event), {{"ky", "own-key"}, {"rt", 1}, {"m5", "abc"}, {"cui", "user-9"},
                                            {"cav", "9.9"}, {"av", "9.9"}, {"mid", "mid-1"}});

    // Without an SDK version, "sv", "av" and "ch" go but "ut" stays.
    const auto sdk = ZUBProEnv::getInstance().sdk_version();
    ZUBProEnv::getInstance().setSdk_version(std::nullopt);
    zubtest::expectKeys(envelopeOf(event), {{"ut", ZUBProUser::getInstance().userType()}}, {"sv", "av", "ch"});
    ZUBProEnv::getInstance().setSdk_version(sdk);

    // The session type carries none of them in the envelope; both keys null gives no "ky".
    event.setType(2);
    event.setAppkey(std::nullopt);
    config.setAppkey(std::nullopt);
    zubtest::expectKeys(envelopeOf(event), {{"et", 2}}, {"sv", "av", "ch", "ut", "ky"});
}

TEST(ZUBProEvent, EverySerialisationDrawsANewIndex) {
    ManualClock clock;
    clock.setSeconds(1700000000.123456);
    ZUBProEvent event;  // timeStr = "3456" (microseconds 123456 without their first two digits)
    ASSERT_EQ(event.timeStr(), "3456");

    const std::uint64_t before = ZUBProEvent::idx();
    clock.setSeconds(1700000001.654321);
    const zub::Value first = envelopeOf(event);
    // digit 0-3, then timeStr, then the last five digits of the microseconds.
    const auto index = static_cast<std::uint32_t>(first["idx"].get<std::int32_t>());
    EXPECT_TRUE(index % 1000000000u == 345654321u && index / 1000000000u <= 3u) << index;
    EXPECT_EQ(event.eventIndex(), first["idx"].get<std::int32_t>());

    clock.setSeconds(1700000001.600001);
    const zub::Value second = envelopeOf(event);
    EXPECT_NE(first["idx"], second["idx"]);
    EXPECT_EQ(ZUBProEvent::idx(), before + 2);

    std::set<std::int32_t> drawn;
    for (int i = 0; i < 200; ++i) drawn.insert(ZUBProEvent::getRandomNumber(0, 3));
    EXPECT_EQ(drawn, (std::set<std::int32_t>{0, 1, 2, 3}));
    EXPECT_EQ(ZUBProEvent::getRandomNumber(5, 5), 5);
}

TEST(ZUBProEvent, EncodeHookFailureKeepsTheEnvelope) {
    LogCapture log;
    ThrowingEvent event;
    event.setType(7);
    zubtest::expectKeys(envelopeOf(event), {{"before", true}, {"et", 7}});
    EXPECT_TRUE(log.has("[ZUBDebug] exception :%"));

    // The base hook adds nothing and says so in the system log.
    log.clear();
    ZUBProEvent plain;
    zubtest::expectKeys(envelopeOf(plain), {}, {"before"});
    EXPECT_TRUE(log.has("super encode"));
}

TEST(ZUBProEvent, RestoredEventDropsAppkeyAndTimeStr) {
    registerEventClasses();
    ZUBProConfig::getInstance().setAppkey(std::string("process-key"));
    auto event = std::make_shared<ZUBProEvent>();
    event->setMd5(std::string("0123456789abcdef0123456789abcdef"));
    event->setType(1000);
    event->setSid(5);
    event->setTs(1700000000);
    event->setRetryNum(2);
    event->setLastReportTs(1700000005);
    event->setIsImportant(true);
    event->setIsWrongWifi(true);
    event->setAppkey(std::string("archived-key"));

    const zub::Data bytes = zub::KeyedArchiver::archivedDataWithRootObject(event);
    auto back = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProEvent>(bytes);
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->lastReportTs() == 1700000005u && back->isImportant());
    EXPECT_FALSE(back->isWrongWifi() || back->appkey() || back->timeStr());
    const zub::Value e = envelopeOf(*back);
    zubtest::expectKeys(e, {{"ky", "process-key"}, {"m5", *event->md5()}, {"et", 1000}, {"si", 5}, {"ts", 1700000000u}, {"rt", 1}});
    EXPECT_LE(e["idx"].get<std::uint32_t>(), 3u);  // the random digit alone
}
