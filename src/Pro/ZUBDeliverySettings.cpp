#include "Pro/ZUBDeliverySettings.h"

ZUBDeliverySettings& ZUBDeliverySettings::getInstance() {
    static ZUBDeliverySettings* instance = new ZUBDeliverySettings();  // never destroyed
    return *instance;
}

zub::DeliveryLimits ZUBDeliverySettings::limits() const {
    std::lock_guard lock(mutex_);
    return limits_;
}

bool ZUBDeliverySettings::setLimits(const zub::DeliveryLimits& limits) {
    if (limits.maxEventsInMemory == 0 || limits.journalBudgetBytes == 0) return false;
    std::lock_guard lock(mutex_);
    limits_ = limits;
    return true;
}
