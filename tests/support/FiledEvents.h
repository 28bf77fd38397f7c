// The events the report pipeline has filed in the event store's waiting
// dictionary, read after the report queue has caught up. Without a registered mid
// nothing is sent, so in a fresh test process every event recorded stays there.
//
//   ZUBPro::trackPage("home", 5);
//   auto pages = zubtest::filedEvents<ZUBPageEvent>();   // flushes the queue first
//   auto json = zubtest::jsonOf(*pages.at(0));            // its serialised object
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>
#include <ZUBCocoa/ZUBValue.h>

#include <memory>
#include <vector>

namespace zubtest {

/// Waits (up to 10 s) for the report queue "ZUBHttpDispatcher"; false on time-out.
bool flushReportQueue();

/// Every waiting event, in filing order, after flushing the report queue.
std::vector<std::shared_ptr<ZUBProEvent>> allFiledEvents();

/// The waiting events of class T (exactly T, by dynamic type), in filing order.
template <class T>
std::vector<std::shared_ptr<T>> filedEvents() {
    std::vector<std::shared_ptr<T>> out;
    for (auto& event : allFiledEvents()) {
        if (auto typed = std::dynamic_pointer_cast<T>(event); typed && typeid(*event) == typeid(T)) {
            out.push_back(std::move(typed));
        }
    }
    return out;
}

/// The event's toJsonString parsed back (null when it is not JSON).
zub::Value jsonOf(ZUBProEvent& event);

/// Removes every waiting and retry event (under the store's lock).
void clearFiledEvents();

}  // namespace zubtest
