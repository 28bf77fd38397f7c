// Values and bytes as the library passes them around.
//
// zub::Value stands in for property-list and JSON values. It is an ordered JSON
// value: dictionaries keep their keys in the order they were set, which is the
// order the library writes them to the wire. Binary data is the binary subtype;
// dates are seconds since 1970 as a double.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace zub {

using Value = nlohmann::ordered_json;
using Data = std::vector<std::uint8_t>;

}  // namespace zub
