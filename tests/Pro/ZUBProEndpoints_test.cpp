// The host's endpoint setters: what they accept and what they refuse. That a
// registration goes to the collector named is the C example's test (CHost).
#include <ZUBCocoa/ZUBEndpoints.h>

#include "Common/ZUBProConfig.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace {

void expectEndpoints(const std::string& report, const std::string& mid) {
    const zub::Endpoints now = zub::endpoints();
    EXPECT_EQ(now.reportURL, report);
    EXPECT_EQ(now.midURL, mid);
    EXPECT_EQ(ZUBProConfig::getInstance().reportURL(), report);
    EXPECT_EQ(ZUBProConfig::getInstance().midURL(), mid);
}

}  // namespace

TEST(ZUBProEndpoints, SetsBothURLsAndRefusesWhatIsNoHttpURL) {
    zubtest::LogCapture log;
    const zub::Endpoints builtIn = zub::endpoints();
    EXPECT_EQ(builtIn.reportURL.rfind("http://", 0), 0u) << builtIn.reportURL;
    EXPECT_NE(builtIn.reportURL.find("/mstat/report"), std::string::npos);

    EXPECT_TRUE(
        zub::setEndpoints("https://stats.example.com/mstat/report", "HTTP://ids.example.com:8080/?t=ios&ver=2.0"));
    expectEndpoints("https://stats.example.com/mstat/report", "HTTP://ids.example.com:8080/?t=ios&ver=2.0");
    EXPECT_TRUE(log.contains("report endpoint https://stats.example.com/mstat/report"));

    // One bad URL leaves both as they were. A null pointer from C code or a
    // plug-in is absent, refused like an empty URL.
    const char* none = nullptr;
    for (const auto& [report, mid] : std::vector<std::pair<const char*, const char*>>{
             {"ftp://stats.example.com/r", "http://ids.example.com/"}, {"http://stats.example.com/r", "ids.example.com/"},
             {"http://", "http://ids.example.com/"}, {"http:///mstat/report", "http://ids.example.com/"},
             {"http://:80/mstat/report", "http://ids.example.com/"}, {"http://stats.example.com:/r", "http://ids.example.com/"},
             {"http://stats.example.com/r r", "http://ids.example.com/"}, {"", ""}, {none, "http://ids.example.com/"}}) {
        log.clear();
        EXPECT_FALSE(zub::setEndpoints(report, mid));
        expectEndpoints("https://stats.example.com/mstat/report", "HTTP://ids.example.com:8080/?t=ios&ver=2.0");
        EXPECT_TRUE(log.contains("[ERROR]endpoints not changed")) << (report ? report : "(null)") << " " << mid;
    }
}

TEST(ZUBProEndpoints, CollectorAddressNamesBothProtocolPaths) {
    zubtest::LogCapture log;
    EXPECT_TRUE(zub::setCollectorAddress("http://127.0.0.1:41234"));
    expectEndpoints("http://127.0.0.1:41234/mstat/report", "http://127.0.0.1:41234/?t=ios&ver=2.0");
    zub::setCollectorAddress("https://collector.example.com/");
    expectEndpoints("https://collector.example.com/mstat/report", "https://collector.example.com/?t=ios&ver=2.0");

    for (const char* bad : {"http://collector.example.com/api", "http://collector.example.com?x=1",
                            "collector.example.com:47800", "http://", "http://host//", static_cast<const char*>(nullptr)}) {
        log.clear();
        EXPECT_FALSE(zub::setCollectorAddress(bad));
        expectEndpoints("https://collector.example.com/mstat/report", "https://collector.example.com/?t=ios&ver=2.0");
        EXPECT_TRUE(log.contains("is not a collector address")) << (bad ? bad : "(null)");
    }
}
