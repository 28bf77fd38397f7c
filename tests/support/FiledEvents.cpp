#include "support/FiledEvents.h"

#include "Dal/ZUBEventDal.h"
#include "Pro/ZUBEventLogic.h"

#include <chrono>
#include <mutex>

namespace zubtest {

bool flushReportQueue() {
    return ZUBEventLogic::getInstance().queue().flush(std::chrono::seconds(10));
}

std::vector<std::shared_ptr<ZUBProEvent>> allFiledEvents() {
    flushReportQueue();
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    std::vector<std::shared_ptr<ZUBProEvent>> out;
    for (const auto& [key, event] : store.toReportEvents()) out.push_back(event);
    return out;
}

zub::Value jsonOf(ZUBProEvent& event) {
    const auto text = event.toJsonString();
    if (!text) return zub::Value();
    return zub::Value::parse(*text, nullptr, /*allow_exceptions=*/false);
}

void clearFiledEvents() {
    flushReportQueue();
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    store.toReportEvents().clear();
    store.retryEvents().clear();
}

}  // namespace zubtest
