#include "Dal/ZUBEventDal.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProStore.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Platform/AtomicFile.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace {

std::string logPath(const char* name) {
    return ZUBProStore::getInstance().getLogfilePath(name);
}

std::shared_ptr<ZUBProEvent> pageEvent(const std::string& md5) {
    auto e = std::make_shared<ZUBPageEvent>();
    e->setPage(md5 + "-page");
    e->setDuration(3);
    e->setMd5(md5);
    return e;
}

// Replaces the store's waiting and retry events with `waiting` and `retry` custom
// events keyed "<tag>w-<n>" and "<tag>r-<n>", then saves the log files.
void saveEvents(int waiting, int retry, const std::string& tag) {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    store.toReportEvents().clear();
    store.retryEvents().clear();
    for (int i = 0; i < waiting + retry; ++i) {
        auto e = std::make_shared<ZUBProCustomEvent>();
        const std::string key = tag + (i < waiting ? "w-" : "r-") + std::to_string(i < waiting ? i : i - waiting);
        e->setEventID(tag);
        e->setMd5(key);
        (i < waiting ? store.toReportEvents() : store.retryEvents()).set(key, e);
    }
    store.saveLogfile();
}

// Empties the store, loads the log files, and lists "w <key>" and "r <key>" in order.
std::vector<std::string> loadEvents() {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    store.toReportEvents().clear();
    store.retryEvents().clear();
    store.loadLogfile();
    std::vector<std::string> lines;
    for (const auto& [key, event] : store.toReportEvents()) lines.push_back("w " + std::string(key));
    for (const auto& [key, event] : store.retryEvents()) lines.push_back("r " + std::string(key));
    return lines;
}

}  // namespace

TEST(ZUBEventDal, SavedEventsComeBackInOrderAndOnlyTheWaitingCountLimitsSaving) {
    saveEvents(3, 2, "a");
    EXPECT_EQ(loadEvents(), (std::vector<std::string>{"w aw-0", "w aw-1", "w aw-2", "r ar-0", "r ar-1"}));
    // Loading deletes the files: a second load finds nothing.
    EXPECT_FALSE(std::filesystem::exists(logPath(".toReportEvents.log")));
    EXPECT_FALSE(std::filesystem::exists(logPath(".retryEvents.log")));
    EXPECT_TRUE(loadEvents().empty());

    // Up to the limit of waiting events both files are written, however many retry;
    // an empty list writes no file.
    ZUBProConfig::getInstance().setMaxStoreEventCount(4);
    saveEvents(4, 9, "b");
    auto lines = loadEvents();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l[0] == 'w'; }), 4);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l[0] == 'r'; }), 9);
    saveEvents(0, 1, "c");
    EXPECT_FALSE(std::filesystem::exists(logPath(".toReportEvents.log")));
    EXPECT_EQ(loadEvents(), std::vector<std::string>{"r cr-0"});

    // One waiting event more: neither file is written, and an earlier file stays as it was.
    saveEvents(2, 0, "old");
    const auto before = zub::AtomicFile::read(logPath(".toReportEvents.log"));
    ASSERT_TRUE(before);
    saveEvents(5, 3, "new");
    EXPECT_EQ(zub::AtomicFile::read(logPath(".toReportEvents.log")), before);
    EXPECT_FALSE(std::filesystem::exists(logPath(".retryEvents.log")));
}

TEST(ZUBEventDal, LoadReplacesAndHandlesEmptyAndDamagedFiles) {
    zubtest::LogCapture log;
    ZUBEventDal& store = ZUBEventDal::getInstance();
    {
        // Saved while it was being sent: it has a last attempt time.
        std::lock_guard lock(store.eventListLock());
        auto inFlight = pageEvent("saved");
        inFlight->setLastReportTs(1'700'000'000);
        store.toReportEvents().set("saved", inFlight);
    }
    store.saveLogfile();
    {
        // Filed after the save: gone after the load, which replaces rather than merges.
        std::lock_guard lock(store.eventListLock());
        store.toReportEvents().set("later", pageEvent("later"));
        store.retryEvents().set("kept", pageEvent("kept"));
    }
    // An empty retry file is neither loaded nor deleted.
    ASSERT_TRUE(zub::AtomicFile::write(logPath(".retryEvents.log"), {}));
    store.loadLogfile();
    {
        std::lock_guard lock(store.eventListLock());
        ASSERT_EQ(store.toReportEvents().size(), 1u);
        auto page = std::dynamic_pointer_cast<ZUBPageEvent>(store.toReportEvents().get("saved"));
        ASSERT_TRUE(page);
        EXPECT_EQ(page->page(), "saved-page");
        EXPECT_EQ(page->duration(), 3);
        // Marked so that a later cycle takes it again once the vacuum time has
        // passed, instead of leaving it waiting for ever.
        EXPECT_TRUE(page->isWrongWifi());
        EXPECT_EQ(page->lastReportTs(), 1'700'000'000u);
        EXPECT_TRUE(store.retryEvents().contains("kept"));
    }
    EXPECT_TRUE(std::filesystem::exists(logPath(".retryEvents.log")));
    EXPECT_FALSE(std::filesystem::exists(logPath(".toReportEvents.log")));

    // A damaged file gives an empty dictionary, is logged, and is removed.
    ASSERT_TRUE(zub::AtomicFile::write(logPath(".toReportEvents.log"), zub::Data{0x1f, 0x8b, 1, 2, 3}));
    store.loadLogfile();
    {
        std::lock_guard lock(store.eventListLock());
        EXPECT_TRUE(store.toReportEvents().empty());
    }
    EXPECT_TRUE(log.contains("Damaged event log"));
    EXPECT_FALSE(std::filesystem::exists(logPath(".toReportEvents.log")));
}

TEST(ZUBEventDal, ADictionaryEntryKeepsItsPlaceAndKeyWhenItsEventIsReplaced) {
    // An entry reads its key from its event when the event's md5 is the key and
    // keeps a copy otherwise; replacing the event may switch between the two.
    ZUBEventDictionary events;
    events.set("a", pageEvent("a"));
    events.set("b", pageEvent("not-b"));
    events.set("c", pageEvent("c"));
    events.set("a", pageEvent("a2"));
    events.set("b", pageEvent("b"));
    events.set("c", pageEvent("c"));
    ZUBEventDictionary copy = events;
    ASSERT_TRUE(events.erase("b"));
    EXPECT_FALSE(events.erase("b"));
    std::vector<std::string> seen;
    for (const ZUBEventDictionary* dict : {&events, &copy}) {
        for (const auto& [key, event] : *dict) seen.push_back(std::string(key) + "=" + *event->md5());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"a=a2", "c=c", "a=a2", "b=b", "c=c"}));
    EXPECT_EQ(*copy.get("b")->md5(), "b");
    EXPECT_EQ(events.get("b"), nullptr);
}
