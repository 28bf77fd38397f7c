#include "Model/ZUBLMEvent.h"

#include "Model/ZUBSessionEvent.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"

ZUBLMEvent::ZUBLMEvent() {
    setType(1001);
}

ZUBLMEvent::ZUBLMEvent(const zub::Coder& coder) : ZUBProEvent(coder), lm_(coder.decodeStringForKey("lm")) {}

void ZUBLMEvent::encodeWithCoder(zub::Coder& coder) const {
    ZUBProEvent::encodeWithCoder(coder);
    coder.encodeString(lm_, "lm");
}

void ZUBLMEvent::encode(zub::Value& envelope) {
    if (lm_) envelope["lm"] = *lm_;
}

void ZUBLMEvent::reportLM(const std::optional<std::string>& account) {
    if (!account) return;
    auto event = std::make_shared<ZUBLMEvent>();
    event->setSid(ZUBSessionEvent::getSessionID(false));
    event->setLm(account);
    event->setTs(zub::Clock::nowSeconds());
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}
