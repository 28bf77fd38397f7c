// ZUBProActiveEvent (type 4): how long the application was in active use between
// trackActiveBegin and trackActiveEnd ("du", at least one second). Begin and end
// run under the process-wide "_tslock" lock, including the hand-over of the event.
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstdint>

class ZUBProActiveEvent : public ZUBProEvent {
public:
    ZUBProActiveEvent();
    explicit ZUBProActiveEvent(const zub::Coder& coder);
    std::string className() const override { return "ZUBProActiveEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;
    void encode(zub::Value& envelope) override;

    static void trackActiveBegin();
    static void trackActiveEnd();

    std::uint32_t duration() const { return duration_; }
    void setDuration(std::uint32_t v) { duration_ = v; }

private:
    std::uint32_t duration_ = 0;
};
