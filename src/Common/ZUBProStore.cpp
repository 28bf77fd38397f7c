#include "Common/ZUBProStore.h"

#include "Common/ZUBProHelper.h"
#include "Platform/AtomicFile.h"
#include "Platform/Paths.h"
#include "Platform/UserDefaults.h"

#include <sys/stat.h>

ZUBProStore& ZUBProStore::getInstance() {
    static ZUBProStore* instance = new ZUBProStore();  // never destroyed
    return *instance;
}

std::string ZUBProStore::keychainName(const std::string& key) {
    return ZUBProHelper::getCompanyDomain() + "." + key;
}

std::string ZUBProStore::getLogfilePath(const std::string& name) {
    const std::string directory = zub::Paths::documents() + "/.ZUB";
    struct stat st {};
    if (::stat(directory.c_str(), &st) != 0) {
        int error = 0;
        if (!zub::AtomicFile::createDirectories(directory, 0700, &error)) {
            ZUBProHelper::LogDebug("log file directory %@ not created (%@)", directory, error);
        }
    }
    return directory + "/" + name;
}

void ZUBProStore::saveToKeyChain(const std::string& key, const zub::Value& dict) {
    save(keychainName(key), dict);
}

std::optional<zub::Value> ZUBProStore::loadFromKeyChain(const std::string& key) {
    return load(keychainName(key));
}

zub::Value ZUBProStore::getKeychainQuery(const std::string& service) {
    zub::Value query = zub::Value::object();
    query["kSecClass"] = "kSecClassGenericPassword";
    query["kSecAttrService"] = service;
    query["kSecAttrAccount"] = service;
    query["kSecAttrAccessible"] = "kSecAttrAccessibleAfterFirstUnlock";
    return query;
}

void ZUBProStore::save(const std::string& key, const zub::Value& data) {
    auto& defaults = zub::UserDefaults::standard();
    defaults.setObject(key, data);
    defaults.synchronize();
}

std::optional<zub::Value> ZUBProStore::load(const std::string& key) {
    return zub::UserDefaults::standard().objectForKey(key);
}

void ZUBProStore::deleteKey(const std::string& key) {
    zub::UserDefaults::standard().setObject(key, "");
}

bool ZUBProStore::setObject(const std::optional<zub::Value>& object, const std::optional<std::string>& key) {
    if (!object || object->is_null() || !key) return false;
    save(*key, *object);
    return true;
}

std::optional<zub::Value> ZUBProStore::getNSDataForKey(const std::string& key) {
    return load(key);
}

std::optional<std::string> ZUBProStore::getStringForKey(const std::string& key) {
    return zub::UserDefaults::standard().stringForKey(key);
}

bool ZUBProStore::setBool(bool value, const std::optional<std::string>& key) {
    if (!key) return false;
    save(*key, value);
    return true;
}

bool ZUBProStore::getBoolForKey(const std::string& key) {
    return zub::UserDefaults::standard().boolForKey(key);
}

bool ZUBProStore::setInt(std::int64_t value, const std::optional<std::string>& key) {
    if (!key) return false;
    save(*key, value);
    return true;
}

std::int64_t ZUBProStore::getIntForKey(const std::string& key) {
    return zub::UserDefaults::standard().integerForKey(key);
}
