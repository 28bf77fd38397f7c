#include "Platform/UserDefaults.h"

#include "Common/ZUBProHelper.h"
#include "Platform/AtomicFile.h"
#include "Platform/Bundle.h"
#include "Platform/Cbor.h"
#include "Platform/Paths.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <set>
#include <sys/file.h>
#include <unistd.h>

namespace zub {
namespace {

constexpr unsigned kFileMode = 0600;
constexpr unsigned kDirMode = 0700;

// Every live instance, so that pending changes can be written at process exit.
struct Registry {
    std::mutex mutex;  // guards live
    std::set<UserDefaults*> live;
    std::mutex standardMutex;  // guards standardByIdentifier; taken before `mutex`
    std::map<std::string, UserDefaults*> standardByIdentifier;
};

Registry& registry() {
    static auto* r = new Registry();  // never destroyed: used from the exit handler
    return *r;
}

void registerInstance(UserDefaults* d) {
    static std::once_flag exitHook;
    std::call_once(exitHook, [] { std::atexit(&UserDefaults::synchronizeAll); });
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.live.insert(d);
}

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string numberText(const Value& v) {
    if (v.is_boolean()) return v.get<bool>() ? "1" : "0";
    if (v.is_number_unsigned()) return std::to_string(v.get<std::uint64_t>());
    if (v.is_number_integer()) return std::to_string(v.get<std::int64_t>());
    const double d = v.get<double>();
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
    if (result.ec != std::errc()) return "0";
    return std::string(buffer, result.ptr);
}

std::int64_t saturatingInteger(double d) {
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
    if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(d);
}

std::int64_t leadingInteger(const std::string& s) {
    errno = 0;
    const long long n = std::strtoll(s.c_str(), nullptr, 10);  // saturates on overflow
    return static_cast<std::int64_t>(n);
}

bool equalsIgnoringCase(const std::string& a, const char* b) {
    return strcasecmp(a.c_str(), b) == 0;
}

// Holds an advisory lock on "<file>.lock" for the duration of a merge-and-write.
class FileLock {
public:
    explicit FileLock(const std::string& path) {
        fd_ = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
        if (fd_ < 0) return;
        while (::flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) break;
        }
    }
    ~FileLock() {
        if (fd_ >= 0) ::close(fd_);  // closing releases the lock
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int fd_ = -1;
};

}  // namespace

UserDefaults& UserDefaults::standard() {
    const std::string identifier = Bundle::identifier().value_or("");
    Registry& r = registry();
    std::lock_guard lock(r.standardMutex);
    auto it = r.standardByIdentifier.find(identifier);
    if (it == r.standardByIdentifier.end()) {
        // Never destroyed: other threads may still use it while the process exits.
        auto* created = new UserDefaults(Paths::configHome() + "/ZUBCocoa/" + fileNameForIdentifier(identifier));
        it = r.standardByIdentifier.emplace(identifier, created).first;
    }
    return *it->second;
}

UserDefaults::UserDefaults(std::string path) : path_(std::move(path)) {
    registerInstance(this);
}

UserDefaults::~UserDefaults() {
    {
        Registry& r = registry();
        std::lock_guard lock(r.mutex);
        r.live.erase(this);
    }
    std::lock_guard lock(mutex_);
    if (!pending_.empty()) synchronizeLocked();
}

void UserDefaults::synchronizeAll() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (UserDefaults* d : r.live) {
        std::lock_guard instanceLock(d->mutex_);
        if (!d->pending_.empty()) d->synchronizeLocked();
    }
}

std::string UserDefaults::fileNameForIdentifier(const std::string& bundleIdentifier) {
    return Paths::encodeComponent(bundleIdentifier) + ".defaults";
}

std::optional<Value> UserDefaults::parseFileContents(const Data& bytes) {
    auto value = Cbor::decode(bytes);
    if (!value || !value->is_object()) return std::nullopt;
    return value;
}

Data UserDefaults::serializeFileContents(const Value& dictionary) {
    return Cbor::encode(dictionary);
}

std::optional<Value> UserDefaults::readFileDictionary() {
    int error = 0;
    auto bytes = AtomicFile::read(path_, &error);
    if (!bytes) {
        if (error == ENOENT) return Value::object();
        // The file may hold every identifier of the application: what cannot be
        // read now is not known to be empty, and must not be replaced by less.
        ZUBProHelper::LogDebug("[WARN] user defaults %@ unreadable (%@)", path_, std::string(std::strerror(error)));
        return std::nullopt;
    }
    auto dictionary = parseFileContents(*bytes);
    if (!dictionary) {
        ZUBProHelper::LogDebug("[WARN] user defaults %@ damaged (%@ bytes), treated as empty", path_,
                               bytes->size());
        return Value::object();
    }
    return dictionary;
}

void UserDefaults::loadLocked() {
    if (loaded_) return;
    // On a read error the cache holds only this process's changes, and the next
    // access tries the file again.
    auto fromFile = readFileDictionary();
    cache_ = fromFile ? std::move(*fromFile) : Value::object();
    for (const auto& [key, change] : pending_) {
        if (change) cache_[key] = *change;
        else cache_.erase(key);
    }
    loaded_ = fromFile.has_value();
}

std::optional<Value> UserDefaults::objectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    loadLocked();
    auto it = cache_.find(key);
    if (it == cache_.end()) return std::nullopt;
    return *it;
}

void UserDefaults::setObject(const std::string& key, Value value) {
    if (value.is_null()) {
        removeObject(key);
        return;
    }
    std::lock_guard lock(mutex_);
    loadLocked();
    cache_[key] = value;
    pending_[key] = std::move(value);
}

void UserDefaults::removeObject(const std::string& key) {
    std::lock_guard lock(mutex_);
    loadLocked();
    cache_.erase(key);
    pending_[key] = std::nullopt;
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v) return std::nullopt;
    if (v->is_string()) return v->get<std::string>();
    if (v->is_number() || v->is_boolean()) return numberText(*v);
    return std::nullopt;
}

bool UserDefaults::boolForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v) return false;
    if (v->is_boolean()) return v->get<bool>();
    if (v->is_number_integer()) return v->get<std::int64_t>() != 0;
    if (v->is_number_float()) return v->get<double>() != 0.0;
    if (v->is_string()) {
        const auto& s = v->get_ref<const std::string&>();
        if (equalsIgnoringCase(s, "yes") || equalsIgnoringCase(s, "true")) return true;
        return leadingInteger(s) != 0;
    }
    return false;
}

std::int64_t UserDefaults::integerForKey(const std::string& key) {
    auto v = objectForKey(key);
    if (!v) return 0;
    if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
    if (v->is_number_unsigned()) {
        const auto u = v->get<std::uint64_t>();
        return u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                   ? std::numeric_limits<std::int64_t>::max()
                   : static_cast<std::int64_t>(u);
    }
    if (v->is_number_integer()) return v->get<std::int64_t>();
    if (v->is_number_float()) return saturatingInteger(v->get<double>());
    if (v->is_string()) return leadingInteger(v->get_ref<const std::string&>());
    return 0;
}

Value UserDefaults::dictionaryRepresentation() {
    std::lock_guard lock(mutex_);
    loadLocked();
    return cache_;
}

bool UserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    return synchronizeLocked();
}

bool UserDefaults::synchronizeLocked() {
    if (pending_.empty()) {
        auto fromFile = readFileDictionary();
        if (!fromFile) return false;  // the cache stays as it was
        cache_ = std::move(*fromFile);
        loaded_ = true;
        return true;
    }
    int error = 0;
    if (!AtomicFile::createDirectories(parentOf(path_), kDirMode, &error)) {
        ZUBProHelper::LogDebug("[ERROR] user defaults directory for %@ not created (%@)", path_,
                               std::string(std::strerror(error)));
        return false;
    }
    FileLock fileLock(path_);
    auto merged = readFileDictionary();
    if (!merged) {
        ZUBProHelper::LogDebug("[ERROR] user defaults %@ not written: changes kept for the next synchronize", path_);
        return false;
    }
    for (const auto& [key, change] : pending_) {
        if (change) (*merged)[key] = *change;
        else merged->erase(key);
    }
    const Data bytes = serializeFileContents(*merged);
    if (bytes.empty() || !AtomicFile::write(path_, bytes, kFileMode, &error)) {
        ZUBProHelper::LogDebug("[ERROR] user defaults %@ not written (%@)", path_,
                               std::string(bytes.empty() ? "encoding failed" : std::strerror(error)));
        return false;
    }
    cache_ = std::move(*merged);
    loaded_ = true;
    pending_.clear();
    return true;
}

}  // namespace zub
