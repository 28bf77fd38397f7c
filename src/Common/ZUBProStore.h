// ZUBProStore: the one place where the library keeps small persistent values:
// device identifiers, the last send time, the archived user record and online
// configuration. Every value lives in the application's standard user defaults
// (zub::UserDefaults::standard()), under the key given, with no prefix.
//
// The "keychain" operations take the same road: they compose the name
// "<company domain>.<key>" (company domain = ZUBProHelper::getCompanyDomain(),
// the bundle identifier without its last piece) and store the dictionary in the
// user defaults under it. getKeychainQuery builds a query dictionary but no
// storage path uses it. An entry is therefore shared only by applications that
// share both the company domain and the user defaults.
//
// getLogfilePath hands out paths in "<documents>/.ZUB" (directory mode 0700),
// where <documents> is the application's own documents directory
// (zub::Paths::documents(): one per bundle identifier), so two applications of
// one user never read or replace each other's saved events.
//
// Values are zub::Value property-list values; archived bytes are stored as the
// binary type (zub::Value::binary(data)) and come back that way from
// getNSDataForKey (test is_binary(), then get_binary()).
//
// The store keeps no state of its own; the user defaults are thread-safe, so
// every operation may be called from any thread. No operation reports an error
// or throws: a missing entry gives std::nullopt, false or 0.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <optional>
#include <string>

class ZUBProStore {
public:
    /// The shared instance, created once, never destroyed.
    static ZUBProStore& getInstance();

    /// "<documents>/.ZUB" + "/" + name, by plain concatenation (a name starting
    /// with "/" gives a doubled separator). Creates the directory (and missing
    /// parents, mode 0700) when nothing exists at that path; a failure to create
    /// it is ignored (the caller's later write fails instead).
    std::string getLogfilePath(const std::string& name);

    /// Stores `dict` under "<company domain>.<key>" (through save()).
    void saveToKeyChain(const std::string& key, const zub::Value& dict);
    /// The object under "<company domain>.<key>", or std::nullopt.
    std::optional<zub::Value> loadFromKeyChain(const std::string& key);
    /// A keychain query: {"kSecClass": "kSecClassGenericPassword",
    /// "kSecAttrService": service, "kSecAttrAccount": service,
    /// "kSecAttrAccessible": "kSecAttrAccessibleAfterFirstUnlock"}.
    zub::Value getKeychainQuery(const std::string& service);

    /// Sets the object for the key, then synchronises the defaults. A null object
    /// removes the key.
    void save(const std::string& key, const zub::Value& data);
    /// The object for the key, or std::nullopt.
    std::optional<zub::Value> load(const std::string& key);
    /// The platform's `delete:` (a C++ keyword, hence the name): overwrites the
    /// key with the empty string "" (the key stays) and does not synchronise.
    void deleteKey(const std::string& key);

    /// With both an object (not null) and a key: sets, synchronises and returns
    /// true; otherwise changes nothing and returns false.
    bool setObject(const std::optional<zub::Value>& object, const std::optional<std::string>& key);
    /// The object for the key as it is stored (no type check), or std::nullopt.
    std::optional<zub::Value> getNSDataForKey(const std::string& key);
    /// The string for the key; a stored number gives its text; std::nullopt for
    /// anything else or an unset key.
    std::optional<std::string> getStringForKey(const std::string& key);
    /// With a key: stores the boolean, synchronises, returns true; else false.
    bool setBool(bool value, const std::optional<std::string>& key);
    /// The stored boolean; false when absent.
    bool getBoolForKey(const std::string& key);
    /// With a key: stores the integer, synchronises, returns true; else false.
    bool setInt(std::int64_t value, const std::optional<std::string>& key);
    /// The stored integer; 0 when absent.
    std::int64_t getIntForKey(const std::string& key);

private:
    ZUBProStore() = default;
    static std::string keychainName(const std::string& key);
};
