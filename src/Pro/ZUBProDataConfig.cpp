#include "Pro/ZUBProDataConfig.h"

ZUBProDataConfig::ZUBProDataConfig(const zub::Coder& coder)
    : type_(coder.decodeInt64ForKey("type")),
      content_(coder.decodeStringForKey("content")),
      md5_(coder.decodeStringForKey("md5")),
      version_(coder.decodeInt64ForKey("version")) {}

void ZUBProDataConfig::encodeWithCoder(zub::Coder& coder) const {
    coder.encodeInt64(type_, "type");
    coder.encodeString(content_, "content");
    coder.encodeString(md5_, "md5");
    coder.encodeInt64(version_, "version");
}
