// The packed form the journal keeps events in: every event class of the library
// comes back field for field, a class that nests objects is left to the keyed
// archive (and still comes back from the journal), damaged bytes give nothing,
// and a journal written before the packed form still opens.
#include "Platform/PackedArchive.h"

#include "Dal/ZUBEventJournal.h"
#include "Dal/ZUBJournalFormat.h"
#include "Model/ZUBEventClasses.h"
#include "Model/ZUBLMEvent.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProAccountEvent.h"
#include "Model/ZUBProActiveEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Model/ZUBSessionEvent.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

template <class T>
std::shared_ptr<T> stamped(std::shared_ptr<T> e, int n) {
    e->setType(1000 + n);
    e->setMd5("key-" + std::to_string(n));
    e->setSid(18'446'744'073'709'551'609u);
    e->setTs(1'700'000'000u + static_cast<std::uint64_t>(n));
    e->setRetryNum(2);
    e->setLastReportTs(18'446'744'073'709'551'615u);
    e->setIsImportant(n % 2 == 0);
    e->setIsWrongWifi(true);
    e->setEventIndex(-2'147'483'647 + n);
    return e;
}

std::vector<std::shared_ptr<ZUBProEvent>> oneOfEachClass() {
    auto custom = stamped(std::make_shared<ZUBProCustomEvent>(), 0);
    custom->setEventID(std::string("export"));
    custom->setKvs({{"text", "caf\xC3\xA9"}, {"neg", -5}, {"big", 18'446'744'073'709'551'615u}, {"half", 0.5},
                    {"yes", true}, {"none", nullptr}, {"list", {1, "two"}}, {"map", {{"k", "v"}}}});
    custom->setDuration(-3);
    auto bare = stamped(std::make_shared<ZUBProCustomEvent>(), 1);  // no identifier, no pairs
    auto page = stamped(std::make_shared<ZUBPageEvent>(), 2);
    page->setPage(std::string("Editor"));
    page->setReferPage(std::string(""));
    page->setDuration(12);
    auto account = stamped(std::make_shared<ZUBProAccountEvent>(), 3);
    account->setZubAccount(std::string("user-1"));
    account->setAccountType(4'294'967'295u);
    account->setExt(std::string("{\"a\":1}"));
    auto lm = stamped(std::make_shared<ZUBLMEvent>(), 4);
    lm->setLm(std::string("lm-account"));
    auto active = stamped(std::make_shared<ZUBProActiveEvent>(), 5);
    active->setDuration(30);
    return {custom, bare, page, account, lm, active, stamped(std::make_shared<ZUBSessionEvent>(), 6)};
}

// An event class that keeps a nested object, as a plug-in's may.
class NestingEvent : public ZUBProEvent {
public:
    NestingEvent() = default;
    explicit NestingEvent(const zub::Coder& c) : ZUBProEvent(c), inner_(c.decodeArchivableForKey<ZUBPageEvent>("in")) {}
    std::string className() const override { return "PackedTestNestingEvent"; }
    void encodeWithCoder(zub::Coder& c) const override {
        ZUBProEvent::encodeWithCoder(c);
        c.encodeArchivable(inner_, "in");
    }
    std::shared_ptr<ZUBPageEvent> inner_ = std::make_shared<ZUBPageEvent>();
};

// An event class that encodes a base field again, with a value of its own.
class OverridingEvent : public ZUBProEvent {
public:
    OverridingEvent() = default;
    explicit OverridingEvent(const zub::Coder& c) : ZUBProEvent(c) {}
    std::string className() const override { return "PackedTestOverridingEvent"; }
    void encodeWithCoder(zub::Coder& c) const override {
        ZUBProEvent::encodeWithCoder(c);
        c.encodeInt64(42, "type");
    }
};

}  // namespace

TEST(PackedArchive, EveryEventClassComesBackFieldForFieldAndDamageGivesNothing) {
    registerEventClasses();
    for (const auto& event : oneOfEachClass()) {
        SCOPED_TRACE(event->className());
        std::string why;
        const auto packed = zub::packed::pack(*event, why);
        ASSERT_TRUE(packed) << why;
        auto back = zub::packed::unpack<ZUBProEvent>(packed->data(), packed->size());
        ASSERT_TRUE(back);
        EXPECT_EQ(back->className(), event->className());
        // The keyed archive holds every field a class encodes: equal archives, equal events.
        EXPECT_EQ(zub::KeyedArchiver::archivedDataWithRootObject(*back),
                  zub::KeyedArchiver::archivedDataWithRootObject(*event));
        EXPECT_LT(packed->size(), zub::KeyedArchiver::archivedDataWithRootObject(*event).size());

        // Cut short anywhere: nothing, never a crash. A changed byte may still
        // decode (to other values), but never reads past the bytes.
        for (std::size_t n = 0; n < packed->size(); ++n) {
            EXPECT_FALSE(zub::packed::unpack(packed->data(), n)) << "cut at " << n;
            zub::Data flipped = *packed;
            flipped[n] ^= 0xFF;
            (void)zub::packed::unpack(flipped.data(), flipped.size());
        }
    }

    // A key encoded twice reads back as its last value, as from a keyed archive.
    zub::ArchiveRegistry::registerType<OverridingEvent>("PackedTestOverridingEvent");
    auto overriding = stamped(std::make_shared<OverridingEvent>(), 9);
    std::string why;
    const auto packed = zub::packed::pack(*overriding, why);
    ASSERT_TRUE(packed) << why;
    auto fromPacked = zub::packed::unpack<ZUBProEvent>(packed->data(), packed->size());
    auto fromKeyed = zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProEvent>(
        zub::KeyedArchiver::archivedDataWithRootObject(*overriding));
    ASSERT_TRUE(fromPacked && fromKeyed);
    EXPECT_EQ(fromKeyed->type(), 42);
    EXPECT_EQ(fromPacked->type(), 42);
}

TEST(PackedArchive, NestedObjectsStayInKeyedArchivesAndOldJournalsStillOpen) {
    registerEventClasses();
    zub::ArchiveRegistry::registerType<NestingEvent>("PackedTestNestingEvent");
    auto nesting = stamped(std::make_shared<NestingEvent>(), 8);
    nesting->inner_->setPage(std::string("inner"));
    std::string why;
    EXPECT_FALSE(zub::packed::pack(*nesting, why));
    EXPECT_NE(why.find("nested"), std::string::npos) << why;

    // A segment of the first format (version 1, keyed archives only), as an
    // earlier release left it: its events come back. The journal then keeps the
    // nesting event as a keyed archive and gives it back whole.
    const auto dir = zubtest::TempHome::makeDir("old-journal");
    zub::Data segment = zub::journal::segmentHeader();
    segment[4] = 1;
    zub::journal::AddRecord add;
    add.seq = 1;
    add.md5 = "old-key";
    add.archive = zub::KeyedArchiver::archivedDataWithRootObject(*oneOfEachClass().front());
    zub::journal::appendAdd(segment, add);
    std::ofstream(dir / "0000000000000001.zjl", std::ios::binary)
        .write(reinterpret_cast<const char*>(segment.data()), static_cast<std::streamsize>(segment.size()));
    ZUBEventJournal journal(dir, 1 << 20, std::chrono::milliseconds(50));
    std::vector<ZUBEventJournal::LiveEntry> live;
    std::uint64_t drops = 0;
    ASSERT_TRUE(journal.open(live, drops));
    ASSERT_EQ(live.size(), 1u);
    journal.setPlace(live.front().seq, ZUBEventJournal::Place::Overflow);
    auto back = journal.takeOverflow();
    ASSERT_TRUE(back);
    EXPECT_EQ(back->event->md5(), "old-key");
    EXPECT_EQ(std::dynamic_pointer_cast<ZUBProCustomEvent>(back->event)->eventID(), "export");

    ZUBEventJournal::Dropped dropped;
    ASSERT_TRUE(journal.append(*nesting, ZUBEventJournal::Place::Overflow, dropped));
    back = journal.takeOverflow();
    ASSERT_TRUE(back);
    auto restored = std::dynamic_pointer_cast<NestingEvent>(back->event);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->inner_->page(), "inner");
}
