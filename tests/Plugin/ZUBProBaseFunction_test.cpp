// The basic functions lent to plug-ins.
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProConfig.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

#include <ZUBCocoa/ZUBProBaseFunction.h>

#include <gtest/gtest.h>

TEST(ZUBProBaseFunction, DebugLogOnlyWhenEnabled) {
    zubtest::LogCapture log(/*enableDebug=*/false);
    ZUBProBaseFunction::logDebug("plugin %@ ready", {"search"});
    EXPECT_TRUE(log.lines().empty());
    ZUBProConfig::getInstance().setDebugEnable(true);
    ZUBProBaseFunction::logDebug("plugin %@ ready in %d ms", {"search", "12"});
    EXPECT_TRUE(log.has("[ZUBDebug] plugin search ready in 12 ms"));
}

TEST(ZUBProBaseFunction, HelpersLentToPlugins) {
    zubtest::ManualClock clock(1'700'000'000'250'000);
    EXPECT_DOUBLE_EQ(ZUBProBaseFunction::getTimeStamp(), 1'700'000'000.25);
    EXPECT_EQ(ZUBProBaseFunction::md5Encrypt("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(ZUBProBaseFunction::md5Encrypt(""), std::nullopt);
    EXPECT_EQ(ZUBProBaseFunction::objToJson({{"a", 1}}), R"({"a":1})");
    EXPECT_EQ(ZUBProBaseFunction::objToJson(zub::Value(3)), "");

    ZUBProBaseFunction::saveToKeyChain("plugin.state", {{"n", 3}});
    EXPECT_EQ(ZUBProBaseFunction::loadFromKeyChain("plugin.state"), (zub::Value{{"n", 3}}));
    EXPECT_EQ(ZUBProBaseFunction::loadFromKeyChain("plugin.none"), std::nullopt);

    // The two reachable codes come out swapped: Wi-Fi (status 1) is 2, cellular 1.
    const auto status = static_cast<int>(ZUBProReachability::reachabilityForInternetConnection()->currentReachabilityStatus());
    EXPECT_EQ(ZUBProBaseFunction::currentNetwork(), status == 1 ? 2 : status == 2 ? 1 : 0) << "status " << status;
    EXPECT_TRUE(ZUBProBaseFunction::getOnlineProperty("missing") == "");
}
