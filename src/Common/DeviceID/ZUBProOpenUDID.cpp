#include "Common/DeviceID/ZUBProOpenUDID.h"

#include "Common/ZUBProHelper.h"
#include "Platform/Clock.h"
#include "Platform/Digest.h"
#include "Platform/KeyedArchiver.h"
#include "Platform/Random.h"
#include "Platform/UserDefaults.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr const char* kOpenUDIDKey = "OpenUDID";
constexpr const char* kOpenUDIDSlotKey = "OpenUDID_slot";
constexpr const char* kOpenUDIDAppUIDKey = "OpenUDID_appUID";
constexpr const char* kOpenUDIDTSKey = "OpenUDID_createdTS";
constexpr const char* kOpenUDIDOOTSKey = "OpenUDID_optOutTS";
constexpr const char* kOpenUDIDDescriptionKey = "description";

struct SessionState {
    std::mutex mutex;
    std::optional<std::string> cache;  // kOpenUDIDSessionCache; guarded by mutex
};

SessionState& session() {
    static auto* s = new SessionState();  // never destroyed
    return *s;
}

std::optional<std::string> stringAt(const zub::Value& dict, const char* key) {
    if (!dict.is_object()) return std::nullopt;
    auto it = dict.find(key);
    if (it == dict.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<double> dateAt(const zub::Value& dict, const char* key) {
    if (!dict.is_object()) return std::nullopt;
    auto it = dict.find(key);
    if (it == dict.end() || !it->is_number()) return std::nullopt;
    return it->get<double>();
}

// A date as the platform describes one: "2024-05-01 12:00:00 +0000".
std::string describeDate(double seconds) {
    if (!std::isfinite(seconds) || std::fabs(seconds) > 1e15) return std::to_string(seconds);
    const std::time_t t = static_cast<std::time_t>(std::floor(seconds));
    std::tm utc{};
    if (gmtime_r(&t, &utc) == nullptr) return std::to_string(seconds);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return text;
}

void setError(ZUBProOpenUDIDError* error, std::int64_t code, const std::string& description) {
    if (error == nullptr) return;
    error->domain = ZUBProOpenUDID::kOpenUDIDDomain;
    error->code = code;
    error->userInfo = zub::Value::object();
    error->userInfo[kOpenUDIDDescriptionKey] = description;
}

std::string valueLocked(SessionState& s, ZUBProOpenUDIDError* error) {
    if (s.cache) {
        setError(error, 0, "OpenUDID in cache from first call");
        return *s.cache;
    }
    zub::UserDefaults& defaults = zub::UserDefaults::standard();

    // The application's unique id: the host's, or a fresh one that reaches
    // storage only inside a newly created record.
    std::string appUID;
    if (auto stored = defaults.objectForKey(kOpenUDIDAppUIDKey); stored && stored->is_string()) {
        appUID = stored->get<std::string>();
    } else {
        appUID = zub::Random::uuidString();
    }

    // The local record.
    std::optional<zub::Value> localDict;
    std::optional<std::string> openUDID;
    std::optional<std::string> mySlot;
    std::optional<double> optedOutDate;
    bool optedOut = false;
    if (auto stored = defaults.objectForKey(kOpenUDIDKey)) {
        if (stored->is_object()) {
            localDict = std::move(*stored);
            openUDID = stringAt(*localDict, kOpenUDIDKey);
            mySlot = stringAt(*localDict, kOpenUDIDSlotKey);
            optedOutDate = dateAt(*localDict, kOpenUDIDOOTSKey);
            optedOut = optedOutDate.has_value();
        } else {
            ZUBProHelper::LogDebug("[WARN] OpenUDID record is not a dictionary; ignored");
        }
    }

    // Poll the slots: count identifiers, find the first free slot and our own.
    std::vector<std::pair<std::string, int>> frequency;  // in order of first sight
    frequency.reserve(ZUBProOpenUDID::kOpenUDIDRedundancySlots);
    std::optional<std::string> availableSlot;
    for (int n = 0; n < ZUBProOpenUDID::kOpenUDIDRedundancySlots; ++n) {
        const std::string slotName = ZUBProOpenUDID::kOpenUDIDSlotPBPrefix + std::to_string(n);
        auto pasteboard = zub::Pasteboard::existingPasteboardWithName(slotName);
        if (!pasteboard) {
            if (!availableSlot) availableSlot = slotName;
            continue;
        }
        const zub::Value dict = ZUBProOpenUDID::_getDictFromPasteboard(*pasteboard);
        if (auto oid = stringAt(dict, kOpenUDIDKey)) {
            auto it = std::find_if(frequency.begin(), frequency.end(), [&](const auto& e) { return e.first == *oid; });
            if (it == frequency.end()) frequency.emplace_back(*oid, 1);
            else ++it->second;
        } else if (!availableSlot) {
            availableSlot = slotName;
        }
        if (auto slotAppUID = stringAt(dict, kOpenUDIDAppUIDKey); slotAppUID && *slotAppUID == appUID) {
            mySlot = slotName;
            // A slot may clear or re-date an existing opt-out, never create one.
            if (optedOut) {
                optedOutDate = dateAt(dict, kOpenUDIDOOTSKey);
                optedOut = optedOutDate.has_value();
            }
        }
    }

    // The most reliable identifier: the highest count; the stable sort keeps
    // equal counts in order of first sight and the last one is taken.
    std::optional<std::string> mostReliable;
    if (!frequency.empty()) {
        std::stable_sort(frequency.begin(), frequency.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
        mostReliable = frequency.back().first;
    }

    bool saveRecord = false;
    bool isCompromised = false;
    if (!openUDID) {
        openUDID = mostReliable ? *mostReliable : ZUBProOpenUDID::_generateFreshOpenUDID();
        if (!localDict) {
            localDict = zub::Value::object();
            (*localDict)[kOpenUDIDKey] = *openUDID;
            (*localDict)[kOpenUDIDAppUIDKey] = appUID;
            (*localDict)[kOpenUDIDTSKey] = zub::Clock::nowDouble();
            // The opt-out date goes under the creation key, as the protocol has it.
            if (optedOut) (*localDict)[kOpenUDIDTSKey] = *optedOutDate;
            saveRecord = true;
        }
    } else if (mostReliable && *mostReliable != *openUDID) {
        isCompromised = true;
    }

    // Claim the free slot when it is ours or we have none.
    if (availableSlot && (!mySlot || *availableSlot == *mySlot)) {
        auto pasteboard = zub::Pasteboard::pasteboardWithName(*availableSlot);
        if (pasteboard && localDict) {
            (*localDict)[kOpenUDIDSlotKey] = *availableSlot;
            saveRecord = true;
            ZUBProOpenUDID::_setDict(*localDict, *pasteboard);
        }
    }

    if (localDict && saveRecord) defaults.setObject(kOpenUDIDKey, *localDict);

    if (optedOut) {
        setError(error, 1,
                 "Application with unique id " + appUID + " is opted-out from OpenUDID as of " +
                     describeDate(*optedOutDate));
        s.cache = std::string(40, '0');
        return *s.cache;
    }
    if (isCompromised) {
        setError(error, 2,
                 "Found a discrepancy between stored OpenUDID (reliable) and redundant copies; one of the apps on "
                 "the device is most likely corrupting the OpenUDID protocol");
    } else {
        setError(error, 0, "OpenUDID succesfully retrieved");
    }
    s.cache = *openUDID;
    return *s.cache;
}

}  // namespace

std::string ZUBProOpenUDIDError::description() const {
    if (userInfo.is_object()) {
        auto it = userInfo.find(kOpenUDIDDescriptionKey);
        if (it != userInfo.end() && it->is_string()) return it->get<std::string>();
    }
    return "";
}

std::string ZUBProOpenUDID::value() {
    return valueWithError(nullptr);
}

std::string ZUBProOpenUDID::valueWithError(ZUBProOpenUDIDError* error) {
    SessionState& s = session();
    std::lock_guard lock(s.mutex);
    return valueLocked(s, error);
}

void ZUBProOpenUDID::setOptOut(bool optOutValue) {
    SessionState& s = session();
    std::lock_guard lock(s.mutex);
    valueLocked(s, nullptr);
    zub::UserDefaults& defaults = zub::UserDefaults::standard();
    zub::Value dict = zub::Value::object();
    if (auto stored = defaults.objectForKey(kOpenUDIDKey); stored && stored->is_object()) dict = std::move(*stored);
    if (optOutValue) {
        dict[kOpenUDIDOOTSKey] = zub::Clock::nowDouble();
    } else {
        dict.erase(kOpenUDIDOOTSKey);
    }
    defaults.setObject(kOpenUDIDKey, dict);
    s.cache.reset();
}

zub::Value ZUBProOpenUDID::_getDictFromPasteboard(const zub::Pasteboard& pasteboard) {
    auto data = pasteboard.dataForType(kOpenUDIDDomain);
    if (data) {
        auto content = zub::KeyedUnarchiver::unarchiveValueWithData(*data);
        if (content && content->is_object()) return std::move(*content);
        ZUBProHelper::LogDebug("[WARN] OpenUDID slot %@ holds no dictionary; counted as free", pasteboard.name());
    }
    return zub::Value::object();
}

void ZUBProOpenUDID::_setDict(const zub::Value& dict, const zub::Pasteboard& pasteboard) {
    const zub::Data data = zub::KeyedArchiver::archivedDataWithRootObject(dict);
    if (data.empty()) return;
    pasteboard.setData(data, kOpenUDIDDomain);
}

std::string ZUBProOpenUDID::_generateFreshOpenUDID() {
    const std::string uuid = zub::Random::uuidString();
    const auto md5 = zub::Digest::md5(uuid.data(), uuid.size());
    char tail[9];
    std::snprintf(tail, sizeof tail, "%08lx", static_cast<unsigned long>(zub::Random::uint32()));
    return zub::Digest::hex(md5) + tail;
}
