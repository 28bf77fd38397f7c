// The user record: new, returning or upgraded at each launch, by local day of the
// year and recorded version; how it is stored and restored.
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
    void TearDown() override { unsetenv("TZ"), tzset(); }
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


    ManualClock clock_;
};

}  // namespace

TEST_F(ZUBProUserTest, TypeFollowsTheLocalDayOfTheYearAndTheRecordedVersion) {
    using V = std::optional<std::string>;
    struct Record { std::int64_t type; V appVer; std::uint64_t tagTime; };
    // Launches one after another; a row with a record first stores that record.
    const struct {
        const char* what;
        std::optional<Record> before;
        V version;
        std::uint64_t at;
        Record expected;
    } steps[] = {
        {"first launch", {}, "1.0", kDay1Morning, {0, "1.0", kDay1Morning}},
        {"a stored 0 reads back as 1, even the same day", {}, "1.0", kDay1Last, {1, "1.0", kDay1Morning}},
        {"already returning", {}, "1.0", kDay2First, {1, "1.0", kDay1Morning}},
        {"a version change wins", {}, "1.1", kDay2First + 60, {2, "1.1", kDay2First + 60}},
        {"same day, same version", {}, "1.1", kDay2First + 120, {2, "1.1", kDay2First + 60}},
        {"another day", {}, "1.1", kApril, {1, "1.1", kApril}},
        {"same day of the year, a year later", Record{2, "1.0", kDay1Morning}, "1.0", kNextYearSameDay,
         {2, "1.0", kDay1Morning}},
        {"the day before, a year later", Record{2, "1.0", kDay1Morning}, "1.0", kNextYearDayBefore,
         {1, "1.0", kNextYearDayBefore}},
        {"a clock gone back to an earlier day", Record{2, "1.0", kApril}, "1.0", kDay1Morning, {2, "1.0", kApril}},
        {"no recorded version: never an upgrade", Record{1, V(), kDay1Morning}, "5.0", kDay1Last, {1, V(), kDay1Morning}},
        {"an upgrade to no version", Record{1, "1.0", kDay1Morning}, V(), kDay1Last, {2, V(), kDay1Last}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        if (step.before) {
            ZUBProUser user;
            user.setUid(std::string("UID-1"));
            user.setUserType(step.before->type);
            user.setAppVer(step.before->appVer);
            user.setTagTime(step.before->tagTime);
            user.store();
        }
        setVersion(step.version);
        const auto user = launchAt(step.at);
        EXPECT_EQ(user->userType(), step.expected.type);
        EXPECT_EQ(user->uid(), step.before ? "UID-1" : ZUBDeviceIDDal::getInstance().getIdfv());
        // Stored as classified (a stored 0 restores as 1).
        const auto saved = stored();
        ASSERT_TRUE(saved);
        EXPECT_EQ(saved->userType(), std::max<std::int64_t>(step.expected.type, 1));
        for (const auto& u : {user, saved}) {
            EXPECT_EQ(u->appVer(), step.expected.appVer);
            EXPECT_EQ(u->tagTime(), step.expected.tagTime);
        }
    }
}

TEST_F(ZUBProUserTest, RestoringStoresANewUserAsReturningAndADamagedRecordStartsANewUser) {
    // Archiving stores nothing; restoring turns type 0 into 1 and stores the record again.
    const zub::Data bytes = zub::KeyedArchiver::archivedDataWithRootObject(ZUBProUser());
    EXPECT_FALSE(ZUBProStore::getInstance().getNSDataForKey(ZUBProUser::kStoreKey));
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProUser>(bytes);
    ASSERT_TRUE(restored && stored());
    EXPECT_TRUE(restored->userType() == 1 && stored()->userType() == 1);

    ZUBProStore::getInstance().setObject(zub::Value::binary({1, 2, 3}), std::string(ZUBProUser::kStoreKey));
    EXPECT_EQ(launchAt(kDay1Morning)->userType(), 0);
    ASSERT_TRUE(stored());
    EXPECT_EQ(stored()->tagTime(), kDay1Morning);
    ZUBProStore::getInstance().setObject(zub::Value("not bytes"), std::string(ZUBProUser::kStoreKey));
    EXPECT_EQ(launchAt(kDay1Last)->userType(), 0);
}
