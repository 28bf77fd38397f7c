// JSON helpers of ZUBProHelper, with the accept and refuse rules of the platform's
// JSON facility: a dictionary or array at the top, only JSON types inside, finite
// numbers.
#include "Common/ZUBProHelper.h"

#include <cmath>

namespace {

bool writableTree(const zub::Value& v) {
    switch (v.type()) {
        case zub::Value::value_t::binary:
        case zub::Value::value_t::discarded:
            return false;
        case zub::Value::value_t::number_float:
            return std::isfinite(v.get<double>());
        case zub::Value::value_t::object:
        case zub::Value::value_t::array:
            for (const auto& child : v) {
                if (!writableTree(child)) return false;
            }
            return true;
        default:
            return true;
    }
}

}  // namespace

bool ZUBProHelper::isValidJSONObject(const zub::Value& object) {
    return (object.is_object() || object.is_array()) && writableTree(object);
}

std::optional<std::string> ZUBProHelper::objToJson(const zub::Value& object) {
    try {
        if (!isValidJSONObject(object)) {
            trackError("error json format");
            return std::string();
        }
        return object.dump(-1, ' ', false, zub::Value::error_handler_t::strict);
    } catch (const std::exception& e) {
        trackException(e);
        return std::string();
    }
}

std::optional<zub::Value> ZUBProHelper::jsonToObj(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    zub::Value parsed = zub::Value::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    if (parsed.is_object() || parsed.is_array()) return parsed;
    trackError("An error happened while deserializing the JSON data.");
    return std::nullopt;
}

std::string ZUBProHelper::valueDescription(const zub::Value& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
    if (value.is_number_float()) {
        const double d = value.get<double>();
        if (d > -9.2e18 && d < 9.2e18 && d == static_cast<double>(static_cast<long long>(d))) {
            return std::to_string(static_cast<long long>(d));
        }
    }
    return value.dump();
}
