// ZUBProUser: the persistent record of the local user, which classifies the user
// as new (userType 0), returning (1: seen on a later day) or upgraded (2: the
// application version changed).
//
// The record lives as keyed-archive bytes under "ZUBLocalUser" in ZUBProStore and
// is updated once per process, when getInstance first runs:
//   - no stored record: uid = ZUBDeviceIDDal idfv, userType 0, appVer = the
//     environment's app_version, tagTime = now;
//   - a stored record R (restored, see below): if now > R.tagTime and the local
//     day of the year (0..365) of now differs from that of R.tagTime, userType 1
//     (only the day of the year is compared, so the same calendar day of a later
//     year counts as the same day); if R.appVer is set and differs from the current
//     app_version, userType 2 and appVer = the current version (a version change
//     wins over a day change); if userType changed, tagTime = now.
//   A record that cannot be restored counts as no record (and is logged).
//   Then the record is archived and stored again.
// Restoring (the constructor taking a Coder) reads "uid", "userType" (an archived
// 0 becomes 1 at once), "appVer" and "tagTime", then archives the record and
// stores it under "ZUBLocalUser" before returning. Archiving writes "uid",
// "userType", "appVer", "tagTime" in that order.
//
// "now" comes from zub::Clock; local days from the TZ in force.
// Threads: the shared instance is made once (thread-safe); accessors may be called
// from any thread.
#pragma once

#include "Platform/KeyedArchiver.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class ZUBProUser final : public zub::Archivable {
public:
    /// The key of the stored record.
    static constexpr const char* kStoreKey = "ZUBLocalUser";

    static ZUBProUser& getInstance();

    /// An empty record (no uid, type 0, no version, time 0).
    ZUBProUser() = default;
    /// Restores a record from an archive (see above).
    explicit ZUBProUser(const zub::Coder& coder);

    std::string className() const override { return "ZUBProUser"; }
    void encodeWithCoder(zub::Coder& coder) const override;

    std::optional<std::string> uid() const;
    void setUid(const std::optional<std::string>& v);
    std::int64_t userType() const;
    void setUserType(std::int64_t v);
    std::optional<std::string> appVer() const;
    void setAppVer(const std::optional<std::string>& v);
    std::uint64_t tagTime() const;
    void setTagTime(std::uint64_t v);

    /// Runs the classification above against the store and returns the resulting
    /// record (stored already). getInstance keeps the first result.
    static std::shared_ptr<ZUBProUser> loadAndClassify();
    /// Archives this record and stores it under "ZUBLocalUser".
    void store() const;
    /// Registers the class for unarchiving (idempotent).
    static void registerArchivable();

private:
    mutable std::mutex mutex_;
    std::optional<std::string> uid_;     // guarded by mutex_
    std::int64_t userType_ = 0;          // guarded by mutex_
    std::optional<std::string> appVer_;  // guarded by mutex_
    std::uint64_t tagTime_ = 0;          // guarded by mutex_
};
