#include "support/StoredEvents.h"

namespace zubtest {

std::vector<zub::Value> storedWhere(const zub::Value& rows, const std::function<bool(const zub::Value&)>& match) {
    std::vector<zub::Value> out;
    for (const auto& row : rows) {
        if (row.contains("event") && row["event"].is_object() && match(row["event"])) out.push_back(row["event"]);
    }
    return out;
}

}  // namespace zubtest
