// KeyedUnarchiver on arbitrary bytes, with a few registered classes whose
// restoring code reads every kind of field: something or nothing, never a crash.
#include "Platform/KeyedArchiver.h"

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace {

class FuzzRecord : public zub::Archivable {
public:
    FuzzRecord() = default;
    explicit FuzzRecord(const zub::Coder& c)
        : s(c.decodeStringForKey("md5")),
          i(c.decodeInt64ForKey("type")),
          u(c.decodeUInt64ForKey("ts")),
          b(c.decodeBoolForKey("isImportant")),
          d(c.decodeDoubleForKey("d")),
          v(c.decodeObjectForKey("kvs")),
          child(c.decodeArchivableForKey<FuzzRecord>("child")),
          dict(c.decodeArchivableDictionaryForKey("dict")),
          list(c.decodeArchivableArrayForKey("list")) {}
    std::string className() const override { return "ZUBProEvent"; }
    void encodeWithCoder(zub::Coder& c) const override {
        c.encodeString(s, "md5");
        c.encodeInt64(i, "type");
        c.encodeUInt64(u, "ts");
        c.encodeBool(b, "isImportant");
        c.encodeDouble(d, "d");
        if (v) c.encodeObject(*v, "kvs");
        if (child) c.encodeArchivable(*child, "child");
        if (dict) c.encodeArchivableDictionary(*dict, "dict");
        if (list) c.encodeArchivableArray(*list, "list");
    }

    std::optional<std::string> s;
    std::int64_t i = 0;
    std::uint64_t u = 0;
    bool b = false;
    double d = 0;
    std::optional<zub::Value> v;
    std::shared_ptr<FuzzRecord> child;
    std::optional<zub::ArchivableDictionary> dict;
    std::optional<zub::ArchivableArray> list;
};

class FuzzPage : public FuzzRecord {
public:
    explicit FuzzPage(const zub::Coder& c) : FuzzRecord(c), page(c.decodeStringForKey("page")) {}
    std::string className() const override { return "ZUBPageEvent"; }
    void encodeWithCoder(zub::Coder& c) const override {
        FuzzRecord::encodeWithCoder(c);
        c.encodeString(page, "page");
    }
    std::optional<std::string> page;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::once_flag once;
    std::call_once(once, [] {
        zub::ArchiveRegistry::registerType<FuzzRecord>("ZUBProEvent");
        zub::ArchiveRegistry::registerType<FuzzPage>("ZUBPageEvent");
    });
    const zub::Data bytes(data, data + size);
    auto root = zub::KeyedUnarchiver::unarchiveObjectWithData(bytes);
    if (!root) return 0;
    // Whatever decoded archives again.
    if (auto* object = std::get_if<std::shared_ptr<zub::Archivable>>(&*root)) {
        (void)zub::KeyedArchiver::archivedDataWithRootObject(**object);
    } else if (auto* dict = std::get_if<zub::ArchivableDictionary>(&*root)) {
        (void)zub::KeyedArchiver::archivedDataWithRootObject(*dict);
    } else if (auto* value = std::get_if<zub::Value>(&*root)) {
        (void)zub::KeyedArchiver::archivedDataWithRootObject(*value);
    }
    (void)zub::KeyedUnarchiver::unarchiveDictionaryWithData<FuzzRecord>(bytes);
    return 0;
}
