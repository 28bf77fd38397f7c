#include "Common/DeviceID/ZUBProOpenUDID.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Platform/Bundle.h"
#include "Platform/MacAddress.h"
#include "Platform/UserDefaults.h"
#include "support/ChildProcess.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <fstream>
#include <latch>
#include <map>
#include <regex>
#include <thread>

using zub::Value;

namespace {

// Runs the helper as an application with that bundle identifier; its lines as a map.
std::map<std::string, std::string> runHelper(const std::vector<std::string>& args) {
    std::vector<std::string> argv{std::string(ZUB_TEST_BIN_DIR) + "/device_id_helper"};
    argv.insert(argv.end(), args.begin(), args.end());
    zubtest::ChildProcess child(argv);
    EXPECT_TRUE(child.started());
    std::map<std::string, std::string> out;
    while (auto line = child.readLine()) {
        const auto eq = line->find('=');
        if (eq != std::string::npos) out[line->substr(0, eq)] = line->substr(eq + 1);
    }
    EXPECT_EQ(child.wait(), 0);
    return out;
}

const std::regex kUuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
const std::regex kHex40("[0-9a-f]{40}");

}  // namespace

TEST(ZUBDeviceIDDal, IdentifiersPersistAcrossProcessesAndOpenUDIDIsSharedByApplications) {
    // This process reads its mid (none yet) before another process stores one.
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.alpha");
    ZUBDeviceIDDal& dal = ZUBDeviceIDDal::getInstance();
    EXPECT_EQ(dal.getMID(), "");

    auto first = runHelper({"com.example.alpha", "savemid", "m-42"});
    EXPECT_TRUE(std::regex_match(first["idfv"], kUuid)) << first["idfv"];
    EXPECT_TRUE(std::regex_match(first["openudid"], kHex40)) << first["openudid"];
    EXPECT_EQ(first["mid"], "");
    EXPECT_EQ(first["saved"], "m-42");

    auto second = runHelper({"com.example.alpha"});
    EXPECT_EQ(second["idfv"], first["idfv"]);
    EXPECT_EQ(second["openudid"], first["openudid"]);
    EXPECT_EQ(second["mid"], "m-42");

    // Another application of the user: its own idfv and mid, the same OpenUDID
    // (found in the slots the first application wrote).
    auto other = runHelper({"org.other.beta"});
    EXPECT_TRUE(std::regex_match(other["idfv"], kUuid));
    EXPECT_NE(other["idfv"], first["idfv"]);
    EXPECT_EQ(other["openudid"], first["openudid"]);
    EXPECT_EQ(other["mid"], "");

    // What the first application keeps on disk, under its company domain.
    zub::UserDefaults disk(zub::UserDefaults::standard().path());
    EXPECT_EQ(disk.objectForKey("com.example.zubidfv"), (Value{{"idfv", first["idfv"]}}));
    EXPECT_EQ(disk.objectForKey("com.example.zuboid"), (Value{{"oid", first["openudid"]}}));
    EXPECT_EQ(disk.objectForKey("com.example.zubmid"), (Value{{"mid", "m-42"}}));

    // This process keeps the mid it read until it saves one itself.
    EXPECT_EQ(dal.getMID(), "");
    dal.saveMID(std::nullopt);
    EXPECT_EQ(dal.getMID(), "");
    dal.saveMID(std::string("m-7"));
    EXPECT_EQ(dal.getMID(), "m-7");
}

TEST(ZUBDeviceIDDal, StoredAndHostProvidedValues) {
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.delta");
    ZUBProStore& store = ZUBProStore::getInstance();
    ZUBDeviceIDDal& dal = ZUBDeviceIDDal::getInstance();

    // A stored idfv is used as it is; a damaged OpenUDID entry is regenerated.
    store.saveToKeyChain("zubidfv", Value{{"idfv", "STORED-IDFV"}});
    store.saveToKeyChain("zuboid", Value("not a dictionary"));
    store.saveToKeyChain("zubidfa", Value{{"idfa", "IDFA-1"}});
    EXPECT_EQ(dal.getIdfv(), "STORED-IDFV");
    const std::string oid = dal.getOpenUDID();
    EXPECT_TRUE(std::regex_match(oid, kHex40));
    EXPECT_EQ(store.loadFromKeyChain("zuboid"), (Value{{"oid", oid}}));
    EXPECT_EQ(dal.getLocalIDFA(), "IDFA-1");

    // The push token: the value the host sets as "LastAccessID".
    store.setObject(Value("token-1"), "LastAccessID");
    EXPECT_EQ(dal.getRVToken(), "token-1");
    store.setObject(Value("token-2"), "LastAccessID");
    EXPECT_EQ(dal.getRVToken(), "token-1") << "cached once found";

    // The temporary UDID from the MAC of "en0".
    const auto root = zubtest::TempHome::makeDir("net");
    std::filesystem::create_directories(root / "en0");
    std::ofstream(root / "en0/address") << "00:1c:42:0a:0b:0c\n";
    zub::MacAddress::setInterfaceRoot(root.string());
    EXPECT_EQ(dal.getOpenIDFA(), "5d4891bb680e3bfcb402e19180d5082b0c7821f2");
    zub::MacAddress::setInterfaceRoot(std::nullopt);
    EXPECT_EQ(dal.getOpenIDFA(), "5d4891bb680e3bfcb402e19180d5082b0c7821f2") << "computed once per process";
    EXPECT_EQ(dal.openIDFA(), "5d4891bb680e3bfcb402e19180d5082b0c7821f2");
}

TEST(ZUBDeviceIDDalConcurrency, ConcurrentFirstCallsSeeOneValue) {
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.epsilon");
    ZUBProStore::getInstance().saveToKeyChain("zubidfa", Value{{"idfa", "IDFA-9"}});
    constexpr int kThreads = 8;
    struct Seen {
        std::string idfv, oid, mid, idfa, openIdfa;
    };
    std::vector<Seen> seen(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            ZUBDeviceIDDal& dal = ZUBDeviceIDDal::getInstance();
            // Different threads ask in different orders.
            if (t % 2 == 0) {
                seen[t].idfv = dal.getIdfv();
                seen[t].oid = dal.getOpenUDID();
            } else {
                seen[t].oid = dal.getOpenUDID();
                seen[t].idfv = dal.getIdfv();
            }
            seen[t].mid = dal.getMID();
            seen[t].idfa = dal.getLocalIDFA();
            seen[t].openIdfa = dal.getOpenIDFA();
        });
    }
    for (auto& th : threads) th.join();
    for (const auto& s : seen) {
        EXPECT_EQ(s.idfv, seen[0].idfv);
        EXPECT_EQ(s.oid, seen[0].oid);
        EXPECT_EQ(s.mid, "");
        EXPECT_EQ(s.idfa, "IDFA-9");
        EXPECT_EQ(s.openIdfa, seen[0].openIdfa);
    }
    // What is persisted is the value every thread saw.
    ZUBProStore& store = ZUBProStore::getInstance();
    EXPECT_EQ(store.loadFromKeyChain("zubidfv"), (Value{{"idfv", seen[0].idfv}}));
    EXPECT_EQ(store.loadFromKeyChain("zuboid"), (Value{{"oid", seen[0].oid}}));
    // The identifier was made once: one shared slot holds it, the next is untouched.
    auto slot = zub::Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.0");
    ASSERT_TRUE(slot);
    EXPECT_EQ(ZUBProOpenUDID::_getDictFromPasteboard(*slot)["OpenUDID"], seen[0].oid);
    EXPECT_FALSE(zub::Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.1"));
}
