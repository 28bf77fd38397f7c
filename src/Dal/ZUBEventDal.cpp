#include "Dal/ZUBEventDal.h"

#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"
#include "Model/ZUBEventClasses.h"
#include "Platform/AtomicFile.h"
#include "Platform/KeyedArchiver.h"

#include <cerrno>
#include <cstring>

namespace {
constexpr const char* kToReportLog = ".toReportEvents.log";
constexpr const char* kRetryLog = ".retryEvents.log";
constexpr const char* kLastSendTime = "zubLastSendTime";
}  // namespace

ZUBEventDal& ZUBEventDal::getInstance() {
    static ZUBEventDal* instance = new ZUBEventDal();
    return *instance;
}

ZUBEventDal::ZUBEventDal() {
    registerEventClasses();
}

zub::Data ZUBEventDal::encodeLogfile(const ZUBEventDictionary& events) {
    const zub::Data archive = zub::KeyedArchiver::archivedDataWithRootObject(events);
    zub::Data compressed;
    ZUBProHelper::GZip(archive, &compressed);  // on failure the empty result is written as it is
    return compressed;
}

std::optional<ZUBEventDictionary> ZUBEventDal::decodeLogfile(const zub::Data& bytes) {
    registerEventClasses();
    auto archive = ZUBProHelper::uncompressGZip(bytes);
    if (!archive) return std::nullopt;
    auto entries = zub::KeyedUnarchiver::unarchiveOrderedDictionaryWithData<ZUBProEvent>(*archive);
    if (!entries) return std::nullopt;
    ZUBEventDictionary events;
    for (auto& [key, event] : *entries) events.set(key, std::move(event));
    return events;
}

void ZUBEventDal::writeLogfile(const char* name, const ZUBEventDictionary& events) {
    const std::string path = ZUBProStore::getInstance().getLogfilePath(name);
    int error = 0;
    if (!zub::AtomicFile::write(path, encodeLogfile(events), 0600, &error)) {
        ZUBProHelper::LogDebug("[ERROR]Failed to write %@: %@", path, std::string_view(std::strerror(error)));
    }
}

void ZUBEventDal::saveLogfile() {
    std::lock_guard lock(eventListLock_);
    const std::uint64_t limit = ZUBProConfig::getInstance().maxStoreEventCount();
    // Both files are limited by the count of waiting events; a long retry list
    // alone does not stop its own file from being written.
    if (!toReportEvents_.empty() && toReportEvents_.size() <= limit) writeLogfile(kToReportLog, toReportEvents_);
    if (!retryEvents_.empty() && toReportEvents_.size() <= limit) writeLogfile(kRetryLog, retryEvents_);
}

void ZUBEventDal::readLogfile(const char* name, ZUBEventDictionary& events) {
    const std::string path = ZUBProStore::getInstance().getLogfilePath(name);
    int error = 0;
    auto bytes = zub::AtomicFile::read(path, &error);
    if (!bytes || bytes->empty()) return;  // no file, unreadable or empty: left as it is

    if (auto decoded = decodeLogfile(*bytes)) {
        events = std::move(*decoded);
    } else {
        // A damaged file would fail again at every start: drop it, start empty.
        ZUBProHelper::LogDebug("[ERROR]Damaged event log %@ dropped", path);
        events.clear();
    }
    if (!zub::AtomicFile::remove(path, &error)) {
        ZUBProHelper::LogDebug("%@", std::string_view(std::strerror(error)));
    }
}

void ZUBEventDal::loadLogfile() {
    std::lock_guard lock(eventListLock_);
    std::vector<std::shared_ptr<ZUBProEvent>> heldBefore;
    if (loadObserver_) {
        heldBefore.reserve(toReportEvents_.size() + retryEvents_.size());
        for (const ZUBEventDictionary* dict : {&toReportEvents_, &retryEvents_}) {
            for (const auto& [key, event] : *dict) heldBefore.push_back(event);
        }
    }
    readLogfile(kToReportLog, toReportEvents_);
    readLogfile(kRetryLog, retryEvents_);
    // A waiting event saved while it was being sent keeps its last attempt time,
    // but the mark that makes such an event eligible again is not saved: without
    // it the event would never be picked. Mark it, so it goes again once the
    // vacuum time has passed, as an event whose send failed on the network does.
    for (const auto& [key, event] : toReportEvents_) {
        if (event->lastReportTs() != 0) event->setIsWrongWifi(true);
    }
    if (loadObserver_) loadObserver_(std::move(heldBefore));
}

void ZUBEventDal::saveLastSendTime(std::int64_t seconds) {
    ZUBProStore::getInstance().setInt(seconds, std::string(kLastSendTime));
}

std::int64_t ZUBEventDal::getLastSendTime() {
    return ZUBProStore::getInstance().getIntForKey(kLastSendTime);
}
