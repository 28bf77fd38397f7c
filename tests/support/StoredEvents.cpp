#include "support/StoredEvents.h"

#include "Common/Network/ZUBProReachability.h"
#include "Pro/ZUBEventLogic.h"

#include <thread>

namespace zubtest {

zub::Value waitForStored(CollectorProcess& collector, const std::function<bool(const zub::Value&)>& done,
                         std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    ZUBEventLogic& logic = ZUBEventLogic::getInstance();
    zub::Value rows = zub::Value::array();
    for (;;) {
        logic.queue().flush(std::chrono::seconds(10));
        rows = collector.storedEvents();
        if (done(rows) || std::chrono::steady_clock::now() > deadline) return rows;
        auto reachability = ZUBProReachability::reachabilityForInternetConnection();
        if (!reachability || reachability->currentReachabilityStatus() == 0) {
            logic.queue().async([&logic] { logic.reportEvents(); });
        }
        // The collector is another process: give it a moment before asking again.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::vector<zub::Value> storedWhere(const zub::Value& rows, const std::function<bool(const zub::Value&)>& match) {
    std::vector<zub::Value> out;
    for (const auto& row : rows) {
        if (row.contains("event") && row["event"].is_object() && match(row["event"])) out.push_back(row["event"]);
    }
    return out;
}

}  // namespace zubtest
