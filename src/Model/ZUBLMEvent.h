// ZUBLMEvent (type 1001): the user's messenger account ("lm").
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <optional>
#include <string>

class ZUBLMEvent : public ZUBProEvent {
public:
    ZUBLMEvent();
    explicit ZUBLMEvent(const zub::Coder& coder);
    std::string className() const override { return "ZUBLMEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;
    void encode(zub::Value& envelope) override;

    static void reportLM(const std::optional<std::string>& account);

    const std::optional<std::string>& lm() const { return lm_; }
    void setLm(std::optional<std::string> v) { lm_ = std::move(v); }

private:
    std::optional<std::string> lm_;
};
