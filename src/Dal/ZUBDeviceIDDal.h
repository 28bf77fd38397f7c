// ZUBDeviceIDDal: who this device is, for every event and for the mid
// registration. Six identifiers, each fetched on first use and cached for the
// life of the process:
//
//   idfv       random per-installation UUID text (36 upper-case characters);
//              persisted as {"idfv": text} under the keychain-style entry "zubidfv"
//   OpenUDID   ZUBProOpenUDID::value(), persisted as {"oid": value} ("zuboid")
//   mid        server-assigned, {"mid": value} ("zubmid"); "" when none is known,
//              and "" is cached, so a process that found none keeps answering ""
//              until saveMID runs in it
//   local IDFA {"idfa": value} under "zubidfa", written by others; "" when none
//   open IDFA  the temporary UDID (ZUBProTempUDID), never persisted
//   RV token   the plain user-defaults string "LastAccessID"; nothing cached while
//              it is unset, so a later call sees a value set meanwhile
//
// Entries are read and written through ZUBProStore's keychain-style operations
// (name "<company domain>.<entry>"). A stored entry that is not a dictionary, or
// whose value is not a string, is treated as absent.
//
// Thread-safe: each identifier has its own lock, held while it is looked up or
// generated, so concurrent first calls generate once and all return the same
// value (the first value cached wins for the process).
#pragma once

#include <mutex>
#include <optional>
#include <string>

class ZUBDeviceIDDal {
public:
    static ZUBDeviceIDDal& getInstance();

    /// Never empty.
    std::string getIdfv();
    /// Never empty (40 characters; forty "0" when the application opted out).
    std::string getOpenUDID();
    /// The mid, or "" when none is known.
    std::string getMID();
    /// Stores and caches a new mid; an absent argument changes nothing.
    void saveMID(const std::optional<std::string>& mid);
    /// The stored advertising identifier, or "".
    std::string getLocalIDFA();
    /// The temporary UDID (40 lower-case hex digits).
    std::string getOpenIDFA();
    /// The push token, or nothing while "LastAccessID" is unset.
    std::optional<std::string> getRVToken();

    // Property accessors of the cached values (std::nullopt: not fetched yet).
    std::optional<std::string> idfv() const;
    void setIdfv(const std::optional<std::string>& v);
    std::optional<std::string> openUDID() const;
    void setOpenUDID(const std::optional<std::string>& v);
    std::optional<std::string> mid() const;
    void setMid(const std::optional<std::string>& v);
    std::optional<std::string> localIDFA() const;
    void setLocalIDFA(const std::optional<std::string>& v);
    std::optional<std::string> openIDFA() const;
    void setOpenIDFA(const std::optional<std::string>& v);
    std::optional<std::string> rvToken() const;
    void setRvToken(const std::optional<std::string>& v);

private:
    ZUBDeviceIDDal() = default;

    struct Field {
        mutable std::mutex mutex;
        std::optional<std::string> value;  // guarded by mutex
    };
    static std::optional<std::string> get(const Field& f);
    static void set(Field& f, const std::optional<std::string>& v);

    Field idfv_;
    Field openUDID_;
    Field mid_;
    Field localIDFA_;
    Field openIDFA_;
    Field rvToken_;
};
