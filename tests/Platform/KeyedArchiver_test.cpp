#include "Platform/Cbor.h"
#include "Platform/KeyedArchiver.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>

using zub::Coder;
using zub::KeyedArchiver;
using zub::KeyedUnarchiver;
using zub::Value;
using zubtest::LogCapture;

namespace {

// A record shaped like the library's events, with every kind of field (nested
// objects too), restored through its constructor.
class Record : public zub::Archivable {
public:
    Record() = default;
    explicit Record(const Coder& c)
        : md5(c.decodeStringForKey("md5")),
          type(c.decodeInt64ForKey("type")),
          ts(c.decodeUInt64ForKey("ts")),
          important(c.decodeBoolForKey("isImportant")),
          score(c.decodeDoubleForKey("score")),
          extra(c.decodeObjectForKey("extra")),
          child(c.decodeArchivableForKey<Record>("child")) {
        if (auto d = c.decodeArchivableDictionaryForKey<Record>("byName")) byName = std::move(*d);
        if (auto a = c.decodeArchivableArrayForKey("list")) list = std::move(*a);
    }
    std::string className() const override { return "TestRecord"; }
    void encodeWithCoder(Coder& c) const override {
        c.encodeString(md5, "md5");
        c.encodeInt64(type, "type");
        c.encodeUInt64(ts, "ts");
        c.encodeBool(important, "isImportant");
        c.encodeDouble(score, "score");
        if (extra) c.encodeObject(*extra, "extra");
        if (child) c.encodeArchivable(*child, "child");
        c.encodeArchivableDictionary(byName, "byName");
        c.encodeArchivableArray(list, "list");
    }

    std::optional<std::string> md5;
    std::int64_t type = 0;
    std::uint64_t ts = 0;
    bool important = false;
    double score = 0;
    std::optional<Value> extra;
    std::shared_ptr<Record> child;
    std::map<std::string, std::shared_ptr<Record>> byName;
    zub::ArchivableArray list;
};

// A class restored through a static factory that rejects bad records.
class Strict : public zub::Archivable {
public:
    static std::shared_ptr<Strict> initWithCoder(const Coder& c) {
        auto s = std::make_shared<Strict>();
        s->n = c.decodeInt64ForKey("n");
        if (s->n < 0) c.failWithReason("negative n");
        if (s->n == 13) throw std::runtime_error("unlucky");
        return s;
    }
    std::string className() const override { return "TestStrict"; }
    void encodeWithCoder(Coder& c) const override {
        if (n == 99) throw std::runtime_error("cannot encode");
        c.encodeInt64(n, "n");
    }
    std::int64_t n = 0;
};

// A chain of nested objects, to go past the nesting limit.
class Link : public zub::Archivable {
public:
    Link() = default;
    explicit Link(const Coder& c) : next(c.decodeArchivableForKey<Link>("next")) {}
    std::string className() const override { return "Link"; }
    void encodeWithCoder(Coder& c) const override {
        if (next) c.encodeArchivable(*next, "next");
    }
    std::shared_ptr<Link> next;
};

// A subclass a plug-in might add without overriding className().
class Forgetful : public Record {
public:
    Forgetful() = default;
    explicit Forgetful(const Coder& c) : Record(c), flag(c.decodeBoolForKey("flag")) {}
    void encodeWithCoder(Coder& c) const override {
        Record::encodeWithCoder(c);
        c.encodeBool(flag, "flag");
    }
    bool flag = false;
};

}  // namespace

ZUB_REGISTER_ARCHIVABLE(Link)

namespace {

void registerTestClasses() {
    zub::ArchiveRegistry::registerType<Record>("TestRecord");
    zub::ArchiveRegistry::registerType<Strict>("TestStrict");
    zub::ArchiveRegistry::registerType<Forgetful>("TestForgetful");
}

std::shared_ptr<Record> sampleRecord(const std::string& md5, std::int64_t type) {
    auto r = std::make_shared<Record>();
    r->md5 = md5;
    r->type = type;
    r->ts = 18446744073709551000ull;
    r->important = true;
    r->score = 2.25;
    r->extra = Value::object({{"k", "v"}, {"n", 3}});
    return r;
}

}  // namespace

TEST(KeyedArchiver, ObjectsWithEveryKindOfFieldRoundTrip) {
    registerTestClasses();
    EXPECT_TRUE(zub::ArchiveRegistry::isRegistered("Link")) << "the macro registers at start-up";

    // The root is a plug-in subclass that forgot className(): archived under its registered name.
    Forgetful root;
    root.flag = true;
    root.md5 = "0123456789abcdef0123456789abcdef";
    root.type = -1;
    root.ts = 1700000000;
    root.child = sampleRecord("child", 4);
    root.byName["a"] = sampleRecord("a", 1);
    root.byName["b"] = std::make_shared<Forgetful>();
    root.list = {sampleRecord("l0", 5), nullptr, sampleRecord("l1", 6)};

    const zub::Data bytes = KeyedArchiver::archivedDataWithRootObject(root);
    ASSERT_FALSE(bytes.empty());
    auto back = KeyedUnarchiver::unarchiveObjectWithData<Forgetful>(bytes);
    ASSERT_TRUE(back);
    // Every field (and every nested object's class) comes back: the restored
    // object archives to the same bytes.
    EXPECT_EQ(KeyedArchiver::archivedDataWithRootObject(*back), bytes);
    // The encoder writes each kind of field (were one left out, both archives would lack it).
    EXPECT_TRUE(back->flag);
    ASSERT_TRUE(back->child);
    EXPECT_EQ(back->child->md5, "child");
    EXPECT_EQ(back->child->ts, 18446744073709551000ull);
    EXPECT_TRUE(back->child->important);
    EXPECT_EQ(back->child->score, 2.25);
    EXPECT_EQ(back->child->extra, root.child->extra);
    ASSERT_EQ(back->byName.size(), 2u);
    EXPECT_EQ(back->byName["a"]->type, 1);
    EXPECT_NE(std::dynamic_pointer_cast<Forgetful>(back->byName["b"]), nullptr) << "subclass kept in a dictionary";
    ASSERT_EQ(back->list.size(), 2u) << "null array entries are left out";

    // Typed unarchiving accepts a base class and refuses an unrelated one.
    EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData<Record>(bytes));
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData<Strict>(bytes));
    EXPECT_FALSE(KeyedUnarchiver::unarchiveValueWithData(bytes));

    // A dictionary root keeps subclasses and drops only the entries that cannot be restored.
    auto strict = std::make_shared<Strict>();
    strict->n = -4;  // archives fine, but its class refuses it when restoring
    const std::map<std::string, std::shared_ptr<zub::Archivable>> mixed{
        {"m1", sampleRecord("m1", 2)}, {"m2", back}, {"m3", strict}, {"m4", nullptr}};
    const zub::Data dictBytes = KeyedArchiver::archivedDataWithRootObject(mixed);
    ASSERT_FALSE(dictBytes.empty());
    LogCapture log;
    auto dict = KeyedUnarchiver::unarchiveDictionaryWithData<Record>(dictBytes);
    ASSERT_TRUE(dict);
    ASSERT_EQ(dict->size(), 2u);
    EXPECT_EQ((*dict)["m1"]->type, 2);
    auto restored = std::dynamic_pointer_cast<Forgetful>((*dict)["m2"]);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->byName.size(), 2u);
    EXPECT_TRUE(log.contains("m3")) << "the dropped entry is logged";

    // A plain dictionary of values is archivable as it is.
    const Value plain = {{"OpenUDID", "abc"}, {"OpenUDID_createdTS", 1.5e9}};
    EXPECT_EQ(KeyedUnarchiver::unarchiveValueWithData(KeyedArchiver::archivedDataWithRootObject(plain)), plain);
}

TEST(KeyedArchiver, BadArchivesAndFailedEncodingsGiveNothingAndAreLogged) {
    registerTestClasses();
    LogCapture log;
    const zub::Data good = KeyedArchiver::archivedDataWithRootObject(*sampleRecord("x", 1));
    ASSERT_FALSE(good.empty());

    // Truncated at every length, and garbage.
    for (std::size_t n = 0; n < good.size(); ++n) {
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Data(good.begin(), good.begin() + n))) << n;
    }
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Data{'g', 'a', 'r', 'b', 'a', 'g', 'e'}));
    EXPECT_TRUE(log.contains("KeyedUnarchiver"));

    // Valid CBOR that is not an archive, and an archive of a newer version.
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Cbor::encode(Value::object({{"a", 1}}))));
    Value top = Value::from_cbor(good);
    top["$version"] = 2;
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Cbor::encode(top)));

    // Unknown class.
    top = Value::from_cbor(good);
    top["$top"][1]["$class"] = "NoSuchClass";
    log.clear();
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Cbor::encode(top)));
    EXPECT_TRUE(log.contains("unknown class NoSuchClass"));

    // Wrong types: a string where an integer is read, an integer where a string is
    // read, an object where a plain value is read, a malformed field.
    auto withField = [&](const std::string& key, Value field) {
        Value t = Value::from_cbor(good);
        t["$top"][1]["$fields"][key] = std::move(field);
        return zub::Cbor::encode(t);
    };
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(withField("type", Value::array({"i", "seven"}))));
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(withField("md5", Value::array({"v", 5}))));
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(
        withField("extra", Value::array({"o", Value::from_cbor(good)["$top"][1]}))));
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(withField("type", "bare")));
    // ...while numbers convert among themselves.
    auto converted = KeyedUnarchiver::unarchiveObjectWithData<Record>(withField("type", Value::array({"d", 1e300})));
    ASSERT_TRUE(converted);
    EXPECT_EQ(converted->type, INT64_MAX);

    // A restoring function that fails or throws, and a nested object that fails.
    Strict s;
    s.n = -1;
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(KeyedArchiver::archivedDataWithRootObject(s)));
    s.n = 13;
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(KeyedArchiver::archivedDataWithRootObject(s)));
    s.n = 5;
    EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData<Strict>(KeyedArchiver::archivedDataWithRootObject(s)));
    Record parent;
    parent.child = sampleRecord("c", 1);
    Value nested = Value::from_cbor(KeyedArchiver::archivedDataWithRootObject(parent));
    nested["$top"][1]["$fields"]["child"][1]["$class"] = "NoSuchClass";
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Cbor::encode(nested)));

    // Encoding failures give no archive.
    log.clear();
    s.n = 99;  // its encodeWithCoder throws
    EXPECT_TRUE(KeyedArchiver::archivedDataWithRootObject(s).empty());
    std::map<std::string, std::shared_ptr<Strict>> dict{{"bad", std::make_shared<Strict>(s)}};
    EXPECT_TRUE(KeyedArchiver::archivedDataWithRootObject(dict).empty());
    EXPECT_TRUE(KeyedArchiver::archivedDataWithRootObject(std::shared_ptr<Record>()).empty());
    EXPECT_TRUE(log.contains("KeyedArchiver"));

    // Nesting: objects 64 levels below the root archive and restore; one level
    // more is refused when archiving and when restoring.
    auto chain = [](int n) {
        auto head = std::make_shared<Link>();
        auto cur = head;
        for (int i = 0; i < n; ++i) cur = cur->next = std::make_shared<Link>();
        return head;
    };
    const zub::Data deepest = KeyedArchiver::archivedDataWithRootObject(chain(64));
    auto ok = KeyedUnarchiver::unarchiveObjectWithData<Link>(deepest);
    ASSERT_TRUE(ok);
    int depth = 0;
    for (auto p = ok; p->next; p = p->next) ++depth;
    EXPECT_EQ(depth, 64);
    EXPECT_TRUE(KeyedArchiver::archivedDataWithRootObject(chain(65)).empty());
    Value deeper = Value::from_cbor(deepest);
    deeper["$top"][1] = Value{{"$class", "Link"}, {"$fields", {{"next", Value::array({"o", deeper["$top"][1]})}}}};
    EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(zub::Cbor::encode(deeper)));
    deeper["$top"][1] = deeper["$top"][1]["$fields"]["next"][1];
    EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(zub::Cbor::encode(deeper))) << "the edit itself is sound";
}

TEST(KeyedArchiverConcurrency, ThreadsArchiveWhileClassesAreRegistered) {
    registerTestClasses();
    constexpr int kThreads = 8;
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    std::atomic<int> restored{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < 50; ++i) {
                auto back = KeyedUnarchiver::unarchiveObjectWithData<Record>(
                    KeyedArchiver::archivedDataWithRootObject(*sampleRecord("m", t)));
                if (back && back->type == t) ++restored;
            }
        });
    }
    threads.emplace_back([&] {
        start.arrive_and_wait();
        for (int i = 0; i < 200; ++i) zub::ArchiveRegistry::registerType<Record>("TestRecordAlias" + std::to_string(i));
    });
    for (auto& th : threads) th.join();
    EXPECT_EQ(restored.load(), kThreads * 50);
}
