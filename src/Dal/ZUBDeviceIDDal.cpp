#include "Dal/ZUBDeviceIDDal.h"

#include "Common/DeviceID/ZUBProOpenUDID.h"
#include "Common/DeviceID/ZUBProTempUDID.h"
#include "Common/ZUBProStore.h"
#include "Platform/Random.h"

namespace {

// The string under `key` of a stored one-key dictionary entry.
std::optional<std::string> loadEntry(const std::string& entry, const char* key) {
    auto stored = ZUBProStore::getInstance().loadFromKeyChain(entry);
    if (!stored || !stored->is_object()) return std::nullopt;
    auto it = stored->find(key);
    if (it == stored->end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

// The plug-in bridge's saveToKeyChain forwards to the store unchanged.
void saveEntry(const std::string& entry, const char* key, const std::string& value) {
    zub::Value dict = zub::Value::object();
    dict[key] = value;
    ZUBProStore::getInstance().saveToKeyChain(entry, dict);
}

}  // namespace

ZUBDeviceIDDal& ZUBDeviceIDDal::getInstance() {
    static ZUBDeviceIDDal* instance = new ZUBDeviceIDDal();  // never destroyed
    return *instance;
}

std::string ZUBDeviceIDDal::getIdfv() {
    std::lock_guard lock(idfv_.mutex);
    if (!idfv_.value) {
        if (auto stored = loadEntry("zubidfv", "idfv")) {
            idfv_.value = std::move(stored);
        } else {
            const std::string fresh = zub::Random::uuidString();
            saveEntry("zubidfv", "idfv", fresh);
            idfv_.value = fresh;
        }
    }
    return *idfv_.value;
}

std::string ZUBDeviceIDDal::getOpenUDID() {
    std::lock_guard lock(openUDID_.mutex);
    if (!openUDID_.value) {
        if (auto stored = loadEntry("zuboid", "oid")) {
            openUDID_.value = std::move(stored);
        } else {
            const std::string value = ZUBProOpenUDID::value();
            openUDID_.value = value;
            saveEntry("zuboid", "oid", value);
        }
    }
    return *openUDID_.value;
}

std::string ZUBDeviceIDDal::getMID() {
    std::lock_guard lock(mid_.mutex);
    if (!mid_.value) mid_.value = loadEntry("zubmid", "mid").value_or("");
    return *mid_.value;
}

void ZUBDeviceIDDal::saveMID(const std::optional<std::string>& mid) {
    if (!mid) return;
    std::lock_guard lock(mid_.mutex);
    saveEntry("zubmid", "mid", *mid);
    mid_.value = *mid;
}

std::string ZUBDeviceIDDal::getLocalIDFA() {
    std::lock_guard lock(localIDFA_.mutex);
    if (!localIDFA_.value) localIDFA_.value = loadEntry("zubidfa", "idfa").value_or("");
    return *localIDFA_.value;
}

std::string ZUBDeviceIDDal::getOpenIDFA() {
    std::lock_guard lock(openIDFA_.mutex);
    if (!openIDFA_.value) openIDFA_.value = ZUBProTempUDID::getTempUDID();
    return *openIDFA_.value;
}

std::optional<std::string> ZUBDeviceIDDal::getRVToken() {
    std::lock_guard lock(rvToken_.mutex);
    if (!rvToken_.value) rvToken_.value = ZUBProStore::getInstance().getStringForKey("LastAccessID");
    return rvToken_.value;
}

std::optional<std::string> ZUBDeviceIDDal::get(const Field& f) {
    std::lock_guard lock(f.mutex);
    return f.value;
}

void ZUBDeviceIDDal::set(Field& f, const std::optional<std::string>& v) {
    std::lock_guard lock(f.mutex);
    f.value = v;
}

std::optional<std::string> ZUBDeviceIDDal::idfv() const { return get(idfv_); }
void ZUBDeviceIDDal::setIdfv(const std::optional<std::string>& v) { set(idfv_, v); }
std::optional<std::string> ZUBDeviceIDDal::openUDID() const { return get(openUDID_); }
void ZUBDeviceIDDal::setOpenUDID(const std::optional<std::string>& v) { set(openUDID_, v); }
std::optional<std::string> ZUBDeviceIDDal::mid() const { return get(mid_); }
void ZUBDeviceIDDal::setMid(const std::optional<std::string>& v) { set(mid_, v); }
std::optional<std::string> ZUBDeviceIDDal::localIDFA() const { return get(localIDFA_); }
void ZUBDeviceIDDal::setLocalIDFA(const std::optional<std::string>& v) { set(localIDFA_, v); }
std::optional<std::string> ZUBDeviceIDDal::openIDFA() const { return get(openIDFA_); }
void ZUBDeviceIDDal::setOpenIDFA(const std::optional<std::string>& v) { set(openIDFA_, v); }
std::optional<std::string> ZUBDeviceIDDal::rvToken() const { return get(rvToken_); }
void ZUBDeviceIDDal::setRvToken(const std::optional<std::string>& v) { set(rvToken_, v); }
