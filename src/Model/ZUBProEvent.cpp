#include <ZUBCocoa/ZUBProEvent.h>

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBProEnv.h"
#include "Model/ZUBProUser.h"
#include "Platform/Clock.h"
#include "Platform/Random.h"
#include "Platform/SystemLog.h"

#include <charconv>
#include <cstdlib>

namespace {

std::atomic<std::uint64_t> gSerialisations{0};

// The microsecond part of the clock as six zero-padded digits (written by hand:
// every event takes them on the host's thread).
std::string microsDigits(std::int64_t now = zub::Clock::nowMicros()) {
    std::int64_t micros = now % 1000000;
    if (micros < 0) micros = -micros;
    std::string digits(6, '0');
    for (int i = 5; i >= 0 && micros > 0; --i, micros /= 10) digits[static_cast<std::size_t>(i)] = static_cast<char>('0' + micros % 10);
    return digits;
}

// Leading decimal digits of the text as a 64-bit number (0 when there are none).
std::int64_t leadingNumber(const std::string& text) {
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec == std::errc::result_out_of_range) {
        // More digits than 64 bits hold: keep the low bits, as a wrapping reader would.
        std::uint64_t wrapped = 0;
        for (const char* p = text.data(); p < end && *p >= '0' && *p <= '9'; ++p) {
            wrapped = wrapped * 10 + static_cast<std::uint64_t>(*p - '0');
        }
        return static_cast<std::int64_t>(wrapped);
    }
    return value;
}

bool isUtf8(const std::string& text) {
    try {
        (void)zub::Value(text).dump();
        return true;
    } catch (const zub::Value::type_error&) {
        return false;
    }
}

// The key path ("kv.item", "ei") of the first text in `value` that is not UTF-8.
std::optional<std::string> nonUtf8Path(const zub::Value& value, const std::string& path) {
    if (value.is_string()) return isUtf8(value.get_ref<const std::string&>()) ? std::nullopt : std::optional(path);
    if (value.is_object()) {
        for (const auto& [key, item] : value.items()) {
            const std::string itemPath = path.empty() ? key : path + "." + key;
            if (!isUtf8(key)) return itemPath + " (the key itself)";
            if (auto found = nonUtf8Path(item, itemPath)) return found;
        }
    } else if (value.is_array()) {
        for (std::size_t i = 0; i < value.size(); ++i) {
            if (auto found = nonUtf8Path(value[i], path + "[" + std::to_string(i) + "]")) return found;
        }
    }
    return std::nullopt;
}

// Says which event cannot be written and why: the wire would otherwise lose it
// without a word (its JSON is "", which no batch carries).
void logUnwritable(const ZUBProEvent& event, const zub::Value& envelope) {
    const auto path = nonUtf8Path(envelope, "");
    ZUBProHelper::LogDebug("[ERROR]event of type %@ (m5 %@) cannot be written as JSON and is not sent: %@",
                           event.type(), event.md5(),
                           path ? "the text under \"" + *path + "\" is not UTF-8"
                                : std::string("it holds a value JSON cannot carry (binary data, NaN or infinity)"));
}

}  // namespace

ZUBProEvent::ZUBProEvent() : ZUBProEvent(zub::Clock::nowMicros()) {}

// timeStr is the last four of the six microsecond digits, written straight into
// the string's own buffer (four characters never allocate).
ZUBProEvent::ZUBProEvent(std::int64_t nowMicros) : timeStr_(std::in_place, 4, '0') {
    std::int64_t micros = (nowMicros % 1000000) % 10000;
    if (micros < 0) micros = -micros;
    for (std::size_t i = 4; i-- > 0 && micros > 0; micros /= 10) (*timeStr_)[i] = static_cast<char>('0' + micros % 10);
}

ZUBProEvent::ZUBProEvent(const zub::Coder& coder) {
    // Restoring starts from a bare object: no timeStr, not marked wrong-wifi.
    md5_ = coder.decodeStringForKey("md5");
    type_ = coder.decodeInt64ForKey("type");
    sid_ = coder.decodeUInt64ForKey("sid");
    ts_ = coder.decodeUInt64ForKey("ts");
    retryNum_ = coder.decodeInt64ForKey("retryNum");
    lastReportTs_ = coder.decodeUInt64ForKey("lastReportTs");
    isImportant_ = coder.decodeBoolForKey("isImportant");
    // The archived appkey is read and dropped on purpose: a resent event takes its
    // "ky" from the configuration of the process that sends it.
    (void)coder.decodeStringForKey("appkey");
}

ZUBProEvent::~ZUBProEvent() = default;

void ZUBProEvent::encodeWithCoder(zub::Coder& coder) const {
    coder.encodeString(md5_, "md5");
    coder.encodeInt64(type_, "type");
    coder.encodeUInt64(sid_, "sid");
    coder.encodeUInt64(ts_, "ts");
    coder.encodeInt64(retryNum_, "retryNum");
    coder.encodeUInt64(lastReportTs_, "lastReportTs");
    coder.encodeBool(isImportant_, "isImportant");
    if (appkey_) coder.encodeString(appkey_, "appkey");
}

std::optional<std::string> ZUBProEvent::toJsonString() {
    ZUBProConfig& config = ZUBProConfig::getInstance();
    ZUBDeviceIDDal& ids = ZUBDeviceIDDal::getInstance();
    zub::Value envelope = zub::Value::object();
    // The envelope's keys are distinct and written once, in order: appended without
    // the lookup that operator[] makes, into room reserved for them and the event's own.
    auto& fields = envelope.get_ref<zub::Value::object_t&>();
    fields.reserve(24);
    const auto put = [&fields](const char* key, zub::Value value) { fields.emplace_back(key, std::move(value)); };

    if (auto key = appkey_ ? appkey_ : config.appkey()) put("ky", *key);
    gSerialisations.fetch_add(1, std::memory_order_relaxed);
    put("si", sid_);
    put("ts", ts_);
    if (auto cui = config.customUserID()) put("cui", *cui);
    if (auto cav = config.customAppVersion()) put("cav", *cav);
    put("ui", ids.getOpenUDID());
    (void)config.mid();  // read and not sent: the registered mid comes from the device store
    put("ifv", ids.getIdfv());
    put("ioa", ids.getOpenIDFA());
    put("et", type_);
    if (const std::string mid = ids.getMID(); !mid.empty()) put("mid", mid);
    if (type_ != 2) {
        // The session event carries these inside its own keys.
        ZUBProEnv& env = ZUBProEnv::getInstance();
        if (auto sdk = env.sdk_version()) {
            put("sv", *sdk);
            if (auto av = config.customAppVersion() ? config.customAppVersion() : env.app_version()) {
                put("av", *av);
            }
            if (auto ch = config.zubChannel()) put("ch", *ch);
        }
        put("ut", ZUBProUser::getInstance().userType());
    }
    if (retryNum_ > 0) put("rt", 1);
    if (md5_) put("m5", *md5_);
    eventIndex_ = generateIDX();
    put("idx", eventIndex_);
    put("mc", "0");

    try {
        encode(envelope);
    } catch (const std::exception& e) {
        ZUBProHelper::trackException(e);
    } catch (...) {
        ZUBProHelper::trackException(std::runtime_error("unknown exception"));
    }
    auto json = ZUBProHelper::objToJson(envelope);
    if (json && json->empty()) logUnwritable(*this, envelope);
    return json;
}

void ZUBProEvent::encode(zub::Value&) {
    zub::SystemLog::write("super encode");
}

std::int32_t ZUBProEvent::generateIDX() {
    for (;;) {
        const std::int32_t r = getRandomNumber(0, 3);
        const std::string five = microsDigits().substr(1);
        // A restored event has no timeStr; the platform wrote "(null)" there, so the
        // number read back is the random digit alone.
        const std::string text = std::to_string(r) + timeStr_.value_or("(null)") + five;
        const auto index = static_cast<std::int32_t>(static_cast<std::uint32_t>(leadingNumber(text)));
        if (index != -1) return index;
    }
}

std::int32_t ZUBProEvent::getRandomNumber(std::int64_t from, std::int64_t to) {
    if (to < from) return static_cast<std::int32_t>(from);
    const std::uint64_t span = static_cast<std::uint64_t>(to - from) + 1;
    const std::uint32_t random = zub::Random::uint32();
    return static_cast<std::int32_t>(from + static_cast<std::int64_t>(random % span));
}

std::uint64_t ZUBProEvent::idx() {
    return gSerialisations.load(std::memory_order_relaxed);
}
