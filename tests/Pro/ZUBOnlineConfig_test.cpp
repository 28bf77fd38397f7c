#include "Pro/ZUBOnlineConfig.h"

#include "Common/ZUBProStore.h"
#include "Platform/KeyedArchiver.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using zubtest::LogCapture;

namespace {

zub::Value reply(const std::string& cfgJson) {
    return zub::Value::parse(R"({"ret":0,"cfg":)" + cfgJson + "}");
}

// A record's version, type, content and md5, to compare in one check.
auto fields(const std::shared_ptr<const ZUBProDataConfig>& c) {
    return std::tuple(c->version(), c->type(), c->content(), c->md5());
}

}  // namespace

TEST(ZUBOnlineConfig, VersionsAreReportedAndNewerBlocksAccepted) {
    LogCapture log;
    ZUBOnlineConfig& online = ZUBOnlineConfig::getInstance();
    online.updateConfigs(reply(R"({"1":{"c":{"rs":1},"v":3,"m":"x"}})"));
    EXPECT_TRUE(log.has("[ZUBDebug] start update configuraion from ZUB's website"));
    ASSERT_TRUE(online.sdkCfg());
    const auto expected = std::tuple(3, 1, R"({"rs":1})", "x");
    EXPECT_EQ(fields(online.sdkCfg()), expected);

    // Persisted at once under its key; the stored record reads back whole.
    auto stored = ZUBProStore::getInstance().getNSDataForKey("ZUBSDKConfig");
    ASSERT_TRUE(stored && stored->is_binary());
    auto record = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProDataConfig>(
        zub::Data(stored->get_binary().begin(), stored->get_binary().end()));
    ASSERT_TRUE(record);
    EXPECT_EQ(fields(record), expected);

    // The same block again is refused; so is an older one.
    log.clear();
    online.updateConfigs(reply(R"({"1":{"c":{"rs":5},"v":3,"m":"y"}})"));
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]Local has version:3 for config:1, while remote has version:3"));
    EXPECT_EQ(online.sdkCfg()->md5(), "x");

    // A version given as text counts; the application block follows the SDK block.
    log.clear();
    online.updateConfigs(reply(R"({"2":{"c":{"color":"red","n":[1,2]},"v":"7","m":"z"},"1":{"c":{},"v":2,"m":"q"}})"));
    ASSERT_TRUE(online.appCfg());
    EXPECT_EQ(online.appCfg()->version(), 7);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "[ZUBDebug] [WARN]Local has version:3 for config:1, while remote has version:2");
    EXPECT_EQ(online.getOnlineProperty("color"), "red");
    EXPECT_EQ(online.getOnlineProperty("n"), zub::Value::array({1, 2}));
    EXPECT_EQ(online.getOnlineProperty("missing"), "");
    for (int type : {0, 2, 5}) EXPECT_EQ(online.getConfig(type), online.appCfg()) << type;
    EXPECT_EQ(online.getConfig(1), online.sdkCfg());
}

TEST(ZUBOnlineConfig, IncompleteOrOddBlocks) {
    LogCapture log;
    ZUBOnlineConfig& online = ZUBOnlineConfig::getInstance();
    EXPECT_EQ(online.getOnlineProperty("anything"), "");  // no record

    // No "m": recorded as version 0 and refused by the version rule, without an error line.
    online.updateConfigs(reply(R"({"2":{"c":{"a":1},"v":4}})"));
    EXPECT_FALSE(online.appCfg());
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]Local has version:0 for config:2, while remote has version:0"));
    EXPECT_FALSE(log.contains("[ERROR]"));

    // Malformed "cfg" or entries are skipped silently.
    log.clear();
    online.updateConfigs(zub::Value::parse(R"({"ret":0,"cfg":[1]})"));
    online.updateConfigs(zub::Value::parse(R"({"ret":0})"));
    EXPECT_TRUE(log.lines().empty());
    online.updateConfigs(reply(R"({"1":"text","2":5})"));
    EXPECT_EQ(log.lines().size(), 1u);  // only the "start update" line

    // Content that is not an object or array is accepted by version but is empty.
    log.clear();
    online.updateConfigs(reply(R"({"2":{"c":"plain","v":1,"m":"m"}})"));
    ASSERT_TRUE(online.appCfg());
    EXPECT_EQ(online.appCfg()->content(), "");
    EXPECT_TRUE(log.has("[ZUBDebug] error :error json format"));
    EXPECT_EQ(online.getOnlineProperty("plain"), "");

    // An array block has no named properties.
    online.updateConfigs(reply(R"({"2":{"c":[{"a":1}],"v":2,"m":"m"}})"));
    EXPECT_EQ(online.appCfg()->content(), R"([{"a":1}])");
    EXPECT_EQ(online.getOnlineProperty("a"), "");

    // Stored bytes that are no record make the property absent.
    ZUBProStore::getInstance().setObject(zub::Value::binary({1, 2, 3}), std::string("ZUBAppConfig"));
    log.clear();
    online.loadAppConfig();
    EXPECT_FALSE(online.appCfg());
    EXPECT_TRUE(log.has("[ZUBDebug] [ERROR]stored configuration ZUBAppConfig cannot be read; it is left out"));
}
