// ZUBProAccountEvent: the host's user account. The account travels twice, as
// "lm" and as "a" inside "acc" {"a","t","e"}. reportAccount stores the caller's
// account type as the event's type ("et"), so "t" stays 0 for events made there.
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstdint>
#include <optional>
#include <string>

class ZUBProAccountEvent : public ZUBProEvent {
public:
    ZUBProAccountEvent();
    explicit ZUBProAccountEvent(const zub::Coder& coder);
    std::string className() const override { return "ZUBProAccountEvent"; }
    void encodeWithCoder(zub::Coder& coder) const override;
    void encode(zub::Value& envelope) override;

    static void reportAccount(const std::optional<std::string>& account, std::uint64_t type,
                              const std::optional<std::string>& ext);

    const std::optional<std::string>& zubAccount() const { return zubAccount_; }
    void setZubAccount(std::optional<std::string> v) { zubAccount_ = std::move(v); }
    std::uint32_t accountType() const { return accountType_; }
    void setAccountType(std::uint32_t v) { accountType_ = v; }
    const std::optional<std::string>& ext() const { return ext_; }
    void setExt(std::optional<std::string> v) { ext_ = std::move(v); }

private:
    std::optional<std::string> zubAccount_;
    std::uint32_t accountType_ = 0;
    std::optional<std::string> ext_;
};
