#include "Common/ZUBProStore.h"
#include "Platform/Bundle.h"
#include "Platform/Paths.h"
#include "Platform/UserDefaults.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>  // chmod

using zub::Value;

using zubtest::modeOf;

namespace {

// What another process of the same application would read from disk.
Value onDisk() {
    return zub::UserDefaults(zub::UserDefaults::standard().path()).dictionaryRepresentation();
}

}  // namespace

// (The device-identifier tests check a dotted identifier's domain on disk.)
TEST(ZUBProStore, KeychainEntriesLiveUnderTheCompanyDomain) {
    ZUBProStore& store = ZUBProStore::getInstance();
    zub::Bundle::setInfoValue("CFBundleIdentifier", "plain");  // no dot: its own domain
    store.saveToKeyChain("zubidfv", Value{{"idfv", "X"}});
    EXPECT_EQ(store.loadFromKeyChain("zubidfv"), (Value{{"idfv", "X"}}));
    EXPECT_EQ(onDisk()["plain.zubidfv"], (Value{{"idfv", "X"}})) << "saving synchronises";
    EXPECT_FALSE(store.load("zubidfv")) << "only the composed name holds the entry";
    zub::Bundle::setInfoValue("CFBundleIdentifier", "c.d.app");
    EXPECT_FALSE(store.loadFromKeyChain("zubidfv")) << "another company does not see it";
}

TEST(ZUBProStore, SettersRefuseAbsentArgumentsAndGettersDefault) {
    ZUBProStore& store = ZUBProStore::getInstance();
    EXPECT_FALSE(store.setObject(std::nullopt, "k"));
    EXPECT_FALSE(store.setObject(Value(), "k"));
    EXPECT_FALSE(store.setObject(Value("v"), std::nullopt));
    EXPECT_FALSE(store.setBool(true, std::nullopt));
    EXPECT_FALSE(store.setInt(5, std::nullopt));
    EXPECT_FALSE(store.load("k"));
    EXPECT_EQ(store.getIntForKey("never"), 0);
    EXPECT_FALSE(store.getBoolForKey("never"));
    EXPECT_FALSE(store.getStringForKey("never"));
    EXPECT_FALSE(store.getNSDataForKey("never"));

    EXPECT_TRUE(store.setObject(Value::binary({9, 8, 7}), "ZUBLocalUser"));
    EXPECT_TRUE(store.setBool(true, "flag"));
    EXPECT_TRUE(store.setInt(-1700000000000, "zubLastSendTime"));
    EXPECT_TRUE(store.setObject(Value(42), "LastAccessID"));
    EXPECT_EQ(store.getNSDataForKey("ZUBLocalUser"), Value::binary({9, 8, 7}));
    EXPECT_EQ(store.getNSDataForKey("flag"), Value(true)) << "returned as stored, no type check";
    EXPECT_TRUE(store.getBoolForKey("flag"));
    EXPECT_EQ(store.getIntForKey("zubLastSendTime"), -1700000000000);
    EXPECT_EQ(store.getStringForKey("LastAccessID"), "42") << "a stored number gives its text";
    const Value disk = onDisk();
    EXPECT_EQ(disk["zubLastSendTime"], -1700000000000) << "every setter synchronises";
    EXPECT_EQ(disk["ZUBLocalUser"], Value::binary({9, 8, 7}));

    // delete overwrites with "" and does not synchronise.
    store.deleteKey("flag");
    EXPECT_EQ(store.load("flag"), Value(""));
    EXPECT_EQ(onDisk()["flag"], Value(true));
}

TEST(ZUBProStore, LogfilePathCreatesThePrivateDirectoryOnce) {
    const std::string dir = zub::Paths::documents() + "/.ZUB";
    ASSERT_FALSE(std::filesystem::exists(dir));
    ZUBProStore& store = ZUBProStore::getInstance();
    EXPECT_EQ(store.getLogfilePath(".toReportEvents.log"), dir + "/.toReportEvents.log");
    EXPECT_EQ(modeOf(dir), 0700u);

    // Later calls leave an existing directory (and its mode) alone.
    ::chmod(dir.c_str(), 0750);
    EXPECT_EQ(store.getLogfilePath("/abs"), dir + "//abs") << "plain concatenation";
    EXPECT_EQ(modeOf(dir), 0750u);

    // Documents missing altogether: created with the directory.
    std::filesystem::remove_all(zub::Paths::documents());
    EXPECT_EQ(store.getLogfilePath("x"), dir + "/x");
    EXPECT_TRUE(std::filesystem::is_directory(dir));

    // A file in the way: the path is still returned.
    std::filesystem::remove_all(dir);
    { std::ofstream(dir) << "not a directory"; }
    EXPECT_EQ(store.getLogfilePath("y"), dir + "/y");
}
