#include "Dal/ZUBEventDal.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProStore.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Platform/AtomicFile.h"
#include "Platform/Bundle.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <filesystem>

using zubtest::ChildProcess;
using zubtest::LogCapture;

namespace {

const std::string kHelper = std::string(ZUB_TEST_BIN_DIR) + "/event_store_helper";

// The helper runs as this same application: both name it, since every
// application has a documents folder of its own.
class OneApplication : public ::testing::Environment {
    void SetUp() override { zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.eventstore"); }
};
[[maybe_unused]] const auto* const kOneApplication = ::testing::AddGlobalTestEnvironment(new OneApplication);

std::string logPath(const char* name) {
    return ZUBProStore::getInstance().getLogfilePath(name);
}

std::vector<std::string> runLoad() {
    ChildProcess child({kHelper, "load"});
    std::vector<std::string> lines;
    while (auto line = child.readLine()) lines.push_back(*line);
    EXPECT_EQ(child.wait(), 0);
    return lines;
}

std::shared_ptr<ZUBProEvent> pageEvent(const std::string& md5) {
    auto e = std::make_shared<ZUBPageEvent>();
    e->setPage(md5 + "-page");
    e->setDuration(3);
    e->setMd5(md5);
    return e;
}

}  // namespace

TEST(ZUBEventDal, SavedEventsComeBackInOrderInAnotherProcess) {
    ASSERT_EQ(ChildProcess::run({kHelper, "save", "3", "2", "a"}), 0);
    EXPECT_TRUE(std::filesystem::exists(logPath(".toReportEvents.log")));
    EXPECT_TRUE(std::filesystem::exists(logPath(".retryEvents.log")));

    EXPECT_EQ(runLoad(), (std::vector<std::string>{"w aw-0 aw", "w aw-1 aw", "w aw-2 aw", "r ar-0 ar", "r ar-1 ar"}));
    // Loading deletes the files: a second load finds nothing.
    EXPECT_FALSE(std::filesystem::exists(logPath(".toReportEvents.log")));
    EXPECT_FALSE(std::filesystem::exists(logPath(".retryEvents.log")));
    EXPECT_TRUE(runLoad().empty());
}

TEST(ZUBEventDal, StoreLimitCountsOnlyWaitingEvents) {
    ZUBProConfig::getInstance().setMaxStoreEventCount(1024);
    // 5 waiting and 2000 retrying: both files are written.
    ASSERT_EQ(ChildProcess::run({kHelper, "save", "5", "2000", "b"}), 0);
    auto lines = runLoad();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l[0] == 'w'; }), 5);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l[0] == 'r'; }), 2000);

    // 1025 waiting: neither file is written, and an earlier file stays as it was.
    ASSERT_EQ(ChildProcess::run({kHelper, "save", "2", "0", "old"}), 0);
    const auto before = zub::AtomicFile::read(logPath(".toReportEvents.log"));
    ASSERT_TRUE(before);
    ASSERT_EQ(ChildProcess::run({kHelper, "save", "1025", "3", "new"}), 0);
    EXPECT_EQ(zub::AtomicFile::read(logPath(".toReportEvents.log")), before);
    EXPECT_FALSE(std::filesystem::exists(logPath(".retryEvents.log")));
}

TEST(ZUBEventDal, LoadReplacesAndHandlesEmptyAndDamagedFiles) {
    LogCapture log;
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

    EXPECT_EQ(store.getLastSendTime(), 0);
    store.saveLastSendTime(1700000123);
    EXPECT_EQ(store.getLastSendTime(), 1700000123);
}
