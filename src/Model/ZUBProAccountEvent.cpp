#include "Model/ZUBProAccountEvent.h"

#include "Model/ZUBSessionEvent.h"
#include "Pro/ZUBEventLogic.h"

ZUBProAccountEvent::ZUBProAccountEvent() {
    setType(1001);
}

ZUBProAccountEvent::ZUBProAccountEvent(const zub::Coder& coder)
    : ZUBProEvent(coder),
      zubAccount_(coder.decodeStringForKey("a")),
      accountType_(static_cast<std::uint32_t>(coder.decodeInt64ForKey("t"))),
      ext_(coder.decodeStringForKey("e")) {}

void ZUBProAccountEvent::encodeWithCoder(zub::Coder& coder) const {
    ZUBProEvent::encodeWithCoder(coder);
    coder.encodeInt64(accountType_, "t");
    coder.encodeString(zubAccount_, "a");
    coder.encodeString(ext_, "e");
}

void ZUBProAccountEvent::encode(zub::Value& envelope) {
    if (zubAccount_) envelope["lm"] = *zubAccount_;
    zub::Value acc = zub::Value::object();
    if (zubAccount_) acc["a"] = *zubAccount_;
    acc["t"] = accountType_;
    if (ext_) acc["e"] = *ext_;
    envelope["acc"] = std::move(acc);
}

void ZUBProAccountEvent::reportAccount(const std::optional<std::string>& account, std::uint64_t type,
                                       const std::optional<std::string>& ext) {
    if (!account) return;
    auto event = std::make_shared<ZUBProAccountEvent>();
    event->setSid(ZUBSessionEvent::getSessionID(false));
    event->setZubAccount(account);
    event->setType(static_cast<std::int64_t>(type));  // the account type travels as "et"
    event->setExt(ext);
    ZUBEventLogic::getInstance().reportEvent(std::move(event));
}
