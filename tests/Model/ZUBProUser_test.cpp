#include "Model/ZUBProUser.h"

#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBProEnv.h"
#include "support/FakeRoot.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using zubtest::ManualClock;

namespace {

// Local times in UTC+9 (no daylight saving time).
constexpr std::uint64_t kDay1Morning = 1710032400;  // 2024-03-10 10:00:00, day of year 69
constexpr std::uint64_t kDay1Last = 1710082799;     // 2024-03-10 23:59:59
constexpr std::uint64_t kDay2First = 1710082800;    // 2024-03-11 00:00:00, day 70
constexpr std::uint64_t kApril = 1711940400;        // 2024-04-01 12:00:00
constexpr std::uint64_t kNextYearSameDay = 1741662000;  // 2025-03-11 12:00:00, day 69 again
constexpr std::uint64_t kNextYearDayBefore = 1741575600;  // 2025-03-10 12:00:00, day 68

class ZUBProUserTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "JST-9", 1);
        tzset();
        ZUBProUser::registerArchivable();
        // The environment is gathered once; its version is set per test.
        testing::internal::CaptureStdout();
        ZUBProEnv::getInstance();
        testing::internal::GetCapturedStdout();
        setVersion("1.0");
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }

    static void setVersion(const std::optional<std::string>& v) { ZUBProEnv::getInstance().setApp_version(v); }

    // A process start: the stored record, classified at the clock's time.
    std::shared_ptr<ZUBProUser> launchAt(std::uint64_t seconds) {
        clock_.setSeconds(static_cast<double>(seconds));
        return ZUBProUser::loadAndClassify();
    }

    static std::shared_ptr<ZUBProUser> stored() {
        const auto bytes = ZUBProStore::getInstance().getNSDataForKey(ZUBProUser::kStoreKey);
        if (!bytes || !bytes->is_binary()) return nullptr;
        return zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProUser>(bytes->get_binary());
    }

    static void storeRecord(std::int64_t type, std::optional<std::string> appVer, std::uint64_t tagTime) {
        ZUBProUser user;
        user.setUid(std::string("UID-1"));
        user.setUserType(type);
        user.setAppVer(std::move(appVer));
        user.setTagTime(tagTime);
        user.store();
    }

    ManualClock clock_;
};

}  // namespace

TEST_F(ZUBProUserTest, NewReturningAndUpgradedAcrossLaunches) {
    auto user = launchAt(kDay1Morning);
    EXPECT_EQ(user->userType(), 0) << "first launch";
    EXPECT_EQ(user->uid(), ZUBDeviceIDDal::getInstance().getIdfv());
    EXPECT_EQ(user->appVer(), "1.0");
    EXPECT_EQ(user->tagTime(), kDay1Morning);
    auto saved = stored();
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->uid(), user->uid());
    EXPECT_EQ(saved->tagTime(), kDay1Morning);

    // The stored 0 reads back as 1, even on the same day; the time it changed is
    // not moved by that.
    user = launchAt(kDay1Last);
    EXPECT_EQ(user->userType(), 1);
    EXPECT_EQ(user->tagTime(), kDay1Morning);

    user = launchAt(kDay2First);
    EXPECT_EQ(user->userType(), 1);
    EXPECT_EQ(user->tagTime(), kDay1Morning) << "already a returning user";

    setVersion("1.1");
    user = launchAt(kDay2First + 60);
    EXPECT_EQ(user->userType(), 2) << "a version change wins";
    EXPECT_EQ(user->appVer(), "1.1");
    EXPECT_EQ(user->tagTime(), kDay2First + 60);

    user = launchAt(kDay2First + 120);
    EXPECT_EQ(user->userType(), 2) << "same day, same version";
    user = launchAt(kApril);
    EXPECT_EQ(user->userType(), 1);
    EXPECT_EQ(user->tagTime(), kApril);
    EXPECT_EQ(user->uid(), ZUBDeviceIDDal::getInstance().getIdfv()) << "the uid stays";
    EXPECT_EQ(stored()->userType(), 1);
}

TEST_F(ZUBProUserTest, OnlyTheDayOfTheYearCounts) {
    storeRecord(2, std::string("1.0"), kDay1Morning);
    EXPECT_EQ(launchAt(kNextYearSameDay)->userType(), 2) << "same day of the year, a year later";
    storeRecord(2, std::string("1.0"), kDay1Morning);
    auto user = launchAt(kNextYearDayBefore);
    EXPECT_EQ(user->userType(), 1);
    EXPECT_EQ(user->tagTime(), kNextYearDayBefore);
    // A clock that went back to an earlier day changes nothing.
    storeRecord(2, std::string("1.0"), kApril);
    user = launchAt(kDay1Morning);
    EXPECT_EQ(user->userType(), 2);
    EXPECT_EQ(user->tagTime(), kApril);
}

TEST_F(ZUBProUserTest, RecordedVersionRules) {
    // No recorded version: never an upgrade.
    storeRecord(1, std::nullopt, kDay1Morning);
    setVersion("5.0");
    auto user = launchAt(kDay1Last);
    EXPECT_EQ(user->userType(), 1);
    EXPECT_EQ(user->appVer(), std::nullopt);
    // A recorded version and none now: an upgrade to "no version".
    storeRecord(1, std::string("1.0"), kDay1Morning);
    setVersion(std::nullopt);
    user = launchAt(kDay1Last);
    EXPECT_EQ(user->userType(), 2);
    EXPECT_EQ(user->appVer(), std::nullopt);
    EXPECT_EQ(user->tagTime(), kDay1Last);
}

TEST_F(ZUBProUserTest, RestoringTurnsAStoredNewUserIntoAReturningOneAndStoresIt) {
    ZUBProUser fresh;
    fresh.setUid(std::string("U"));
    fresh.setAppVer(std::string("2.0"));
    fresh.setTagTime(42);
    const zub::Data bytes = zub::KeyedArchiver::archivedDataWithRootObject(fresh);
    ASSERT_FALSE(bytes.empty());
    EXPECT_FALSE(ZUBProStore::getInstance().getNSDataForKey(ZUBProUser::kStoreKey));

    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProUser>(bytes);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->userType(), 1);
    EXPECT_EQ(restored->uid(), "U");
    EXPECT_EQ(restored->appVer(), "2.0");
    EXPECT_EQ(restored->tagTime(), 42u);
    // Restoring stored the record again, already as type 1.
    auto again = stored();
    ASSERT_TRUE(again);
    EXPECT_EQ(again->userType(), 1);

    // The archive keeps the keys in their order.
    const std::string text = zub::Value::from_cbor(bytes, true, false).dump();
    const auto at = [&](const char* key) { return text.find(std::string("\"") + key + "\""); };
    ASSERT_NE(at("tagTime"), std::string::npos) << text;
    EXPECT_LT(at("uid"), at("userType"));
    EXPECT_LT(at("userType"), at("appVer"));
    EXPECT_LT(at("appVer"), at("tagTime"));
}

TEST_F(ZUBProUserTest, DamagedRecordStartsANewUser) {
    ZUBProStore::getInstance().setObject(zub::Value::binary({1, 2, 3}), std::string(ZUBProUser::kStoreKey));
    auto user = launchAt(kDay1Morning);
    EXPECT_EQ(user->userType(), 0);
    ASSERT_TRUE(stored());
    EXPECT_EQ(stored()->tagTime(), kDay1Morning);

    ZUBProStore::getInstance().setObject(zub::Value("not bytes"), std::string(ZUBProUser::kStoreKey));
    EXPECT_EQ(launchAt(kDay1Last)->userType(), 0);
}

TEST_F(ZUBProUserTest, SharedInstanceIsTheClassifiedRecord) {
    storeRecord(2, std::string("1.0"), kDay1Morning);
    clock_.setSeconds(static_cast<double>(kDay2First));
    ZUBProUser& user = ZUBProUser::getInstance();
    EXPECT_EQ(user.userType(), 1);
    EXPECT_EQ(user.uid(), "UID-1");
    EXPECT_EQ(&ZUBProUser::getInstance(), &user);
}
