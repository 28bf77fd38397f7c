#include "Platform/KeyedArchiver.h"

#include "Common/ZUBProHelper.h"
#include "Platform/Cbor.h"
#include "Platform/PackedArchive.h"

#include <cmath>
#include <limits>
#include <mutex>
#include <unordered_map>

// Archive layout (CBOR):
//   {"$archiver": "ZUBKeyedArchiver", "$version": 1, "$top": FIELD}
//   FIELD  = [KIND, PAYLOAD], KIND one of
//            "i" integer, "b" boolean, "d" double, "v" plain value,
//            "o" OBJECT, "D" {key: OBJECT, ...}, "A" [OBJECT, ...]
//   OBJECT = {"$class": name, "$fields": {key: FIELD, ...}}

namespace zub {

namespace {

constexpr const char* kArchiverName = "ZUBKeyedArchiver";
constexpr int kArchiveVersion = 1;
constexpr int kMaxObjectDepth = 64;

struct RegistryState {
    std::mutex mutex;
    std::unordered_map<std::string, ArchiveFactory> factories;
    std::unordered_map<std::type_index, std::string> names;        // first name a type was registered under
    std::unordered_map<std::string, std::type_index> typeOfName;  // type behind a registerType name
};

RegistryState& registryState() {
    static auto* s = new RegistryState();  // never destroyed
    return *s;
}

std::int64_t saturatingInteger(double d) {
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
    if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(d);
}

std::uint64_t saturatingUnsigned(double d) {
    if (std::isnan(d) || d <= 0.0) return 0;
    if (d >= 18446744073709551615.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(d);
}

}  // namespace

std::optional<std::string> archiveNameOf(const Archivable& object, std::string& why) {
    std::string name;
    try {
        name = object.className();
    } catch (...) {
        why = "className() threw";
        return std::nullopt;
    }
    // A subclass registered through registerType but not overriding className()
    // would otherwise be archived (and restored) as its base class.
    if (auto registered = ArchiveRegistry::renameFor(name, std::type_index(typeid(object)))) {
        ZUBProHelper::LogDebug("[WARN] archiving %@ under its registered name %@", name, *registered);
        name = *registered;
    }
    if (name.empty()) {
        why = "empty class name";
        return std::nullopt;
    }
    return name;
}

// Private access for the archiver and unarchiver.
struct ArchiveAccess {
    // Encodes one object into OBJECT form; false (with a reason) on failure.
    static bool encodeObject(const Archivable& object, int depth, Value& out, std::string& why) {
        if (depth > kMaxObjectDepth) {
            why = "objects nested deeper than " + std::to_string(kMaxObjectDepth);
            return false;
        }
        auto archiveName = archiveNameOf(object, why);
        if (!archiveName) return false;
        const std::string& name = *archiveName;
        Value fields = Value::object();
        Coder coder(false, &fields, nullptr, name, depth);
        try {
            object.encodeWithCoder(coder);
        } catch (const std::exception& e) {
            coder.failWithReason(std::string("encodeWithCoder of ") + name + " threw: " + e.what());
        } catch (...) {
            coder.failWithReason("encodeWithCoder of " + name + " threw");
        }
        if (coder.failed()) {
            why = coder.failureReason();
            return false;
        }
        out = Value::object();
        out["$class"] = name;
        out["$fields"] = std::move(fields);
        return true;
    }

    // Restores one object from OBJECT form; nullptr (with a reason) on failure.
    static std::shared_ptr<Archivable> decodeObject(const Value& node, int depth, std::string& why) {
        if (depth > kMaxObjectDepth) {
            why = "objects nested too deeply";
            return nullptr;
        }
        if (!node.is_object()) {
            why = "object node is not a container";
            return nullptr;
        }
        auto cls = node.find("$class");
        auto fields = node.find("$fields");
        if (cls == node.end() || !cls->is_string() || fields == node.end() || !fields->is_object()) {
            why = "object node without class or fields";
            return nullptr;
        }
        const std::string& name = cls->get_ref<const std::string&>();
        ArchiveFactory factory = ArchiveRegistry::factoryFor(name);
        if (!factory) {
            why = "unknown class " + name;
            return nullptr;
        }
        Coder coder(true, nullptr, &*fields, name, depth);
        std::shared_ptr<Archivable> object;
        try {
            object = factory(coder);
        } catch (const std::exception& e) {
            coder.failWithReason(std::string("restoring ") + name + " threw: " + e.what());
        } catch (...) {
            coder.failWithReason("restoring " + name + " threw");
        }
        if (coder.failed()) {
            why = coder.failureReason();
            return nullptr;
        }
        if (!object) {
            why = "restoring " + name + " gave nothing";
            return nullptr;
        }
        return object;
    }
};

// ---------------------------------------------------------------- Coder: encoding

bool Coder::encodingAllowed(const std::string& key) const {
    if (decoding_ || (out_ == nullptr && packedOut_ == nullptr)) {
        failWithReason("encoding \"" + key + "\" on a decoding coder");
        return false;
    }
    return true;
}

void Coder::put(const std::string& key, const char* kind, Value payload) {
    if (!encodingAllowed(key)) return;
    if (packedOut_ != nullptr) {
        if (!packed::writeField(*packedOut_, key, kind[0], payload)) {
            failWithReason("field \"" + key + "\" cannot be packed");
        }
        return;
    }
    Value field = Value::array();
    field.push_back(kind);
    field.push_back(std::move(payload));
    (*out_)[key] = std::move(field);
}

void Coder::encodeObject(const Value& object, const std::string& key) {
    put(key, "v", object);
}

void Coder::encodeString(const std::optional<std::string>& string, const std::string& key) {
    if (!string) return;
    if (packedOut_ != nullptr && !decoding_) {
        if (!packed::writeText(*packedOut_, key, *string)) failWithReason("field \"" + key + "\" cannot be packed");
        return;
    }
    put(key, "v", *string);
}

void Coder::encodeInt64(std::int64_t value, const std::string& key) {
    put(key, "i", value);
}

void Coder::encodeUInt64(std::uint64_t value, const std::string& key) {
    put(key, "i", value);
}

void Coder::encodeBool(bool value, const std::string& key) {
    put(key, "b", value);
}

void Coder::encodeDouble(double value, const std::string& key) {
    put(key, "d", value);
}

void Coder::encodeArchivable(const Archivable& object, const std::string& key) {
    if (!encodingAllowed(key)) return;
    if (refusePacked(key)) return;
    Value node;
    std::string why;
    if (!ArchiveAccess::encodeObject(object, depth_ + 1, node, why)) {
        failWithReason(why);
        return;
    }
    put(key, "o", std::move(node));
}

void Coder::encodeArchivable(const std::shared_ptr<const Archivable>& object, const std::string& key) {
    if (object) encodeArchivable(*object, key);
}

void Coder::encodeDictionaryEntries(const std::vector<std::pair<std::string, const Archivable*>>& entries,
                                    const std::string& key) {
    if (!encodingAllowed(key)) return;
    if (refusePacked(key)) return;
    Value nodes = Value::object();
    for (const auto& [k, object] : entries) {
        if (object == nullptr) continue;
        Value node;
        std::string why;
        if (!ArchiveAccess::encodeObject(*object, depth_ + 1, node, why)) {
            failWithReason(why);
            return;
        }
        nodes[k] = std::move(node);
    }
    put(key, "D", std::move(nodes));
}

void Coder::encodeArrayItems(const std::vector<const Archivable*>& items, const std::string& key) {
    if (!encodingAllowed(key)) return;
    if (refusePacked(key)) return;
    Value nodes = Value::array();
    for (const Archivable* object : items) {
        if (object == nullptr) continue;
        Value node;
        std::string why;
        if (!ArchiveAccess::encodeObject(*object, depth_ + 1, node, why)) {
            failWithReason(why);
            return;
        }
        nodes.push_back(std::move(node));
    }
    put(key, "A", std::move(nodes));
}

bool Coder::refusePacked(const std::string& key) const {
    if (packedOut_ == nullptr) return false;
    failWithReason("nested objects under \"" + key + "\" are kept only in keyed archives");
    return true;
}

void Coder::failWithReason(const std::string& reason) const {
    if (failed_) return;
    failed_ = true;
    reason_ = className_.empty() ? reason : className_ + ": " + reason;
}

// ---------------------------------------------------------------- Coder: decoding

const Value* Coder::field(const std::string& key, std::string& kind) const {
    if (packedIn_ != nullptr) {
        char packedKind = 'v';
        const Value* payload = packed::findField(*packedIn_, key, packedKind);
        kind.assign(1, packedKind);
        return payload;
    }
    if (!decoding_ || in_ == nullptr) {
        failWithReason("decoding \"" + key + "\" on an encoding coder");
        return nullptr;
    }
    auto it = in_->find(key);
    if (it == in_->end()) return nullptr;
    if (!it->is_array() || it->size() != 2 || !(*it)[0].is_string()) {
        failWithReason("malformed field \"" + key + "\"");
        return nullptr;
    }
    kind = (*it)[0].get<std::string>();
    return &(*it)[1];
}

bool Coder::containsValueForKey(const std::string& key) const {
    char kind = 'v';
    if (packedIn_ != nullptr) return packed::findField(*packedIn_, key, kind) != nullptr;
    return decoding_ && in_ != nullptr && in_->contains(key);
}

std::optional<Value> Coder::decodeObjectForKey(const std::string& key) const {
    std::string kind;
    const Value* payload = field(key, kind);
    if (payload == nullptr) return std::nullopt;
    const bool number = payload->is_number() || payload->is_boolean();
    if (kind == "v" || ((kind == "i" || kind == "d" || kind == "b") && number)) {
        if (payload->is_null()) return std::nullopt;
        return *payload;
    }
    failWithReason("field \"" + key + "\" is not a plain value");
    return std::nullopt;
}

std::optional<std::string> Coder::decodeStringForKey(const std::string& key) const {
    auto value = decodeObjectForKey(key);
    if (!value) return std::nullopt;
    if (!value->is_string()) {
        failWithReason("field \"" + key + "\" is not a string");
        return std::nullopt;
    }
    return value->get<std::string>();
}

std::int64_t Coder::decodeInt64ForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return 0;
    if (kind == "i" || kind == "d" || kind == "b") {
        if (p->is_boolean()) return p->get<bool>() ? 1 : 0;
        if (p->is_number_unsigned()) return static_cast<std::int64_t>(p->get<std::uint64_t>());
        if (p->is_number_integer()) return p->get<std::int64_t>();
        if (p->is_number_float()) return saturatingInteger(p->get<double>());
    }
    failWithReason("field \"" + key + "\" is not a number");
    return 0;
}

std::uint64_t Coder::decodeUInt64ForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return 0;
    if (kind == "i" || kind == "d" || kind == "b") {
        if (p->is_boolean()) return p->get<bool>() ? 1 : 0;
        if (p->is_number_unsigned()) return p->get<std::uint64_t>();
        if (p->is_number_integer()) return static_cast<std::uint64_t>(p->get<std::int64_t>());
        if (p->is_number_float()) return saturatingUnsigned(p->get<double>());
    }
    failWithReason("field \"" + key + "\" is not a number");
    return 0;
}

bool Coder::decodeBoolForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return false;
    if (kind == "i" || kind == "d" || kind == "b") {
        if (p->is_boolean()) return p->get<bool>();
        if (p->is_number_integer()) return p->get<std::int64_t>() != 0;
        if (p->is_number_float()) return p->get<double>() != 0.0;
    }
    failWithReason("field \"" + key + "\" is not a boolean");
    return false;
}

double Coder::decodeDoubleForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return 0.0;
    if (kind == "i" || kind == "d" || kind == "b") {
        if (p->is_boolean()) return p->get<bool>() ? 1.0 : 0.0;
        if (p->is_number()) return p->get<double>();
    }
    failWithReason("field \"" + key + "\" is not a number");
    return 0.0;
}

std::shared_ptr<Archivable> Coder::decodeArchivableForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return nullptr;
    if (kind != "o") {
        failWithReason("field \"" + key + "\" is not an archived object");
        return nullptr;
    }
    std::string why;
    auto object = ArchiveAccess::decodeObject(*p, depth_ + 1, why);
    if (!object) failWithReason("object under \"" + key + "\": " + why);
    return object;
}

std::optional<ArchivableDictionary> Coder::decodeArchivableDictionaryForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return std::nullopt;
    if (kind != "D" || !p->is_object()) {
        failWithReason("field \"" + key + "\" is not a dictionary of objects");
        return std::nullopt;
    }
    ArchivableDictionary out;
    for (auto it = p->begin(); it != p->end(); ++it) {
        std::string why;
        auto object = ArchiveAccess::decodeObject(it.value(), depth_ + 1, why);
        if (!object) {
            failWithReason("entry \"" + it.key() + "\" under \"" + key + "\": " + why);
            return std::nullopt;
        }
        out.emplace_back(it.key(), std::move(object));
    }
    return out;
}

std::optional<ArchivableArray> Coder::decodeArchivableArrayForKey(const std::string& key) const {
    std::string kind;
    const Value* p = field(key, kind);
    if (p == nullptr) return std::nullopt;
    if (kind != "A" || !p->is_array()) {
        failWithReason("field \"" + key + "\" is not an array of objects");
        return std::nullopt;
    }
    ArchivableArray out;
    for (const auto& node : *p) {
        std::string why;
        auto object = ArchiveAccess::decodeObject(node, depth_ + 1, why);
        if (!object) {
            failWithReason("item under \"" + key + "\": " + why);
            return std::nullopt;
        }
        out.push_back(std::move(object));
    }
    return out;
}

// ---------------------------------------------------------------- registry

void ArchiveRegistry::registerClass(const std::string& className, ArchiveFactory factory) {
    RegistryState& s = registryState();
    std::lock_guard lock(s.mutex);
    s.factories[className] = std::move(factory);
    s.typeOfName.erase(className);
}

void ArchiveRegistry::registerTypeName(std::type_index type, const std::string& className) {
    RegistryState& s = registryState();
    std::lock_guard lock(s.mutex);
    s.names.emplace(type, className);
    s.typeOfName.insert_or_assign(className, type);
}

std::optional<std::string> ArchiveRegistry::renameFor(const std::string& className, std::type_index dynamicType) {
    RegistryState& s = registryState();
    std::lock_guard lock(s.mutex);
    auto declared = s.typeOfName.find(className);
    if (declared == s.typeOfName.end() || declared->second == dynamicType) return std::nullopt;
    auto own = s.names.find(dynamicType);
    if (own == s.names.end() || own->second == className) return std::nullopt;
    return own->second;
}

bool ArchiveRegistry::isRegistered(const std::string& className) {
    RegistryState& s = registryState();
    std::lock_guard lock(s.mutex);
    return s.factories.count(className) != 0;
}

ArchiveFactory ArchiveRegistry::factoryFor(const std::string& className) {
    RegistryState& s = registryState();
    std::lock_guard lock(s.mutex);
    auto it = s.factories.find(className);
    return it == s.factories.end() ? ArchiveFactory() : it->second;
}

std::optional<std::string> ArchiveRegistry::nameForType(std::type_index type) {
    RegistryState& s = registryState();
    std::lock_guard lock(s.mutex);
    auto it = s.names.find(type);
    if (it == s.names.end()) return std::nullopt;
    return it->second;
}

// ---------------------------------------------------------------- archiver

namespace {

Data wrapTop(const char* kind, Value payload) {
    Value top = Value::object();
    top["$archiver"] = kArchiverName;
    top["$version"] = kArchiveVersion;
    Value field = Value::array();
    field.push_back(kind);
    field.push_back(std::move(payload));
    top["$top"] = std::move(field);
    return Cbor::encode(top);
}

void logArchiveFailure(const std::string& why) {
    ZUBProHelper::LogDebug("[ERROR] KeyedArchiver: %@", why);
}

}  // namespace

Data KeyedArchiver::nullData() {
    logArchiveFailure("root object is null");
    return {};
}

Data KeyedArchiver::archivedDataWithRootObject(const Archivable& root) {
    Value node;
    std::string why;
    if (!ArchiveAccess::encodeObject(root, 0, node, why)) {
        logArchiveFailure(why);
        return {};
    }
    return wrapTop("o", std::move(node));
}

Data KeyedArchiver::archivedDataWithRootObject(const Value& plain) {
    return wrapTop("v", plain);
}

Data KeyedArchiver::archiveDictionary(const std::vector<std::pair<std::string, const Archivable*>>& entries) {
    Value nodes = Value::object();
    for (const auto& [key, object] : entries) {
        if (object == nullptr) {
            ZUBProHelper::LogDebug("[WARN] KeyedArchiver: null entry %@ left out", key);
            continue;
        }
        Value node;
        std::string why;
        if (!ArchiveAccess::encodeObject(*object, 0, node, why)) {
            logArchiveFailure("entry " + key + ": " + why);
            return {};
        }
        nodes[key] = std::move(node);
    }
    return wrapTop("D", std::move(nodes));
}

// ---------------------------------------------------------------- unarchiver

void KeyedUnarchiver::logFailure(const std::string& reason) {
    ZUBProHelper::LogDebug("[WARN] KeyedUnarchiver: %@", reason);
}

std::optional<ArchiveRoot> KeyedUnarchiver::unarchiveObjectWithData(const Data& data) {
    std::string why;
    auto top = Cbor::decode(data, &why);
    if (!top) {
        logFailure("not an archive (" + why + ")");
        return std::nullopt;
    }
    if (!top->is_object()) {
        logFailure("not an archive (no keyed container)");
        return std::nullopt;
    }
    auto archiver = top->find("$archiver");
    auto version = top->find("$version");
    auto field = top->find("$top");
    if (archiver == top->end() || *archiver != kArchiverName || version == top->end() ||
        !version->is_number_integer() || field == top->end()) {
        logFailure("not an archive (header missing)");
        return std::nullopt;
    }
    if (*version != kArchiveVersion) {
        logFailure("archive version " + version->dump() + " not supported");
        return std::nullopt;
    }
    if (!field->is_array() || field->size() != 2 || !(*field)[0].is_string()) {
        logFailure("malformed root");
        return std::nullopt;
    }
    const std::string kind = (*field)[0].get<std::string>();
    const Value& payload = (*field)[1];
    ArchiveRoot root;
    if (kind == "v") {
        root.emplace<2>(payload);
        return root;
    }
    if (kind == "o") {
        auto object = ArchiveAccess::decodeObject(payload, 0, why);
        if (!object) {
            logFailure(why);
            return std::nullopt;
        }
        root.emplace<0>(std::move(object));
        return root;
    }
    if (kind == "D" && payload.is_object()) {
        ArchivableDictionary dictionary;
        for (auto it = payload.begin(); it != payload.end(); ++it) {
            std::string entryWhy;
            auto object = ArchiveAccess::decodeObject(it.value(), 0, entryWhy);
            if (!object) {
                logFailure("entry " + it.key() + " dropped: " + entryWhy);
                continue;
            }
            dictionary.emplace_back(it.key(), std::move(object));
        }
        root.emplace<1>(std::move(dictionary));
        return root;
    }
    logFailure("root of unknown kind");
    return std::nullopt;
}

std::optional<Value> KeyedUnarchiver::unarchiveValueWithData(const Data& data) {
    auto root = unarchiveObjectWithData(data);
    if (!root) return std::nullopt;
    if (auto* value = std::get_if<Value>(&*root)) return std::move(*value);
    logFailure("root is not a plain value");
    return std::nullopt;
}

}  // namespace zub
