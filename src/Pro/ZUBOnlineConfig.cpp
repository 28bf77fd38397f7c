#include "Pro/ZUBOnlineConfig.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace {

constexpr const char* kSDKConfigKey = "ZUBSDKConfig";
constexpr const char* kAppConfigKey = "ZUBAppConfig";

std::int64_t versionOf(const ZUBOnlineConfig::Record& record) {
    return record ? record->version() : 0;
}

// Leading integer of a numeric string ("7" -> 7, " -3x" -> -3, "x" -> 0),
// saturating at the ends of the 64-bit range, as a string's integer value reads.
std::int64_t leadingInteger(const std::string& s) {
    const std::size_t i = s.find_first_not_of(" \t\n");
    if (i == std::string::npos) return 0;
    const char* begin = s.data() + i + (s[i] == '+' ? 1 : 0);
    std::int64_t parsed = 0;
    const auto r = std::from_chars(begin, s.data() + s.size(), parsed);
    if (r.ec == std::errc::result_out_of_range) {
        return s[i] == '-' ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    }
    return r.ec == std::errc() ? parsed : 0;
}

// The integer value of a JSON number, numeric string or boolean; 0 otherwise.
std::int64_t int64Value(const zub::Value& v) {
    if (v.is_number_integer()) return v.get<std::int64_t>();
    if (v.is_number_unsigned()) return static_cast<std::int64_t>(v.get<std::uint64_t>());
    if (v.is_number_float()) {
        const double d = v.get<double>();
        if (!(d == d)) return 0;
        if (d >= 9.2e18) return std::numeric_limits<std::int64_t>::max();
        if (d <= -9.2e18) return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(d);
    }
    if (v.is_boolean()) return v.get<bool>() ? 1 : 0;
    if (v.is_string()) return leadingInteger(v.get_ref<const std::string&>());
    return 0;
}

// The 32-bit value: a number keeps its low 32 bits, a string saturates.
std::int32_t int32Value(const zub::Value& v) {
    const std::int64_t wide = int64Value(v);
    if (v.is_string()) {
        return static_cast<std::int32_t>(std::clamp<std::int64_t>(wide, std::numeric_limits<std::int32_t>::min(),
                                                                   std::numeric_limits<std::int32_t>::max()));
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(wide)));
}

}  // namespace

ZUBOnlineConfig& ZUBOnlineConfig::getInstance() {
    static ZUBOnlineConfig* instance = new ZUBOnlineConfig();
    return *instance;
}

ZUBOnlineConfig::ZUBOnlineConfig() {
    zub::ArchiveRegistry::registerType<ZUBProDataConfig>("ZUBProDataConfig");
}

ZUBOnlineConfig::Record ZUBOnlineConfig::sdkCfg() const {
    std::lock_guard lock(mutex_);
    return sdkCfg_;
}
void ZUBOnlineConfig::setSdkCfg(Record v) {
    std::lock_guard lock(mutex_);
    sdkCfg_ = std::move(v);
}
ZUBOnlineConfig::Record ZUBOnlineConfig::appCfg() const {
    std::lock_guard lock(mutex_);
    return appCfg_;
}
void ZUBOnlineConfig::setAppCfg(Record v) {
    std::lock_guard lock(mutex_);
    appCfg_ = std::move(v);
}

std::optional<ZUBOnlineConfig::Record> ZUBOnlineConfig::load(const char* key) {
    auto stored = ZUBProStore::getInstance().getNSDataForKey(key);
    if (!stored) return std::nullopt;
    Record record;
    if (stored->is_binary()) {
        const zub::Data bytes(stored->get_binary().begin(), stored->get_binary().end());
        record = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProDataConfig>(bytes);
    }
    if (!record) ZUBProHelper::LogDebug("[ERROR]stored configuration %@ cannot be read; it is left out", key);
    return record;
}

void ZUBOnlineConfig::loadSDKConfig() {
    if (auto record = load(kSDKConfigKey)) setSdkCfg(std::move(*record));
}

void ZUBOnlineConfig::loadAppConfig() {
    if (auto record = load(kAppConfigKey)) setAppCfg(std::move(*record));
}

void ZUBOnlineConfig::store(const Record& record, const char* key) {
    if (!record) return;
    const zub::Data bytes = zub::KeyedArchiver::archivedDataWithRootObject(*record);
    ZUBProStore::getInstance().setObject(zub::Value::binary(bytes), std::string(key));
}

void ZUBOnlineConfig::storeSDKConfig() {
    store(sdkCfg(), kSDKConfigKey);
}

void ZUBOnlineConfig::storeAppConfig() {
    store(appCfg(), kAppConfigKey);
}

void ZUBOnlineConfig::updateReportStrategy() {
    const Record sdk = sdkCfg();
    if (!sdk) return;
    auto content = ZUBProHelper::jsonToObj(sdk->content());
    if (!content || !content->is_object() || !content->contains("rs")) return;
    ZUBProConfig::getInstance().setReportStrategy(int64Value((*content)["rs"]));
}

void ZUBOnlineConfig::encodeCfgVersion(zub::Value& dictionary, const Record& config) {
    dictionary["v"] = versionOf(config);
}

void ZUBOnlineConfig::encode(zub::Value& dictionary) {
    zub::Value sdk = zub::Value::object();
    zub::Value app = zub::Value::object();
    encodeCfgVersion(sdk, sdkCfg());
    encodeCfgVersion(app, appCfg());
    zub::Value cfg = zub::Value::object();
    cfg["1"] = std::move(sdk);
    cfg["2"] = std::move(app);
    dictionary["cfg"] = std::move(cfg);
}

void ZUBOnlineConfig::updateConfigs(const zub::Value& reply) {
    if (!reply.is_object()) return;
    auto cfg = reply.find("cfg");
    if (cfg == reply.end() || !cfg->is_object()) return;
    ZUBProHelper::LogDebug("start update configuraion from ZUB's website");
    if (auto sdk = cfg->find("1"); sdk != cfg->end() && sdk->is_object()) updateConfig(*sdk, 1);
    if (auto app = cfg->find("2"); app != cfg->end() && app->is_object()) updateConfig(*app, 2);
}

bool ZUBOnlineConfig::decode(const zub::Value* block, ZUBProDataConfig& config) {
    if (block == nullptr || block->is_null()) return false;
    if (!block->is_object()) return true;
    auto c = block->find("c");
    auto v = block->find("v");
    auto m = block->find("m");
    if (c != block->end() && v != block->end() && m != block->end() && !c->is_null() && !v->is_null() &&
        !m->is_null()) {
        config.setContent(ZUBProHelper::objToJson(*c));
        config.setVersion(int32Value(*v));
        config.setMd5(m->is_string() ? m->get<std::string>() : m->dump());
    }
    return true;
}

void ZUBOnlineConfig::updateConfig(const zub::Value& block, std::int64_t type) {
    auto record = std::make_shared<ZUBProDataConfig>();
    if (!decode(&block, *record)) {
        ZUBProHelper::LogDebug("[ERROR]Failed to decode config for %@", block);
        return;
    }
    record->setType(type);
    const std::int64_t local = versionOf(type == 1 ? sdkCfg() : appCfg());
    const std::int64_t remote = record->version();
    if (local >= remote) {
        ZUBProHelper::LogDebug("[WARN]Local has version:%d for config:%d, while remote has version:%d", local, type,
                               remote);
        return;
    }
    if (type == 1) {
        setSdkCfg(std::move(record));
        storeSDKConfig();
    } else {
        setAppCfg(std::move(record));
        storeAppConfig();
    }
}

ZUBOnlineConfig::Record ZUBOnlineConfig::getConfig(std::int64_t type) {
    return type == 1 ? sdkCfg() : appCfg();
}

zub::Value ZUBOnlineConfig::getOnlineProperty(const std::string& key) {
    const Record app = appCfg();
    if (!app) return "";
    auto content = ZUBProHelper::jsonToObj(app->content());
    // An array block has no named properties.
    if (!content || !content->is_object()) return "";
    auto it = content->find(key);
    if (it == content->end()) return "";
    return *it;
}
