// Flush: what a program that ends on its own calls before it returns.
#include "Common/DeviceID/ZUBProMid.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Pro/ZUBEventLogic.h"

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds remaining(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? left : std::chrono::milliseconds(0);
}

// Waits until the queue has run out of work, including tasks that running tasks
// submit (a report cycle queues the next one after each reply).
bool drain(zub::SerialQueue& queue, Clock::time_point deadline) {
    while (!queue.idle()) {
        if (!queue.flush(remaining(deadline))) return false;
    }
    return true;
}

}  // namespace

bool ZUBEventLogic::flushUntil(Clock::time_point deadline) {
    if (queue_.isCurrent()) {
        ZUBProHelper::LogDebug("[WARN]flush called on the report queue; ignored");
        return false;
    }
    // A registration in flight decides whether a cycle can run at all.
    if (!drain(ZUBProMid::getInstance().taskQueue(), deadline)) {
        ZUBProHelper::LogDebug("flush: the device registration did not finish in time");
        return false;
    }
    const std::int64_t strategy = ZUBProConfig::getInstance().reportStrategy();
    const bool send = strategy == 1 || strategy == 8 ||
                      (ZUBProConfig::getInstance().isSmartReport() && networkStatus() == 1);
    // Cycles are started here one after another for as long as each one makes
    // progress: a reply starts the next cycle only while the machine has a route
    // out, which a loopback collector does not need.
    std::size_t left = unacknowledgedCount();
    for (;;) {
        queue_.async([this, send] {
            filePendingEvents();
            if (send) reportEvents();
        });
        if (!drain(queue_, deadline)) {
            ZUBProHelper::LogDebug("flush: report cycles still running at the time limit");
            break;
        }
        const std::size_t now = unacknowledgedCount();
        if (!send || now == 0 || now >= left) {
            left = now;
            break;
        }
        left = now;
    }
    if (!send) ZUBProHelper::LogDebug("flush: strategy %@ keeps events; nothing sent", strategy);
    if (left > 0 && ZUBDeviceIDDal::getInstance().getMID().empty()) {
        ZUBProHelper::LogDebug("flush: no mid yet; events kept for a later run");
    }
    syncJournal();
    return left == 0;
}

std::size_t ZUBEventLogic::unacknowledgedCount() {
    std::size_t pending = 0;
    {
        std::lock_guard lock(pendingMutex_);
        pending = pending_.size();
    }
    std::lock_guard lock(eventListLock_);
    ZUBEventDal& store = ZUBEventDal::getInstance();
    const std::size_t onDisk = journal_ ? journal_->overflowCount() + parkedKeys_.size() : 0;
    return pending + store.toReportEvents().size() + store.retryEvents().size() + onDisk;
}
