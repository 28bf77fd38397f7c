#include "Platform/AtomicFile.h"
#include "Platform/Bundle.h"
#include "Platform/Cbor.h"
#include "Platform/Paths.h"
#include "Platform/UserDefaults.h"
#include "support/FaultyFileSystem.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <fstream>
#include <latch>
#include <sys/stat.h>
#include <thread>

using zub::UserDefaults;
using zub::Value;
using zubtest::LogCapture;
using zubtest::TempHome;

namespace {

unsigned modeOf(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

void writeRaw(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

}  // namespace

TEST(UserDefaults, PersistsPerApplicationWithPrivateModes) {
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.alpha");
    UserDefaults& alpha = UserDefaults::standard();
    EXPECT_EQ(&alpha, &UserDefaults::standard());
    EXPECT_EQ(alpha.path(), zub::Paths::configHome() + "/ZUBCocoa/com.example.alpha.defaults");
    EXPECT_EQ(alpha.path().rfind(TempHome::path().string() + "/", 0), 0u) << "stays inside the test HOME";

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
    UserDefaults betaAgain(beta.path());
    EXPECT_EQ(betaAgain.stringForKey("name"), "second");

    // Removal persists too.
    alpha.removeObject("name");
    ASSERT_TRUE(alpha.synchronize());
    UserDefaults alphaThird(alpha.path());
    EXPECT_FALSE(alphaThird.objectForKey("name"));
    EXPECT_TRUE(alphaThird.objectForKey("count"));
}

TEST(UserDefaults, TypedGettersConvertLikeThePlatform) {
    UserDefaults d(TempHome::makeDir("typed").string() + "/t.defaults");
    d.setObject("int", 42);
    d.setObject("neg", -5);
    d.setObject("dbl", 1.5);
    d.setObject("huge", 1e300);
    d.setObject("t", true);
    d.setObject("yes", "YES");
    d.setObject("numtext", "12abc");
    d.setObject("dict", Value::object({{"a", 1}}));

    EXPECT_EQ(d.stringForKey("int"), "42");
    EXPECT_EQ(d.stringForKey("neg"), "-5");
    EXPECT_EQ(d.stringForKey("dbl"), "1.5");
    EXPECT_EQ(d.stringForKey("t"), "1");
    EXPECT_FALSE(d.stringForKey("dict"));
    EXPECT_FALSE(d.stringForKey("missing"));

    EXPECT_EQ(d.integerForKey("dbl"), 1);
    EXPECT_EQ(d.integerForKey("huge"), INT64_MAX);
    EXPECT_EQ(d.integerForKey("numtext"), 12);
    EXPECT_EQ(d.integerForKey("t"), 1);
    EXPECT_EQ(d.integerForKey("dict"), 0);
    EXPECT_EQ(d.integerForKey("missing"), 0);

    EXPECT_TRUE(d.boolForKey("yes"));
    EXPECT_TRUE(d.boolForKey("int"));
    EXPECT_TRUE(d.boolForKey("numtext"));
    EXPECT_FALSE(d.boolForKey("missing"));
    EXPECT_FALSE(d.boolForKey("dict"));

    // A null value removes the key.
    d.setObject("int", Value());
    EXPECT_FALSE(d.objectForKey("int"));
}

TEST(UserDefaults, DamagedFileIsEmptyLoggedAndReplaced) {
    const std::string dir = TempHome::makeDir("damaged").string();
    const std::vector<std::pair<std::string, std::string>> damaged = {
        {"garbage", "this is not cbor at all"},
        {"truncated", std::string("\xa1\x63" "key\x78\x10" "short", 10)},
        {"not-a-dictionary", std::string("\x83\x01\x02\x03", 4)},
        {"trailing", std::string("\xa0\x00", 2)},
        {"deep", std::string(200000, '\x81')},
        {"empty", ""},
    };
    for (const auto& [name, bytes] : damaged) {
        SCOPED_TRACE(name);
        const std::string path = dir + "/" + name + ".defaults";
        writeRaw(path, bytes);
        LogCapture log;
        UserDefaults d(path);
        EXPECT_FALSE(d.objectForKey("key"));
        EXPECT_EQ(d.dictionaryRepresentation(), Value::object());
        EXPECT_TRUE(log.contains("damaged")) << "the damage is logged";
        d.setObject("key", "repaired");
        ASSERT_TRUE(d.synchronize());
        EXPECT_EQ(UserDefaults(path).stringForKey("key"), "repaired");
    }
    EXPECT_FALSE(UserDefaults::parseFileContents(zub::Data(100000, 0x9f)));  // unterminated indefinite arrays
    // Nesting up to the decoder's limit is still read.
    zub::Data nested{0xa1, 0x61, 'a'};
    nested.insert(nested.end(), zub::Cbor::kMaxDepth - 1, 0x81);
    nested.push_back(0x00);
    EXPECT_TRUE(UserDefaults::parseFileContents(nested));
    nested.insert(nested.begin() + 3, 0x81);
    EXPECT_FALSE(UserDefaults::parseFileContents(nested));
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
    {
        UserDefaults first(path);
        for (const auto& [key, value] : stored.items()) first.setObject(key, value);
        ASSERT_TRUE(first.synchronize());
    }
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
