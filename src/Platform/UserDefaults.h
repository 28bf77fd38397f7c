// Per-application preferences, the stand-in for the platform's standard user
// defaults.
//
// Storage: one file per application, <configHome>/ZUBCocoa/<bundle id>.defaults,
// holding the CBOR encoding of one dictionary (a zub::Value object), mode 0600,
// in a directory of mode 0700. Two applications (different bundle identifiers)
// of the same user never see each other's entries.
//
// In memory: the dictionary is read on first use and then served from a cache.
// Changes are applied to the cache at once and written by synchronize(), which
// merges them key by key into the file's current content under an advisory lock
// (so two processes of one application that change different keys both keep
// their changes) and replaces the file atomically (AtomicFile). Changes not yet
// synchronised are also written when the process exits normally; a crash loses
// only them, never the file.
//
// A file that reads but does not decode is treated as empty (and logged through
// the debug log); the next synchronize() replaces it. A file that cannot be read
// (EIO, EACCES, EMFILE... anything but a missing file) is never taken for empty:
// synchronize() then writes nothing and keeps the changes pending, and until a
// read succeeds the cache holds only this process's changes and every access
// tries the file again. Every operation is thread-safe and never throws.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace zub {

class UserDefaults {
public:
    /// The defaults of the application named by the current bundle identifier
    /// (zub::Bundle). One instance per identifier, created on first use and never
    /// destroyed; if the host changes its identifier, later calls return the
    /// instance of the new one.
    static UserDefaults& standard();

    /// Defaults kept in the file at `path` (its directory is created on the first
    /// write). For tools and tests; the library itself uses standard().
    explicit UserDefaults(std::string path);
    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::string& path() const { return path_; }

    /// The value under `key`; std::nullopt when the key is unset.
    std::optional<Value> objectForKey(const std::string& key);
    /// Sets `key` to `value`; a null value removes the key.
    void setObject(const std::string& key, Value value);
    void removeObject(const std::string& key);

    /// A string value as it is; a number as its text ("42", "1.5", a boolean
    /// "1"/"0"); std::nullopt for anything else.
    std::optional<std::string> stringForKey(const std::string& key);
    /// A boolean; a number is true when non-zero; a string is true for "YES",
    /// "true" (any case) or a non-zero leading integer; false otherwise.
    bool boolForKey(const std::string& key);
    /// An integer; a floating value is truncated (saturating at the 64-bit
    /// range, NaN is 0); a boolean is 0/1; a string gives its leading integer;
    /// 0 otherwise.
    std::int64_t integerForKey(const std::string& key);

    /// All entries (a copy of the cache).
    Value dictionaryRepresentation();

    /// Writes the pending changes (merged into the file's current content) and
    /// refreshes the cache from the result. Without pending changes it only
    /// re-reads the file. False when the file could not be read or written (the
    /// changes stay pending for the next call, the file is untouched).
    bool synchronize();

    /// Decodes the content of a defaults file: the dictionary, or std::nullopt
    /// when the bytes are not a CBOR-encoded dictionary. Used by the loader and by
    /// the fuzz target; never throws.
    static std::optional<Value> parseFileContents(const Data& bytes);
    /// The file content for a dictionary.
    static Data serializeFileContents(const Value& dictionary);

    /// The file name an application's defaults use: the identifier as one path
    /// component (Paths::encodeComponent) + ".defaults".
    static std::string fileNameForIdentifier(const std::string& bundleIdentifier);

    /// Writes pending changes of every instance (run at normal process exit).
    static void synchronizeAll();

private:
    void loadLocked();
    // The file's dictionary: empty when it is missing or damaged, std::nullopt
    // when it cannot be read (logged).
    std::optional<Value> readFileDictionary();
    bool synchronizeLocked();

    const std::string path_;
    std::mutex mutex_;
    bool loaded_ = false;                                  // guarded by mutex_
    Value cache_ = Value::object();                        // guarded by mutex_
    std::map<std::string, std::optional<Value>> pending_;  // guarded by mutex_; nullopt = removal
};

}  // namespace zub
