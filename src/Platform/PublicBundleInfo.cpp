// The public bundle-information calls of ZUBPlatform.h over zub::Bundle.
#include <ZUBCocoa/ZUBPlatform.h>

#include "Common/ZUBProHelper.h"
#include "Platform/Bundle.h"

namespace zub {

void setBundleInfo(OptionalText key, OptionalText value) {
    if (!key.has_value() || !value.has_value()) {
        ZUBProHelper::LogDebug("[WARN]setBundleInfo: absent %@ ignored", key.has_value() ? "value" : "key");
        return;
    }
    try {
        Bundle::setInfoValue(*key.text(), *value.text());
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("[ERROR]setBundleInfo failed: %@", std::string_view(e.what()));
    }
}

std::optional<std::string> bundleInfo(OptionalText key) {
    if (!key.has_value()) return std::nullopt;
    try {
        return Bundle::infoValue(*key.text());
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("[ERROR]bundleInfo failed: %@", std::string_view(e.what()));
        return std::nullopt;
    }
}

}  // namespace zub
