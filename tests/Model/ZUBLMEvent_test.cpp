// Messenger-account events.
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBLMEvent.h"
#include "Platform/KeyedArchiver.h"
#include "support/FiledEvents.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPro.h>

#include <gtest/gtest.h>

using zubtest::filedEvents;
using zubtest::jsonOf;

TEST(ZUBLMEvent, ReportsTheAccountNowAndNothingForNone) {
    zubtest::SteppingClock clock(1'700'000'777);
    ZUBPro::reportLM(std::nullopt);
    ZUBPro::reportLM("im-42");
    auto events = filedEvents<ZUBLMEvent>();
    ASSERT_EQ(events.size(), 1u);
    const zub::Value json = jsonOf(*events[0]);
    EXPECT_EQ(json["et"], 1001);
    EXPECT_EQ(json["lm"], "im-42");
    EXPECT_EQ(json["ts"], 1'700'000'777);

    registerEventClasses();
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBLMEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(*events[0]));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->lm(), "im-42");
    ZUBLMEvent none;
    EXPECT_FALSE(jsonOf(none).contains("lm"));
}
