// ZUBOnlineConfig: the two blocks of configuration the report server pushes in
// its replies ("cfg"): the SDK block (today its report strategy "rs") and the
// application block (free properties the host reads with getOnlineProperty).
//
// A block is accepted only when its version is newer than the one held; an
// accepted block is persisted at once ("ZUBSDKConfig", "ZUBAppConfig") and read
// back at the next start, when its report strategy takes effect. Every session
// event reports the versions held.
//
// Threads: updateConfigs runs on the report queue, the loads on the host's thread
// at start, encode wherever a session event is serialised. The two records are
// swapped whole under a small lock; a record is never changed in place.
#pragma once

#include "Pro/ZUBProDataConfig.h"

#include <ZUBCocoa/ZUBValue.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

class ZUBOnlineConfig {
public:
    using Record = std::shared_ptr<const ZUBProDataConfig>;

    static ZUBOnlineConfig& getInstance();
    ZUBOnlineConfig(const ZUBOnlineConfig&) = delete;
    ZUBOnlineConfig& operator=(const ZUBOnlineConfig&) = delete;

    /// Read the stored record into sdkCfg / appCfg. Nothing stored leaves the
    /// property as it is; stored bytes that do not read back as a record make it
    /// absent (and are logged).
    void loadSDKConfig();
    void loadAppConfig();
    /// Copies "rs" of the SDK block into ZUBProConfig's reportStrategy.
    void updateReportStrategy();
    void storeSDKConfig();
    void storeAppConfig();

    /// Adds "cfg": {"1": {"v": sdk version}, "2": {"v": app version}} (0 when absent).
    void encode(zub::Value& dictionary);
    void encodeCfgVersion(zub::Value& dictionary, const Record& config);

    /// Takes the "cfg" blocks of a successful report reply (SDK block first).
    void updateConfigs(const zub::Value& reply);
    /// Accepts or refuses one block.
    void updateConfig(const zub::Value& block, std::int64_t type);
    /// Fills `config` from a block; false only when there is no block.
    bool decode(const zub::Value* block, ZUBProDataConfig& config);

    /// 1 gives the SDK record, any other value the application record.
    Record getConfig(std::int64_t type);
    /// The application property as the JSON held it, or "" when missing.
    zub::Value getOnlineProperty(const std::string& key);

    Record sdkCfg() const;
    void setSdkCfg(Record v);
    Record appCfg() const;
    void setAppCfg(Record v);

private:
    ZUBOnlineConfig();
    /// std::nullopt when nothing is stored under `key`; else the record read back,
    /// null when the stored value is no readable record.
    std::optional<Record> load(const char* key);
    void store(const Record& record, const char* key);

    mutable std::mutex mutex_;
    Record sdkCfg_;  // guarded by mutex_
    Record appCfg_;  // guarded by mutex_
};
