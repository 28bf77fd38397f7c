#include "Model/ZUBProActiveEvent.h"

#include "Common/ZUBProHelper.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"

#include <mutex>

namespace {

struct ActiveState {
    std::recursive_mutex tslock;  // "_tslock"
    double lastActiveTs = 0;      // guarded by tslock; 0 = not started
};

ActiveState& state() {
    static auto* s = new ActiveState();
    return *s;
}

// Seconds truncated toward zero; a clock so far off that the value leaves the
// 64-bit range (or is not a number) gives 0 rather than an undefined conversion.
std::int64_t wholeSeconds(double seconds) {
    if (!(seconds > -9.2e18 && seconds < 9.2e18)) return 0;
    return static_cast<std::int64_t>(seconds);
}

}  // namespace

ZUBProActiveEvent::ZUBProActiveEvent() {
    setType(4);
}

ZUBProActiveEvent::ZUBProActiveEvent(const zub::Coder& coder)
    : ZUBProEvent(coder), duration_(static_cast<std::uint32_t>(coder.decodeInt64ForKey("du"))) {}

void ZUBProActiveEvent::encodeWithCoder(zub::Coder& coder) const {
    ZUBProEvent::encodeWithCoder(coder);
    coder.encodeInt64(duration_, "du");
}

void ZUBProActiveEvent::encode(zub::Value& envelope) {
    envelope["du"] = duration_;
}

void ZUBProActiveEvent::trackActiveBegin() {
    ActiveState& s = state();
    std::lock_guard lock(s.tslock);
    if (s.lastActiveTs == 0) {
        s.lastActiveTs = zub::Clock::nowDouble();
        ZUBProHelper::LogDebug("开始统计活动时间");
    } else {
        ZUBProHelper::LogDebug("统计活动时间已经开始");
    }
}

void ZUBProActiveEvent::trackActiveEnd() {
    ActiveState& s = state();
    std::lock_guard lock(s.tslock);
    if (s.lastActiveTs == 0) {
        ZUBProHelper::LogDebug("统计活动时间还没开始");
        return;
    }
    const double now = zub::Clock::nowDouble();
    // A guard against implausible spans; its gap measure is fixed at 0 in this
    // build, so it never fires.
    constexpr int kGap = 0;
    if (kGap >= 3) {
        ZUBProHelper::LogDebug("统计活动时间异常,此次统计作废");
        s.lastActiveTs = 0;
        return;
    }
    // Whole seconds toward zero, cut to 32 bits; under one second counts as one.
    auto duration = static_cast<std::uint32_t>(static_cast<std::uint64_t>(wholeSeconds(now - s.lastActiveTs)));
    if (duration == 0) duration = 1;
    auto event = std::make_shared<ZUBProActiveEvent>();
    event->setSid(ZUBSessionEvent::getSessionID(false));
    event->setTs(static_cast<std::uint64_t>(wholeSeconds(s.lastActiveTs)));
    event->setDuration(duration);
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
    s.lastActiveTs = 0;
    ZUBProHelper::LogDebug("结束统计活动时间");
}
