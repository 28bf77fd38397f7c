// Keyed archiving: objects write their fields by key into a Coder, the archive
// is a tree of keyed containers each tagged with its class name, written as CBOR
// bytes; unarchiving looks the class names up in a registry and rebuilds the
// objects through their restoring constructors.
//
// What can be archived
//   - one Archivable object (the root of a record such as a user record);
//   - a dictionary string -> Archivable object (the event store archives its
//     md5 -> event dictionaries);
//   - a plain zub::Value (property-list values, e.g. a dictionary of strings,
//     numbers and dates).
// Inside an object, each key holds one field: a plain value, an integer, a
// boolean, a double, a nested Archivable object, or a dictionary or array of
// Archivable objects.
//
// The contract for an archivable class (and for a subclass of one, e.g. an event
// class a plug-in adds):
//   1. Derive from zub::Archivable (directly or through a base class).
//   2. Override className() to return a name unique in the process, e.g.
//      "ZUBPageEvent". It is written into the archive and must stay stable across
//      versions, since archives outlive processes. (A subclass registered with
//      registerType that forgets this is archived under its registered name,
//      with a warning in the debug log.)
//   3. Override encodeWithCoder(Coder&) const: call the base class's
//      encodeWithCoder first, then encode the class's own fields.
//   4. Provide a way to restore: a constructor `T(const zub::Coder&)` that first
//      calls the base class's restoring constructor and then decodes its own
//      fields (or a static `std::shared_ptr<T> initWithCoder(const zub::Coder&)`,
//      or a default constructor plus a member `initWithCoder(const zub::Coder&)`
//      returning void or bool).
//   5. Register the name once before anything is unarchived:
//        ZUB_REGISTER_ARCHIVABLE(ZUBPageEvent);        // in the class's .cpp, or
//        zub::ArchiveRegistry::registerType<ZUBPageEvent>("ZUBPageEvent");
//      Note for code in a static library: the linker drops object files nothing
//      refers to, and with them their static registrations. Classes of the library
//      itself should therefore also be registered by an explicit call (made once,
//      e.g. under std::call_once, by the component that unarchives them).
//   A restoring constructor may call coder.failWithReason(...) to reject a record;
//   an exception thrown from it does the same.
//
// Decoding rules (never a crash, never an exception to the caller):
//   - bytes that are not an archive (garbage, truncated, another format), a root
//     of an unregistered class, a field of the wrong kind (an object where a plain
//     value is read, a string where an integer is read, ...) or a failed nested
//     object: the whole object decodes to nothing, and the reason is logged through
//     the debug log;
//   - numbers convert among integer, boolean and double when read (a double read
//     as an integer saturates; NaN reads as 0);
//   - an absent key reads as std::nullopt, 0, false or 0.0;
//   - in a dictionary at the root of an archive, an entry that cannot be decoded
//     (e.g. its class is not registered in this process) is dropped alone and
//     logged; the other entries are kept.
//
// All functions are thread-safe (the registry is locked; archiving works on
// caller-owned data) and re-entrant: a restoring constructor may itself archive.
#pragma once

#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBValue.h>

#include <concepts>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

namespace zub {

class Coder;
struct PackedFields;

/// Base of every class whose instances can be archived.
class ZUB_EXPORT Archivable {
public:
    virtual ~Archivable() = default;
    /// The name under which the class is registered and archived.
    virtual std::string className() const = 0;
    /// Writes the object's fields (base class first).
    virtual void encodeWithCoder(Coder& coder) const = 0;
};

/// A dictionary of objects in the order its entries were archived (archives keep
/// the order in which a dictionary was walked when it was written).
using ArchivableDictionary = std::vector<std::pair<std::string, std::shared_ptr<Archivable>>>;
using ArchivableArray = std::vector<std::shared_ptr<Archivable>>;

/// A string-keyed map whose values point to Archivable objects
/// (std::map<std::string, std::shared_ptr<Event>>, unordered_map, ...).
template <class M>
concept ArchivableMap = requires(const M& m) {
    { m.begin()->first } -> std::convertible_to<std::string_view>;
    { &*m.begin()->second } -> std::convertible_to<const Archivable*>;
    static_cast<bool>(m.begin()->second);
};

/// A sequence of pointers to Archivable objects.
template <class S>
concept ArchivableSequence = requires(const S& s) {
    { &**s.begin() } -> std::convertible_to<const Archivable*>;
    static_cast<bool>(*s.begin());
};

/// Writes fields of one object into an archive, or reads them back. An object's
/// encodeWithCoder receives an encoding coder; its restoring constructor a
/// decoding one. Coders are made by the archiver only.
class ZUB_EXPORT Coder {
public:
    Coder(const Coder&) = delete;
    Coder& operator=(const Coder&) = delete;

    bool isDecoding() const { return decoding_; }

    // ---- encoding (key order is kept) --------------------------------------
    /// A plain value (string, number, boolean, data, dictionary, array, null).
    void encodeObject(const Value& object, const std::string& key);
    /// A string, or nothing for std::nullopt (the key is then absent).
    void encodeString(const std::optional<std::string>& string, const std::string& key);
    void encodeInt64(std::int64_t value, const std::string& key);
    /// Stored as an integer; reads back with decodeUInt64ForKey (or, for values up
    /// to INT64_MAX, decodeInt64ForKey).
    void encodeUInt64(std::uint64_t value, const std::string& key);
    void encodeBool(bool value, const std::string& key);
    void encodeDouble(double value, const std::string& key);
    /// A nested archivable object.
    void encodeArchivable(const Archivable& object, const std::string& key);
    /// A nested archivable object; a null pointer encodes nothing.
    void encodeArchivable(const std::shared_ptr<const Archivable>& object, const std::string& key);
    /// A dictionary of archivable objects; null entries are left out.
    template <ArchivableMap M>
    void encodeArchivableDictionary(const M& dictionary, const std::string& key) {
        std::vector<std::pair<std::string, const Archivable*>> entries;
        for (const auto& entry : dictionary) {
            entries.emplace_back(std::string(entry.first), entry.second ? &*entry.second : nullptr);
        }
        encodeDictionaryEntries(entries, key);
    }
    /// An array of archivable objects; null entries are left out.
    template <ArchivableSequence S>
    void encodeArchivableArray(const S& array, const std::string& key) {
        std::vector<const Archivable*> items;
        for (const auto& item : array) items.push_back(item ? &*item : nullptr);
        encodeArrayItems(items, key);
    }

    // ---- decoding -----------------------------------------------------------
    /// Name of the class being restored.
    const std::string& decodingClassName() const { return className_; }
    bool containsValueForKey(const std::string& key) const;
    /// The plain value under `key`; std::nullopt when absent or null. A number
    /// stored with encodeInt64/Bool/Double comes back as a number value.
    std::optional<Value> decodeObjectForKey(const std::string& key) const;
    /// The string under `key`; std::nullopt when absent or null; another kind of
    /// value is a wrong type.
    std::optional<std::string> decodeStringForKey(const std::string& key) const;
    std::int64_t decodeInt64ForKey(const std::string& key) const;
    std::uint64_t decodeUInt64ForKey(const std::string& key) const;
    bool decodeBoolForKey(const std::string& key) const;
    double decodeDoubleForKey(const std::string& key) const;
    /// The nested object under `key`; nullptr when absent (or on failure, which
    /// also fails the object being decoded).
    std::shared_ptr<Archivable> decodeArchivableForKey(const std::string& key) const;
    /// Same, requiring class T (another class is a wrong type).
    template <class T>
    std::shared_ptr<T> decodeArchivableForKey(const std::string& key) const {
        auto object = decodeArchivableForKey(key);
        if (!object) return nullptr;
        auto typed = std::dynamic_pointer_cast<T>(object);
        if (!typed) failWithReason("object under \"" + key + "\" has an unexpected class");
        return typed;
    }
    /// The dictionary of objects under `key`; std::nullopt when absent or on
    /// failure (any entry failing fails the object being decoded).
    std::optional<ArchivableDictionary> decodeArchivableDictionaryForKey(const std::string& key) const;
    template <class T>
    std::optional<std::map<std::string, std::shared_ptr<T>>> decodeArchivableDictionaryForKey(
        const std::string& key) const {
        auto dictionary = decodeArchivableDictionaryForKey(key);
        if (!dictionary) return std::nullopt;
        std::map<std::string, std::shared_ptr<T>> out;
        for (auto& [k, v] : *dictionary) {
            auto typed = std::dynamic_pointer_cast<T>(v);
            if (!typed) {
                failWithReason("entry \"" + k + "\" under \"" + key + "\" has an unexpected class");
                return std::nullopt;
            }
            out.emplace(k, std::move(typed));
        }
        return out;
    }
    /// The array of objects under `key`; std::nullopt when absent or on failure.
    std::optional<ArchivableArray> decodeArchivableArrayForKey(const std::string& key) const;

    /// Marks the object being decoded (or encoded) as unusable: it then decodes to
    /// nothing (or the archive is not produced). The first reason is kept.
    void failWithReason(const std::string& reason) const;
    bool failed() const { return failed_; }
    const std::string& failureReason() const { return reason_; }

private:
    friend struct ArchiveAccess;
    friend struct PackedAccess;
    Coder(bool decoding, Value* out, const Value* in, std::string className, int depth)
        : decoding_(decoding), out_(out), in_(in), className_(std::move(className)), depth_(depth) {}
    // A coder of the packed form, the library's compact record of one object.
    Coder(Data* packedOut, const PackedFields* packedIn, std::string className)
        : decoding_(packedIn != nullptr),
          out_(nullptr),
          in_(nullptr),
          className_(std::move(className)),
          depth_(0),
          packedOut_(packedOut),
          packedIn_(packedIn) {}

    void encodeDictionaryEntries(const std::vector<std::pair<std::string, const Archivable*>>& entries,
                                 const std::string& key);
    void encodeArrayItems(const std::vector<const Archivable*>& items, const std::string& key);
    void put(const std::string& key, const char* kind, Value payload);
    const Value* field(const std::string& key, std::string& kind) const;
    bool encodingAllowed(const std::string& key) const;
    bool refusePacked(const std::string& key) const;

    const bool decoding_;
    Value* const out_;       // encoding: the fields object being built
    const Value* const in_;  // decoding: the fields object being read
    const std::string className_;
    const int depth_;
    Data* const packedOut_ = nullptr;               // encoding into the packed form
    const PackedFields* const packedIn_ = nullptr;  // decoding from the packed form
    mutable bool failed_ = false;
    mutable std::string reason_;
};

/// Makes an object of a registered class from a decoding coder; nullptr (or an
/// exception) means the record cannot be restored.
using ArchiveFactory = std::function<std::shared_ptr<Archivable>(const Coder&)>;

class ZUB_EXPORT ArchiveRegistry {
public:
    /// Registers (or replaces) the factory for a class name.
    static void registerClass(const std::string& className, ArchiveFactory factory);
    /// Registers class T under `className`, restoring through (in this order of
    /// preference) a static T::initWithCoder(const Coder&), a constructor
    /// T(const Coder&), or a default constructor plus a member initWithCoder.
    /// Returns true, so that it can initialise a static.
    template <class T>
    static bool registerType(const std::string& className) {
        static_assert(std::is_base_of_v<Archivable, T>, "archivable classes derive from zub::Archivable");
        ArchiveFactory factory = [](const Coder& coder) -> std::shared_ptr<Archivable> {
            if constexpr (requires { { T::initWithCoder(coder) } -> std::convertible_to<std::shared_ptr<T>>; }) {
                return T::initWithCoder(coder);
            } else if constexpr (std::is_constructible_v<T, const Coder&>) {
                return std::make_shared<T>(coder);
            } else {
                static_assert(std::is_default_constructible_v<T>,
                              "an archivable class needs T(const zub::Coder&) or initWithCoder");
                auto object = std::make_shared<T>();
                if constexpr (std::is_same_v<decltype(object->initWithCoder(coder)), bool>) {
                    if (!object->initWithCoder(coder)) return nullptr;
                } else {
                    object->initWithCoder(coder);
                }
                return object;
            }
        };
        registerClass(className, std::move(factory));
        registerTypeName(std::type_index(typeid(T)), className);
        return true;
    }
    static bool isRegistered(const std::string& className);
    /// The factory for a name; an empty function when the name is unknown.
    static ArchiveFactory factoryFor(const std::string& className);
    /// The name a class was first registered under through registerType, if any.
    static std::optional<std::string> nameForType(std::type_index type);
    /// When an object reports `className` but that name was registered for
    /// another type and the object's own type was registered under a name of its
    /// own (a subclass that did not override className()): that own name.
    static std::optional<std::string> renameFor(const std::string& className, std::type_index dynamicType);

private:
    static void registerTypeName(std::type_index type, const std::string& className);
};

/// Registers class `Class` under its own (unqualified) identifier as the archive
/// name, at static-initialisation time; put it in a .cpp at namespace scope.
#define ZUB_REGISTER_ARCHIVABLE(Class)                                                    \
    namespace {                                                                            \
    [[maybe_unused]] const bool zubArchivableRegistered_##Class =                          \
        ::zub::ArchiveRegistry::registerType<Class>(#Class);                               \
    }

/// What an archive's root held.
using ArchiveRoot = std::variant<std::shared_ptr<Archivable>, ArchivableDictionary, Value>;

class ZUB_EXPORT KeyedArchiver {
public:
    /// The archive of one object; empty Data (logged) if it cannot be archived
    /// (an encodeWithCoder that throws or fails, nesting deeper than 64 objects).
    static Data archivedDataWithRootObject(const Archivable& root);
    /// Same for an object held by pointer; a null pointer gives empty Data.
    template <class T>
        requires std::derived_from<T, Archivable>
    static Data archivedDataWithRootObject(const std::shared_ptr<T>& root) {
        if (!root) return nullData();
        return archivedDataWithRootObject(static_cast<const Archivable&>(*root));
    }
    /// The archive of a dictionary of objects (null entries are left out).
    template <ArchivableMap M>
    static Data archivedDataWithRootObject(const M& dictionary) {
        std::vector<std::pair<std::string, const Archivable*>> entries;
        for (const auto& entry : dictionary) {
            entries.emplace_back(std::string(entry.first), entry.second ? &*entry.second : nullptr);
        }
        return archiveDictionary(entries);
    }
    /// The archive of a plain value.
    static Data archivedDataWithRootObject(const Value& plain);

private:
    static Data nullData();
    static Data archiveDictionary(const std::vector<std::pair<std::string, const Archivable*>>& entries);
};

class ZUB_EXPORT KeyedUnarchiver {
public:
    /// Whatever the archive's root held; std::nullopt (logged) when the bytes are
    /// not a readable archive or its root object cannot be restored.
    static std::optional<ArchiveRoot> unarchiveObjectWithData(const Data& data);
    /// The root object if it is of class T (or derived from it); nullptr otherwise.
    template <class T>
    static std::shared_ptr<T> unarchiveObjectWithData(const Data& data) {
        auto root = unarchiveObjectWithData(data);
        if (!root) return nullptr;
        auto* object = std::get_if<std::shared_ptr<Archivable>>(&*root);
        if (object == nullptr) {
            logFailure("root is not an object");
            return nullptr;
        }
        auto typed = std::dynamic_pointer_cast<T>(*object);
        if (!typed) logFailure("root object has an unexpected class");
        return typed;
    }
    /// The root dictionary with the entries of class T (others dropped, logged);
    /// std::nullopt when the root is not a dictionary of objects.
    template <class T>
    static std::optional<std::map<std::string, std::shared_ptr<T>>> unarchiveDictionaryWithData(const Data& data) {
        auto ordered = unarchiveOrderedDictionaryWithData<T>(data);
        if (!ordered) return std::nullopt;
        return std::map<std::string, std::shared_ptr<T>>(std::make_move_iterator(ordered->begin()),
                                                         std::make_move_iterator(ordered->end()));
    }
    /// Same, in archive order, as (key, object) pairs.
    template <class T>
    static std::optional<std::vector<std::pair<std::string, std::shared_ptr<T>>>> unarchiveOrderedDictionaryWithData(
        const Data& data) {
        auto root = unarchiveObjectWithData(data);
        if (!root) return std::nullopt;
        auto* dictionary = std::get_if<ArchivableDictionary>(&*root);
        if (dictionary == nullptr) {
            logFailure("root is not a dictionary of objects");
            return std::nullopt;
        }
        std::vector<std::pair<std::string, std::shared_ptr<T>>> out;
        out.reserve(dictionary->size());
        for (auto& [key, object] : *dictionary) {
            if (auto typed = std::dynamic_pointer_cast<T>(object)) {
                out.emplace_back(key, std::move(typed));
            } else {
                logFailure("entry " + key + " has an unexpected class and is dropped");
            }
        }
        return out;
    }
    /// The root plain value; std::nullopt when the root is not a plain value.
    static std::optional<Value> unarchiveValueWithData(const Data& data);

    static void logFailure(const std::string& reason);
};

}  // namespace zub
