#include "Common/ZUBProConfig.h"

#include <gtest/gtest.h>

TEST(ZUBProConfig, FreshProcessHasTheDocumentedDefaults) {
    const ZUBProConfig& c = ZUBProConfig::getInstance();
    EXPECT_EQ(c.appkey(), std::nullopt);
    EXPECT_EQ(c.reportURL(), "http://" ZUB_TEST_REPORT_HOST "/mstat/report");
    EXPECT_EQ(c.midURL(), "http://" ZUB_TEST_MID_HOST "/?t=ios&ver=2.0");
    EXPECT_EQ(c.storePrefix(), "");
    EXPECT_EQ(c.rc4Key(), "5f0c2e7a9b14d386c0e1a2f47d95b3e8");
    EXPECT_EQ(c.maxOnceSendCount(), 10u);
    EXPECT_EQ(c.sessionTimeoutSecs(), 30u);
    EXPECT_EQ(c.periodSecs(), 90u);
    EXPECT_EQ(c.vacuumTimeLength(), 60u);
    EXPECT_TRUE(c.isSmartReport());
    EXPECT_TRUE(c.isOnlineEnv());
    EXPECT_FALSE(c.debugEnable());
    EXPECT_EQ(c.zubChannel(), "Mac App Developer");
    EXPECT_EQ(c.maxTimingEventCount(), 1024u);
    EXPECT_EQ(c.maxStoreEventCount(), 1024u);
    EXPECT_EQ(c.maxReportEventLength(), 4096u);
    EXPECT_EQ(c.maxSendRetryCount(), 3u);
    EXPECT_EQ(c.maxImportSendRetryCount(), 10u);
    EXPECT_EQ(c.reportStrategy(), 8);
    EXPECT_EQ(c.timeoutInterval(), 5u);
    for (const auto& s : {c.customUserID(), c.customAppVersion(), c.idfa(), c.idfv(), c.oid(), c.deviceToken(), c.mid()}) {
        EXPECT_EQ(s, std::nullopt);
    }
}

TEST(ZUBProConfig, FlavourChoosesTheReportHostByWholeTag) {
    EXPECT_EQ(ZUBProConfig::reportURLForFlavour("HB"), "http://" ZUB_TEST_FLAVOUR_REPORT_HOST "/mstat/report");
    for (const char* tag : {"", "hb", "HBX", " HB"}) {
        EXPECT_EQ(ZUBProConfig::reportURLForFlavour(tag), "http://" ZUB_TEST_REPORT_HOST "/mstat/report") << tag;
    }
}

TEST(ZUBProConfigConcurrency, HostSettersRaceFreeWithQueueReaders) {
    ZUBProConfig& c = ZUBProConfig::getInstance();
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::size_t seen = 0;
        do {  // at least one read, however late the thread starts
            seen += c.zubChannel().value_or("").size() + c.periodSecs();
        } while (!stop);
        EXPECT_GT(seen, 0u);
    });
    for (int i = 0; i < 20000; ++i) {
        c.setZubChannel("channel-" + std::to_string(i));
        c.setPeriodSecs(static_cast<std::uint64_t>(i + 1));
    }
    stop = true;
    reader.join();
    EXPECT_EQ(c.zubChannel(), "channel-19999");
}
