#include "Platform/AtomicFile.h"
#include "Platform/Bundle.h"
#include "Platform/Cbor.h"
#include "Platform/Paths.h"
#include "Platform/UserDefaults.h"
#include "support/FaultyFileSystem.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <latch>
#include <thread>

using zub::UserDefaults;
using zub::Value;
using zubtest::LogCapture;
using zubtest::TempHome;

using zubtest::modeOf;

TEST(UserDefaults, PersistsPerApplicationWithPrivateModes) {
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.alpha");
    UserDefaults& alpha = UserDefaults::standard();
    EXPECT_EQ(alpha.path(), zub::Paths::configHome() + "/ZUBCocoa/com.example.alpha.defaults");

    alpha.setObject("name", "first");
    alpha.setObject("count", 7);
    alpha.setObject("blob", Value::binary({1, 2, 3}));
    ASSERT_TRUE(alpha.synchronize());
    EXPECT_EQ(modeOf(alpha.path()), 0600u);
    EXPECT_EQ(modeOf(zub::Paths::configHome() + "/ZUBCocoa"), 0700u);

    // Another application of the same user has its own, empty defaults.
    zub::Bundle::setInfoValue("CFBundleIdentifier", "org.other.beta");
    UserDefaults& beta = UserDefaults::standard();
    EXPECT_NE(&alpha, &beta);
    EXPECT_FALSE(beta.objectForKey("name"));
    beta.setObject("name", "second");
    ASSERT_TRUE(beta.synchronize());

    // A fresh reader of each file (as a new process would be) sees what was written.
    UserDefaults alphaAgain(alpha.path());
    EXPECT_EQ(alphaAgain.objectForKey("name"), Value("first"));
    EXPECT_EQ(alphaAgain.integerForKey("count"), 7);
    EXPECT_EQ(alphaAgain.objectForKey("blob"), Value::binary({1, 2, 3}));
    EXPECT_EQ(UserDefaults(beta.path()).stringForKey("name"), "second");
}

TEST(UserDefaults, TypedGettersConvertLikeThePlatform) {
    UserDefaults d(TempHome::makeDir("typed").string() + "/t.defaults");
    using Text = std::optional<std::string>;
    const struct {
        const char* key;
        Value value;  // null: not set
        Text text;
        std::int64_t integer;
        bool flag;
    } cases[] = {
        {"int", 42, "42", 42, true},          {"neg", -5, "-5", -5, true},
        {"dbl", 1.5, "1.5", 1, true},         {"huge", 1e300, "1e+300", INT64_MAX, true},
        {"tiny", -1e300, "-1e+300", INT64_MIN, true},
        {"t", true, "1", 1, true},            {"yes", "YES", "YES", 0, true},
        {"numtext", "12abc", "12abc", 12, true}, {"dict", Value::object({{"a", 1}}), Text(), 0, false},
        {"missing", Value(), Text(), 0, false},
    };
    for (const auto& c : cases) d.setObject(c.key, c.value);
    for (const auto& c : cases) {
        EXPECT_EQ(d.stringForKey(c.key), c.text) << c.key;
        EXPECT_EQ(d.integerForKey(c.key), c.integer) << c.key;
        EXPECT_EQ(d.boolForKey(c.key), c.flag) << c.key;
    }

    d.setObject("nan", std::nan(""));
    EXPECT_EQ(d.integerForKey("nan"), 0);
    // A null value removes the key.
    d.setObject("int", Value());
    EXPECT_FALSE(d.objectForKey("int"));
}

TEST(UserDefaults, DamagedFileIsEmptyLoggedAndReplaced) {
    // A non-dictionary, bytes after the item and nothing read as no dictionary
    // (garbage and cut items: the keyed archive's tests of the same decoder).
    for (const zub::Data& bytes : {zub::Data{0x83, 1, 2, 3}, zub::Data{0xa0, 0x00}, zub::Data{}}) {
        EXPECT_FALSE(UserDefaults::parseFileContents(bytes)) << bytes.size();
    }
    // Nesting up to the decoder's limit is still read.
    zub::Data nested{0xa1, 0x61, 'a'};
    nested.insert(nested.end(), zub::Cbor::kMaxDepth - 1, 0x81);
    nested.push_back(0x00);
    EXPECT_TRUE(UserDefaults::parseFileContents(nested));
    nested.insert(nested.begin() + 3, 0x81);
    EXPECT_FALSE(UserDefaults::parseFileContents(nested));
    // Containers of indefinite length, which other writers use, are read too.
    EXPECT_EQ(UserDefaults::parseFileContents(zub::Data{0xbf, 0x61, 'a', 0x9f, 0x01, 0x02, 0xff, 0xff}),
              Value::object({{"a", Value::array({1, 2})}}));

    // Such a file is taken for empty, logged, and replaced at the next synchronize.
    const std::string path = TempHome::makeDir("damaged").string() + "/d.defaults";
    std::ofstream(path, std::ios::binary) << "\xa1\x63" "key\x78\x10" "short";  // a cut string
    LogCapture log;
    UserDefaults d(path);
    EXPECT_EQ(d.dictionaryRepresentation(), Value::object());
    EXPECT_TRUE(log.contains("damaged")) << "the damage is logged";
    d.setObject("key", "repaired");
    ASSERT_TRUE(d.synchronize());
    EXPECT_EQ(UserDefaults(path).stringForKey("key"), "repaired");
}

TEST(UserDefaults, SynchronizeMergesChangesOfAnotherWriterKeyByKey) {
    const std::string path = TempHome::makeDir("merge").string() + "/m.defaults";
    UserDefaults a(path);
    UserDefaults b(path);
    EXPECT_FALSE(b.objectForKey("onlyA"));  // b reads the (missing) file now
    a.setObject("shared", "a");
    a.setObject("onlyA", 1);
    ASSERT_TRUE(a.synchronize());
    EXPECT_FALSE(b.objectForKey("onlyA")) << "b serves its cache until it synchronises";
    b.setObject("onlyB", 2);
    b.removeObject("shared");
    ASSERT_TRUE(b.synchronize());
    EXPECT_EQ(b.integerForKey("onlyA"), 1) << "b's synchronize keeps a's key and refreshes its cache";
    ASSERT_TRUE(a.synchronize());
    EXPECT_EQ(a.integerForKey("onlyB"), 2);
    EXPECT_FALSE(a.objectForKey("shared"));
}

TEST(UserDefaults, FailedReadOrWriteKeepsTheFileAndThePendingChanges) {
    const std::string path = TempHome::makeDir("faults").string() + "/f.defaults";
    const Value stored{{"mid", "m-1"}, {"idfv", "V-1"}, {"OpenUDID", Value{{"OpenUDID", "0123"}}}, {"k", "old"}};
    ASSERT_TRUE(zub::AtomicFile::write(path, UserDefaults::serializeFileContents(stored)));
    // The file's entries, whatever their order.
    auto onDisk = [&] {
        return nlohmann::json::parse(UserDefaults::parseFileContents(*zub::AtomicFile::read(path))->dump());
    };
    auto entries = [](const Value& v) { return nlohmann::json::parse(v.dump()); };

    UserDefaults d(path);
    EXPECT_EQ(d.stringForKey("mid"), "m-1");
    zubtest::FaultyFileSystem faults;

    // A read that fails during synchronize: nothing is written, every stored key
    // stays, the change stays pending and in the cache.
    d.setObject("k", "new");
    faults.failReads(1, EIO, path);
    {
        LogCapture log;
        EXPECT_FALSE(d.synchronize());
        EXPECT_TRUE(log.contains("unreadable"));
    }
    EXPECT_EQ(faults.injected(), 1);
    EXPECT_EQ(onDisk(), entries(stored));
    EXPECT_EQ(d.stringForKey("k"), "new");
    EXPECT_EQ(d.stringForKey("mid"), "m-1");

    // A full disk: the same.
    faults.failWrites(1);
    EXPECT_FALSE(d.synchronize());
    EXPECT_EQ(onDisk(), entries(stored));

    // The next successful synchronize writes the pending change into the stored keys.
    ASSERT_TRUE(d.synchronize());
    Value expected = stored;
    expected["k"] = "new";
    EXPECT_EQ(onDisk(), entries(expected));

    // A fresh reader whose first read fails (too many open files): it does not
    // take the file for empty, keeps its own change pending and reads the file
    // again at the next access.
    UserDefaults late(path);
    faults.failReads(3, EMFILE, path);
    EXPECT_FALSE(late.objectForKey("mid"));
    late.setObject("extra", 1);
    EXPECT_FALSE(late.synchronize());
    EXPECT_EQ(onDisk(), entries(expected));
    EXPECT_EQ(late.stringForKey("idfv"), "V-1") << "read again once reads work";
    EXPECT_EQ(late.integerForKey("extra"), 1);
    ASSERT_TRUE(late.synchronize());
    expected["extra"] = 1;
    EXPECT_EQ(onDisk(), entries(expected));
    EXPECT_EQ(faults.injected(), 5);
}

TEST(UserDefaultsConcurrency, ThreadsSettingAndSynchronizingKeepEveryKey) {
    const std::string path = TempHome::makeDir("threads").string() + "/t.defaults";
    UserDefaults d(path);
    constexpr int kThreads = 8;
    constexpr int kKeys = 40;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int k = 0; k < kKeys; ++k) {
                const std::string key = "t" + std::to_string(t) + "k" + std::to_string(k);
                d.setObject(key, t * 1000 + k);
                EXPECT_EQ(d.integerForKey(key), t * 1000 + k);
                if (k % 10 == 9) d.synchronize();
            }
        });
    }
    for (auto& th : threads) th.join();
    ASSERT_TRUE(d.synchronize());
    const Value all = UserDefaults(path).dictionaryRepresentation();
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kKeys));
    for (int t = 0; t < kThreads; ++t) {
        for (int k = 0; k < kKeys; ++k) {
            EXPECT_EQ(all.value("t" + std::to_string(t) + "k" + std::to_string(k), -1), t * 1000 + k);
        }
    }
}
