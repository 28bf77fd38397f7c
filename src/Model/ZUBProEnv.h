// ZUBProEnv: the device and application environment that events carry, gathered
// once per process when the shared instance is made and never refreshed.
//
// getEnvInfo reads, in this order:
//   platform     the computer's display name (zub::HostInfo::computerName)
//   devicename   the hardware architecture name; "" when unknown
//   modulename   the model identifier; null when unknown (also printed on
//                standard output followed by a line break when known)
//   os_version   the system version (os-release VERSION_ID); null when unknown
//   jailbroken   ZUBProHelper::isJailbroken
//   timezone     the system time zone's name
//   resolution   "%.fx%.f" of (width x depth, depth x height) of the main screen;
//                "0x0" without a screen (the depth factor is part of the format)
//   deviceid     ZUBDeviceIDDal::getOpenUDID
//   idfa         "" always
//   idfv         ZUBDeviceIDDal::getIdfv
//   language     element 0 of the user-defaults array "AppleLanguages"; without
//                that entry, the language the system's locale settings name
//                (zub::HostInfo::preferredLanguage); null when neither says
//   mccmnc       "" always
//   app_version  if still null: the bundle's "CFBundleShortVersionString"
//   sdk_version  "1.0.0"
//   wf           ZUBProHelper::fetchSSIDInfo (JSON text)
//
// Threads: the shared instance is made once (thread-safe); every accessor may be
// called from any thread (values are copied under a lock).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

class ZUBProEnv {
public:
    static ZUBProEnv& getInstance();

    /// Reads every value afresh (see above). Made once by getInstance.
    void getEnvInfo();

    using OptString = std::optional<std::string>;

    OptString platform() const;
    void setPlatform(const OptString& v);
    OptString devicename() const;
    void setDevicename(const OptString& v);
    OptString modulename() const;
    void setModulename(const OptString& v);
    OptString os_version() const;
    void setOs_version(const OptString& v);
    bool jailbroken() const;
    void setJailbroken(bool v);
    OptString timezone() const;
    void setTimezone(const OptString& v);
    OptString resolution() const;
    void setResolution(const OptString& v);
    OptString deviceid() const;
    void setDeviceid(const OptString& v);
    OptString idfa() const;
    void setIdfa(const OptString& v);
    OptString idfv() const;
    void setIdfv(const OptString& v);
    OptString language() const;
    void setLanguage(const OptString& v);
    OptString mccmnc() const;
    void setMccmnc(const OptString& v);
    OptString app_version() const;
    void setApp_version(const OptString& v);
    OptString sdk_version() const;
    void setSdk_version(const OptString& v);
    OptString wf() const;
    void setWf(const OptString& v);

    /// The resolution text for a screen of `width` x `height` and `depth`.
    static std::string resolutionText(double width, double height, std::int32_t depth);

    ZUBProEnv(const ZUBProEnv&) = delete;
    ZUBProEnv& operator=(const ZUBProEnv&) = delete;

private:
    ZUBProEnv() = default;

    mutable std::mutex mutex_;
    // All guarded by mutex_.
    OptString platform_;
    OptString devicename_;
    OptString modulename_;
    OptString os_version_;
    bool jailbroken_ = false;
    OptString timezone_;
    OptString resolution_;
    OptString deviceid_;
    OptString idfa_;
    OptString idfv_;
    OptString language_;
    OptString mccmnc_;
    OptString app_version_;
    OptString sdk_version_;
    OptString wf_;
};
