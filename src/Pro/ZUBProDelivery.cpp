// The host's delivery controls: flush before a program ends, and the limits.
#include <ZUBCocoa/ZUBDelivery.h>

#include "Common/ZUBProHelper.h"
#include "Pro/ZUBDeliverySettings.h"
#include "Pro/ZUBEventLogic.h"
#include "Pro/ZUBProGuard.h"

const char* const kZUBDroppedEventsID = "zub_dropped_events";

namespace zub {

bool flush(std::chrono::milliseconds timeout) {
    return zubGuarded("flush", [&] {
        return ZUBEventLogic::getInstance().flushUntil(std::chrono::steady_clock::now() + timeout);
    });
}

void setDeliveryLimits(const DeliveryLimits& limits) {
    zubGuarded("setDeliveryLimits", [&] {
        if (!ZUBDeliverySettings::getInstance().setLimits(limits)) {
            ZUBProHelper::LogDebug("[WARN]setDeliveryLimits: maxEventsInMemory %@ and journalBudgetBytes %@ "
                                   "must both be above 0; limits unchanged",
                                   static_cast<std::uint64_t>(limits.maxEventsInMemory), limits.journalBudgetBytes);
        }
    });
}

DeliveryLimits deliveryLimits() {
    return zubGuarded("deliveryLimits", [] { return ZUBDeliverySettings::getInstance().limits(); });
}

std::uint64_t droppedEventCount() {
    return ZUBDeliverySettings::getInstance().droppedCount();
}

}  // namespace zub
