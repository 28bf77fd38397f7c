// ZUBProDataConfig: one block of online configuration as the report server sent
// it: its type (1 the SDK block, 2 the application block), its content as compact
// JSON text, the server's checksum (kept, never checked) and its version.
// A record is immutable once made and shared between threads by pointer.
#pragma once

#include "Platform/KeyedArchiver.h"

#include <cstdint>
#include <optional>
#include <string>

class ZUBProDataConfig : public zub::Archivable {
public:
    ZUBProDataConfig() = default;
    explicit ZUBProDataConfig(const zub::Coder& coder);

    std::string className() const override { return "ZUBProDataConfig"; }
    void encodeWithCoder(zub::Coder& coder) const override;

    std::int64_t type() const { return type_; }
    void setType(std::int64_t v) { type_ = v; }
    const std::optional<std::string>& content() const { return content_; }
    void setContent(std::optional<std::string> v) { content_ = std::move(v); }
    const std::optional<std::string>& md5() const { return md5_; }
    void setMd5(std::optional<std::string> v) { md5_ = std::move(v); }
    std::int64_t version() const { return version_; }
    void setVersion(std::int64_t v) { version_ = v; }

private:
    std::int64_t type_ = 0;
    std::optional<std::string> content_;
    std::optional<std::string> md5_;
    std::int64_t version_ = 0;
};
