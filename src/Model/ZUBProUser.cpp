#include "Model/ZUBProUser.h"

#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBProEnv.h"
#include "Platform/Clock.h"

#include <ctime>

namespace {

int localDayOfYear(std::uint64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    if (!::localtime_r(&t, &local)) return -1;
    return local.tm_yday;
}

}  // namespace

void ZUBProUser::registerArchivable() {
    static const bool registered = zub::ArchiveRegistry::registerType<ZUBProUser>("ZUBProUser");
    (void)registered;
}

ZUBProUser& ZUBProUser::getInstance() {
    static std::shared_ptr<ZUBProUser>* instance = new std::shared_ptr<ZUBProUser>(loadAndClassify());
    return **instance;
}

ZUBProUser::ZUBProUser(const zub::Coder& coder) {
    uid_ = coder.decodeStringForKey("uid");
    userType_ = coder.decodeInt64ForKey("userType");
    if (userType_ == 0) userType_ = 1;  // a stored new user is a returning user by now
    appVer_ = coder.decodeStringForKey("appVer");
    tagTime_ = coder.decodeUInt64ForKey("tagTime");
    if (!coder.failed()) store();
}

void ZUBProUser::encodeWithCoder(zub::Coder& coder) const {
    std::lock_guard<std::mutex> lock(mutex_);
    coder.encodeString(uid_, "uid");
    coder.encodeInt64(userType_, "userType");
    coder.encodeString(appVer_, "appVer");
    coder.encodeUInt64(tagTime_, "tagTime");
}

void ZUBProUser::store() const {
    const zub::Data bytes = zub::KeyedArchiver::archivedDataWithRootObject(*this);
    if (bytes.empty()) {
        ZUBProHelper::LogDebug("user record could not be archived");
        return;
    }
    ZUBProStore::getInstance().setObject(zub::Value::binary(bytes), std::string(kStoreKey));
}

std::shared_ptr<ZUBProUser> ZUBProUser::loadAndClassify() {
    registerArchivable();
    std::shared_ptr<ZUBProUser> record;
    const auto stored = ZUBProStore::getInstance().getNSDataForKey(kStoreKey);
    if (stored && stored->is_binary()) {
        record = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProUser>(stored->get_binary());
        if (!record) ZUBProHelper::LogDebug("stored user record is unreadable; starting a new one");
    } else if (stored) {
        ZUBProHelper::LogDebug("stored user record is not archive data; starting a new one");
    }

    const std::uint64_t now = zub::Clock::nowSeconds();
    if (!record) {
        record = std::make_shared<ZUBProUser>();
        record->setUid(ZUBDeviceIDDal::getInstance().getIdfv());
        record->setUserType(0);
        record->setAppVer(ZUBProEnv::getInstance().app_version());
        record->setTagTime(now);
    } else {
        const std::int64_t oldType = record->userType();
        const std::uint64_t tagTime = record->tagTime();
        if (now > tagTime && localDayOfYear(now) != localDayOfYear(tagTime)) record->setUserType(1);
        const auto recorded = record->appVer();
        const auto current = ZUBProEnv::getInstance().app_version();
        if (recorded && recorded != current) {
            record->setUserType(2);
            record->setAppVer(current);
        }
        if (record->userType() != oldType) record->setTagTime(now);
    }
    record->store();
    return record;
}

std::optional<std::string> ZUBProUser::uid() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return uid_;
}
void ZUBProUser::setUid(const std::optional<std::string>& v) {
    std::lock_guard<std::mutex> lock(mutex_);
    uid_ = v;
}
std::int64_t ZUBProUser::userType() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return userType_;
}
void ZUBProUser::setUserType(std::int64_t v) {
    std::lock_guard<std::mutex> lock(mutex_);
    userType_ = v;
}
std::optional<std::string> ZUBProUser::appVer() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return appVer_;
}
void ZUBProUser::setAppVer(const std::optional<std::string>& v) {
    std::lock_guard<std::mutex> lock(mutex_);
    appVer_ = v;
}
std::uint64_t ZUBProUser::tagTime() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return tagTime_;
}
void ZUBProUser::setTagTime(std::uint64_t v) {
    std::lock_guard<std::mutex> lock(mutex_);
    tagTime_ = v;
}
