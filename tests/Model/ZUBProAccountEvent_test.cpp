// Account events: the account type travels as the event type, the account twice.
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBProAccountEvent.h"
#include "Platform/KeyedArchiver.h"
#include "support/FiledEvents.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

using zubtest::filedEvents;
using zubtest::jsonOf;

TEST(ZUBProAccountEvent, AccountTypeTravelsAsEventType) {
    zubtest::SteppingClock clock;
    ZUBPro::reportAccount("u1", 2, "x");
    ZUBPro::reportAccount("u2", 1001, std::nullopt);
    ZUBPro::reportAccount(std::nullopt, 2, "ignored");  // no account: nothing

    auto events = filedEvents<ZUBProAccountEvent>();
    ASSERT_EQ(events.size(), 2u);
    const zub::Value u1 = jsonOf(*events[0]);
    EXPECT_EQ(u1["et"], 2);
    EXPECT_EQ(u1["lm"], "u1");
    EXPECT_EQ(u1["acc"].dump(), R"({"a":"u1","t":0,"e":"x"})");
    EXPECT_EQ(u1["ts"], 0) << "an account event keeps the base record's time";
    EXPECT_EQ(events[0]->accountType(), 0u);

    const zub::Value u2 = jsonOf(*events[1]);
    EXPECT_EQ(u2["et"], 1001);
    EXPECT_EQ(u2["acc"].dump(), R"({"a":"u2","t":0})");
}

TEST(ZUBProAccountEvent, ArchiveKeepsTypeAccountAndExt) {
    registerEventClasses();
    ZUBProAccountEvent event;
    event.setZubAccount("u9");
    event.setAccountType(7);
    event.setExt("vip");
    event.setType(3);
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProAccountEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(event));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->zubAccount(), "u9");
    EXPECT_EQ(restored->accountType(), 7u);
    EXPECT_EQ(restored->ext(), "vip");
    EXPECT_EQ(restored->type(), 3);
    EXPECT_EQ(jsonOf(*restored)["acc"].dump(), R"({"a":"u9","t":7,"e":"vip"})");

    ZUBProAccountEvent bare;  // made directly: type 1001, no account
    const zub::Value json = jsonOf(bare);
    EXPECT_EQ(json["et"], 1001);
    EXPECT_FALSE(json.contains("lm"));
    EXPECT_EQ(json["acc"].dump(), R"({"t":0})");
}
