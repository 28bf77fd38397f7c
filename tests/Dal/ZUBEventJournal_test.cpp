// The event journal's files: what survives a reopen, damage, the budget and
// compaction. Real files in the test's temporary HOME.
#include "Dal/ZUBEventJournal.h"

#include "Model/ZUBProCustomEvent.h"
#include "Platform/AtomicFile.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using Place = ZUBEventJournal::Place;

namespace {

std::shared_ptr<ZUBProCustomEvent> event(int n, std::size_t padding = 0) {
    auto e = std::make_shared<ZUBProCustomEvent>();
    e->setType(1000);
    e->setEventID(std::string("journalled"));
    e->setKvs({{"n", n}, {"pad", std::string(padding, 'x')}});
    e->setMd5("key-" + std::to_string(n));
    e->setAppkey(std::string("app"));
    e->setTimeStr(std::string("1234"));
    e->setSid(7);
    e->setTs(1'700'000'000 + static_cast<std::uint64_t>(n));
    return e;
}

std::vector<std::string> keysOf(const std::vector<ZUBEventJournal::LiveEntry>& live) {
    std::vector<std::string> keys;
    for (const auto& e : live) keys.push_back(e.md5);
    return keys;
}

std::vector<fs::path> segments(const fs::path& dir) {
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(dir)) out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
}

// A journal opened in `dir`; what it brought back is in `live` and `drops`.
struct Opened {
    Opened(const fs::path& dir, std::uint64_t budget) : journal(dir, budget, std::chrono::milliseconds(50)) {
        EXPECT_TRUE(journal.open(live, drops));
    }
    ZUBEventJournal journal;
    std::vector<ZUBEventJournal::LiveEntry> live;
    std::uint64_t drops = 99;
};

}  // namespace

TEST(ZUBEventJournal, ReopeningBringsBackExactlyWhatWasNotRetiredAndDamageCostsOnlyTheDamagedRecords) {
    zubtest::LogCapture log;
    const fs::path dir = zubtest::TempHome::makeDir("journal");
    {
        Opened o(dir, 1 << 20);
        EXPECT_TRUE(o.live.empty());
        EXPECT_EQ(o.drops, 0u);
        std::vector<std::uint64_t> seqs;
        ZUBEventJournal::Dropped dropped;
        for (int i = 0; i < 6; ++i) seqs.push_back(*o.journal.append(*event(i), Place::Memory, dropped));
        o.journal.retire({seqs[1], seqs[4]});
        o.journal.recordDrops(5);
        EXPECT_EQ(o.journal.liveCount(), 4u);
        EXPECT_EQ(dropped.count, 0u);
    }
    {
        Opened o(dir, 1 << 20);
        EXPECT_EQ(keysOf(o.live), (std::vector<std::string>{"key-0", "key-2", "key-3", "key-5"}));
        EXPECT_EQ(o.drops, 5u);
        // An event read back is the event as it was filed, with what its archive leaves out.
        o.journal.setPlace(o.live[1].seq, Place::Overflow);
        auto back = o.journal.takeOverflow();
        ASSERT_TRUE(back);
        auto custom = std::dynamic_pointer_cast<ZUBProCustomEvent>(back->event);
        ASSERT_TRUE(custom);
        EXPECT_EQ(custom->md5(), "key-2");
        EXPECT_EQ(custom->appkey(), "app");
        EXPECT_EQ(custom->timeStr(), "1234");
        EXPECT_EQ(custom->kvs()["n"], 2);
        EXPECT_EQ(custom->ts(), 1'700'000'002u);
        EXPECT_EQ(custom->retryNum(), 0);
        EXPECT_FALSE(o.journal.takeOverflow());
    }

    // Damage: a flipped byte in the second record, a torn last record, and a
    // file with a segment's name that is not one.
    fs::path full;
    for (const auto& f : segments(dir)) {
        if (fs::file_size(f) > 100) full = f;
    }
    ASSERT_FALSE(full.empty());
    zub::Data bytes = *zub::AtomicFile::read(full.string());
    auto recordAt = [&](int index) {
        std::size_t offset = 8;
        for (int i = 0; i < index; ++i) offset += 9 + (bytes[offset] | (bytes[offset + 1] << 8));
        return offset;
    };
    bytes[recordAt(2) + 20] ^= 0x5A;  // inside the payload of key-2's record
    bytes.resize(bytes.size() - 3);   // the last record (the drop count) cut short
    ASSERT_TRUE(zub::AtomicFile::write(full.string(), bytes));
    std::ofstream(dir / "00000000000000ff.zjl") << "not a journal";

    Opened o(dir, 1 << 20);
    // The record with a bad checksum is skipped, not trusted; the rest is whole.
    EXPECT_EQ(keysOf(o.live), (std::vector<std::string>{"key-0", "key-3", "key-5"}));
    EXPECT_EQ(o.drops, 0u);
    EXPECT_TRUE(log.contains("damaged records skipped"));
    EXPECT_TRUE(log.contains("torn tail"));
    EXPECT_TRUE(log.contains("not a journal segment"));
    EXPECT_FALSE(fs::exists(dir / "00000000000000ff.zjl"));
    EXPECT_LT(fs::file_size(full), bytes.size());  // the torn tail was cut
}

TEST(ZUBEventJournal, AFullBudgetDropsTheOldestEventsAndCountsThem) {
    const fs::path dir = zubtest::TempHome::makeDir("budget");
    const std::uint64_t budget = 256 * 1024;  // four segments of the smallest size
    Opened o(dir, budget);
    const int total = 3000;
    std::uint64_t droppedCount = 0;
    std::size_t droppedInMemory = 0;
    for (int i = 0; i < total; ++i) {
        ZUBEventJournal::Dropped dropped;
        // The first ten are held in memory, the rest wait on disk only.
        ASSERT_TRUE(o.journal.append(*event(i, 200), i < 10 ? Place::Memory : Place::Overflow, dropped));
        droppedCount += dropped.count;
        droppedInMemory += dropped.inMemory.size();
        ASSERT_LE(o.journal.diskBytes(), budget);
    }
    ASSERT_GT(droppedCount, 0u);
    EXPECT_EQ(o.journal.liveCount() + droppedCount, static_cast<std::size_t>(total));
    // The oldest went first, the ones held in memory among them.
    EXPECT_EQ(droppedInMemory, 10u);
    auto first = o.journal.takeOverflow();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->event->md5(), "key-" + std::to_string(droppedCount));
    // Once the buffered records are written, the files hold exactly what was counted.
    ASSERT_TRUE(o.journal.flushWrites());
    std::uint64_t onDisk = 0;
    for (const auto& f : segments(dir)) onDisk += fs::file_size(f);
    EXPECT_EQ(onDisk, o.journal.diskBytes());
}

TEST(ZUBEventJournal, RetiredSegmentsAreReleasedAndAnOldSurvivorIsCopiedForward) {
    const fs::path dir = zubtest::TempHome::makeDir("compact");
    const std::uint64_t budget = 16 * 64 * 1024;  // segments of 64 KiB
    {
        Opened o(dir, budget);
        ZUBEventJournal::Dropped dropped;
        ASSERT_TRUE(o.journal.append(*event(-1, 100), Place::Memory, dropped));
        // Many events come and go while the first one waits.
        for (int i = 0; i < 4000; ++i) {
            auto seq = o.journal.append(*event(i, 100), Place::Memory, dropped);
            ASSERT_TRUE(seq);
            o.journal.retire({*seq});
        }
        EXPECT_EQ(dropped.count, 0u);
        EXPECT_EQ(o.journal.liveCount(), 1u);
        EXPECT_LE(segments(dir).size(), 6u);
        EXPECT_LT(o.journal.diskBytes(), 6u * 64 * 1024);
        EXPECT_TRUE(o.journal.sync());
    }
    EXPECT_EQ(keysOf(Opened(dir, budget).live), std::vector<std::string>{"key--1"});
}
